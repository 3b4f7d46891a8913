// pxmSetUI.dll: the prompts that DXSOCKS.DLL raises while a connection is under way: the first-use
// configuration prompt and the proxy password prompt.
#include <windows.h>

#include <type_traits>

#include "config_prompt.h"
#include "password_prompt.h"
#include "setui_ids.h"
#include "suite_entries.h"

extern "C" {

// The first-use prompt: a program wants a proxy of `family` (0 SOCKS, 1 HTTP) and none is configured.
// SETUI_RESULT_OK (1) once the user configured one in the family's editor of the loaded DXSOCKS.DLL,
// else another SETUI_RESULT_... value. `language`, `one` and `zero` are not used, as for the password.
DWORD WINAPI PXMSETUIDLL_DxsocksConfig(DWORD language, HWND owner, DWORD one, DWORD zero, DWORD family) {
    return setui::RunConfigPrompt(owner, family);
}

// The proxy password prompt: SETUI_RESULT_OK (1) with `*password` set to the text entered (possibly
// empty), else another SETUI_RESULT_... value with `*password` null. `language` is not consulted:
// English is the one language shipped; `one` and `zero` are passed as they stand and not used.
DWORD WINAPI PXMSETUIDLL_DxsocksPwd(DWORD language, HWND owner, DWORD one, DWORD zero, DWORD family,
                                    const char* user, const char* proxyAddress, DWORD maxLength, char** password) {
    setui::PasswordRequest request = {family, user, proxyAddress, maxLength};
    return setui::RunPasswordPrompt(owner, request, password);
}

// Closes every prompt of this process that is open or being opened, as timed out, and the editor a
// first-use prompt opened; any thread, any number of times.
void WINAPI PXMSETUIDLL_OnTimeout() { setui::TimeOutOpenPrompts(); }

// Wipes and frees a text from PXMSETUIDLL_DxsocksPwd; null is fine.
void WINAPI PXMSETUIDLL_FreeString(char* text) { setui::FreePassword(text); }

}  // extern "C"

static_assert(std::is_same_v<decltype(&PXMSETUIDLL_DxsocksConfig), PFN_PXMSETUIDLL_DxsocksConfig>);
static_assert(std::is_same_v<decltype(&PXMSETUIDLL_DxsocksPwd), PFN_PXMSETUIDLL_DxsocksPwd>);
static_assert(std::is_same_v<decltype(&PXMSETUIDLL_OnTimeout), PFN_PXMSETUIDLL_OnTimeout>);
static_assert(std::is_same_v<decltype(&PXMSETUIDLL_FreeString), PFN_PXMSETUIDLL_FreeString>);
