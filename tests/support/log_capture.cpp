#include "log_capture.h"

#include "socks_api.h"

namespace dxtest {

LogCapture::LogCapture() {
    SOCKS_SetLoggingCallback(nullptr);
    SOCKS_SetLoggingCallbackEx(this, &LogCapture::Collect);
}

LogCapture::~LogCapture() { SOCKS_SetLoggingCallbackEx(nullptr, nullptr); }

void LogCapture::Collect(void* context, const char* text) {
    auto* self = static_cast<LogCapture*>(context);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->lines_.emplace_back(text);
}

std::vector<std::string> LogCapture::Lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

void LogCapture::Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
}

std::vector<std::string> LinesStartingWith(const std::vector<std::string>& lines, const std::string& prefix) {
    std::vector<std::string> result;
    for (const auto& line : lines) {
        if (line.rfind(prefix, 0) == 0) result.push_back(line);
    }
    return result;
}

}  // namespace dxtest
