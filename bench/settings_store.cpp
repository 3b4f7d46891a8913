// Settings store: what the configuration costs to read and write. Settings texts of 1 to 500 maps
// are parsed into a document, given back as text, written to the settings file and read from it
// again; the time per map shows whether that grows linearly. A number read through the registry
// layer costs a few wineserver requests (two opens, a query or two, two closes): from the user's key,
// via HKEY_USERS\.Default when the user's key lacks it, on a miss, and from our suite library's
// in-memory registry. The older registry store's reader, ReadFromRegistry, over 1 to 1000 maps of
// the Wine registry, each holding all its values, and one map whose missing proxy address sends it
// to dxapps.ini.
//
// It uses the settings file and Software\Verdane of both hives, which it clears before and after.
// Flags: --maps=1,10,100,500 the sizes; --runs=N (15) timed runs of each operation and size;
// --batch-ms=N (20) the least time of one timed batch of reads, --batches=N (15);
// --registry-maps=1,10,100,1000 the registry store's sizes; --store-maps=1,10,100,1000 the
// settings file store's sizes; --rows=PATH.
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_util.h"
#include "config_sets.h"
#include "lifecycle.h"
#include "registry_names.h"
#include "settings_file.h"
#include "socks_config.h"
#include "suite_library.h"
#include "xml_registry.h"

