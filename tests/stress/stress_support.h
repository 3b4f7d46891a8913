// What the programs that drive the library from many threads at once share: the heap checks, a lock
// that keeps a closed handle value from coming back while the library may still touch it, markers
// that show when a hidden thread has worked through its queue, the code each thread's last connect
// logged, bounded thread joins, and a list of failures the threads found.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>
#include <winsock2.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace dxstress {

// ---------------------------------------------------------------- heaps

// The checks the prefix's GlobalFlag turns on in every process: tail, free and parameter checks.
constexpr ULONG kHeapCheckFlags = 0x70;
ULONG NtGlobalFlags();

struct HeapCheck {
    DWORD heaps = 0;
    DWORD invalid = 0;
};
// HeapValidate over every heap of the process, not only GetProcessHeap(): the C runtime keeps its
// own heap under Wine, and the library's objects live there.
HeapCheck ValidateHeaps();
// A gtest failure for each heap that does not validate.
void ExpectHeapsWhole(const char* when);

// With DXTEST_HEAP_CHECK set (heap_checked_run.sh sets it) the program refuses to run without
// Wine's heap checks; at the end every heap is validated.
class HeapCheckEnvironment : public ::testing::Environment {
public:
    void SetUp() override;
    void TearDown() override;
};

// A crash is reported on stdout with its code and address and ends the program at once, instead of
// starting Wine's debugger, which can wait for ever on a heap whose lock the crashed thread held.
void ReportCrashes();

// ---------------------------------------------------------------- handles

// WinSock hands a closed handle value out again at once. Threads make their sockets under this lock,
// and a thread that closes a socket the library or a hidden thread may still touch holds it until
// they are done, so that no other thread's new socket takes the value in between.
class HandleGuard {
public:
    HandleGuard();
    ~HandleGuard();
    HandleGuard(const HandleGuard&) = delete;
    HandleGuard& operator=(const HandleGuard&) = delete;
};

// A TCP socket, made under the handle lock. With `bound` it is bound to a loopback port first, so
// that the fake proxy can be given a script for that client port.
SOCKET NewSocket(bool bound, uint16_t* port = nullptr);
uint16_t LocalPort(SOCKET s);
void SetReceiveTimeout(SOCKET s, DWORD ms);

// ---------------------------------------------------------------- the library's log

// Installs the log callback: it keeps, per thread, the code of the last "WinSock Error = " line,
// and notes the markers that the hidden threads pass. Other lines are dropped.
void WatchLog();
// The code the calling thread's last connect logged, or kNoCode.
constexpr int kNoCode = 0x7fffffff;
int LastLoggedCode();
void ForgetLoggedCode();

enum class Family { kSocks, kHttp };
// Waits until the family's hidden thread has handled every event queued before the call: a marker
// event (a socket number no socket has) is queued behind them and the log shows when it goes by.
// Pumps the calling thread's messages meanwhile. False if the window is missing or the time ran out.
bool DrainHiddenThread(Family family, int timeoutMs);

// ---------------------------------------------------------------- threads

// Runs each body on a thread of its own and waits for all of them at most `timeoutMs`. Threads still
// running then cannot be ended safely inside the library: the program reports them and exits.
void RunThreads(const std::vector<std::function<void()>>& bodies, int timeoutMs, const char* what);

double NowMs();

// Failures found on worker threads, reported by the main thread.
class Failures {
public:
    void Add(const std::string& text);
    size_t Count() const;
    // The first few, one per line.
    std::string Text() const;

private:
    mutable std::mutex mutex_;
    std::vector<std::string> first_;
    size_t count_ = 0;
};

}  // namespace dxstress
