// Non-blocking scale: many SOCKS 5 handshakes at once through danted, all run by the library's one
// hidden thread, timed from the first connect call until the last FD_CONNECT has reached the host's
// window; against the same number of blocking connects one after another.
//
// The same handshakes written out by hand, all at once on one thread with WSAPoll, show what the
// proxy allows for that many at once.
//
// Flags: --sockets=N (64) per round; --rounds=N (10) of each kind, alternating; --profile-rounds=N
// (3) further rounds at once with the library's calls counted and timed (0: none); --wait-ms=N (30000)
// limit on one round; --rows=PATH and --bench-env=PATH as in every benchmark.
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_util.h"
#include "import_profile.h"
#include "sleep_counter.h"
#include "socks_api.h"

namespace {

constexpr UINT kSocketMessage = WM_APP + 7;
constexpr char kDestination[] = "127.0.0.1";

struct Bench {
    sockaddr_in dante;
    uint16_t echoPort;
    int sockets;
    int waitMs;
};

// The host's window: FD_CONNECT outcomes are counted as the message loop dispatches them.
struct Outcomes {
    int arrived = 0;
    int failed = 0;
    unsigned firstError = 0;
};
Outcomes* g_outcomes = nullptr;

LRESULT CALLBACK HostProcedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == kSocketMessage && WSAGETSELECTEVENT(lParam) == FD_CONNECT && g_outcomes != nullptr) {
        ++g_outcomes->arrived;
        if (WSAGETSELECTERROR(lParam) != 0) {
            if (g_outcomes->failed++ == 0) g_outcomes->firstError = WSAGETSELECTERROR(lParam);
        }
        return 0;
    }
    return DefWindowProcA(window, message, wParam, lParam);
}

HWND MakeHostWindow() {
    WNDCLASSA windowClass = {};
    windowClass.lpfnWndProc = HostProcedure;
    windowClass.hInstance = GetModuleHandleA(nullptr);
    windowClass.lpszClassName = "DXBENCH_HOST_WINDOW";
    RegisterClassA(&windowClass);
    HWND window = CreateWindowExA(0, windowClass.lpszClassName, "", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr,
                                  windowClass.hInstance, nullptr);
    if (window == nullptr) throw std::runtime_error("no host window");
    return window;
}

SOCKET NewSocket() {
    SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (s == INVALID_SOCKET) throw std::runtime_error("socket() failed: " + std::to_string(WSAGetLastError()));
    return s;
}

// All sockets exist before the clock starts; it stops at the last FD_CONNECT.
double ConcurrentRound(const Bench& bench, HWND window) {
    std::vector<SOCKET> sockets;
    for (int i = 0; i < bench.sockets; ++i) sockets.push_back(NewSocket());
    Outcomes outcomes;
    g_outcomes = &outcomes;
    double start = dxbench::NowNs();
    for (SOCKET s : sockets) {
        SOCKS_WSAAsyncSelect(s, window, kSocketMessage, FD_CONNECT);
        SOCKS_SetProxyEx(s, &bench.dante, sizeof bench.dante, "", 5);
        if (SOCKS_ConnectEx(s, kDestination, bench.echoPort, window, AF_INET) != 0) {
            throw std::runtime_error("non-blocking connect failed at once: " + std::to_string(WSAGetLastError()));
        }
    }
    DWORD begun = GetTickCount();
    while (outcomes.arrived < bench.sockets) {
        MSG message;
        while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) DispatchMessageA(&message);
        if (outcomes.arrived >= bench.sockets) break;
        if (static_cast<int>(GetTickCount() - begun) > bench.waitMs) {
            throw std::runtime_error(std::to_string(outcomes.arrived) + " of " + std::to_string(bench.sockets) +
                                     " FD_CONNECT messages within " + std::to_string(bench.waitMs) + " ms");
        }
        MsgWaitForMultipleObjects(0, nullptr, FALSE, 50, QS_ALLINPUT);
    }
    double elapsed = dxbench::NowNs() - start;
    g_outcomes = nullptr;
    if (outcomes.failed != 0) {
        throw std::runtime_error(std::to_string(outcomes.failed) + " handshakes failed, first error " +
                                 std::to_string(outcomes.firstError));
    }
    for (SOCKET s : sockets) SOCKS_closesocket(s);
    return elapsed;
}

double SequentialRound(const Bench& bench) {
    std::vector<SOCKET> sockets;
    for (int i = 0; i < bench.sockets; ++i) sockets.push_back(NewSocket());
    double start = dxbench::NowNs();
    for (SOCKET s : sockets) {
        SOCKS_SetProxyEx(s, &bench.dante, sizeof bench.dante, "", 5);
        if (SOCKS_ConnectEx(s, kDestination, bench.echoPort, nullptr, AF_INET) != 0) {
            throw std::runtime_error("blocking connect failed: " + std::to_string(WSAGetLastError()));
        }
    }
    double elapsed = dxbench::NowNs() - start;
    for (SOCKET s : sockets) SOCKS_closesocket(s);
    return elapsed;
}