namespace {

const char kMapsPath[] = "Network Protocols\\SOCKS";

using dxbench::SettingsPath;
void ClearStore() { dxbench::ClearSettingsStore(); }

// A settings text of `count` SOCKS maps and the default map, as the store writes them.
std::string SettingsText(int count) {
    std::string text = "<Settings version=\"25..2..0\"><SOCKS><Maps count=\"" + std::to_string(count) + "\">";
    for (int i = 1; i <= count + 1; ++i) {
        const std::string id = i <= count ? std::to_string(i) : "Default";
        text += "<Map id=\"" + id + "\"><DestinationAddress value=\"host" + std::to_string(i) +
                ".example\"/><DestinationPort value=\"*\"/><UseProxy value=\"1\"/><ProxyAddress value=\"10.0.0." +
                std::to_string(i % 250 + 1) + "\"/><ProxyPort value=\"1080\"/><ProxyUser value=\"user" +
                std::to_string(i) + "\"/><ProtocolVersion value=\"5\"/></Map>";
    }
    return text + "</Maps></SOCKS></Settings>";
}

template <typename Step>
dxbench::Summary TimeRuns(int runs, Step step) {
    std::vector<double> samples;
    for (int i = 0; i < runs; ++i) {
        double start = dxbench::NowNs();
        step();
        samples.push_back(dxbench::NowNs() - start);
    }
    return dxbench::Summarize(samples);
}

template <typename Read>
dxbench::Summary TimeReads(int batchMs, int batches, Read read) {
    auto batch = [&](long reads) {
        double start = dxbench::NowNs();
        for (long i = 0; i < reads; ++i) read();
        return dxbench::NowNs() - start;
    };
    return dxbench::Summarize(dxbench::BatchMeans(batch, 16, size_t{1} << 24, batchMs, batches));
}

// Least squares of time over maps: the slope, in ns per map.
double Slope(const std::vector<int>& sizes, const std::vector<double>& times) {
    double n = static_cast<double>(sizes.size()), sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (size_t i = 0; i < sizes.size(); ++i) {
        sx += sizes[i];
        sy += times[i];
        sxx += static_cast<double>(sizes[i]) * sizes[i];
        sxy += sizes[i] * times[i];
    }
    double d = n * sxx - sx * sx;
    return d != 0 ? (n * sxy - sx * sy) / d : dxbench::kNoValue;
}

void FilesAndDocuments(const dxbench::Flags& flags, dxbench::ResultTable& table) {
    const std::vector<int> sizes = flags.Counts("maps", "1,10,100,500");
    if (sizes.empty()) throw std::runtime_error("--maps names no size");
    const int runs = flags.Positive("runs", 15);
    const char* operations[] = {"parse", "GetXml", "write", "read"};
    std::vector<double> medians[4];
    for (int size : sizes) {
        const std::string text = SettingsText(size);
        CPXMSettings* document = CreateSettings(text.c_str());
        if (document == nullptr) throw std::runtime_error("a generated settings text did not parse");
        std::wstring xml;
        document->GetXml(xml);
        const dxbench::Summary parse = TimeRuns(runs, [&] { delete CreateSettings(text.c_str()); });
        const dxbench::Summary give = TimeRuns(runs, [&] {
            std::wstring again;
            document->GetXml(again);
        });
        const dxbench::Summary write = TimeRuns(runs, [&] {
            if (WriteSettingsFile(xml) != 1) throw std::runtime_error("the settings file could not be written");
        });
        // Each read replaces the process's document and keeps the former one, as the library does.
        const dxbench::Summary read = TimeRuns(runs, [&] {
            if (ReadSettingsDocument() != 1) throw std::runtime_error("the settings file could not be read");
        });
        delete document;
        const dxbench::Summary* results[] = {&parse, &give, &write, &read};
        const std::string notes[] = {
            std::to_string(text.size()) + " bytes of text into a document",
            std::to_string(xml.size()) + " characters of the root's text",
            "frame and text over the settings file, cut in place; the suite library loaded for the path",
            "the file into a new document; the suite library loaded for the path",
        };
        for (int op = 0; op < 4; ++op) {
            medians[op].push_back(results[op]->median);
            table.Add("settings store", std::string(operations[op]) + ", " + std::to_string(size) + " maps",
                      results[op]->count, results[op]->median, results[op]->p99,
                      notes[op] + "; " + dxbench::FormatNs(results[op]->median / size) + " per map");
        }
    }
    for (int op = 0; op < 4; ++op) {
        table.Add("settings store", std::string(operations[op]) + ", per map", sizes.size(),
                  Slope(sizes, medians[op]), dxbench::kNoValue,
                  "least squares over the sizes (Median column: the slope)");
    }
}

void NumberReads(const dxbench::Flags& flags, dxbench::ResultTable& table) {
    const int batchMs = flags.Positive("batch-ms", 20);
    const int batches = flags.Positive("batches", 15);
    const DWORD three = 3;
    HKEY key = nullptr;
    auto put = [&](HKEY root, const char* path) {
        if (RegCreateKeyExA(root, path, 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr) != ERROR_SUCCESS ||
            RegSetValueExA(key, "Count", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&three), sizeof three) !=
                ERROR_SUCCESS) {
            throw std::runtime_error("a value could not be placed in the registry");
        }
        RegCloseKey(key);
    };
    put(HKEY_USERS, ".Default\\Software\\Verdane\\Network Protocols\\HTTP");
    put(HKEY_CURRENT_USER, "Software\\Verdane\\Network Protocols\\SOCKS");
    CPXMXMLREG plain;
    struct Case {
        const char* name;
        const char* path;
        const char* notes;
    } cases[] = {
        {"ReadDword from the user's key", kMapsPath, "Wine registry: open both keys, one query, close both"},
        {"ReadDword via .Default", "Network Protocols\\HTTP", "user's key missing: the default profile's value"},
        {"ReadDword on a miss", "Network Protocols\\None", "neither key: the default"},
    };
    const DWORD expected[] = {3, 3, 0};
    for (size_t i = 0; i < 3; ++i) {
        if (plain.ReadDword(kUserScope, cases[i].path, "Count", 0) != expected[i]) {
            throw std::runtime_error(std::string(cases[i].name) + ": wrong value");
        }
        const dxbench::Summary s =
            TimeReads(batchMs, batches, [&] { plain.ReadDword(kUserScope, cases[i].path, "Count", 0); });
        table.Add("settings store", cases[i].name, s.count, s.median, s.p99, cases[i].notes);
    }
    CPXMXMLREG bound;
    const char text[] =
        "<Registry><Key name=\"HKEY_CURRENT_USER\"><Key name=\"Software\"><Key name=\"Verdane\">"
        "<Key name=\"Network Protocols\"><Key name=\"SOCKS\"><Value name=\"Count\" type=\"REG_DWORD\" data=\"3\"/>"
        "</Key></Key></Key></Key></Key></Registry>";
    if (bound.CreateXmlRegistry(kXmlRegistrySocks, text) != 1) {
        throw std::runtime_error("no in-memory registry (KVTSOCK2.DLL beside the program?)");
    }
    if (bound.ReadDword(kUserScope, kMapsPath, "Count", 0) != 3) throw std::runtime_error("in memory: wrong value");
    const dxbench::Summary s = TimeReads(batchMs, batches, [&] { bound.ReadDword(kUserScope, kMapsPath, "Count", 0); });
    table.Add("settings store", "ReadDword in memory", s.count, s.median, s.p99,
              "our suite library's registry made of XML text; no wineserver request");
}

// Sets a value under HKEY_CURRENT_USER\<path>, making the key.
void PutRegistryValue(const std::string& path, const char* name, DWORD type, const void* data, DWORD size) {
    HKEY key = nullptr;
    if (RegCreateKeyExA(HKEY_CURRENT_USER, path.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr) !=
            ERROR_SUCCESS ||
        RegSetValueExA(key, name, 0, type, static_cast<const BYTE*>(data), size) != ERROR_SUCCESS) {
        throw std::runtime_error("a value could not be placed in the registry");
    }
    RegCloseKey(key);
}

