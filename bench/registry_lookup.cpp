// Registry lookups: the time of CProxySocketManager::FindSocket with 1 to 1024 managed sockets. The
// registry is a plain list walked from its head under its lock, and a lookup takes a use of what it
// finds, so the time grows in a line with the count; the benchmark shows that line as the time per
// lookup and per managed socket.
//
// Flags: --counts=1,16,64,256,1024; --batch-ms=N (20) the least time of one timed batch;
// --batches=N (15) per count; --rows=PATH as in every benchmark.
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_util.h"
#include "proxy_socket_manager.h"
#include "proxy_socket_factory.h"

namespace {

// Handles as WinSock hands them out: multiples of 4, from an arbitrary start.
SOCKET HandleAt(int index) { return static_cast<SOCKET>(0x100 + 4 * index); }

struct Timing {
    dxbench::Summary hit;   // a random socket of the registry: on average half a walk
    dxbench::Summary miss;  // a socket the registry doesn't hold: the whole walk
};

// Lookups per batch grow until a batch lasts `batchMs`; each batch's mean time per lookup is one sample.
dxbench::Summary TimeLookups(const CProxySocketManager& manager, const std::vector<SOCKET>& keys, int batchMs,
                             int batches) {
    volatile uintptr_t sink = 0;
    auto batch = [&](size_t lookups) {
        uintptr_t found = 0;
        double start = dxbench::NowNs();
        for (size_t i = 0; i < lookups; ++i) {
            found += reinterpret_cast<uintptr_t>(manager.FindSocket(keys[i % keys.size()]).get());
        }
        double elapsed = dxbench::NowNs() - start;
        sink = sink + found;
        return elapsed;
    };
    return dxbench::Summarize(dxbench::BatchMeans(batch, keys.size(), size_t{1} << 34, batchMs, batches));
}

}  // namespace

int main(int argc, char** argv) {
    try {
        dxbench::Flags flags(argc, argv);
        std::vector<int> counts = flags.Counts("counts", "1,16,64,256,1024");
        const int batchMs = flags.Positive("batch-ms", 20);
        const int batches = flags.Positive("batches", 15);

        dxbench::ResultTable table(flags);
        std::vector<std::pair<int, double>> line;
        for (int count : counts) {
            CProxySocketManager manager(MakeProxySocket);
            for (int i = 0; i < count; ++i) {
                if (manager.AddSocket(HandleAt(i), i % 2 == 0 ? kSocksSocketType : kHttpSocketType) == nullptr) {
                    throw std::runtime_error("AddSocket failed");
                }
            }
            // The same pseudo-random order for every count, over all of its sockets.
            std::vector<SOCKET> present;
            uint32_t seed = 12345;
            for (int i = 0; i < 4096; ++i) {
                seed = seed * 1103515245u + 12345u;
                present.push_back(HandleAt(static_cast<int>((seed >> 8) % static_cast<uint32_t>(count))));
            }
            std::vector<SOCKET> absent = {HandleAt(count), HandleAt(count + 1)};
            for (SOCKET s : present) {
                if (manager.FindSocket(s) == nullptr) throw std::runtime_error("a managed socket was not found");
            }
            if (manager.FindSocket(absent[0]) != nullptr) throw std::runtime_error("an unmanaged socket was found");

            Timing timing{TimeLookups(manager, present, batchMs, batches), TimeLookups(manager, absent, batchMs, batches)};
            table.Add("registry lookup", std::to_string(count) + " sockets, managed socket", timing.hit.count,
                      timing.hit.median, timing.hit.p99,
                      dxbench::Fixed(timing.hit.median / count, 2) + " ns per lookup per managed socket");
            table.Add("registry lookup", std::to_string(count) + " sockets, unmanaged socket", timing.miss.count,
                      timing.miss.median, timing.miss.p99,
                      dxbench::Fixed(timing.miss.median / count, 2) + " ns per lookup per managed socket (whole walk)");
            line.emplace_back(count, timing.miss.median);
        }
        // Least squares over the whole walks: the cost of one more managed socket, and the fixed part.
        if (line.size() >= 2) {
            double n = static_cast<double>(line.size()), sx = 0, sy = 0, sxx = 0, sxy = 0;
            for (auto [x, y] : line) {
                sx += x;
                sy += y;
                sxx += static_cast<double>(x) * x;
                sxy += x * y;
            }
            double slope = (n * sxy - sx * sy) / (n * sxx - sx * sx);
            double intercept = (sy - slope * sx) / n;
            std::string steps;
            for (size_t i = 1; i < line.size(); ++i) {
                double added = (line[i].second - line[i - 1].second) / (line[i].first - line[i - 1].first);
                steps += (i > 1 ? ", " : "") + std::to_string(line[i - 1].first) + " to " +
                         std::to_string(line[i].first) + ": " + dxbench::Fixed(added, 2) + " ns";
            }
            table.Add("registry lookup", "line through the whole walks", line.size(), slope, dxbench::kNoValue,
                      "least squares: time = " + dxbench::Fixed(intercept, 1) + " ns + " + dxbench::Fixed(slope, 2) +
                          " ns x managed sockets (Median column: the slope); per socket added, " + steps);
        }
        return table.Print() ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "registry_lookup: %s\n", error.what());
        return 1;
    }
}
