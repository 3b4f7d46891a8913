// pxmSetUI.dll: the prompts that DXSOCKS.DLL raises while a connection is under way. The first-use
// configuration prompt (PXMSETUIDLL_DxsocksConfig) is not offered yet, which DXSOCKS.DLL takes as
// declined.
#include <windows.h>

#include <type_traits>

#include "password_prompt.h"
#include "setui_ids.h"
#include "suite_entries.h"

extern "C" {

// The proxy password prompt: SETUI_RESULT_OK (1) with `*password` set to the text entered (possibly
// empty), else another SETUI_RESULT_... value with `*password` null. `language` is not consulted:
// English is the one language shipped; `one` and `zero` are passed as they stand and not used.
DWORD WINAPI PXMSETUIDLL_DxsocksPwd(DWORD language, HWND owner, DWORD one, DWORD zero, DWORD family,
                                    const char* user, const char* proxyAddress, DWORD maxLength, char** password) {
    setui::PasswordRequest request = {family, user, proxyAddress, maxLength};
    return setui::RunPasswordPrompt(owner, request, password);
}

// Closes every password prompt of this process that is open or being opened, as timed out; any
// thread, any number of times.
void WINAPI PXMSETUIDLL_OnTimeout() { setui::TimeOutOpenPrompts(); }

// Wipes and frees a text from PXMSETUIDLL_DxsocksPwd; null is fine.
void WINAPI PXMSETUIDLL_FreeString(char* text) { setui::FreePassword(text); }

}  // extern "C"

static_assert(std::is_same_v<decltype(&PXMSETUIDLL_DxsocksPwd), PFN_PXMSETUIDLL_DxsocksPwd>);
static_assert(std::is_same_v<decltype(&PXMSETUIDLL_OnTimeout), PFN_PXMSETUIDLL_OnTimeout>);
static_assert(std::is_same_v<decltype(&PXMSETUIDLL_FreeString), PFN_PXMSETUIDLL_FreeString>);