void PutRegistryText(const std::string& path, const char* name, const std::string& text) {
    PutRegistryValue(path, name, REG_SZ, text.c_str(), static_cast<DWORD>(text.size() + 1));
}

// A map as the older versions wrote it: every value present, so that dxapps.ini is not read.
void PutRegistryMap(const std::string& path, int i) {
    const BYTE on = 1;
    const DWORD version = 5;
    PutRegistryText(path, "Destination Address", "host" + std::to_string(i) + ".example");
    PutRegistryText(path, "Destination Port", "*");
    PutRegistryValue(path, "Use Proxy", REG_BINARY, &on, 1);
    PutRegistryText(path, "Proxy Address", "10.0.0." + std::to_string(i % 250 + 1));
    PutRegistryText(path, "Proxy Port", "1080");
    PutRegistryText(path, "Proxy User", "user" + std::to_string(i));
    PutRegistryValue(path, "Protocol Version", REG_DWORD, &version, sizeof version);
    PutRegistryValue(path, "Basic Authentication", REG_BINARY, &on, 1);
}

void RegistryStoreReads(const dxbench::Flags& flags, dxbench::ResultTable& table) {
    const std::vector<int> sizes = flags.Counts("registry-maps", "1,10,100,1000");
    const int runs = flags.Positive("runs", 15);
    const std::string family = "Software\\Verdane\\Network Protocols\\SOCKS";
    // Our strings, as the entry routine finds them at attach: without them each map's hosts would
    // seek the resource library afresh.
    g_hModule = GetModuleHandleA(nullptr);
    g_resourceLibrary.Initialise(g_hModule, "DXSOCKS.DLL");
    std::vector<double> medians;
    int stored = 0;
    ClearStore();
    for (int size : sizes) {
        // The maps of the smaller sizes stay; only the count and the new maps are written.
        for (int i = stored + 1; i <= size; ++i) {
            char name[kRegistryPathSize];
            FormatMapKeyName(name, i);
            PutRegistryMap(family + "\\" + name, i);
        }
        stored = size > stored ? size : stored;
        PutRegistryMap(family + "\\Default Map", 0);
        const DWORD count = static_cast<DWORD>(size);
        PutRegistryValue(family, "Count", REG_DWORD, &count, sizeof count);
        CSocksConfig set;
        const dxbench::Summary s = TimeRuns(runs, [&] {
            if (set.ReadFromRegistry() != 1 || set.Count() != static_cast<uint32_t>(size) + 1) {
                throw std::runtime_error("ReadFromRegistry did not read every map");
            }
        });
        medians.push_back(s.median);
        table.Add("settings store", "ReadFromRegistry, " + std::to_string(size) + " maps", s.count, s.median, s.p99,
                  "SOCKS family and its default map, 8 values each, through the registry layer; " +
                      dxbench::FormatNs(s.median / (size + 1)) + " per map");
    }
    table.Add("settings store", "ReadFromRegistry, per map", sizes.size(), Slope(sizes, medians), dxbench::kNoValue,
              "least squares over the sizes (Median column: the slope)");
    // A family key with no values at all: the default map reads dxapps.ini, here missing.
    ClearStore();
    HKEY key = nullptr;
    if (RegCreateKeyExA(HKEY_CURRENT_USER, family.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr) !=
        ERROR_SUCCESS) {
        throw std::runtime_error("the family key could not be made");
    }
    RegCloseKey(key);
    CSocksConfig set;
    const dxbench::Summary s = TimeRuns(runs, [&] {
        if (set.ReadFromRegistry() != 1 || set.Count() != 1) throw std::runtime_error("no default map");
    });
    table.Add("settings store", "ReadFromRegistry, default map from dxapps.ini", s.count, s.median, s.p99,
              "no values in the registry: three reads of the ini file (missing) besides the registry's");
    ClearStore();
}


// The proxy maps in the settings file: ReadFromXml of 1 to 1000 maps a family from the document in
// memory, WriteToXml of as many into a new document, and a migration: a SOCKS set read from the
// registry, written with the HTTP family's maps into the file, both trees deleted.
template <typename Set>
void FillStoreSet(Set& set, int count) {
    set.Clear();
    for (int i = 1; i <= count + 1; ++i) {
        CProxyMap* map = Set::NewMap();
        const std::string n = std::to_string(i);
        map->SetDestinationAddress(("host" + n + ".example").c_str());
        map->SetDestinationPort(std::to_string(1 + i % 65535).c_str());
        map->SetProxyAddress(("10.0." + std::to_string(i / 250 % 250) + "." + std::to_string(i % 250 + 1)).c_str());
        map->SetProxyUser(("user" + n).c_str());
        map->ProtocolVersion = 5;
        map->SetUseProxy(1);
        if (i > count) map->IsDefaultMap = 1;
        set.Append(map);
    }
}

