#include "hidden_thread_stall.h"

#include <cstring>

#include "socks_api.h"

namespace dxtest {

HiddenThreadStall::HiddenThreadStall(DWORD holdMs) : holdMs_(holdMs) {
    stalled_ = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    release_ = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    SOCKS_SetLoggingCallbackEx(this, &HiddenThreadStall::Collect);
}

HiddenThreadStall::~HiddenThreadStall() {
    SOCKS_SetLoggingCallbackEx(nullptr, nullptr);
    SetEvent(release_);
    if (thread_ != nullptr) CloseHandle(thread_);
    CloseHandle(stalled_);
    CloseHandle(release_);
}

bool HiddenThreadStall::AwaitStall(DWORD ms) const { return WaitForSingleObject(stalled_, ms) == WAIT_OBJECT_0; }

HANDLE HiddenThreadStall::Thread() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return thread_;
}

std::vector<std::string> HiddenThreadStall::Collected() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

void HiddenThreadStall::Collect(void* context, const char* text) {
    auto* self = static_cast<HiddenThreadStall*>(context);
    {
        std::lock_guard<std::mutex> lock(self->mutex_);
        self->lines_.emplace_back(text);
        // "socksHiddenOnSocketEvent(" or "httpHiddenOnSocketEvent(".
        if (self->thread_ != nullptr || std::strstr(text, "HiddenOnSocketEvent(") == nullptr) return;
        self->thread_ = OpenThread(SYNCHRONIZE | THREAD_QUERY_INFORMATION, FALSE, GetCurrentThreadId());
    }
    SetEvent(self->stalled_);
    // Bounded, should nothing end this thread.
    WaitForSingleObject(self->release_, self->holdMs_);
}

}  // namespace dxtest
