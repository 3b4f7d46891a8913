// dxconfig: opens a configuration editor of DXSOCKS.DLL the way a host program does and prints what
// it gave back. Options let a script drive it without a user: switch to the full view, print the
// dialog's rectangle, wait for a file, press OK or Cancel.
#include <windows.h>

#include "http_api.h"
#include "socks_api.h"
#include "tool_options.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

namespace {

enum ExitCode { kExitOk = 0, kExitNotSaved = 1, kExitUsage = kToolExitUsage, kExitSetup = 3 };

const char kUsage[] =
    "Usage: dxconfig [options]\n"
    "\n"
    "Opens the proxy maps editor of DXSOCKS.DLL as a host program does and prints its result:\n"
    "\"result 1\" when the user pressed OK (the settings file is written), else \"result 0\".\n"
    "\n"
    "Options:\n"
    "  -t TYPE       socks (default) or http: the family whose maps are edited\n"
    "  -X            the ShowXMLConfigDlg variant: the editor over an empty in-memory registry;\n"
    "                after \"result 1\" the registry's XML text follows\n"
    "  -f            switch the editor to its full view (the list of maps) once it is shown\n"
    "  -r            once the editor is shown, print \"dialog LEFT TOP WIDTH HEIGHT\", its\n"
    "                rectangle on the screen\n"
    "  -w FILE       before pressing (-k), wait until FILE exists (at most 60 s)\n"
    "  -k BUTTON     press ok or cancel in the editor (and OK in a message box it shows), as\n"
    "                a user would; without -k the user answers\n"
    "  -v            print every library log line to standard error\n"
    "  -h            show this help\n"
    "\n"
    "Exit status: 0 OK pressed, 1 not saved (Cancel, another editor open, no editor),\n"
    "2 usage error, 3 the editor did not show for -k within 10 s.\n";

constexpr int kMapListId = 1016;    // the editor's list of maps: only the main dialog has it
constexpr int kViewSwitchId = 1028;  // the button between the simple and the full view
constexpr int kBoxTextId = 65535;    // a message box's text
constexpr int kShowWaitMs = 10000;
constexpr int kFileWaitMs = 60000;

struct Options {
    bool http = false;
    bool xml = false;
    bool full = false;
    bool printRect = false;
    std::string waitFile;
    int press = 0;  // IDOK, IDCANCEL or 0
    bool verbose = false;
};

int UsageError(const std::string& message) { return ToolUsageError("dxconfig", message); }

// Returns -1 when the command line is good, else the exit code (0 after -h).
int ParseOptions(int argc, char** argv, Options* o) {
    return ReadOptionWords("dxconfig", kUsage, "hXfrv", "twk", argc, argv, [o](const OptionWord& word) {
        const std::string& value = word.value;
        switch (word.flag) {
            case 'X':
                o->xml = true;
                break;
            case 'f':
                o->full = true;
                break;
            case 'r':
                o->printRect = true;
                break;
            case 'v':
                o->verbose = true;
                break;
            case 't':
                if (value != "socks" && value != "http") return UsageError("unknown type " + value);
                o->http = value == "http";
                break;
            case 'w':
                o->waitFile = value;
                break;
            default:
                if (value == "ok") {
                    o->press = IDOK;
                } else if (value == "cancel") {
                    o->press = IDCANCEL;
                } else {
                    return UsageError("unknown button " + value);
                }
        }
        return -1;
    });
}

void LogToStream(void* context, const char* text) { std::fprintf(static_cast<FILE*>(context), "%s\n", text); }

struct DialogSearch {
    int controlId;
    HWND found;
};

BOOL CALLBACK MatchDialog(HWND window, LPARAM context) {
    auto* search = reinterpret_cast<DialogSearch*>(context);
    char className[16] = {};
    GetClassNameA(window, className, sizeof className);
    if (std::strcmp(className, "#32770") != 0 || !IsWindowVisible(window)) return TRUE;
    if (GetDlgItem(window, search->controlId) == nullptr) return TRUE;
    search->found = window;
    return FALSE;
}

// The visible dialog of `thread` that has the control `controlId`, or null.
HWND DialogWith(DWORD thread, int controlId) {
    DialogSearch search = {controlId, nullptr};
    EnumThreadWindows(thread, MatchDialog, reinterpret_cast<LPARAM>(&search));
    return search.found;
}

bool FileExists(const std::string& path) { return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

// Runs beside the editor on a thread of its own, as the user: finds the editor (or the message box
// that stands for it), does what the options ask and presses. `shown` tells whether it came.
void Drive(const Options& o, DWORD thread, std::atomic<bool>* finished, std::atomic<bool>* shown) {
    HWND editor = nullptr;
    HWND box = nullptr;
    for (int waited = 0; waited <= kShowWaitMs && !*finished; waited += 20) {
        editor = DialogWith(thread, kMapListId);
        box = DialogWith(thread, kBoxTextId);
        if (editor != nullptr || box != nullptr) break;
        Sleep(20);
    }
    if (editor == nullptr && box == nullptr) return;
    *shown = true;
    HWND window = editor != nullptr ? editor : box;
    // Sent: the view has switched when the rectangle is read.
    if (editor != nullptr && o.full) SendMessageA(GetDlgItem(editor, kViewSwitchId), BM_CLICK, 0, 0);
    if (o.printRect) {
        RECT r = {};
        GetWindowRect(window, &r);
        std::printf("dialog %ld %ld %ld %ld\n", r.left, r.top, r.right - r.left, r.bottom - r.top);
        std::fflush(stdout);
    }
    if (o.press == 0) return;
    for (int waited = 0; !o.waitFile.empty() && !FileExists(o.waitFile) && waited <= kFileWaitMs; waited += 50) {
        Sleep(50);
    }
    // A message box has OK alone; posted, so that the modal loop ends on its own thread.
    PostMessageA(GetDlgItem(window, editor != nullptr ? o.press : IDOK), BM_CLICK, 0, 0);
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    const int parsed = ParseOptions(argc, argv, &o);
    if (parsed >= 0) return parsed;
    if (o.verbose) SOCKS_SetLoggingCallbackEx(stderr, LogToStream);

    std::atomic<bool> finished{false};
    std::atomic<bool> shown{false};
    std::thread driver;
    if (o.press != 0 || o.printRect || o.full) {
        const DWORD thread = GetCurrentThreadId();
        driver = std::thread([&o, thread, &finished, &shown] { Drive(o, thread, &finished, &shown); });
    }
    int result = 0;
    const char* xml = nullptr;
    if (o.xml) {
        xml = o.http ? HTTP_ShowXMLConfigDlg(nullptr) : SOCKS_ShowXMLConfigDlg(nullptr);
        result = xml != nullptr ? 1 : 0;
    } else {
        result = o.http ? HTTP_ConfigurationDialog(nullptr) : SOCKS_ConfigurationDialog(nullptr);
    }
    finished = true;
    if (driver.joinable()) driver.join();

    std::printf("result %d\n", result);
    if (xml != nullptr) std::printf("%s\n", xml);
    std::fflush(stdout);
    if (o.verbose) SOCKS_SetLoggingCallbackEx(nullptr, nullptr);
    if (o.press != 0 && !shown) {
        std::fprintf(stderr, "dxconfig: the editor did not show\n");
        return kExitSetup;
    }
    return result == 1 ? kExitOk : kExitNotSaved;
}
