// A stand-in DXSOCKS.DLL whose editors are message boxes; built a second time without the editors
// (EDITOR_DOUBLE_BARE), as a library that lacks them.
#include "editor_double.h"

namespace {

int g_okResult = 1;
EditorDoubleRecord g_record = {};

#ifndef EDITOR_DOUBLE_BARE
int RunEditor(HWND owner, const char* title) {
    g_record.owner = owner;
    int pressed = MessageBoxA(owner, "The proxy maps would be edited here.", title, MB_OKCANCEL);
    g_record.cancelled = pressed != IDOK;
    return pressed == IDOK ? g_okResult : 0;
}
#endif

}  // namespace

extern "C" {

__declspec(dllexport) void WINAPI EditorDoubleScript(int okResult) {
    g_okResult = okResult;
    g_record = {};
}

__declspec(dllexport) void WINAPI EditorDoubleRecording(EditorDoubleRecord* out) { *out = g_record; }

#ifndef EDITOR_DOUBLE_BARE
__declspec(dllexport) int SOCKS_ConfigurationDialog(HWND owner) {
    ++g_record.socksCalls;
    return RunEditor(owner, EDITOR_DOUBLE_SOCKS_TITLE);
}

__declspec(dllexport) int HTTP_ConfigurationDialog(HWND owner) {
    ++g_record.httpCalls;
    return RunEditor(owner, EDITOR_DOUBLE_HTTP_TITLE);
}
#endif

}  // extern "C"
