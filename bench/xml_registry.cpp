// XML registry: the suite library's in-memory registry made from the text of 1 and of 500 proxy maps
// by XmlCreateReg (and released), that registry written back by GetXml, and one typed read as the
// settings layer makes it (open the map's key, query a value, close). KVTSOCK2.DLL is loaded by name
// from beside the program, as DXSOCKS.DLL finds it.
//
// Flags: --batch-ms=N (20) the least time of one timed batch; --batches=N (15) per case;
// --rows=PATH as in every benchmark.
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_util.h"
#include "suite_entries.h"

namespace {

// The SOCKS family's maps as the registry store keeps them, each with its eight values.
std::string MapsText(int maps) {
    std::string text =
        "<Registry><Key name=\"HKEY_CURRENT_USER\"><Key name=\"Software\"><Key name=\"Verdane\">"
        "<Key name=\"Network Protocols\"><Key name=\"SOCKS\"><Value name=\"Count\" type=\"REG_DWORD\" data=\"" +
        std::to_string(maps) + "\"/>";
    for (int i = 0; i < maps; ++i) {
        std::string n = std::to_string(i);
        text += "<Key name=\"Map" + n +
                "\"><Value name=\"Use Proxy\" type=\"REG_BINARY\" data=\"01\"/>"
                "<Value name=\"Basic Authentication\" type=\"REG_BINARY\" data=\"00\"/>"
                "<Value name=\"Proxy Address\" type=\"REG_SZ\" data=\"proxy" + n + ".example\"/>"
                "<Value name=\"Proxy Port\" type=\"REG_SZ\" data=\"1080\"/>"
                "<Value name=\"Proxy User\" type=\"REG_SZ\" data=\"user&amp;" + n + "\"/>"
                "<Value name=\"Destination Address\" type=\"REG_SZ\" data=\"*.host" + n + ".example\"/>"
                "<Value name=\"Destination Port\" type=\"REG_SZ\" data=\"*\"/>"
                "<Value name=\"Protocol Version\" type=\"REG_DWORD\" data=\"5\"/></Key>";
    }
    return text + "</Key></Key></Key></Key></Key></Registry>";
}

// Per-call times of `call`, in batches of at least `batchMs` each.
dxbench::Summary Time(int batchMs, int batches, const std::function<void()>& call) {
    auto batch = [&](long calls) {
        double start = dxbench::NowNs();
        for (long i = 0; i < calls; ++i) call();
        return dxbench::NowNs() - start;
    };
    return dxbench::Summarize(dxbench::BatchMeans(batch, 1, size_t{1} << 24, batchMs, batches));
}

std::string PerMap(double ns, int maps) { return dxbench::FormatNs(ns / maps) + " per map"; }

}  // namespace

int main(int argc, char** argv) {
    try {
        dxbench::Flags flags(argc, argv);
        const int batchMs = flags.Positive("batch-ms", 20);
        const int batches = flags.Positive("batches", 15);
        dxbench::ResultTable table(flags);

        char path[MAX_PATH] = {};
        DWORD length = GetModuleFileNameA(nullptr, path, MAX_PATH);
        std::string folder(path, length);
        folder = folder.substr(0, folder.find_last_of('\\') + 1);
        HMODULE suite = LoadLibraryA((folder + "KVTSOCK2.DLL").c_str());
        if (suite == nullptr) throw std::runtime_error("KVTSOCK2.DLL not beside the program");
        auto create =
            reinterpret_cast<PFN_XmlCreateReg>(reinterpret_cast<void*>(GetProcAddress(suite, "XmlCreateReg")));
        auto release =
            reinterpret_cast<PFN_XmlReleaseReg>(reinterpret_cast<void*>(GetProcAddress(suite, "XmlReleaseReg")));
        if (create == nullptr || release == nullptr) throw std::runtime_error("the factory is not exported");

        for (int maps : {1, 500}) {
            const std::string text = MapsText(maps);
            const std::string label = std::to_string(maps) + (maps == 1 ? " map" : " maps");
            dxbench::Summary made = Time(batchMs, batches, [&] {
                IXmlRegistry* registry = nullptr;
                if (create(1, text.c_str(), &registry) != 0) throw std::runtime_error("XmlCreateReg failed");
                release(registry);
            });
            table.Add("xml registry", "XmlCreateReg and release, " + label, made.count, made.median, made.p99,
                      std::to_string(text.size()) + " bytes of text; " + PerMap(made.median, maps));

            IXmlRegistry* registry = nullptr;
            if (create(1, text.c_str(), &registry) != 0) throw std::runtime_error("XmlCreateReg failed");
            size_t written = 0;
            dxbench::Summary xml = Time(batchMs, batches, [&] { written = std::strlen(registry->GetXml()); });
            table.Add("xml registry", "GetXml, " + label, xml.count, xml.median, xml.p99,
                      std::to_string(written) + " bytes written; " + PerMap(xml.median, maps));

            if (maps == 500) {
                const std::string key = "Software\\Verdane\\Network Protocols\\SOCKS\\Map" + std::to_string(maps - 1);
                dxbench::Summary read = Time(batchMs, batches, [&] {
                    HKEY opened = nullptr;
                    DWORD value = 0;
                    DWORD size = sizeof value;
                    if (registry->OpenKey(HKEY_CURRENT_USER, key.c_str(), 0, KEY_READ, &opened) != ERROR_SUCCESS ||
                        registry->QueryValue(opened, "Protocol Version", nullptr, nullptr,
                                             reinterpret_cast<BYTE*>(&value), &size) != ERROR_SUCCESS ||
                        value != 5) {
                        throw std::runtime_error("the last map's value could not be read");
                    }
                    registry->CloseKey(opened);
                });
                table.Add("xml registry", "open, query, close of a value, " + label, read.count, read.median,
                          read.p99, "the last map's Protocol Version, as the settings layer reads it");
            }
            release(registry);
        }
        return table.Print() ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "xml_registry: %s\n", error.what());
        return 1;
    }
}
