// Non-blocking scale: many SOCKS 5 handshakes at once through danted, all run by the library's one
// hidden thread, timed from the first connect call until the last FD_CONNECT has reached the host's
// window; against the same number of blocking connects one after another.
//
// Flags: --sockets=N (64) per round; --rounds=N (10) of each kind, alternating; --wait-ms=N (30000)
// limit on one round; --rows=PATH and --bench-env=PATH as in every benchmark.
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_util.h"
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

std::string Fixed(double value, int digits) {
    char text[32];
    std::snprintf(text, sizeof text, "%.*f", digits, value);
    return text;
}

}  // namespace

int main(int argc, char** argv) {
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
        std::vector<double> concurrent, sequential;
        dxbench::SleepCounts sleeps;
        for (int round = 0; round < rounds; ++round) {
            dxbench::SleepCounts before = dxbench::ReadSleepCounts();
            concurrent.push_back(ConcurrentRound(bench, window));
            dxbench::SleepCounts after = dxbench::ReadSleepCounts();
            sleeps.tenMs += after.tenMs - before.tenMs;
            sleeps.zero += after.zero - before.zero;
            sequential.push_back(SequentialRound(bench));
        }
        DestroyWindow(window);
        SOCKS_Cleanup();

        dxbench::Summary together = dxbench::Summarize(concurrent);
        dxbench::Summary oneByOne = dxbench::Summarize(sequential);
        std::string sockets = std::to_string(bench.sockets);
        dxbench::ResultTable table(flags);
        table.Add("non-blocking scale", sockets + " SOCKS 5 at once, until last FD_CONNECT", together.count,
                  together.median, together.p99,
                  "rounds of " + sockets + " via danted, one hidden thread; " +
                      Fixed(together.median / oneByOne.median, 3) + " of the sequential time; retry sleeps " +
                      std::to_string(sleeps.tenMs) + "x10ms, " + std::to_string(sleeps.zero) + "x0ms in all rounds");
        table.Add("non-blocking scale", sockets + " SOCKS 5 blocking, one after another", oneByOne.count,
                  oneByOne.median, oneByOne.p99,
                  "rounds of " + sockets + "; per connect " + dxbench::FormatNs(oneByOne.median / bench.sockets));
        return table.Print() ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "nonblocking_scale: %s\n", error.what());
        return 1;
    }
}
