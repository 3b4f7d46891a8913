// Proxy determination: what a connect without a named proxy costs. SOCKS_DetermineProxyEx alone over
// settings files of 1 to 1000 maps whose destination only the default map takes (so that the pick
// walks them all); a blocking SOCKS 5 connect via danted that determines its proxy from a file of
// 10 maps, beside the same connect through a named proxy; and the memory a process keeps over many
// determinations of an unchanged file (its document reused) and of a file rewritten each time (each
// read makes a document that is never released).
//
// The prefix's settings file is saved first and put back at the end.
// Flags: --maps=1,10,100,1000 the sizes; --runs=N (15) timed determinations of each size;
// --count=N (200) connects of each kind; --memory-count=N (10000) determinations of each memory case;
// --hold-suite keeps the suite library loaded for the whole run, as a host that loaded it itself
// would (our suite library stays loaded once loaded, so this should change nothing);
// --bench-env=PATH; --rows=PATH.
#include <winsock2.h>
#include <windows.h>
#include <shlobj.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_util.h"
#include "socks_api.h"

namespace {

// Told after each case's name when the suite library is held.
std::string g_caseSuffix;

std::string SuitePath();

std::string SettingsPath() {
    char folder[MAX_PATH] = {};
    if (FAILED(SHGetFolderPathA(nullptr, CSIDL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, folder))) return "";
    return std::string(folder) + "\\Zelmont\\Verdane\\Settings.xml";
}

void WriteFile(const std::string& path, const std::string& bytes) {
    for (size_t slash = path.find('\\', 3); slash != std::string::npos; slash = path.find('\\', slash + 1)) {
        CreateDirectoryA(path.substr(0, slash).c_str(), nullptr);
    }
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!file) throw std::runtime_error("the settings file could not be written");
}

