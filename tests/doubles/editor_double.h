// A stand-in DXSOCKS.DLL for the first-use prompt of pxmSetUI.dll: its configuration editors are a
// message box each ("SOCKS editor double", "HTTP editor double"), OK answering what the test scripted
// and Cancel 0.
#pragma once

#include <windows.h>

#define EDITOR_DOUBLE_SOCKS_TITLE "SOCKS editor double"
#define EDITOR_DOUBLE_HTTP_TITLE "HTTP editor double"

struct EditorDoubleRecord {
    int socksCalls;
    int httpCalls;
    HWND owner;      // of the last call
    bool cancelled;  // the last call ended by Cancel
};

extern "C" {
// What OK in the next editors answers.
typedef void(WINAPI* PFN_EditorDoubleScript)(int okResult);
typedef void(WINAPI* PFN_EditorDoubleRecording)(EditorDoubleRecord* out);
}
