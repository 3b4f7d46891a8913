#include "host_window.h"

namespace dxtest {
namespace {
const char kClassName[] = "DXTEST_HOST_WINDOW";
}

HostWindow::HostWindow() {
    WNDCLASSA windowClass = {};
    windowClass.lpfnWndProc = &HostWindow::Procedure;
    windowClass.hInstance = GetModuleHandleA(nullptr);
    windowClass.lpszClassName = kClassName;
    RegisterClassA(&windowClass);  // fails harmlessly when a earlier test registered it
    window_ = CreateWindowExA(0, kClassName, "", 0, 0, 0, 0, 0, nullptr, nullptr, GetModuleHandleA(nullptr), nullptr);
    SetWindowLongPtrA(window_, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
}

HostWindow::~HostWindow() {
    DestroyWindow(window_);
    MSG message;
    while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) DispatchMessageA(&message);
}

LRESULT CALLBACK HostWindow::Procedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    auto* self = reinterpret_cast<HostWindow*>(GetWindowLongPtrA(window, GWLP_USERDATA));
    if (self != nullptr && message == kSocketMessage) {
        self->messages_.push_back({message, wParam, lParam});
        return 0;
    }
    return DefWindowProcA(window, message, wParam, lParam);
}

std::vector<PostedMessage> HostWindow::SocketMessages(SOCKET s) const {
    std::vector<PostedMessage> result;
    for (const auto& posted : messages_) {
        if (posted.wParam == static_cast<WPARAM>(s)) result.push_back(posted);
    }
    return result;
}

bool PumpThreadUntil(const std::function<bool()>& done, int timeoutMs, int pollMs) {
    DWORD start = GetTickCount();
    for (;;) {
        MSG message;
        while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) {
            TranslateMessage(&message);
            DispatchMessageA(&message);
        }
        if (done()) return true;
        int left = timeoutMs - static_cast<int>(GetTickCount() - start);
        if (left <= 0) return false;
        MsgWaitForMultipleObjects(0, nullptr, FALSE, static_cast<DWORD>(left < pollMs ? left : pollMs), QS_ALLINPUT);
    }
}

bool HostWindow::PumpUntil(const std::function<bool()>& done, int timeoutMs) {
    return PumpThreadUntil(done, timeoutMs);
}

bool HostWindow::AwaitEvent(SOCKET s, unsigned event, PostedMessage* found, int timeoutMs) {
    return PumpUntil(
        [&] {
            for (const auto& posted : SocketMessages(s)) {
                if (posted.Event() != event) continue;
                if (found != nullptr) *found = posted;
                return true;
            }
            return false;
        },
        timeoutMs);
}

std::string HostWindow::ReceiveWhenReadable(SOCKET s, size_t count, int timeoutMs) {
    std::string data;
    PumpUntil(
        [&] {
            char buffer[256];
            int n = recv(s, buffer, sizeof buffer, 0);
            if (n > 0) data.append(buffer, static_cast<size_t>(n));
            return data.size() >= count;
        },
        timeoutMs);
    return data;
}

void HostWindow::PumpFor(int ms) {
    PumpUntil([] { return false; }, ms);
}

}  // namespace dxtest