// The prefix's settings file as it was, put back when the program ends.
class SavedSettings {
public:
    SavedSettings() : path_(SettingsPath()) {
        if (path_.empty()) throw std::runtime_error("no application data folder");
        std::ifstream file(path_, std::ios::binary);
        had_ = static_cast<bool>(file);
        if (had_) bytes_.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    ~SavedSettings() {
        if (had_) {
            try {
                WriteFile(path_, bytes_);
            } catch (...) {
            }
        } else {
            DeleteFileA(path_.c_str());
        }
    }
    const std::string& Path() const { return path_; }

private:
    std::string path_;
    bool had_ = false;
    std::string bytes_;
};

// A settings file of `count` SOCKS maps for other destinations and the default map, which names
// danted with SOCKS 5. `salt` changes the text without changing its size.
std::string SettingsText(int count, uint16_t dantePort, char salt = 'a') {
    std::string maps;
    auto value = [](const char* name, const std::string& v) { return std::string("<") + name + " value=\"" + v + "\"/>"; };
    for (int i = 1; i <= count + 1; ++i) {
        const bool isDefault = i > count;
        maps += "<Map id=\"" + (isDefault ? std::string("Default") : std::to_string(i)) + "\">";
        if (!isDefault) {
            maps += value("DestinationAddress", "host" + std::to_string(i) + "." + salt + ".example") +
                    value("DestinationPort", "*");
        }
        maps += value("BasicAuthentication", "0") + value("ProtocolVersion", "5") +
                value("ProxyAddress", isDefault ? "127.0.0.1" : "10.0.0." + std::to_string(i % 250 + 1)) +
                value("ProxyPort", isDefault ? std::to_string(dantePort) : "1080") + value("ProxyUser", "") +
                value("UseProxy", "1") + "</Map>";
    }
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<!DOCTYPE Settings>\r\n"
           "<Settings version=\"25..2..0\"><Proxies><Proxy type=\"SOCKS\"><Maps count=\"" +
           std::to_string(count) + "\">" + maps + "</Maps></Proxy></Proxies></Settings>";
}

// One determination for the echo server's address; throws unless danted is the answer.
void Determine(uint16_t echo, uint16_t dantePort) {
    sockaddr_in proxy = {};
    char user[512] = {};
    unsigned version = 0;
    int family = AF_INET;
    if (SOCKS_DetermineProxyEx("127.0.0.1", echo, &proxy, sizeof proxy, user, sizeof user, &version, &family) != 1 ||
        ntohs(proxy.sin_port) != dantePort || version != 5) {
        throw std::runtime_error("the determination did not give danted's map");
    }
}

// What each settings file read costs before the file: the suite library beside the program loaded
// for the file's path and released again.
void SuiteLibraryForThePath(const dxbench::Flags& flags, dxbench::ResultTable& table) {
    const int runs = flags.Positive("runs", 15);
    const std::string path = SuitePath();
    using SettingsFile = DWORD(WINAPI*)(char*, DWORD);
    const dxbench::Summary s = dxbench::TimeRuns(runs, [&] {
        HMODULE suite = LoadLibraryA(path.c_str());
        if (suite == nullptr) throw std::runtime_error("no KVTSOCK2.DLL beside the program");
        auto entry = reinterpret_cast<SettingsFile>(
            reinterpret_cast<void*>(GetProcAddress(suite, "PXMMSIgetGlobalSettingsFile")));
        char file[MAX_PATH] = {};
        if (entry != nullptr) entry(file, MAX_PATH);
        FreeLibrary(suite);
    });
    table.Add("determination", "suite library loaded for the file's path and released" + g_caseSuffix, s.count, s.median, s.p99,
              "what each determination's read of the settings file spends before it looks at the file");
}

void DeterminationAlone(const dxbench::Flags& flags, const dxbench::BenchFile& bench, const SavedSettings& saved,
                        dxbench::ResultTable& table) {
    const std::vector<int> sizes = flags.Counts("maps", "1,10,100,1000");
    const int runs = flags.Positive("runs", 15);
    const uint16_t dante = bench.Port("DANTE_PORT");
    const uint16_t echo = bench.Port("ECHO_PORT");
    std::vector<double> medians;
    for (int size : sizes) {
        WriteFile(saved.Path(), SettingsText(size, dante));
        Determine(echo, dante);  // the first read parses; the timed ones find the file unchanged
        const dxbench::Summary s = dxbench::TimeRuns(runs, [&] { Determine(echo, dante); });
        medians.push_back(s.median);
        const bool target = size < 1000 || s.median < 20e6;
        table.Add("determination", "SOCKS_DetermineProxyEx, " + std::to_string(size) + " maps" + g_caseSuffix, s.count, s.median,
                  s.p99,
                  "unchanged file: its document reused, the set rebuilt from the text kept from its walk, every map "
                      "compared; " +
                      dxbench::FormatNs(s.median / (size + 1)) + " per map" +
                      (size == 1000 ? std::string(", target under 20 ms: ") + (target ? "met" : "missed") : ""));
    }
    if (sizes.size() > 1) {
        table.Add("determination", "SOCKS_DetermineProxyEx, per map" + g_caseSuffix, sizes.size(), dxbench::Slope(sizes, medians),
                  dxbench::kNoValue,
                  "least squares over the sizes (Median column: the slope): a map rebuilt from the text its family "
                  "kept of the unchanged document, and PickProxy's three log lines formatted for it, no callback");
    }
}

// One blocking SOCKS 5 connect to the echo server and a close; `named` names danted first.
double Connect(bool named, uint16_t dante, uint16_t echo) {
    SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (s == INVALID_SOCKET) throw std::runtime_error("no socket");
    const double start = dxbench::NowNs();
    if (named) {
        sockaddr_in proxy = dxbench::Loopback(dante);
        SOCKS_SetProxyEx(s, &proxy, sizeof proxy, "", 5);
    }
    const int result = SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET);
    const double took = dxbench::NowNs() - start;
    SOCKS_closesocket(s);
    if (result != 0) throw std::runtime_error("a connect via danted failed");
    return took;
}