// The same handshakes by hand, all at once on one thread: non-blocking WinSock sockets stepped by
// WSAPoll. It shows what the proxy itself allows for this many handshakes at once.
class HandHandshake {
public:
    HandHandshake(SOCKET s, const Bench& bench) : s_(s) {
        uint32_t address = inet_addr(kDestination);
        uint16_t port = htons(bench.echoPort);
        std::memcpy(request_ + 4, &address, 4);
        std::memcpy(request_ + 8, &port, 2);
    }
    SOCKET Socket() const { return s_; }
    bool Done() const { return step_ == kDone; }
    short Wanted() const { return step_ == kConnecting ? POLLWRNORM : POLLRDNORM; }

    // One step on readiness; false when the handshake failed.
    bool Advance() {
        switch (step_) {
            case kConnecting:
                if (!SendAll(kSelect, sizeof kSelect)) return false;
                step_ = kMethod;
                return true;
            case kMethod:
                if (!Take(2)) return received_ >= 0;
                if (reply_[0] != 5 || reply_[1] != 0 || !SendAll(request_, sizeof request_)) return false;
                step_ = kReply;
                received_ = 0;
                return true;
            case kReply:
                // danted answers with an IPv4 bound address: 10 bytes.
                if (!Take(10)) return received_ >= 0;
                step_ = kDone;
                return reply_[1] == 0;
            case kDone:
                return true;
        }
        return false;
    }

private:
    enum Step { kConnecting, kMethod, kReply, kDone };
    static constexpr uint8_t kSelect[3] = {5, 1, 0};

    // The request and the replies are a few bytes: they go out whole on a fresh connection.
    bool SendAll(const uint8_t* bytes, int length) {
        return send(s_, reinterpret_cast<const char*>(bytes), length, 0) == length;
    }
    // Reads towards `count` bytes; true once they are all there, false for now (received_ < 0: failed).
    bool Take(int count) {
        int got = recv(s_, reinterpret_cast<char*>(reply_) + received_, count - received_, 0);
        if (got > 0) {
            received_ += got;
        } else if (got == 0 || WSAGetLastError() != WSAEWOULDBLOCK) {
            received_ = -1;
            return false;
        }
        return received_ == count;
    }

    SOCKET s_;
    Step step_ = kConnecting;
    uint8_t request_[10] = {5, 1, 0, 1};
    uint8_t reply_[16] = {};
    int received_ = 0;
};

double HandConcurrentRound(const Bench& bench) {
    std::vector<HandHandshake> handshakes;
    for (int i = 0; i < bench.sockets; ++i) {
        SOCKET s = NewSocket();
        u_long nonBlocking = 1;
        ioctlsocket(s, FIONBIO, &nonBlocking);
        handshakes.emplace_back(s, bench);
    }
    double start = dxbench::NowNs();
    for (const HandHandshake& handshake : handshakes) {
        if (connect(handshake.Socket(), reinterpret_cast<const sockaddr*>(&bench.dante), sizeof bench.dante) == 0 ||
            WSAGetLastError() != WSAEWOULDBLOCK) {
            throw std::runtime_error("hand-written non-blocking connect: " + std::to_string(WSAGetLastError()));
        }
    }
    DWORD begun = GetTickCount();
    size_t done = 0;
    while (done < handshakes.size()) {
        std::vector<WSAPOLLFD> polled;
        std::vector<HandHandshake*> waiting;
        for (HandHandshake& handshake : handshakes) {
            if (handshake.Done()) continue;
            polled.push_back({handshake.Socket(), handshake.Wanted(), 0});
            waiting.push_back(&handshake);
        }
        if (WSAPoll(polled.data(), static_cast<ULONG>(polled.size()), 50) == SOCKET_ERROR) {
            throw std::runtime_error("WSAPoll failed: " + std::to_string(WSAGetLastError()));
        }
        for (size_t i = 0; i < polled.size(); ++i) {
            if (polled[i].revents == 0) continue;
            if ((polled[i].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0 || !waiting[i]->Advance()) {
                throw std::runtime_error("a hand-written non-blocking handshake failed");
            }
            if (waiting[i]->Done()) ++done;
        }
        if (static_cast<int>(GetTickCount() - begun) > bench.waitMs) {
            throw std::runtime_error(std::to_string(done) + " of " + std::to_string(bench.sockets) +
                                     " hand-written handshakes within " + std::to_string(bench.waitMs) + " ms");
        }
    }
    double elapsed = dxbench::NowNs() - start;
    for (const HandHandshake& handshake : handshakes) closesocket(handshake.Socket());
    return elapsed;
}

}  // namespace

