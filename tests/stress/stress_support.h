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

// WinSock hands a closed handle value out again at once. A socket closed while the library or a
// hidden thread may still touch its handle value is put in quarantine in the same breath as its
// close (both under HandleGuard): NewSocket never gives a quarantined value to a caller, and keeps
// the socket WinSock made with it aside until the value is released.
class HandleGuard {
public:
    HandleGuard();
    ~HandleGuard();
    HandleGuard(const HandleGuard&) = delete;
    HandleGuard& operator=(const HandleGuard&) = delete;
};
// With a HandleGuard held, right after the close.
void Quarantine(SOCKET s);
// Once nothing touches the value any more: a socket kept aside with it is closed.
void ReleaseQuarantine(SOCKET s);

// A TCP socket whose handle value is in no quarantine. With `bound` it is bound to a loopback port
// first, so that the fake proxy can be given a script for that client port.
SOCKET NewSocket(bool bound, uint16_t* port = nullptr);
uint16_t LocalPort(SOCKET s);
void SetReceiveTimeout(SOCKET s, DWORD ms);

// The fake proxy's control channel, one connection kept open for the thread that owns it, so that
// polling it makes no sockets (dxtest's helpers connect anew for each request).
class ControlChannel {
public:
    ControlChannel();
    ~ControlChannel();
    ControlChannel(const ControlChannel&) = delete;
    ControlChannel& operator=(const ControlChannel&) = delete;
    // A script for the connection from `clientPort`; its id. Throws when the proxy refuses it.
    int Script(uint16_t clientPort, const std::string& steps);
    // What the proxy has received on that connection so far.
    std::string Received(int id);

private:
    std::string Ask(const std::string& request);
    SOCKET s_;
};

// ---------------------------------------------------------------- the library's log

// Installs the log callback: it keeps, per thread, the code of the last "WinSock Error = " line,
// counts the events the hidden threads take per socket, and notes the markers they pass. Other
// lines are dropped.
void WatchLog();
// The code the calling thread's last connect logged, or kNoCode.
constexpr int kNoCode = 0x7fffffff;
int LastLoggedCode();
void ForgetLoggedCode();

// How many events of socket s the hidden threads have begun to handle since ForgetEvents(s): a step
// of the handshake begins with each. Handle values come back, so a round forgets them first.
int EventsBegun(SOCKET s);
void ForgetEvents(SOCKET s);

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