void ConnectRatio(const dxbench::Flags& flags, const dxbench::BenchFile& bench, const SavedSettings& saved,
                  dxbench::ResultTable& table) {
    const int count = flags.Positive("count", 200);
    const uint16_t dante = bench.Port("DANTE_PORT");
    const uint16_t echo = bench.Port("ECHO_PORT");
    WriteFile(saved.Path(), SettingsText(10, dante));
    Connect(false, dante, echo);
    Connect(true, dante, echo);
    std::vector<double> named, determined;
    // Alternated, so that a drift of the machine falls on both alike.
    for (int i = 0; i < count; ++i) {
        named.push_back(Connect(true, dante, echo));
        determined.push_back(Connect(false, dante, echo));
    }
    const dxbench::Summary n = dxbench::Summarize(named);
    const dxbench::Summary d = dxbench::Summarize(determined);
    const double ratio = d.median / n.median;
    table.Add("determination", "SOCKS 5 connect, named proxy" + g_caseSuffix, n.count, n.median, n.p99,
              "via danted: SOCKS_SetProxyEx, then SOCKS_ConnectEx, and a close");
    table.Add("determination", "SOCKS 5 connect, determined from 10 maps" + g_caseSuffix, d.count, d.median, d.p99,
              "via danted: SOCKS_ConnectEx on a socket named no proxy, the unchanged file's map; ratio to the "
              "named connect " +
                  dxbench::Fixed(ratio, 3) + " (target at most 1.25: " + (ratio <= 1.25 ? "met" : "missed") + ")");
}

// The process's committed private memory, region by region (Wine leaves the counters of
// GetProcessMemoryInfo at 0).
double PrivateBytes() {
    double total = 0;
    const char* address = nullptr;
    MEMORY_BASIC_INFORMATION region;
    while (VirtualQuery(address, &region, sizeof region) == sizeof region) {
        if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE) total += static_cast<double>(region.RegionSize);
        const char* next = static_cast<const char*>(region.BaseAddress) + region.RegionSize;
        if (next <= address) break;
        address = next;
    }
    return total;
}

void Memory(const dxbench::Flags& flags, const dxbench::BenchFile& bench, const SavedSettings& saved,
            dxbench::ResultTable& table) {
    const int count = flags.Positive("memory-count", 10000);
    const uint16_t dante = bench.Port("DANTE_PORT");
    const uint16_t echo = bench.Port("ECHO_PORT");
    const std::string texts[2] = {SettingsText(10, dante, 'a'), SettingsText(10, dante, 'b')};
    WriteFile(saved.Path(), texts[0]);
    Determine(echo, dante);
    double before = PrivateBytes();
    for (int i = 0; i < count; ++i) Determine(echo, dante);
    double grown = PrivateBytes() - before;
    table.Add("determination", "memory kept, unchanged file of 10 maps" + g_caseSuffix, static_cast<size_t>(count),
              dxbench::kNoValue, dxbench::kNoValue,
              "private bytes grew by " + dxbench::Fixed(grown / 1024, 1) + " KiB, " + dxbench::Fixed(grown / count, 1) +
                  " bytes per determination: the document is reused");
    before = PrivateBytes();
    for (int i = 0; i < count; ++i) {
        // The same size, another text and a new time: read as a new file.
        WriteFile(saved.Path(), texts[(i + 1) % 2]);
        Determine(echo, dante);
    }
    grown = PrivateBytes() - before;
    table.Add("determination", "memory kept, file of 10 maps rewritten each time" + g_caseSuffix, static_cast<size_t>(count),
              dxbench::kNoValue, dxbench::kNoValue,
              "private bytes grew by " + dxbench::Fixed(grown / 1024, 1) + " KiB, " + dxbench::Fixed(grown / count, 1) +
                  " bytes per determination: each read's document is never released");
}

// The suite library beside the program.
std::string SuitePath() {
    char program[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, program, MAX_PATH);
    std::string path = program;
    return path.substr(0, path.rfind('\\') + 1) + "KVTSOCK2.DLL";
}

}  // namespace

int main(int argc, char** argv) {
    try {
        dxbench::Flags flags(argc, argv);
        HMODULE held = nullptr;
        if (flags.Has("hold-suite")) {
            held = LoadLibraryA(SuitePath().c_str());
            if (held == nullptr) throw std::runtime_error("no KVTSOCK2.DLL beside the program");
            g_caseSuffix = " (suite library held)";
        }
        dxbench::BenchFile bench(flags);
        dxbench::ResultTable table(flags);
        dxbench::Winsock winsock;
        {
            SavedSettings saved;
            SuiteLibraryForThePath(flags, table);
            DeterminationAlone(flags, bench, saved, table);
            ConnectRatio(flags, bench, saved, table);
            Memory(flags, bench, saved, table);
        }
        if (held != nullptr) FreeLibrary(held);
        return table.Print() ? 0 : 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_determination: %s\n", e.what());
        return 1;
    }
}
