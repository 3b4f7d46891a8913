// The first-use prompt of pxmSetUI.dll: a program wants a proxy of a family and none is configured.
// Configure runs that family's editor of the DXSOCKS.DLL loaded in the process.
#pragma once

#include <windows.h>

namespace setui {

// Shows the prompt owned by `owner` (a window that is not one counts as none) for `family` (1 HTTP,
// any other SOCKS) and waits for it on the calling thread. Returns a SETUI_RESULT_... value: OK once
// the editor saved a configuration; CANCELLED for Cancel, Esc, the close box, or no editor to run;
// TIMED_OUT when TimeOutOpenPrompts closed it, and the editor with it; FAILED if no dialog was made.
DWORD RunConfigPrompt(HWND owner, DWORD family);

}  // namespace setui
