// Collects the library's log lines through the Ex callback for the life of the object.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace dxtest {

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> Lines() const;
    void Clear();

private:
    static void Collect(void* context, const char* text);
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

// The lines of `lines` that begin with `prefix`, in order.
std::vector<std::string> LinesStartingWith(const std::vector<std::string>& lines, const std::string& prefix);

}  // namespace dxtest
