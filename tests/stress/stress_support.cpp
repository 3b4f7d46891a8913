#include "stress_support.h"

#include <ws2tcpip.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>

#include "test_helpers.h"
#include <sstream>
#include <stdexcept>

#include "bench.h"
#include "socks_api.h"

namespace dxstress {
namespace {

// The hidden windows' socket message; marker sockets start far above any handle WinSock gives out.
constexpr UINT kSocketEvent = WM_USER + 1;
constexpr int kMarkerBase = 0x7A000000;

CRITICAL_SECTION* HandleLock() {
    static CRITICAL_SECTION* lock = [] {
        auto* section = new CRITICAL_SECTION;
        InitializeCriticalSection(section);
        return section;
    }();
    return lock;
}

thread_local int t_lastCode = kNoCode;

std::mutex g_eventMutex;
std::set<int> g_markersSeen;
std::map<long, int> g_eventsBegun;
std::atomic<int> g_nextMarker{kMarkerBase};

void WatchLine(void*, const char* text) {
    static const char kCode[] = "DXSOCKS: WinSock Error = ";
    static const char kEvent[] = "HiddenOnSocketEvent(socket:";
    if (std::strncmp(text, kCode, sizeof kCode - 1) == 0) {
        t_lastCode = std::atoi(text + sizeof kCode - 1);
        return;
    }
    const char* event = std::strstr(text, kEvent);
    if (event == nullptr) return;
    long socket = std::strtol(event + sizeof kEvent - 1, nullptr, 10);
    std::lock_guard<std::mutex> lock(g_eventMutex);
    if (socket < kMarkerBase) {
        ++g_eventsBegun[socket];
    } else {
        g_markersSeen.insert(static_cast<int>(socket));
    }
}

// The family's hidden window of this process; another program's has the same class name.
HWND OwnHiddenWindow(Family family) {
    return dxtest::OwnWindowOfClass(family == Family::kHttp ? "ZELMONT_HTTP_HIDDEN_WINDOW"
                                                            : "ZELMONT_SOCKS_HIDDEN_WINDOW");
}

void PumpOnce() {
    MSG message;
    while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) {
        TranslateMessage(&message);
        DispatchMessageA(&message);
    }
}

}  // namespace

ULONG NtGlobalFlags() {
    using Query = ULONG(WINAPI*)();
    auto query = reinterpret_cast<Query>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("ntdll.dll"), "RtlGetNtGlobalFlags")));
    return query != nullptr ? query() : 0;
}

HeapCheck ValidateHeaps() {
    HeapCheck check;
    std::vector<HANDLE> heaps(64);
    DWORD count = GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data());
    if (count > heaps.size()) {
        heaps.resize(count);
        count = GetProcessHeaps(count, heaps.data());
    }
    check.heaps = count;
    for (DWORD i = 0; i < count && i < heaps.size(); ++i) {
        if (!HeapValidate(heaps[i], 0, nullptr)) ++check.invalid;
    }
    // The process heap is among them; it is named once more because a host would check it first.
    if (!HeapValidate(GetProcessHeap(), 0, nullptr)) ++check.invalid;
    return check;
}

void ExpectHeapsWhole(const char* when) {
    HeapCheck check = ValidateHeaps();
    EXPECT_EQ(check.invalid, 0u) << check.invalid << " failed validations over " << check.heaps << " heaps " << when;
    std::printf("[ heaps    ] %lu heaps validated %s: %s\n", check.heaps, when,
                check.invalid == 0 ? "whole" : "BROKEN");
    std::fflush(stdout);
}

void ReportCrashes() {
    SetUnhandledExceptionFilter([](EXCEPTION_POINTERS* info) -> LONG {
        // Nothing here may allocate: the heap may be what broke.
        char line[128];
        int length =
            wsprintfA(line, "CRASH: exception %08lx at %p on thread %lu\r\n", info->ExceptionRecord->ExceptionCode,
                      info->ExceptionRecord->ExceptionAddress, GetCurrentThreadId());
        DWORD written = 0;
        WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), line, static_cast<DWORD>(length), &written, nullptr);
        TerminateProcess(GetCurrentProcess(), 5);
        return EXCEPTION_EXECUTE_HANDLER;
    });
}

void HeapCheckEnvironment::SetUp() {
    ULONG flags = NtGlobalFlags();
    std::printf("[ heaps    ] NtGlobalFlag 0x%lx\n", flags);
    if (std::getenv("DXTEST_HEAP_CHECK") != nullptr) {
        ASSERT_EQ(flags & kHeapCheckFlags, kHeapCheckFlags)
            << "Wine's heap checks are off: the prefix needs GlobalFlag 0x70 (cmake/make-wine-prefix.sh --heap-check)";
    }
}

void HeapCheckEnvironment::TearDown() { ExpectHeapsWhole("at the end of the program"); }

HandleGuard::HandleGuard() { EnterCriticalSection(HandleLock()); }
HandleGuard::~HandleGuard() { LeaveCriticalSection(HandleLock()); }

namespace {
std::set<SOCKET> g_quarantined;
// Sockets WinSock made with a quarantined value, kept open until the value is released.
std::set<SOCKET> g_keptAside;
}  // namespace

void Quarantine(SOCKET s) { g_quarantined.insert(s); }

void ReleaseQuarantine(SOCKET s) {
    HandleGuard guard;
    g_quarantined.erase(s);
    auto kept = g_keptAside.find(s);
    if (kept != g_keptAside.end()) {
        closesocket(*kept);
        g_keptAside.erase(kept);
    }
}

