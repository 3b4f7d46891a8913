// The modal password prompt of pxmSetUI.dll, and the process-wide list of open prompts (the password
// prompt and the first-use prompt) through which a time-out that arrives on another thread closes them.
#pragma once

#include <windows.h>

namespace setui {

struct PasswordRequest {
    DWORD family;         // 1 HTTP, any other SOCKS
    const char* user;     // shown as given; may be null
    const char* address;  // shown as given; may be null
    DWORD maxLength;      // size of the caller's buffer: at most maxLength - 1 characters are taken
};

// Shows the prompt owned by `owner` (may be null) and waits for it on the calling thread. Returns a
// SETUI_RESULT_... value; on SETUI_RESULT_OK `*password` receives a heap copy of the text in the ANSI
// code page, to be released by FreePassword; otherwise it stays null.
DWORD RunPasswordPrompt(HWND owner, const PasswordRequest& request, char** password);

// Ends as timed out every prompt that is open or being opened. Any thread; a time-out with no prompt
// under way leaves nothing behind for later prompts.
void TimeOutOpenPrompts();

// The list of open prompts that every prompt of this library joins: a time-out posts
// kTimeOutMessage to each. A prompt reads TimeOutsSoFar before it is made and joins the list at
// WM_INITDIALOG; AddOpenPrompt then tells whether a time-out came in between.
constexpr UINT kTimeOutMessage = WM_APP + 1;
unsigned TimeOutsSoFar();
bool AddOpenPrompt(HWND dialog, unsigned timeOutsAtStart);
void RemoveOpenPrompt(HWND dialog);

// Wipes and frees a text from RunPasswordPrompt; null is fine.
void FreePassword(char* password);

}  // namespace setui
