// A host's own window on the test thread: it records the socket messages posted to it, and the test
// pumps the thread's queue with bounded waits, as a host's message loop would.
#pragma once

#include <winsock2.h>
#include <windows.h>

#include <functional>
#include <string>
#include <vector>

namespace dxtest {

struct PostedMessage {
    UINT message;
    WPARAM wParam;
    LPARAM lParam;
    unsigned Event() const { return WSAGETSELECTEVENT(lParam); }
    unsigned Error() const { return WSAGETSELECTERROR(lParam); }
};

// Pumps this thread's queue until `done` holds or `timeoutMs` passes, waking at least every `pollMs`
// to ask `done` again; returns whether it held.
bool PumpThreadUntil(const std::function<bool()>& done, int timeoutMs, int pollMs = 20);

class HostWindow {
public:
    static constexpr UINT kSocketMessage = WM_USER + 77;

    HostWindow();
    ~HostWindow();
    HostWindow(const HostWindow&) = delete;
    HostWindow& operator=(const HostWindow&) = delete;

    HWND Handle() const { return window_; }
    const std::vector<PostedMessage>& Messages() const { return messages_; }
    // Messages of kSocketMessage for socket s.
    std::vector<PostedMessage> SocketMessages(SOCKET s) const;

    // Pumps this thread's queue until `done` holds or `timeoutMs` passes; returns whether it held.
    bool PumpUntil(const std::function<bool()>& done, int timeoutMs);
    // Pumps for `ms` milliseconds.
    void PumpFor(int ms);
    // Pumps until a message with `event` arrives for socket s; false if none came within the time.
    // `found` (may be null) receives it.
    bool AwaitEvent(SOCKET s, unsigned event, PostedMessage* found, int timeoutMs);
    // Pumps while it reads a non-blocking socket, until `count` bytes came or `timeoutMs` passed.
    std::string ReceiveWhenReadable(SOCKET s, size_t count, int timeoutMs = 5000);

private:
    static LRESULT CALLBACK Procedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam);
    HWND window_ = nullptr;
    std::vector<PostedMessage> messages_;
};

}  // namespace dxtest