int main(int argc, char** argv) {
    dxbench::ImportProfile::WatchBindings(GetModuleHandleA("DXSOCKS.DLL"));
    try {
        dxbench::Flags flags(argc, argv);
        dxbench::BenchFile file(flags);
        dxbench::Winsock winsock;
        Bench bench{dxbench::Loopback(file.Port("DANTE_PORT")), file.Port("ECHO_PORT"),
                    static_cast<int>(flags.Number("sockets", 64)), static_cast<int>(flags.Number("wait-ms", 30000))};
        const int rounds = static_cast<int>(flags.Number("rounds", 10));
        if (bench.sockets < 1 || rounds < 1) throw std::runtime_error("--sockets and --rounds must be at least 1");
        if (!dxbench::CountSleepsOf(GetModuleHandleA("DXSOCKS.DLL"))) {
            throw std::runtime_error("DXSOCKS.DLL imports no Sleep to count");
        }
        if (SOCKS_Startup(nullptr, 0) != 1) throw std::runtime_error("SOCKS_Startup failed");
        HWND window = MakeHostWindow();

        // One round of each first, untimed, so that neither kind pays for the first use.
        ConcurrentRound(bench, window);
        SequentialRound(bench);
        HandConcurrentRound(bench);
        std::vector<double> concurrent, sequential, byHand;
        dxbench::SleepCounts sleeps;
        for (int round = 0; round < rounds; ++round) {
            dxbench::SleepCounts before = dxbench::ReadSleepCounts();
            concurrent.push_back(ConcurrentRound(bench, window));
            dxbench::SleepCounts after = dxbench::ReadSleepCounts();
            sleeps.tenMs += after.tenMs - before.tenMs;
            sleeps.zero += after.zero - before.zero;
            sequential.push_back(SequentialRound(bench));
            byHand.push_back(HandConcurrentRound(bench));
        }
        // Afterwards, apart from the timed rounds: what the library's calls cost in a round at once.
        const int profiled = static_cast<int>(flags.Number("profile-rounds", 3));
        dxbench::ImportTotals calls, hiddenCalls;
        std::vector<double> profiledRounds;
        if (profiled > 0) {
            dxbench::ImportProfile profile(GetModuleHandleA("DXSOCKS.DLL"), nullptr);
            for (int round = 0; round < profiled; ++round) {
                dxbench::ImportTotals before = dxbench::ImportProfile::Now();
                dxbench::ImportTotals hiddenBefore = dxbench::ImportProfile::NowOnOtherThreads();
                profiledRounds.push_back(ConcurrentRound(bench, window));
                calls += dxbench::ImportProfile::Now() - before;
                hiddenCalls += dxbench::ImportProfile::NowOnOtherThreads() - hiddenBefore;
            }
        }
        DestroyWindow(window);
        SOCKS_Cleanup();

        dxbench::Summary together = dxbench::Summarize(concurrent);
        dxbench::Summary oneByOne = dxbench::Summarize(sequential);
        dxbench::Summary hand = dxbench::Summarize(byHand);
        std::string sockets = std::to_string(bench.sockets);
        dxbench::ResultTable table(flags);
        table.Add("non-blocking scale", sockets + " SOCKS 5 at once, until last FD_CONNECT", together.count,
                  together.median, together.p99,
                  "rounds of " + sockets + " via danted, one hidden thread; " +
                      dxbench::Fixed(together.median / oneByOne.median, 3) + " of the sequential time, " +
                      dxbench::Fixed(together.median / hand.median, 3) + " of the hand-written one's; retry sleeps " +
                      std::to_string(sleeps.tenMs) + "x10ms, " + std::to_string(sleeps.zero) + "x0ms in all rounds");
        table.Add("non-blocking scale", sockets + " SOCKS 5 blocking, one after another", oneByOne.count,
                  oneByOne.median, oneByOne.p99,
                  "rounds of " + sockets + "; per connect " + dxbench::FormatNs(oneByOne.median / bench.sockets));
        table.Add("non-blocking scale", sockets + " SOCKS 5 at once by hand, WSAPoll on one thread", hand.count,
                  hand.median, hand.p99, "rounds of " + sockets + " via danted, without the library");
        if (profiled > 0) {
            dxbench::Summary rounds = dxbench::Summarize(profiledRounds);
            double handshakes = static_cast<double>(profiled) * bench.sockets;
            std::string notes = "mean per handshake, on all threads (of which on the hidden thread):";
            for (size_t i = 0; i < dxbench::kProfiledImports; ++i) {
                if (calls.calls[i] == 0) continue;
                std::string name = dxbench::ImportProfile::Name(i);
                if (name == "wvsprintfA") name = "log lines";
                notes += " " + name + " " + dxbench::Fixed(static_cast<double>(calls.calls[i]) / handshakes, 1) + "x " +
                         dxbench::FormatNs(static_cast<double>(calls.ns[i]) / handshakes) + " (" +
                         dxbench::Fixed(static_cast<double>(hiddenCalls.calls[i]) / handshakes, 1) + "x " +
                         dxbench::FormatNs(static_cast<double>(hiddenCalls.ns[i]) / handshakes) + "),";
            }
            double hiddenShare = static_cast<double>(hiddenCalls.TotalNs()) / (rounds.mean * profiled);
            notes += " the hidden thread spent " + dxbench::Fixed(100 * hiddenShare, 0) + "% of the rounds in these calls";
            table.Add("non-blocking scale", sockets + " SOCKS 5 at once, calls timed", rounds.count, rounds.median,
                      rounds.p99, notes);
        }
        return table.Print() ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "nonblocking_scale: %s\n", error.what());
        return 1;
    }
}
