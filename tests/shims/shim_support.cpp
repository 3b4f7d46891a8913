#include "shim_support.h"

#include "dxsocks_ids.h"
#include "module_files.h"
#include "prompt_window.h"

namespace dxtest {

namespace {

constexpr int kBoxTextId = 65535;
constexpr int kBoxIconId = 0x440;
constexpr int kWaitMs = 10000;
constexpr int kWatchMs = 20000;

struct WindowOfProcess {
    DWORD process;
    const char* className;
    const char* title;
    HWND found;
};

BOOL CALLBACK MatchWindowOfProcess(HWND window, LPARAM context) {
    auto* request = reinterpret_cast<WindowOfProcess*>(context);
    DWORD process = 0;
    GetWindowThreadProcessId(window, &process);
    if (process != request->process) return TRUE;
    char text[256] = {};
    if (request->className != nullptr) {
        GetClassNameA(window, text, sizeof text);
        if (lstrcmpA(text, request->className) != 0) return TRUE;
    } else {
        GetWindowTextA(window, text, sizeof text);
        if (lstrcmpA(text, request->title) != 0) return TRUE;
    }
    request->found = window;
    return FALSE;
}

std::string WindowText(HWND window) {
    char text[1024] = {};
    GetWindowTextA(window, text, sizeof text);
    return text;
}

const char kTestWindowClass[] = "DxTestShimHostWindow";

}  // namespace

ShimWindow::ShimWindow(Kind kind, const std::string& name) {
    std::string command = "\"" + BesideProgram("shim_window.exe") + "\" " + (kind == kByClass ? "--class" : "--title") +
                          " \"" + name + "\"";
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    std::vector<char> line(command.begin(), command.end());
    line.push_back('\0');
    if (!CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process_)) {
        return;
    }
    for (int waited = 0; waited <= kWaitMs && window_ == nullptr; waited += 10) {
        WindowOfProcess request = {process_.dwProcessId, kind == kByClass ? name.c_str() : nullptr,
                                   kind == kByTitle ? name.c_str() : nullptr, nullptr};
        EnumWindows(MatchWindowOfProcess, reinterpret_cast<LPARAM>(&request));
        window_ = request.found;
        if (window_ == nullptr) Sleep(10);
    }
}

ShimWindow::~ShimWindow() {
    if (process_.hProcess == nullptr) return;
    if (window_ != nullptr) PostMessageA(window_, WM_CLOSE, 0, 0);
    if (WaitForSingleObject(process_.hProcess, kWaitMs) != WAIT_OBJECT_0) {
        TerminateProcess(process_.hProcess, 3);
        WaitForSingleObject(process_.hProcess, kWaitMs);
    }
    CloseHandle(process_.hThread);
    CloseHandle(process_.hProcess);
}

BoxWatcher::BoxWatcher(DWORD thread) : watcher_([this, thread] { Watch(thread); }) {}

BoxWatcher::~BoxWatcher() { Stop(); }

std::vector<BoxRecord> BoxWatcher::Stop() {
    stop_ = true;
    if (watcher_.joinable()) watcher_.join();
    return boxes_;
}

void BoxWatcher::Watch(DWORD thread) {
    for (int waited = 0; !stop_ && waited <= kWatchMs; waited += 20) {
        HWND box = FindDialog(thread, kBoxTextId, nullptr, 0);
        if (box == nullptr) {
            Sleep(20);
            continue;
        }
        BoxRecord record;
        record.text = ItemText(box, kBoxTextId);
        record.caption = WindowText(box);
        record.owner = GetWindow(box, GW_OWNER);
        record.hasOk = GetDlgItem(box, IDOK) != nullptr;
        for (int id : {IDCANCEL, IDABORT, IDRETRY, IDIGNORE, IDYES, IDNO, IDCLOSE, IDHELP, IDTRYAGAIN, IDCONTINUE}) {
            if (GetDlgItem(box, id) != nullptr) ++record.otherButtons;
        }
        HWND icon = GetDlgItem(box, kBoxIconId);
        HICON shown = icon != nullptr ? reinterpret_cast<HICON>(SendMessageA(icon, STM_GETICON, 0, 0)) : nullptr;
        record.stopIcon = shown != nullptr && shown == LoadIconA(nullptr, IDI_HAND);
        boxes_.push_back(record);
        Press(box, IDOK);
        // Until this box is gone, so that it is counted once.
        for (int closing = 0; IsWindow(box) && closing <= kWaitMs; closing += 10) Sleep(10);
    }
}

ShimTexts OurShimTexts() {
    ShimTexts texts;
    HMODULE resources = LoadLibraryExA(BesideProgram("DXSOCKS_0409.DLL").c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
    if (resources == nullptr) return texts;
    char text[256] = {};
    char caption[256] = {};
    LoadStringA(resources, IDS_SHIM_WARNING, text, sizeof text);
    LoadStringA(resources, IDS_SHIM_TITLE, caption, sizeof caption);
    FreeLibrary(resources);
    texts.text = text;
    texts.caption = caption;
    return texts;
}

TestWindow::TestWindow(HWND owner) {
    WNDCLASSA windowClass = {};
    windowClass.lpfnWndProc = DefWindowProcA;
    windowClass.hInstance = GetModuleHandleA(nullptr);
    windowClass.lpszClassName = kTestWindowClass;
    RegisterClassA(&windowClass);  // the second time fails: the class is there
    DWORD style = owner != nullptr ? WS_POPUP | WS_CAPTION : WS_OVERLAPPEDWINDOW;
    window_ = CreateWindowExA(0, kTestWindowClass, "Host", style | WS_VISIBLE, 10, 10, 300, 200, owner, nullptr,
                              windowClass.hInstance, nullptr);
}

TestWindow::~TestWindow() {
    if (window_ != nullptr) DestroyWindow(window_);
}

}  // namespace dxtest
