// The identity table: what entering and taking out one SOCKS handshake's identity costs. An add and
// remove pair through the mapping, as AddIdentity and ConnectFinished make it, with 0, 50 and 99 live
// entries ahead of it (each operation maps and unmaps a view of its own and walks the slots up to
// highWater); and the whole per-handshake round of open, add, remove and close, once with the block
// held by another handle and once with the block created fresh each time.
//
// Flags: --batch-ms=N (20) the least time of one timed batch; --batches=N (15) per case; --rows=PATH
// as in every benchmark. It fills the prefix's one block, so it runs beside no SOCKS handshake.
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_util.h"
#include "identity_mapping.h"

namespace {

constexpr unsigned kProxyPort = 1080;
constexpr unsigned kOwnPort = 50000;

// Rounds per batch grow until a batch lasts `batchMs`; each batch's mean time per round is one sample.
dxbench::Summary TimeRounds(const std::function<void()>& round, int batchMs, int batches) {
    auto batch = [&](size_t rounds) {
        double start = dxbench::NowNs();
        for (size_t i = 0; i < rounds; ++i) round();
        return dxbench::NowNs() - start;
    };
    return dxbench::Summarize(dxbench::BatchMeans(batch, 1, size_t{1} << 30, batchMs, batches));
}

bool BlockExists() {
    HANDLE mapping = OpenFileMappingA(FILE_MAP_READ, FALSE, kIdentityTableName);
    if (mapping == nullptr) return false;
    CloseHandle(mapping);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        dxbench::Flags flags(argc, argv);
        const int batchMs = flags.Positive("batch-ms", 20);
        const int batches = flags.Positive("batches", 15);
        if (BlockExists()) throw std::runtime_error("the identity table is open: a SOCKS handshake is under way");
        dxbench::ResultTable table(flags);

        HANDLE held = IdentityOpen(FILE_MAP_WRITE);
        if (held == nullptr) throw std::runtime_error("IdentityOpen failed");
        unsigned live = 0;
        for (unsigned target : {0u, 50u, 99u}) {
            for (; live < target; ++live) {
                if (!IdentityAdd(held, 1000 + live, kProxyPort, "someone")) throw std::runtime_error("IdentityAdd failed");
            }
            bool entered = true;
            dxbench::Summary pair = TimeRounds(
                [&] {
                    entered = IdentityAdd(held, kOwnPort, kProxyPort, "nobody") != 0 && entered;
                    IdentityRemove(held, kOwnPort, kProxyPort);
                },
                batchMs, batches);
            if (!entered) throw std::runtime_error("an add failed while timed");
            table.Add("identity table", "add and remove, " + std::to_string(target) + " live entries", pair.count,
                      pair.median, pair.p99,
                      "two views of 7656 bytes; the walks reach slot " + std::to_string(target));
        }

        // What AddIdentity and ConnectFinished do with the table for one handshake.
        auto handshake = [] {
            HANDLE mapping = IdentityOpen(FILE_MAP_WRITE);
            IdentityAdd(mapping, kOwnPort, kProxyPort, "nobody");
            IdentityRemove(mapping, kOwnPort, kProxyPort);
            CloseHandle(mapping);
        };
        dxbench::Summary round = TimeRounds(handshake, batchMs, batches);
        table.Add("identity table", "open, add, remove, close; block held elsewhere", round.count, round.median,
                  round.p99, "what one SOCKS handshake adds while another holds the block (99 live entries)");
        CloseHandle(held);
        if (BlockExists()) throw std::runtime_error("the block outlived its last handle");

        dxbench::Summary fresh = TimeRounds(handshake, batchMs, batches);
        table.Add("identity table", "open, add, remove, close; block created each time", fresh.count, fresh.median,
                  fresh.p99, "what a lone SOCKS handshake adds: the block is made, zeroed and freed");
        return table.Print() ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "identity_table: %s\n", error.what());
        return 1;
    }
}
