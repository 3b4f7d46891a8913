#include "config_prompt.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "module_path.h"
#include "password_prompt.h"
#include "setui_ids.h"
#include "window_placement.h"

namespace setui {

namespace {

// The editors DXSOCKS.DLL exports: 1 when the user pressed OK and the result was stored.
using EditorEntry = int(WINAPI*)(HWND owner);

// While a timed-out prompt waits for its editor to close: how often the editor is told again, in case
// it answered the first Cancel with another window.
constexpr UINT_PTR kCancelTimer = 1;
constexpr UINT kCancelRepeatMs = 100;

struct ConfigState {
    DWORD family;
    unsigned timeOutsAtStart;
    bool editing = false;   // the editor runs in a nested loop of this thread
    bool timedOut = false;
    bool ended = false;
};

bool IsHttp(DWORD family) { return family == 1; }

std::string LoadText(UINT id) {
    char text[256] = {};
    LoadStringA(companion::ThisModule(), id, text, sizeof text);
    return text;
}

// The file name of this process's program, e.g. "host.exe".
std::string ProgramName() {
    char path[MAX_PATH] = {};
    DWORD length = GetModuleFileNameA(nullptr, path, sizeof path);
    if (length == 0 || length >= sizeof path) return "This program";
    std::string full(path, length);
    size_t slash = full.find_last_of("\\/");
    return slash == std::string::npos ? full : full.substr(slash + 1);
}

void EndPrompt(HWND dialog, ConfigState* state, DWORD result) {
    if (state->ended) return;
    state->ended = true;
    KillTimer(dialog, kCancelTimer);
    EndDialog(dialog, static_cast<INT_PTR>(result));
}

// How many owners lie between `window` and `prompt`; 0 if `prompt` is not among its owners.
int OwnerDepth(HWND window, HWND prompt) {
    int depth = 1;
    for (HWND owner = GetWindow(window, GW_OWNER); owner != nullptr; owner = GetWindow(owner, GW_OWNER), ++depth) {
        if (owner == prompt) return depth;
        if (depth > 64) break;
    }
    return 0;
}

struct OwnedWindows {
    HWND prompt;
    std::vector<std::pair<int, HWND>> found;  // depth, window
};

BOOL CALLBACK CollectOwned(HWND window, LPARAM context) {
    auto* owned = reinterpret_cast<OwnedWindows*>(context);
    int depth = OwnerDepth(window, owned->prompt);
    if (depth > 0) owned->found.emplace_back(depth, window);
    return TRUE;
}

// Presses Cancel in every window that the editor opened over the prompt, the innermost first, as the
// user would: the editor then drops its edits and returns.
void CancelEditor(HWND prompt) {
    OwnedWindows owned{prompt, {}};
    EnumThreadWindows(GetCurrentThreadId(), CollectOwned, reinterpret_cast<LPARAM>(&owned));
    std::stable_sort(owned.found.begin(), owned.found.end(),
                     [](const auto& a, const auto& b) { return a.first > b.first; });
    for (const auto& [depth, window] : owned.found) {
        PostMessageA(window, WM_COMMAND, MAKEWPARAM(IDCANCEL, BN_CLICKED), 0);
    }
}

void OnTimeOut(HWND dialog, ConfigState* state) {
    state->timedOut = true;
    if (!state->editing) {
        EndPrompt(dialog, state, SETUI_RESULT_TIMED_OUT);
        return;
    }
    CancelEditor(dialog);
    SetTimer(dialog, kCancelTimer, kCancelRepeatMs, nullptr);
}

void Configure(HWND dialog, ConfigState* state) {
    HMODULE library = GetModuleHandleA("DXSOCKS.DLL");
    auto editor = library == nullptr
                      ? nullptr
                      : reinterpret_cast<EditorEntry>(reinterpret_cast<void*>(GetProcAddress(
                            library, IsHttp(state->family) ? "HTTP_ConfigurationDialog" : "SOCKS_ConfigurationDialog")));
    if (editor == nullptr) {
        EndPrompt(dialog, state, SETUI_RESULT_CANCELLED);
        return;
    }
    state->editing = true;
    int result = editor(dialog);
    state->editing = false;
    if (state->timedOut) {
        EndPrompt(dialog, state, SETUI_RESULT_TIMED_OUT);
    } else if (result == 1) {
        EndPrompt(dialog, state, SETUI_RESULT_OK);
    }
    // Any other answer leaves the prompt open: the user may configure again or cancel.
}

void Initialise(HWND dialog, ConfigState* state) {
    bool http = IsHttp(state->family);
    SetWindowLongPtrA(dialog, DWLP_USER, reinterpret_cast<LONG_PTR>(state));
    if (AddOpenPrompt(dialog, state->timeOutsAtStart)) PostMessageA(dialog, kTimeOutMessage, 0, 0);
    std::string message =
        ProgramName() + LoadText(http ? SETUI_IDS_CONFIG_MESSAGE_HTTP : SETUI_IDS_CONFIG_MESSAGE_SOCKS);
    SetDlgItemTextA(dialog, SETUI_IDC_CONFIG_MESSAGE, message.c_str());
    companion::CenterWindowOn(dialog, GetWindow(dialog, GW_OWNER));
    SetFocus(GetDlgItem(dialog, SETUI_IDC_CONFIGURE));
    // Last: a prompt found by its title is ready to be driven.
    SetWindowTextA(dialog, LoadText(http ? SETUI_IDS_CONFIG_TITLE_HTTP : SETUI_IDS_CONFIG_TITLE_SOCKS).c_str());
}

INT_PTR CALLBACK ConfigProcedure(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == WM_INITDIALOG) {
        Initialise(dialog, reinterpret_cast<ConfigState*>(lParam));
        return FALSE;  // the focus is set
    }
    auto* state = reinterpret_cast<ConfigState*>(GetWindowLongPtrA(dialog, DWLP_USER));
    if (state == nullptr) return FALSE;
    switch (message) {
    case WM_COMMAND:
        if (LOWORD(wParam) == SETUI_IDC_CONFIGURE && !state->ended && !state->editing) {
            Configure(dialog, state);
            return TRUE;
        }
        if (LOWORD(wParam) == IDCANCEL && !state->editing) {
            EndPrompt(dialog, state, SETUI_RESULT_CANCELLED);
            return TRUE;
        }
        return FALSE;
    case kTimeOutMessage:
        OnTimeOut(dialog, state);
        return TRUE;
    case WM_TIMER:
        if (wParam == kCancelTimer && state->editing) CancelEditor(dialog);
        return TRUE;
    case WM_DESTROY:
        KillTimer(dialog, kCancelTimer);
        RemoveOpenPrompt(dialog);
        return FALSE;
    default:
        return FALSE;
    }
}

}  // namespace

DWORD RunConfigPrompt(HWND owner, DWORD family) {
    if (owner != nullptr && !IsWindow(owner)) owner = nullptr;
    ConfigState state;
    state.family = family;
    state.timeOutsAtStart = TimeOutsSoFar();
    INT_PTR result = DialogBoxParamA(companion::ThisModule(), MAKEINTRESOURCEA(SETUI_IDD_CONFIG), owner,
                                     ConfigProcedure, reinterpret_cast<LPARAM>(&state));
    switch (result) {
    case SETUI_RESULT_OK:
    case SETUI_RESULT_CANCELLED:
    case SETUI_RESULT_TIMED_OUT:
        return static_cast<DWORD>(result);
    default:
        return SETUI_RESULT_FAILED;
    }
}

}  // namespace setui
