// The resolver functions the library binds: the IPv4 emulation's getaddrinfo, which serves a system
// whose socket library lacks one, beside the system's (Wine's), for a dotted address and for
// "localhost"; each call with its freeaddrinfo.
//
// Flags: --batch-ms=N (20) the least time of one timed batch; --batches=N (15); --rows=PATH as in
// every benchmark.
#include <winsock2.h>

#include <ws2tcpip.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_util.h"
#include "resolver.h"

namespace {

using GetAddrInfoCall = int(WSAAPI*)(const char*, const char*, const addrinfo*, addrinfo**);
using FreeAddrInfoCall = void(WSAAPI*)(addrinfo*);

// Calls per batch grow until a batch lasts `batchMs`; each batch's mean time per call is one sample.
dxbench::Summary TimeCalls(GetAddrInfoCall resolve, FreeAddrInfoCall release, const char* node, int batchMs,
                           int batches) {
    addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    auto batch = [&](size_t calls) {
        double start = dxbench::NowNs();
        for (size_t i = 0; i < calls; ++i) {
            addrinfo* chain = nullptr;
            if (resolve(node, "1080", &hints, &chain) != 0) throw std::runtime_error(std::string("no answer for ") + node);
            release(chain);
        }
        return dxbench::NowNs() - start;
    };
    return dxbench::Summarize(dxbench::BatchMeans(batch, 1, size_t{1} << 30, batchMs, batches));
}

}  // namespace

int main(int argc, char** argv) {
    try {
        dxbench::Flags flags(argc, argv);
        dxbench::Winsock winsock;
        const int batchMs = flags.Positive("batch-ms", 20);
        const int batches = flags.Positive("batches", 15);

        dxbench::ResultTable table(flags);
        for (const char* node : {"127.0.0.1", "localhost"}) {
            const dxbench::Summary emulated = TimeCalls(&LegacyGetAddrInfo, &LegacyFreeAddrInfo, node, batchMs, batches);
            const dxbench::Summary system = TimeCalls(&getaddrinfo, &freeaddrinfo, node, batchMs, batches);
            table.Add("resolver", std::string("emulated getaddrinfo, ") + node, emulated.count, emulated.median,
                      emulated.p99,
                      "with freeaddrinfo; " + dxbench::Fixed(emulated.median / system.median, 2) + "x Wine's");
            table.Add("resolver", std::string("Wine's getaddrinfo, ") + node, system.count, system.median, system.p99,
                      "with freeaddrinfo; the function the library binds");
        }
        return table.Print() ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "resolver: %s\n", error.what());
        return 1;
    }
}
