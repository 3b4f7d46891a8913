#include "prompt_window.h"

#include "setui_ids.h"

namespace dxtest {

namespace {

struct FindRequest {
    const char* title;
    HWND found;
};

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

std::string ItemText(HWND dialog, int id) {
    char text[512] = {};
    GetDlgItemTextA(dialog, id, text, sizeof text);
    return text;
}

void Type(HWND dialog, const std::string& text) {
    HWND edit = GetDlgItem(dialog, SETUI_IDC_PASSWORD);
    for (char c : text) SendMessageA(edit, WM_CHAR, static_cast<unsigned char>(c), 1);
}

void Press(HWND dialog, int button) { PostMessageA(GetDlgItem(dialog, button), BM_CLICK, 0, 0); }

}  // namespace dxtest
