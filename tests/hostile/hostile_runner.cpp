#include "hostile_runner.h"

#include <winsock2.h>
#include <windows.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <sstream>

#include "bench.h"
#include "host_window.h"
#include "http_api.h"
#include "socks_api.h"
#include "test_helpers.h"

namespace hostile {
namespace {

const char kChildFlag[] = "--hostile-child";
constexpr DWORD kKilledExitCode = 0xDEAD;
constexpr DWORD kCrashExitCode = 0xC4A5;
// The window message of the hidden windows, and socket numbers no real socket has: a marker event
// that shows when the hidden thread has worked through what was queued before it.
constexpr UINT kSocketEvent = WM_USER + 1;
constexpr int kMarkerBase = 0x7A000000;

// ---------------------------------------------------------------- the child

std::mutex g_outputMutex;

void Emit(const std::string& line) {
    std::lock_guard<std::mutex> lock(g_outputMutex);
    std::string text = line + "\n";
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

LONG WINAPI ReportCrash(EXCEPTION_POINTERS* info) {
    char line[96];
    std::snprintf(line, sizeof line, "CRASH %08lx at %p", info->ExceptionRecord->ExceptionCode,
                  info->ExceptionRecord->ExceptionAddress);
    Emit(line);
    TerminateProcess(GetCurrentProcess(), kCrashExitCode);
    return EXCEPTION_EXECUTE_HANDLER;
}

// The library's log, line by line, with the thread that wrote it.
struct LogLine {
    DWORD thread;
    std::string text;
};
std::mutex g_logMutex;
std::vector<LogLine> g_log;

void CollectLog(void*, const char* text) {
    std::lock_guard<std::mutex> lock(g_logMutex);
    g_log.push_back({GetCurrentThreadId(), text});
}

// The last "WinSock Error = " line of this thread: the code the connect reports.
int LoggedCode() {
    const std::string prefix = "DXSOCKS: WinSock Error = ";
    std::lock_guard<std::mutex> lock(g_logMutex);
    for (auto it = g_log.rbegin(); it != g_log.rend(); ++it) {
        if (it->thread == GetCurrentThreadId() && it->text.compare(0, prefix.size(), prefix) == 0) {
            return std::atoi(it->text.c_str() + prefix.size());
        }
    }
    return 0x7fffffff;
}

size_t CountLogLines(const std::string& needle) {
    std::lock_guard<std::mutex> lock(g_logMutex);
    size_t n = 0;
    for (const LogLine& line : g_log) n += line.text.find(needle) != std::string::npos ? 1 : 0;
    return n;
}

struct Running {
    Case c;
    Prediction p;
    SOCKET s = INVALID_SOCKET;
    std::atomic<int> asked{0};
    std::atomic<bool> askedRight{true};
};

// The case whose handshake the password callback serves: per thread for blocking cases, the one
// running case for the hidden thread.
thread_local Running* t_running = nullptr;
Running* g_nonBlockingRunning = nullptr;

int AnswerPassword(void*, wchar_t* password, int size, const wchar_t* user, const wchar_t* proxy) {
    Running* run = t_running != nullptr ? t_running : g_nonBlockingRunning;
    if (run == nullptr) return 0;
    ++run->asked;
    std::wstring wideUser(run->c.user.begin(), run->c.user.end());
    if (size != 260 || wideUser != user || std::wstring(proxy) != L"127.0.0.1") run->askedRight = false;
    const std::string& text = run->c.password;
    for (size_t i = 0; i < text.size() && static_cast<int>(i) + 1 < size; ++i) password[i] = static_cast<wchar_t>(text[i]);
    return run->c.passwordGiven ? 1 : 0;
}

bool IsSocket(SOCKET s) {
    int type = 0;
    int length = sizeof type;
    return getsockopt(s, SOL_SOCKET, SO_TYPE, reinterpret_cast<char*>(&type), &length) == 0;
}

// A socket on a port of its own, the proxy's script for that port, and the proxy set.
bool Prepare(Running& run, const sockaddr_in& fake) {
    run.s = dxtest::MakeTcpSocket();
    sockaddr_in local = dxtest::Loopback(0);
    int length = sizeof local;
    if (run.s == INVALID_SOCKET || bind(run.s, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0 ||
        getsockname(run.s, reinterpret_cast<sockaddr*>(&local), &length) != 0) {
        Emit("BROKEN " + std::to_string(run.c.index) + " socket " + std::to_string(WSAGetLastError()));
        return false;
    }
    int id = dxtest::FakeScriptFor(ntohs(local.sin_port), run.p.script);
    Emit("ID " + std::to_string(run.c.index) + " " + std::to_string(id));
    int set = run.c.family == Family::kHttp
                  ? HTTP_SetProxy(run.s, &fake, sizeof fake, run.c.user.c_str(), run.c.authenticate ? 1 : 0)
                  : SOCKS_SetProxyEx(run.s, &fake, sizeof fake, run.c.user.c_str(), run.c.family == Family::kSocks4 ? 4 : 5);
    if (set != 0) Emit("BROKEN " + std::to_string(run.c.index) + " no object for the socket");
    return set == 0;
}

int Connect(const Running& run) {
    if (run.c.family == Family::kHttp) return HTTP_ConnectEx(run.s, run.c.host.c_str(), run.c.port, nullptr, AF_INET);
    return SOCKS_ConnectEx(run.s, run.c.host.c_str(), run.c.port, nullptr, AF_INET);
}

int Canceled(const Running& run) {
    return run.c.family == Family::kHttp ? HTTP_ConnectCanceled(run.s) : SOCKS_ConnectCanceled(run.s);
}

unsigned ConnectError(const Running& run) {
    return run.c.family == Family::kHttp ? HTTP_GetConnectError(run.s) : SOCKS_GetConnectError(run.s);
}

void EmitOutcome(const Running& run, int result, int code, int lastError, unsigned posted, DWORD elapsed) {
    std::ostringstream line;
    line << "OUT " << run.c.index << ' ' << result << ' ' << code << ' ' << lastError << ' ' << Canceled(run) << ' '
         << ConnectError(run) << ' ' << posted << ' ' << elapsed;
    Emit(line.str());
}

// After success and the proxy's end-of-stream, the rest of the stream is the host's.
void EmitHostData(const Running& run, bool succeeded) {
    if (!succeeded || run.c.ending != Ending::kFin) return;
    std::string data = dxtest::Receive(run.s, 1 << 20, 3000);
    Emit("HOST " + std::to_string(run.c.index) + " " + (data.empty() ? std::string("-") : Hex(data)));
}

// Lets the proxy play its script to the end, so that it takes in every byte the client sent: a
// close with bytes unread would reset the connection, and the proxy would lose what it hadn't read.
void AwaitProxyEnd(const Running& run) {
    shutdown(run.s, SD_SEND);
    dxtest::Receive(run.s, 1 << 20, 8000);
}

void EmitAsked(const Running& run) {
    Emit("ASKED " + std::to_string(run.c.index) + " " + std::to_string(run.asked.load()) + " " +
         (run.askedRight ? "1" : "0"));
}

DWORD WINAPI RunBlocking(void* parameter) {
    auto& run = *static_cast<Running*>(parameter);
    t_running = &run;
    // A value no step of the library sets: what stays of it shows what the call left alone.
    WSASetLastError(4711);
    DWORD start = GetTickCount();
    int result = Connect(run);
    int lastError = WSAGetLastError();
    DWORD elapsed = GetTickCount() - start;
    EmitAsked(run);
    EmitOutcome(run, result, LoggedCode(), lastError, 0, elapsed);
    EmitHostData(run, result == 0);
    // The handle stays open, so no later socket of this child gets it.
    AwaitProxyEnd(run);
    return 0;
}

// All cases side by side. Every object is made here, before the threads start; the threads only
// look their sockets up.
int RunBlockingBatch(std::vector<std::unique_ptr<Running>>& runs, const sockaddr_in& fake) {
    for (auto& run : runs) {
        if (!Prepare(*run, fake)) return 1;
    }
    std::vector<HANDLE> threads;
    for (auto& run : runs) threads.push_back(CreateThread(nullptr, 0, RunBlocking, run.get(), 0, nullptr));
    Emit("GO");
    for (HANDLE thread : threads) WaitForSingleObject(thread, INFINITE);
    return 0;
}

// Waits until the family's hidden thread has worked through every event of socket s: a marker
// event is queued behind them, and once a marker goes by with no step of s before it, none is left.
bool AwaitHiddenThreadIdle(Family family, SOCKET s, dxtest::HostWindow& host) {
    static int markers = 0;
    // The family's hidden window in this process; other children have theirs.
    HWND hidden = dxtest::OwnWindowOfClass(family == Family::kHttp ? "ZELMONT_HTTP_HIDDEN_WINDOW"
                                                                   : "ZELMONT_SOCKS_HIDDEN_WINDOW");
    if (hidden == nullptr) return false;
    const std::string mine = "HiddenOnSocketEvent(socket:" + std::to_string(static_cast<int>(s)) + ",";
    for (int round = 0; round < 12; ++round) {
        size_t before = CountLogLines(mine);
        int marker = kMarkerBase + ++markers;
        const std::string seen = "HiddenOnSocketEvent(socket:" + std::to_string(marker) + ",";
        PostMessageA(hidden, kSocketEvent, static_cast<WPARAM>(marker), 0);
        if (!host.PumpUntil([&] { return CountLogLines(seen) > 0; }, 15000)) return false;
        if (CountLogLines(mine) == before) return true;
    }
    return false;
}

// One case after the other: the hidden thread serves them all, and a retry loop of one would
// delay the steps of the others.
int RunNonBlockingLane(std::vector<std::unique_ptr<Running>>& runs, const sockaddr_in& fake) {
    const bool http = runs.front()->c.family == Family::kHttp;
    if ((http ? HTTP_Startup(nullptr, 0) : SOCKS_Startup(nullptr, 0)) != 1) return 1;
    dxtest::HostWindow host;
    Emit("GO");
    for (auto& owned : runs) {
        Running& run = *owned;
        if (!Prepare(run, fake)) return 1;
        const UINT message = dxtest::HostWindow::kSocketMessage;
        int selected = http ? HTTP_WSAAsyncSelect(run.s, host.Handle(), message, FD_CONNECT)
                            : SOCKS_WSAAsyncSelect(run.s, host.Handle(), message, FD_CONNECT);
        if (selected != 0) return 1;
        g_nonBlockingRunning = &run;
        const Prediction& p = run.p;
        int bound = NonBlockingBoundMs(p);
        for (const Prediction& other : p.also) bound = std::max(bound, NonBlockingBoundMs(other));
        // A handle closed by an earlier case may come back: only this case's messages count.
        const size_t first = host.Messages().size();
        auto messages = [&] {
            std::vector<dxtest::PostedMessage> mine;
            for (size_t i = first; i < host.Messages().size(); ++i) {
                if (host.Messages()[i].wParam == static_cast<WPARAM>(run.s)) mine.push_back(host.Messages()[i]);
            }
            return mine;
        };
        DWORD start = GetTickCount();
        int result = Connect(run);
        int code = LoggedCode();
        bool posted = host.PumpUntil([&] { return !messages().empty(); }, bound);
        DWORD elapsed = GetTickCount() - start;
        if (posted) {
            EmitOutcome(run, result, code, 0, messages().front().Error(), elapsed);
            EmitHostData(run, messages().front().Error() == 0);
        }
        if (posted && p.eventLoop) {
            // Once the proxy's bytes are all in, count the hidden thread's events for the socket;
            // then the host takes the bytes, and the events stop.
            host.PumpUntil([&] { return static_cast<int>(GetTickCount() - start) >= p.scriptMs + 200; }, p.scriptMs + 1000);
            const std::string mine = "HiddenOnSocketEvent(socket:" + std::to_string(static_cast<int>(run.s)) + ",";
            size_t before = CountLogLines(mine);
            host.PumpFor(300);
            Emit("LOOP " + std::to_string(run.c.index) + " " + std::to_string(CountLogLines(mine) - before));
            char sink[4096];
            while (recv(run.s, sink, sizeof sink, 0) > 0) {
            }
        }
        if (posted) AwaitProxyEnd(run);
        bool idle = AwaitHiddenThreadIdle(run.c.family, run.s, host);
        host.PumpFor(0);
        EmitAsked(run);
        size_t connects = 0;
        for (const auto& m : messages()) connects += m.Event() == FD_CONNECT ? 1 : 0;
        Emit("POSTS " + std::to_string(run.c.index) + " " + std::to_string(connects));
        if (!idle) {
            // A step that never ends holds the hidden thread: the cases behind it can't run.
            Emit("BROKEN " + std::to_string(run.c.index) + " the hidden thread keeps taking events for the socket");
            return 1;
        }
        g_nonBlockingRunning = nullptr;
        // A close during the handshake leaves the socket open; the object goes with CleanupSocket.
        int closed = http ? HTTP_closesocket(run.s) : SOCKS_closesocket(run.s);
        if (IsSocket(run.s)) {
            if (http) {
                HTTP_CleanupSocket(run.s);
            } else {
                SOCKS_CleanupSocket(run.s);
            }
            shutdown(run.s, SD_BOTH);
        }
        if (!posted) Emit("QUIET " + std::to_string(run.c.index) + " " + std::to_string(closed) + " " + std::to_string(elapsed));
    }
    return 0;
}

// ---------------------------------------------------------------- the parent

// One child process and the lines it has written so far. The pipe is read by polling: Wine's
// desktop process, which a child's first window starts, inherits the child's handles and keeps the
// pipe open after the child is gone.
class Child {
public:
    Child(const std::string& commandLine, const Batch& batch) : batch_(batch) {
        SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
        HANDLE write = nullptr;
        if (!CreatePipe(&read_, &write, &inherit, 1 << 16)) return;
        SetHandleInformation(read_, HANDLE_FLAG_INHERIT, 0);
        STARTUPINFOA startup = {};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdOutput = write;
        startup.hStdError = write;
        PROCESS_INFORMATION info = {};
        std::string command = commandLine;
        if (CreateProcessA(nullptr, &command[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &info)) {
            process_ = info.hProcess;
            CloseHandle(info.hThread);
            started_ = GetTickCount();
        }
        CloseHandle(write);
    }
    ~Child() {
        if (process_ != nullptr) {
            TerminateProcess(process_, kKilledExitCode);
            WaitForSingleObject(process_, 5000);
            CloseHandle(process_);
        }
        if (read_ != nullptr) CloseHandle(read_);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    bool Started() const { return process_ != nullptr; }
    // True once the child is gone, by itself or because its time was up. The time counts from
    // the child's "GO", when its cases have started; a loaded machine may be slow to get there.
    bool Poll() {
        Drain();
        if (WaitForSingleObject(process_, 0) == WAIT_OBJECT_0) {
            Drain();
            return true;
        }
        DWORD now = GetTickCount();
        if (go_ == 0 && ("\n" + output_).find("\nGO\n") != std::string::npos) go_ = now;
        if (go_ == 0 && static_cast<int>(now - started_) < kStartLimitMs) return false;
        if (go_ != 0 && static_cast<int>(now - go_) < batch_.deadlineMs) return false;
        TerminateProcess(process_, kKilledExitCode);
        WaitForSingleObject(process_, 5000);
        Drain();
        return true;
    }
    DWORD ExitCode() const {
        DWORD code = 0;
        GetExitCodeProcess(process_, &code);
        return code;
    }
    std::vector<std::string> Lines() const {
        std::vector<std::string> lines;
        std::istringstream in(output_);
        for (std::string line; std::getline(in, line);) {
            if (!line.empty() && line.back() == '\r') line.pop_back();
            lines.push_back(line);
        }
        return lines;
    }
    const Batch& GetBatch() const { return batch_; }

private:
    void Drain() {
        DWORD available = 0;
        while (PeekNamedPipe(read_, nullptr, 0, nullptr, &available, nullptr) && available > 0) {
            char buffer[4096];
            DWORD got = 0;
            if (!ReadFile(read_, buffer, std::min<DWORD>(available, sizeof buffer), &got, nullptr) || got == 0) return;
            output_.append(buffer, got);
        }
    }

    static constexpr int kStartLimitMs = 30000;
    Batch batch_;
    HANDLE read_ = nullptr;
    HANDLE process_ = nullptr;
    DWORD started_ = 0;
    DWORD go_ = 0;
    std::string output_;
};

std::string ChildCommand(Family family, uint64_t seed, const Batch& batch) {
    char path[MAX_PATH];
    GetModuleFileNameA(nullptr, path, sizeof path);
    std::string command = std::string("\"") + path + "\" " + kChildFlag + " " + FamilyName(family) + " " +
                          std::to_string(seed) + " " + (batch.mode == Mode::kBlocking ? "blocking" : "nonblocking") + " ";
    for (size_t i = 0; i < batch.indices.size(); ++i) command += (i ? "," : "") + std::to_string(batch.indices[i]);
    return command;
}

// Takes in one child's report. Returns a description of what went wrong with the child itself.
std::string Absorb(Child& child, FamilyRun& run) {
    std::string problem;
    for (const std::string& line : child.Lines()) {
        std::istringstream words(line);
        std::string tag;
        words >> tag;
        if (tag == "CRASH" || tag == "BROKEN") problem += line + "; ";
        int index = -1;
        if (!(words >> index) || (run.observed.count(index) == 0 && tag != "ID")) continue;
        Observed& o = run.observed[index];
        if (tag == "ID") {
            words >> o.scriptId;
        } else if (tag == "OUT") {
            o.finished = true;
            words >> o.result >> o.code >> o.lastError >> o.canceled >> o.connectError >> o.posted >> o.elapsedMs;
        } else if (tag == "HOST") {
            std::string hex;
            words >> hex;
            o.hostRead = true;
            o.hostData = hex == "-" ? Bytes() : dxtest::Unhex(hex);
        } else if (tag == "ASKED") {
            int right = 1;
            words >> o.asked >> right;
            o.askedRight = right != 0;
        } else if (tag == "POSTS") {
            words >> o.posts;
        } else if (tag == "LOOP") {
            words >> o.loopEvents;
        } else if (tag == "QUIET") {
            o.quiet = true;
            words >> o.closeResult >> o.elapsedMs;
        }
    }
    DWORD code = child.ExitCode();
    if (code != 0 && code != kKilledExitCode) problem += "child ended with exit code " + std::to_string(code) + "; ";
    if (!problem.empty()) {
        problem += "it held cases";
        for (int i : child.GetBatch().indices) problem += " " + std::to_string(i);
    }
    return problem;
}

}  // namespace

FamilyRun RunBatches(Family family, uint64_t seed, const std::vector<Batch>& batches, int parallel) {
    FamilyRun run;
    std::deque<const Batch*> waiting;
    for (const Batch& batch : batches) waiting.push_back(&batch);
    std::vector<std::unique_ptr<Child>> running;
    while (!waiting.empty() || !running.empty()) {
        // Children that loop for ever load the processor: one such child at a time.
        bool spinning = std::any_of(running.begin(), running.end(), [](const auto& c) { return c->GetBatch().spins; });
        for (auto it = waiting.begin(); it != waiting.end() && static_cast<int>(running.size()) < parallel;) {
            if ((*it)->spins && spinning) {
                ++it;
                continue;
            }
            spinning = spinning || (*it)->spins;
            auto child = std::make_unique<Child>(ChildCommand(family, seed, **it), **it);
            if (!child->Started()) {
                run.problems.push_back("could not start a child for " + ChildCommand(family, seed, **it));
            } else {
                running.push_back(std::move(child));
            }
            it = waiting.erase(it);
        }
        for (auto it = running.begin(); it != running.end();) {
            if ((*it)->Poll()) {
                std::string problem = Absorb(**it, run);
                if (!problem.empty()) run.problems.push_back(problem);
                it = running.erase(it);
            } else {
                ++it;
            }
        }
        Sleep(20);
    }
    return run;
}

bool IsChildCommand(int argc, char** argv) { return argc > 1 && std::strcmp(argv[1], kChildFlag) == 0; }

// --hostile-child FAMILY SEED blocking|nonblocking I,J,...
int RunChild(int argc, char** argv) {
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    SetUnhandledExceptionFilter(ReportCrash);
    if (argc != 6) return 2;
    Family family = FamilyFromName(argv[2]);
    uint64_t seed = std::strtoull(argv[3], nullptr, 10);
    bool blocking = std::strcmp(argv[4], "blocking") == 0;
    WSADATA data;
    if (WSAStartup(MAKEWORD(2, 2), &data) != 0) return 2;
    SOCKS_SetLoggingCallbackEx(nullptr, CollectLog);
    SOCKS_SetPasswordCallback(nullptr, AnswerPassword);
    HTTP_SetPasswordCallback(nullptr, AnswerPassword);

    std::vector<std::unique_ptr<Running>> runs;
    std::istringstream indices(argv[5]);
    for (std::string item; std::getline(indices, item, ',');) {
        auto run = std::make_unique<Running>();
        run->c = GenerateCase(family, seed, std::atoi(item.c_str()));
        run->p = Predict(run->c);
        runs.push_back(std::move(run));
    }
    if (runs.empty()) return 2;
    sockaddr_in fake = dxtest::Loopback(dxtest::BenchPort("FAKE_PORT"));
    int status = blocking ? RunBlockingBatch(runs, fake) : RunNonBlockingLane(runs, fake);
    Emit("DONE");
    // Some threads may still be inside a step the rules never end; leave without waiting for them.
    ExitProcess(static_cast<UINT>(status));
}

}  // namespace hostile
