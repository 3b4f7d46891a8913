#include "password_prompt.h"

#include <algorithm>
#include <vector>

#include "module_path.h"
#include "setui_ids.h"
#include "window_placement.h"

namespace setui {

namespace {

// Open prompts of the whole process: any thread may time them out. The count of time-outs lets a
// prompt that was still being made when one arrived end as well.
SRWLOCK g_openLock = SRWLOCK_INIT;
std::vector<HWND> g_openPrompts;
unsigned g_timeOuts = 0;

struct PromptState {
    const PasswordRequest* request;
    unsigned timeOutsAtStart;
    char* password = nullptr;  // set by OK only
    bool ended = false;        // the first end wins: a late time-out must not undo an OK
};

DWORD Limit(const PasswordRequest& request) { return std::min<DWORD>(request.maxLength - 1, 0x7FFFFFFE); }

// Zeroed room for `length` characters and the terminator.
char* HeapText(size_t length) {
    return static_cast<char*>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, length + 1));
}

// Length of `text` cut to at most `limit` bytes without splitting a double-byte character.
size_t CutLength(const char* text, size_t length, size_t limit) {
    size_t at = 0;
    while (at < length) {
        size_t step = IsDBCSLeadByte(static_cast<BYTE>(text[at])) && at + 1 < length ? 2 : 1;
        if (at + step > limit) break;
        at += step;
    }
    return at;
}

// The edit's text as a heap copy of at most the limit; null if memory runs out.
char* TakePassword(HWND dialog, const PasswordRequest& request) {
    HWND edit = GetDlgItem(dialog, SETUI_IDC_PASSWORD);
    int length = GetWindowTextLengthA(edit);
    char* typed = HeapText(static_cast<size_t>(std::max(length, 0)));
    if (typed == nullptr) return nullptr;
    int got = length > 0 ? GetWindowTextA(edit, typed, length + 1) : 0;
    size_t keep = CutLength(typed, static_cast<size_t>(std::max(got, 0)), Limit(request));
    char* password = HeapText(keep);
    if (password != nullptr) CopyMemory(password, typed, keep);
    FreePassword(typed);
    return password;
}

void EndPrompt(HWND dialog, PromptState* state, DWORD result) {
    if (state->ended) return;
    state->ended = true;
    SetDlgItemTextA(dialog, SETUI_IDC_PASSWORD, "");
    EndDialog(dialog, static_cast<INT_PTR>(result));
}

void SetString(HWND dialog, int control, UINT id) {
    char text[256] = {};
    LoadStringA(companion::ThisModule(), id, text, sizeof text);
    if (control == 0) {
        SetWindowTextA(dialog, text);
    } else {
        SetDlgItemTextA(dialog, control, text);
    }
}

void Initialise(HWND dialog, PromptState* state) {
    const PasswordRequest& request = *state->request;
    bool http = request.family == 1;
    SetWindowLongPtrA(dialog, DWLP_USER, reinterpret_cast<LONG_PTR>(state));
    if (AddOpenPrompt(dialog, state->timeOutsAtStart)) PostMessageA(dialog, kTimeOutMessage, 0, 0);
    SetString(dialog, SETUI_IDC_MESSAGE, http ? SETUI_IDS_MESSAGE_HTTP : SETUI_IDS_MESSAGE_SOCKS);
    SetDlgItemTextA(dialog, SETUI_IDC_USER, request.user != nullptr ? request.user : "");
    SetDlgItemTextA(dialog, SETUI_IDC_ADDRESS, request.address != nullptr ? request.address : "");
    SendDlgItemMessageA(dialog, SETUI_IDC_PASSWORD, EM_LIMITTEXT, Limit(request), 0);
    companion::CenterWindowOn(dialog, GetWindow(dialog, GW_OWNER));
    SetFocus(GetDlgItem(dialog, SETUI_IDC_PASSWORD));
    // Last: a prompt found by its title is ready to be driven.
    SetString(dialog, 0, http ? SETUI_IDS_TITLE_HTTP : SETUI_IDS_TITLE_SOCKS);
}

INT_PTR CALLBACK PromptProcedure(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == WM_INITDIALOG) {
        Initialise(dialog, reinterpret_cast<PromptState*>(lParam));
        return FALSE;  // the focus is set
    }
    auto* state = reinterpret_cast<PromptState*>(GetWindowLongPtrA(dialog, DWLP_USER));
    if (state == nullptr) return FALSE;
    switch (message) {
    case WM_COMMAND:
        if (LOWORD(wParam) == IDOK && !state->ended) {
            state->password = TakePassword(dialog, *state->request);
            EndPrompt(dialog, state, state->password != nullptr ? SETUI_RESULT_OK : SETUI_RESULT_FAILED);
            return TRUE;
        }
        if (LOWORD(wParam) == IDCANCEL) {
            EndPrompt(dialog, state, SETUI_RESULT_CANCELLED);
            return TRUE;
        }
        return FALSE;
    case kTimeOutMessage:
        EndPrompt(dialog, state, SETUI_RESULT_TIMED_OUT);
        return TRUE;
    case WM_DESTROY:
        RemoveOpenPrompt(dialog);
        return FALSE;
    default:
        return FALSE;
    }
}

}  // namespace

DWORD RunPasswordPrompt(HWND owner, const PasswordRequest& request, char** password) {
    if (password == nullptr) return SETUI_RESULT_FAILED;
    *password = nullptr;
    if (request.maxLength < 2) return SETUI_RESULT_FAILED;  // not even one character would fit
    if (owner != nullptr && !IsWindow(owner)) owner = nullptr;
    PromptState state;
    state.request = &request;
    state.timeOutsAtStart = TimeOutsSoFar();
    INT_PTR result = DialogBoxParamA(companion::ThisModule(), MAKEINTRESOURCEA(SETUI_IDD_PASSWORD), owner,
                                     PromptProcedure, reinterpret_cast<LPARAM>(&state));
    if (result == SETUI_RESULT_OK && state.password != nullptr) {
        *password = state.password;
        return SETUI_RESULT_OK;
    }
    FreePassword(state.password);
    return result == SETUI_RESULT_CANCELLED || result == SETUI_RESULT_TIMED_OUT ? static_cast<DWORD>(result)
                                                                                : SETUI_RESULT_FAILED;
}

unsigned TimeOutsSoFar() {
    AcquireSRWLockShared(&g_openLock);
    unsigned count = g_timeOuts;
    ReleaseSRWLockShared(&g_openLock);
    return count;
}

bool AddOpenPrompt(HWND dialog, unsigned timeOutsAtStart) {
    AcquireSRWLockExclusive(&g_openLock);
    g_openPrompts.push_back(dialog);
    bool missed = g_timeOuts != timeOutsAtStart;
    ReleaseSRWLockExclusive(&g_openLock);
    return missed;
}

void RemoveOpenPrompt(HWND dialog) {
    AcquireSRWLockExclusive(&g_openLock);
    g_openPrompts.erase(std::remove(g_openPrompts.begin(), g_openPrompts.end(), dialog), g_openPrompts.end());
    ReleaseSRWLockExclusive(&g_openLock);
}

void TimeOutOpenPrompts() {
    AcquireSRWLockExclusive(&g_openLock);
    ++g_timeOuts;
    for (HWND dialog : g_openPrompts) PostMessageA(dialog, kTimeOutMessage, 0, 0);
    ReleaseSRWLockExclusive(&g_openLock);
}

void FreePassword(char* password) {
    if (password == nullptr) return;
    SecureZeroMemory(password, lstrlenA(password));
    HeapFree(GetProcessHeap(), 0, password);
}

}  // namespace setui
