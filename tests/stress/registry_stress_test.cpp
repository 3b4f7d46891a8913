// Many host threads on the one registry of sockets: eight threads connect blocking sockets while a
// ninth runs non-blocking connects through the family's hidden window, 50 connects each, through
// danted (SOCKS 4 and 5) and squid (HTTP). Every connect must carry a line to the echo server behind
// the proxy and back, every non-blocking one must get exactly one FD_CONNECT, and the heaps must be
// whole afterwards; heap_checked_run.sh adds Wine's own checks on every allocation and free.
//
// DXTEST_STRESS_CONNECTS changes the connects per thread (default 50).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "bench.h"
#include "host_window.h"
#include "http_api.h"
#include "socks_api.h"
#include "stress_support.h"

namespace {

using dxstress::Family;

constexpr int kBlockingThreads = 8;
// The non-blocking thread keeps this many handshakes on the hidden thread at once.
constexpr int kNonBlockingBatch = 5;
constexpr int kFdConnectWaitMs = 10000;
constexpr int kEchoWaitMs = 5000;
// Each phase takes a few seconds; the three together stay below the CTest time-out.
constexpr int kPhaseLimitMs = 30000;

enum class Kind { kSocks4, kSocks5, kHttp };

const char* Name(Kind kind) {
    switch (kind) {
        case Kind::kSocks4: return "SOCKS 4";
        case Kind::kSocks5: return "SOCKS 5";
        case Kind::kHttp: return "HTTP";
    }
    return "?";
}

Family FamilyOf(Kind kind) { return kind == Kind::kHttp ? Family::kHttp : Family::kSocks; }

int ConnectsPerThread() {
    const char* text = std::getenv("DXTEST_STRESS_CONNECTS");
    int count = text != nullptr ? std::atoi(text) : 50;
    return count > 0 ? count : 50;
}

struct Proxies {
    sockaddr_in dante = dxtest::Loopback(dxtest::BenchPort("DANTE_PORT"));
    sockaddr_in squid = dxtest::Loopback(dxtest::BenchPort("SQUID_PORT"));
    uint16_t echo = dxtest::BenchPort("ECHO_PORT");
};

// Names the socket's proxy; false if the library kept no state for it.
bool SetProxy(const Proxies& proxies, SOCKET s, Kind kind) {
    switch (kind) {
        case Kind::kSocks4: return SOCKS_SetProxyEx(s, &proxies.dante, sizeof proxies.dante, "", 4) == 0;
        case Kind::kSocks5: return SOCKS_SetProxyEx(s, &proxies.dante, sizeof proxies.dante, "", 5) == 0;
        case Kind::kHttp: return HTTP_SetProxy(s, &proxies.squid, sizeof proxies.squid, "", 0) == 0;
    }
    return false;
}

int Connect(const Proxies& proxies, SOCKET s, Kind kind) {
    return kind == Kind::kHttp ? HTTP_ConnectEx(s, "127.0.0.1", proxies.echo, nullptr, AF_INET)
                               : SOCKS_ConnectEx(s, "127.0.0.1", proxies.echo, nullptr, AF_INET);
}

int Close(SOCKET s, Kind kind) { return kind == Kind::kHttp ? HTTP_closesocket(s) : SOCKS_closesocket(s); }

// Which kinds a phase connects with: blocking thread t takes kinds[(t + i) % size] for its i-th
// connect, the non-blocking thread kinds[i % size].
struct Phase {
    const char* name;
    std::vector<Kind> kinds;
};

struct Tally {
    std::mutex mutex;
    int blockingDone = 0;
    int nonBlockingDone = 0;
    std::map<Kind, int> byKind;
    void Count(Kind kind, bool blocking) {
        std::lock_guard<std::mutex> lock(mutex);
        (blocking ? blockingDone : nonBlockingDone) += 1;
        byKind[kind] += 1;
    }
};

std::string Where(const char* who, int thread, int connect, Kind kind) {
    return std::string(who) + " " + std::to_string(thread) + ", connect " + std::to_string(connect) + " (" +
           Name(kind) + ")";
}

// The time left before `deadline`, at least a little, at most `ms`.
int Within(double deadline, int ms) {
    return std::max(100, std::min(ms, static_cast<int>(deadline - dxstress::NowMs())));
}

void BlockingThread(int thread, int connects, const Phase& phase, const Proxies& proxies, HANDLE go, double deadline,
                    dxstress::Failures& failures, Tally& tally) {
    WaitForSingleObject(go, 30000);
    for (int i = 0; i < connects; ++i) {
        Kind kind = phase.kinds[static_cast<size_t>(thread + i) % phase.kinds.size()];
        const std::string where = Where("blocking thread", thread, i, kind);
        if (dxstress::NowMs() > deadline) {
            failures.Add(where + ": out of time");
            return;
        }
        SOCKET s = dxstress::NewSocket(false);
        if (s == INVALID_SOCKET) {
            failures.Add(where + ": no socket");
            return;
        }
        // A handshake that lost its state would wait in recv for ever; this ends it as a failure.
        dxstress::SetReceiveTimeout(s, 10000);
        if (!SetProxy(proxies, s, kind)) failures.Add(where + ": the proxy was not taken");
        int result = Connect(proxies, s, kind);
        if (result != 0) {
            failures.Add(where + ": connect returned " + std::to_string(result) + ", WinSock error " +
                         std::to_string(WSAGetLastError()));
        } else {
            const std::string line = "blocking " + std::to_string(thread) + "/" + std::to_string(i) + "\n";
            std::string back;
            if (!dxtest::SendAll(s, line) ||
                (back = dxtest::Receive(s, line.size(), Within(deadline, kEchoWaitMs))) != line) {
                failures.Add(where + ": the echo server's line came back as '" + back + "'");
            } else {
                tally.Count(kind, true);
            }
        }
        int closed = Close(s, kind);
        if (closed != 0) failures.Add(where + ": close returned " + std::to_string(closed));
    }
}

// Starts the hidden threads it needs, then lets every thread go.
void NonBlockingThread(int connects, const Phase& phase, const Proxies& proxies, HANDLE go, double deadline,
                       dxstress::Failures& failures, Tally& tally) {
    bool socks = false, http = false;
    for (Kind kind : phase.kinds) (FamilyOf(kind) == Family::kHttp ? http : socks) = true;
    if (socks && SOCKS_Startup(nullptr, 0) != 1) failures.Add("SOCKS_Startup failed");
    if (http && HTTP_Startup(nullptr, 0) != 1) failures.Add("HTTP_Startup failed");
    dxtest::HostWindow host;
    const UINT message = dxtest::HostWindow::kSocketMessage;
    SetEvent(go);

    for (int first = 0; first < connects; first += kNonBlockingBatch) {
        if (dxstress::NowMs() > deadline) {
            failures.Add("non-blocking thread: out of time at connect " + std::to_string(first));
            break;
        }
        struct Pending {
            SOCKET s;
            Kind kind;
            int index;
        };
        std::vector<Pending> batch;
        const size_t seenBefore = host.Messages().size();
        for (int i = first; i < connects && i < first + kNonBlockingBatch; ++i) {
            Kind kind = phase.kinds[static_cast<size_t>(i) % phase.kinds.size()];
            const std::string where = Where("non-blocking thread", 0, i, kind);
            SOCKET s = dxstress::NewSocket(false);
            if (s == INVALID_SOCKET) {
                failures.Add(where + ": no socket");
                continue;
            }
            int selected = kind == Kind::kHttp ? HTTP_WSAAsyncSelect(s, host.Handle(), message, FD_CONNECT | FD_READ)
                                               : SOCKS_WSAAsyncSelect(s, host.Handle(), message, FD_CONNECT | FD_READ);
            if (selected != 0) failures.Add(where + ": the selection returned " + std::to_string(selected));
            if (!SetProxy(proxies, s, kind)) failures.Add(where + ": the proxy was not taken");
            int result = Connect(proxies, s, kind);
            if (result != 0) {
                failures.Add(where + ": connect returned " + std::to_string(result) + " at once");
                Close(s, kind);
                continue;
            }
            batch.push_back({s, kind, i});
        }
        auto connectsFor = [&](SOCKET s) {
            std::vector<dxtest::PostedMessage> found;
            for (size_t m = seenBefore; m < host.Messages().size(); ++m) {
                const auto& posted = host.Messages()[m];
                if (posted.wParam == static_cast<WPARAM>(s) && posted.Event() == FD_CONNECT) found.push_back(posted);
            }
            return found;
        };
        host.PumpUntil(
            [&] {
                for (const Pending& p : batch) {
                    if (connectsFor(p.s).empty()) return false;
                }
                return true;
            },
            Within(deadline, kFdConnectWaitMs));
        // A second FD_CONNECT would come from the hidden thread's queue: let it run dry first.
        for (Family family : {Family::kSocks, Family::kHttp}) {
            if ((family == Family::kHttp ? http : socks) &&
                !dxstress::DrainHiddenThread(family, Within(deadline, 10000))) {
                failures.Add("the hidden thread did not come round within 10 s");
            }
        }
        host.PumpFor(0);
        for (const Pending& p : batch) {
            const std::string where = Where("non-blocking thread", 0, p.index, p.kind);
            auto posted = connectsFor(p.s);
            if (posted.size() != 1) {
                failures.Add(where + ": " + std::to_string(posted.size()) + " FD_CONNECT messages, wanted 1");
            }
            if (!posted.empty() && posted.front().Error() != 0) {
                failures.Add(where + ": FD_CONNECT with error " + std::to_string(posted.front().Error()));
            } else if (posted.size() == 1) {
                const std::string line = "non-blocking " + std::to_string(p.index) + "\n";
                std::string back;
                if (!dxtest::SendAll(p.s, line) ||
                    (back = host.ReceiveWhenReadable(p.s, line.size(), Within(deadline, kEchoWaitMs))) != line) {
                    failures.Add(where + ": the echo server's line came back as '" + back + "'");
                } else {
                    tally.Count(p.kind, false);
                }
            }
            int closed = Close(p.s, p.kind);
            if (closed != 0) failures.Add(where + ": close returned " + std::to_string(closed));
        }
    }
    if (socks) SOCKS_Cleanup();
    if (http) HTTP_Cleanup();
}

void RunPhase(const Phase& phase) {
    const int connects = ConnectsPerThread();
    Proxies proxies;
    dxstress::Failures failures;
    Tally tally;
    HANDLE go = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    // The threads stop short of the phase's limit, so that they report rather than hang.
    const double deadline = dxstress::NowMs() + kPhaseLimitMs - 5000;
    std::vector<std::function<void()>> bodies;
    for (int t = 0; t < kBlockingThreads; ++t) {
        bodies.push_back([&, t] { BlockingThread(t, connects, phase, proxies, go, deadline, failures, tally); });
    }
    bodies.push_back([&] { NonBlockingThread(connects, phase, proxies, go, deadline, failures, tally); });
    double start = dxstress::NowMs();
    dxstress::RunThreads(bodies, kPhaseLimitMs, phase.name);
    double seconds = (dxstress::NowMs() - start) / 1000;
    CloseHandle(go);

    const int total = tally.blockingDone + tally.nonBlockingDone;
    std::printf("[ stress   ] %s: %d of %d connects carried their line in %.2f s (%.0f per second);", phase.name, total,
                (kBlockingThreads + 1) * connects, seconds, total / seconds);
    for (const auto& [kind, count] : tally.byKind) std::printf(" %s %d", Name(kind), count);
    std::printf("\n");
    std::fflush(stdout);
    EXPECT_EQ(failures.Count(), 0u) << failures.Text();
    EXPECT_EQ(tally.blockingDone, kBlockingThreads * connects);
    EXPECT_EQ(tally.nonBlockingDone, connects);
    dxstress::ExpectHeapsWhole((std::string("after ") + phase.name).c_str());
}

TEST(RegistryStressTest, SocksFamilyFromNineThreads) {
    RunPhase({"SOCKS through danted", {Kind::kSocks4, Kind::kSocks5}});
}

TEST(RegistryStressTest, HttpFamilyFromNineThreads) { RunPhase({"HTTP through squid", {Kind::kHttp}}); }

// Both families share the one registry: their objects lie side by side in the same list.
TEST(RegistryStressTest, BothFamiliesAtOnce) {
    RunPhase({"both families", {Kind::kSocks4, Kind::kHttp, Kind::kSocks5}});
}

}  // namespace

int main(int argc, char** argv) {
    // Unbuffered, so that a run that hangs still shows how far it came.
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new dxstress::HeapCheckEnvironment);
    dxstress::ReportCrashes();
    dxstress::WatchLog();
    return RUN_ALL_TESTS();
}