void PutRegistryFamily(const char* family, int count) {
    const std::string root = std::string("Software\\Verdane\\Network Protocols\\") + family;
    const DWORD numbered = static_cast<DWORD>(count);
    PutRegistryValue(root, "Count", REG_DWORD, &numbered, sizeof numbered);
    for (int i = 1; i <= count; ++i) {
        char name[kRegistryPathSize];
        FormatMapKeyName(name, i);
        PutRegistryMap(root + "\\" + name, i);
    }
    PutRegistryMap(root + "\\Default Map", 0);
}

void XmlStore(const dxbench::Flags& flags, dxbench::ResultTable& table) {
    const std::vector<int> sizes = flags.Counts("store-maps", "1,10,100,1000");
    const int runs = flags.Positive("runs", 15);
    // Our strings, as the entry routine finds them at attach.
    g_hModule = GetModuleHandleA(nullptr);
    g_resourceLibrary.Initialise(g_hModule, "DXSOCKS.DLL");
    std::vector<double> medians[3];
    for (int size : sizes) {
        CSocksConfig socks;
        CHttpConfig http;
        FillStoreSet(socks, size);
        FillStoreSet(http, size);
        SettingsDocument = CreateSettings(nullptr);
        if (socks.WriteToXml() != 1 || http.WriteToXml() != 1) throw std::runtime_error("WriteToXml failed");
        CPXMSettings* both = SettingsDocument;
        const dxbench::Summary read = TimeRuns(runs, [&] {
            SettingsDocument = both;
            if (socks.ReadFromXml() != 1 || socks.Count() != static_cast<uint32_t>(size + 1)) {
                throw std::runtime_error("ReadFromXml read another set");
            }
        });
        // Each write into a new document, dropped afterwards.
        const dxbench::Summary write = TimeRuns(runs, [&] {
            SettingsDocument = CreateSettings(nullptr);
            if (socks.WriteToXml() != 1) throw std::runtime_error("WriteToXml failed");
            delete SettingsDocument;
            SettingsDocument = nullptr;
        });
        std::vector<double> samples;
        for (int i = 0; i < (runs < 5 ? runs : 5); ++i) {
            ClearStore();
            PutRegistryFamily("SOCKS", size);
            PutRegistryFamily("HTTP", size);
            SettingsDocument = nullptr;
            // The sets of earlier runs are left as a migration leaves the one it replaces.
            g_pSocksConfig = new CSocksConfig();
            g_pHttpConfig = new CHttpConfig();
            if (g_pSocksConfig->MigrationState != 1) throw std::runtime_error("the registry was not read");
            const double start = dxbench::NowNs();
            g_pSocksConfig->WriteConfiguration();
            samples.push_back(dxbench::NowNs() - start);
            if (g_pSocksConfig->MigrationState != 0) throw std::runtime_error("the migration did not end");
        }
        const dxbench::Summary migration = dxbench::Summarize(samples);
        medians[0].push_back(read.median);
        medians[1].push_back(write.median);
        medians[2].push_back(migration.median);
        const std::string maps = std::to_string(size) + " maps";
        table.Add("settings store", "ReadFromXml, " + maps, read.count, read.median, read.p99,
                  "SOCKS, one walk of the document holding both families; " + dxbench::FormatNs(read.median / size) +
                      " per map");
        table.Add("settings store", "WriteToXml, " + maps, write.count, write.median, write.p99,
                  "SOCKS into a new document; " + dxbench::FormatNs(write.median / size) + " per map");
        table.Add("settings store", "migration, " + maps + " a family", migration.count, migration.median,
                  migration.p99,
                  "SOCKS WriteConfiguration of a registry set: HTTP read from the registry, file written, both trees "
                  "deleted");
        delete both;
        SettingsDocument = nullptr;
    }
    const char* names[] = {"ReadFromXml", "WriteToXml", "migration"};
    for (int op = 0; op < 3; ++op) {
        table.Add("settings store", std::string(names[op]) + ", per map", sizes.size(), Slope(sizes, medians[op]),
                  dxbench::kNoValue, "least squares over the sizes (Median column: the slope)");
    }
    ClearStore();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        dxbench::Flags flags(argc, argv);
        dxbench::ResultTable table(flags);
        ClearStore();
        FilesAndDocuments(flags, table);
        NumberReads(flags, table);
        RegistryStoreReads(flags, table);
        XmlStore(flags, table);
        ClearStore();
        return table.Print() ? 0 : 1;
    } catch (const std::exception& error) {
        ClearStore();
        std::fprintf(stderr, "settings_store: %s\n", error.what());
        return 1;
    }
}
