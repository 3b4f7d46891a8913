// Proxy maps: the time of PickProxy over 1 to 1000 maps where only the default map (the last) takes
// the destination, with no log callback and with an Ex callback. The walk is linear by design and
// logs a line per map, so the time is stated per map; beside it, one comparison of two host names.
// Then the proxy's address of a map: from its cache, against a first look-up of "localhost".
//
// Flags: --maps=1,10,100,1000; --batch-ms=N (20) the least time of one timed batch; --batches=N (15)
// per case; --lookups=N (200) first look-ups timed; --rows=PATH as in every benchmark.
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_util.h"
#include "lifecycle.h"
#include "socks_api.h"
#include "socks_config.h"
#include "suite_library.h"

namespace {

volatile long g_lines = 0;

void ExCallback(void*, const char* text) {
    if (text[0] != '\0') g_lines = g_lines + 1;
}

// `count` maps: numbered maps of hosts the destination never is, then the default map.
void Fill(CSocksConfig& set, int count) {
    for (int i = 1; i < count; ++i) {
        CProxyMap* map = CSocksConfig::NewMap();
        map->SetDestinationAddress(("host-" + std::to_string(i) + ".example").c_str());
        map->SetDestinationPort("80");
        set.Append(map);
    }
    CProxyMap* fallback = CSocksConfig::NewMap();
    fallback->IsDefaultMap = 1;
    set.Append(fallback);
}

// Picks per batch grow until a batch lasts `batchMs`; each batch's mean time per pick is one sample.
dxbench::Summary TimePicks(const CSocksConfig& set, int batchMs, int batches) {
    const CListNode* last = set.At(set.Count() - 1);
    auto batch = [&](long picks) {
        double start = dxbench::NowNs();
        for (long i = 0; i < picks; ++i) {
            if (set.PickProxy("destination.example", 443) != last) throw std::runtime_error("not the default map");
        }
        return dxbench::NowNs() - start;
    };
    return dxbench::Summarize(dxbench::BatchMeans(batch, 1, size_t{1} << 28, batchMs, batches));
}

}  // namespace

int main(int argc, char** argv) {
    try {
        dxbench::Flags flags(argc, argv);
        std::vector<int> counts = flags.Counts("maps", "1,10,100,1000");
        const int batchMs = flags.Positive("batch-ms", 20);
        const int batches = flags.Positive("batches", 15);
        const int lookups = flags.Positive("lookups", 200);
        WSADATA data;
        if (WSAStartup(MAKEWORD(2, 2), &data) != 0) throw std::runtime_error("WSAStartup failed");
        // Our strings, as the entry routine finds them at attach.
        g_hModule = GetModuleHandleA(nullptr);
        g_resourceLibrary.Initialise(g_hModule, "DXSOCKS.DLL");
        dxbench::ResultTable table(flags);

        for (int count : counts) {
            const std::string maps = std::to_string(count) + (count == 1 ? " map" : " maps");
            CSocksConfig set;
            Fill(set, count);
            SOCKS_SetLoggingCallbackEx(nullptr, nullptr);
            dxbench::Summary silent = TimePicks(set, batchMs, batches);
            table.Add("proxy maps", "PickProxy, " + maps + ", no callback", silent.count,
                      silent.median, silent.p99,
                      dxbench::FormatNs(silent.median / count) + " per map; " + std::to_string(count + 2) +
                          " log lines formatted per pick, delivered nowhere");
            g_lines = 0;
            SOCKS_SetLoggingCallbackEx(nullptr, ExCallback);
            dxbench::Summary logged = TimePicks(set, batchMs, batches);
            SOCKS_SetLoggingCallbackEx(nullptr, nullptr);
            if (g_lines == 0) throw std::runtime_error("the Ex callback got no line");
            table.Add("proxy maps", "PickProxy, " + maps + ", Ex callback", logged.count,
                      logged.median, logged.p99,
                      dxbench::FormatNs(logged.median / count) + " per map; " +
                          dxbench::FormatNs(logged.median / (count + 2)) + " per log line");
        }

        // What a map that does not match costs beside its log line: two comparisons by the user's locale.
        volatile int compared = 0;
        auto compareBatch = [&](long calls) {
            double start = dxbench::NowNs();
            for (long i = 0; i < calls; ++i) {
                compared = compared + CompareByUserLocale("destination.example", "host-1.example");
            }
            return dxbench::NowNs() - start;
        };
        long compares = 1;
        while (compareBatch(compares) < batchMs * 1e6 && compares < (1L << 28)) compares *= 2;
        std::vector<double> perCompare;
        for (int i = 0; i < batches; ++i) perCompare.push_back(compareBatch(compares) / static_cast<double>(compares));
        dxbench::Summary comparison = dxbench::Summarize(perCompare);
        table.Add("proxy maps", "lstrcmpiA of two host names", comparison.count, comparison.median, comparison.p99,
                  "median of batch means; PickProxy compares twice per map that does not match");

        CProxyMap map;
        map.SetProxyAddress("localhost");
        const uint32_t loopback = inet_addr("127.0.0.1");
        if (map.GetProxyAddressNumber() != loopback) throw std::runtime_error("localhost did not resolve");
        auto cachedBatch = [&](long calls) {
            uint32_t sum = 0;
            double start = dxbench::NowNs();
            for (long i = 0; i < calls; ++i) sum += map.GetProxyAddressNumber();
            double elapsed = dxbench::NowNs() - start;
            if (sum == 0) throw std::runtime_error("the cache gave 0");
            return elapsed;
        };
        long calls = 1;
        while (cachedBatch(calls) < batchMs * 1e6 && calls < (1L << 30)) calls *= 2;
        std::vector<double> perCall;
        for (int i = 0; i < batches; ++i) perCall.push_back(cachedBatch(calls) / static_cast<double>(calls));
        dxbench::Summary cached = dxbench::Summarize(perCall);
        table.Add("proxy maps", "GetProxyAddressNumber, cached", cached.count, cached.median, cached.p99,
                  "median of batch means; the address the first call of the map cached");

        std::vector<double> firsts;
        for (int i = 0; i < lookups; ++i) {
            map.SetProxyAddress("localhost");  // a host set anew is resolved anew
            double start = dxbench::NowNs();
            uint32_t address = map.GetProxyAddressNumber();
            firsts.push_back(dxbench::NowNs() - start);
            if (address != loopback) throw std::runtime_error("localhost did not resolve");
        }
        dxbench::Summary first = dxbench::Summarize(firsts);
        table.Add("proxy maps", "GetProxyAddressNumber, first look-up of localhost", first.count, first.median,
                  first.p99,
                  "gethostbyname after inet_addr declined; " + dxbench::Fixed(first.median / cached.median, 0) +
                      " times the cached call");
        WSACleanup();
        return table.Print() ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "proxy_maps: %s\n", error.what());
        return 1;
    }
}
