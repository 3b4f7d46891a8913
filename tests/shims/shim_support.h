// What the shim tests share: another program's control window, the warning box as a user meets it,
// and plain windows of a host.
#pragma once

#include <windows.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace dxtest {

// shim_window.exe (beside this program) showing a window of a class or a title, in a process of its
// own; ended when the object goes.
class ShimWindow {
public:
    enum Kind { kByClass, kByTitle };
    ShimWindow(Kind kind, const std::string& name);
    ~ShimWindow();
    ShimWindow(const ShimWindow&) = delete;
    ShimWindow& operator=(const ShimWindow&) = delete;

    // The window came up within 10 s, in the helper's process.
    bool Running() const { return window_ != nullptr; }

private:
    PROCESS_INFORMATION process_ = {};
    HWND window_ = nullptr;
};

// A message box as the watcher found it.
struct BoxRecord {
    std::string text;     // static 65535
    std::string caption;
    HWND owner = nullptr;
    bool hasOk = false;
    int otherButtons = 0;  // Cancel, Abort, Retry, Ignore, Yes, No, Close, Help, Try Again, Continue
    bool stopIcon = false;  // the icon control shows the system's stop icon
};

// Watches the windows of `thread` for message boxes from its start until Stop, records each and
// presses its OK, as the user would. Gives up after 20 s.
class BoxWatcher {
public:
    explicit BoxWatcher(DWORD thread);
    ~BoxWatcher();
    BoxWatcher(const BoxWatcher&) = delete;
    BoxWatcher& operator=(const BoxWatcher&) = delete;

    // Ends the watch; the boxes seen.
    std::vector<BoxRecord> Stop();

private:
    void Watch(DWORD thread);
    std::atomic<bool> stop_{false};
    std::vector<BoxRecord> boxes_;
    std::thread watcher_;
};

// The warning's texts as our resource library holds them.
struct ShimTexts {
    std::string text;
    std::string caption;
};
ShimTexts OurShimTexts();

// A visible top-level window of this thread, or, with `owner`, a popup owned by it.
class TestWindow {
public:
    explicit TestWindow(HWND owner = nullptr);
    ~TestWindow();
    TestWindow(const TestWindow&) = delete;
    TestWindow& operator=(const TestWindow&) = delete;
    HWND Handle() const { return window_; }

private:
    HWND window_ = nullptr;
};

}  // namespace dxtest