SOCKET NewSocket(bool bound, uint16_t* port) {
    SOCKET s;
    {
        HandleGuard guard;
        for (;;) {
            s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
            if (s == INVALID_SOCKET || g_quarantined.count(s) == 0) break;
            g_keptAside.insert(s);
        }
    }
    if (s == INVALID_SOCKET || !bound) return s;
    sockaddr_in local = {};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(s, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) return s;
    if (port != nullptr) *port = LocalPort(s);
    return s;
}

ControlChannel::ControlChannel() : s_(NewSocket(false)) {
    sockaddr_in address = dxtest::Loopback(dxtest::BenchPort("CONTROL_PORT"));
    if (connect(s_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("the fake proxy's control port refused");
    }
    SetReceiveTimeout(s_, 30000);
}

ControlChannel::~ControlChannel() { closesocket(s_); }

std::string ControlChannel::Ask(const std::string& request) {
    if (!dxtest::SendAll(s_, request + "\n")) throw std::runtime_error("control channel: send failed");
    std::string answer;
    char c;
    while (recv(s_, &c, 1, 0) == 1 && c != '\n') answer += c;
    return answer;
}

int ControlChannel::Script(uint16_t clientPort, const std::string& steps) {
    std::string answer = Ask("SCRIPT for=" + std::to_string(clientPort) + " " + steps);
    if (answer.rfind("OK ", 0) != 0) throw std::runtime_error("the fake proxy refused the script: " + answer);
    return std::stoi(answer.substr(3));
}

std::string ControlChannel::Received(int id) {
    std::string answer = Ask("LOG " + std::to_string(id) + " 0");
    std::istringstream words(answer);
    std::string tag, status, hex;
    words >> tag >> status >> hex;
    if (tag != "LOG") throw std::runtime_error("the fake proxy's log answer: " + answer);
    return hex == "-" ? std::string() : dxtest::Unhex(hex);
}

uint16_t LocalPort(SOCKET s) {
    sockaddr_in local = {};
    int length = sizeof local;
    if (getsockname(s, reinterpret_cast<sockaddr*>(&local), &length) != 0) return 0;
    return ntohs(local.sin_port);
}

void SetReceiveTimeout(SOCKET s, DWORD ms) {
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&ms), sizeof ms);
}

void WatchLog() {
    SOCKS_SetLoggingCallback(nullptr);
    SOCKS_SetLoggingCallbackEx(nullptr, &WatchLine);
}

int LastLoggedCode() { return t_lastCode; }

int EventsBegun(SOCKET s) {
    std::lock_guard<std::mutex> lock(g_eventMutex);
    auto found = g_eventsBegun.find(static_cast<long>(s));
    return found == g_eventsBegun.end() ? 0 : found->second;
}

void ForgetEvents(SOCKET s) {
    std::lock_guard<std::mutex> lock(g_eventMutex);
    g_eventsBegun.erase(static_cast<long>(s));
}
void ForgetLoggedCode() { t_lastCode = kNoCode; }

bool DrainHiddenThread(Family family, int timeoutMs) {
    HWND hidden = OwnHiddenWindow(family);
    if (hidden == nullptr) return false;
    int marker = ++g_nextMarker;
    if (!PostMessageA(hidden, kSocketEvent, static_cast<WPARAM>(marker), 0)) return false;
    double end = NowMs() + timeoutMs;
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(g_eventMutex);
            if (g_markersSeen.erase(marker) != 0) return true;
        }
        if (NowMs() > end) return false;
        PumpOnce();
        MsgWaitForMultipleObjects(0, nullptr, FALSE, 1, QS_ALLINPUT);
    }
}

void RunThreads(const std::vector<std::function<void()>>& bodies, int timeoutMs, const char* what) {
    std::vector<HANDLE> threads;
    for (const auto& body : bodies) {
        auto* copy = new std::function<void()>(body);
        HANDLE thread = CreateThread(
            nullptr, 0,
            [](void* p) -> DWORD {
                auto* call = static_cast<std::function<void()>*>(p);
                (*call)();
                delete call;
                return 0;
            },
            copy, 0, nullptr);
        if (thread == nullptr) {
            std::fprintf(stderr, "%s: CreateThread failed (%lu)\n", what, GetLastError());
            std::fflush(stderr);
            TerminateProcess(GetCurrentProcess(), 3);
        }
        threads.push_back(thread);
    }
    DWORD waited =
        WaitForMultipleObjects(static_cast<DWORD>(threads.size()), threads.data(), TRUE, static_cast<DWORD>(timeoutMs));
    if (waited == WAIT_TIMEOUT || waited == WAIT_FAILED) {
        int running = 0;
        for (HANDLE thread : threads) running += WaitForSingleObject(thread, 0) == WAIT_TIMEOUT ? 1 : 0;
        std::printf("FAILED: %s: %d of %zu threads still running after %d ms (a hang); the program ends here\n", what,
                    running, threads.size(), timeoutMs);
        std::fflush(stdout);
        TerminateProcess(GetCurrentProcess(), 4);
    }
    for (HANDLE thread : threads) CloseHandle(thread);
}

double NowMs() {
    static const double msPerTick = [] {
        LARGE_INTEGER frequency;
        QueryPerformanceFrequency(&frequency);
        return 1e3 / static_cast<double>(frequency.QuadPart);
    }();
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    return static_cast<double>(now.QuadPart) * msPerTick;
}

void Failures::Add(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (first_.size() < 25) first_.push_back(text);
    ++count_;
}

size_t Failures::Count() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
}

std::string Failures::Text() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::string text;
    for (const auto& line : first_) text += "  " + line + "\n";
    if (count_ > first_.size()) text += "  ... and " + std::to_string(count_ - first_.size()) + " more\n";
    return text;
}

}  // namespace dxstress
