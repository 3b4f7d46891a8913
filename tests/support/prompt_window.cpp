#include "prompt_window.h"

#include "setui_ids.h"

namespace dxtest {

namespace {

struct FindRequest {
    const char* title;
    HWND found;
};

struct DialogRequest {
    int controlId;
    const char* title;
    HWND found;
};

BOOL CALLBACK MatchDialog(HWND window, LPARAM context) {
    auto* request = reinterpret_cast<DialogRequest*>(context);
    char className[32] = {};
    char title[256] = {};
    GetClassNameA(window, className, sizeof className);
    if (lstrcmpA(className, "#32770") != 0 || !IsWindowVisible(window)) return TRUE;
    // Only a dialog's text is asked for: that of another window of this process would be sent to
    // its thread, which may be waiting for the caller.
    GetWindowTextA(window, title, sizeof title);
    if (request->title != nullptr && lstrcmpA(title, request->title) != 0) return TRUE;
    if (request->controlId != 0 && GetDlgItem(window, request->controlId) == nullptr) return TRUE;
    request->found = window;
    return FALSE;
}

BOOL CALLBACK MatchPrompt(HWND window, LPARAM context) {
    auto* request = reinterpret_cast<FindRequest*>(context);
    char className[32] = {};
    char title[128] = {};
    GetClassNameA(window, className, sizeof className);
    GetWindowTextA(window, title, sizeof title);
    if (lstrcmpA(className, SETUI_PROMPT_CLASS) == 0 && lstrcmpA(title, request->title) == 0) {
        request->found = window;
        return FALSE;
    }
    return TRUE;
}

}  // namespace

HWND FindPrompt(DWORD thread, const char* title, int timeoutMs) {
    for (int waited = 0; waited <= timeoutMs; waited += 10) {
        FindRequest request = {title, nullptr};
        if (thread != 0) {
            EnumThreadWindows(thread, MatchPrompt, reinterpret_cast<LPARAM>(&request));
        } else {
            request.found = FindWindowA(SETUI_PROMPT_CLASS, title);
        }
        if (request.found != nullptr && IsWindowVisible(request.found)) return request.found;
        Sleep(10);
    }
    return nullptr;
}

HWND FindDialog(DWORD thread, int controlId, const char* title, int timeoutMs) {
    for (int waited = 0; waited <= timeoutMs; waited += 10) {
        DialogRequest request = {controlId, title, nullptr};
        if (thread != 0) {
            EnumThreadWindows(thread, MatchDialog, reinterpret_cast<LPARAM>(&request));
        } else {
            EnumWindows(MatchDialog, reinterpret_cast<LPARAM>(&request));
        }
        if (request.found != nullptr) return request.found;
        Sleep(10);
    }
    return nullptr;
}

std::string ItemText(HWND dialog, int id) {
    char text[512] = {};
    GetDlgItemTextA(dialog, id, text, sizeof text);
    return text;
}

void Type(HWND dialog, const std::string& text) { TypeInto(dialog, SETUI_IDC_PASSWORD, text); }

void TypeInto(HWND dialog, int id, const std::string& text) {
    HWND edit = GetDlgItem(dialog, id);
    for (char c : text) SendMessageA(edit, WM_CHAR, static_cast<unsigned char>(c), 1);
}

void Press(HWND dialog, int button) { PostMessageA(GetDlgItem(dialog, button), BM_CLICK, 0, 0); }

}  // namespace dxtest
