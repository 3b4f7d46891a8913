// A log callback that holds a family's hidden thread, the first time it logs a socket event, until
// the object goes or `holdMs` pass. Both families log through the one callback.
#pragma once

#include <windows.h>

#include <mutex>
#include <string>
#include <vector>

namespace dxtest {

class HiddenThreadStall {
public:
    explicit HiddenThreadStall(DWORD holdMs = 10000);
    ~HiddenThreadStall();
    HiddenThreadStall(const HiddenThreadStall&) = delete;
    HiddenThreadStall& operator=(const HiddenThreadStall&) = delete;

    bool AwaitStall(DWORD ms) const;
    // The held thread, once there is one.
    HANDLE Thread() const;
    std::vector<std::string> Collected() const;

private:
    static void Collect(void* context, const char* text);

    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    DWORD holdMs_;
    HANDLE thread_ = nullptr;
    HANDLE stalled_ = nullptr;
    HANDLE release_ = nullptr;
};

}  // namespace dxtest
