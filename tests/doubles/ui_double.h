// A UI library that records how the library calls its prompt and answers as a test scripts it.
#pragma once

#include <windows.h>

// The first-use prompt (configCalls) and the password prompt (promptCalls) record their common
// arguments into the same fields: the later call's stand.
struct UiDoubleRecord {
    int promptCalls;
    int configCalls;
    int freeCalls;
    int timeoutCalls;
    DWORD language;
    HWND owner;
    DWORD one;
    DWORD zero;
    DWORD family;
    char user[600];
    char address[1100];
    DWORD maxLength;
    bool textPointerWasNull;  // the library preset the text pointer to null
    bool freedTheTextGiven;   // FreeString received the text the prompt handed out
};

// Called inside the prompt, on the prompt's thread, before it answers.
typedef void(WINAPI* UiDoubleHook)(void* context);

extern "C" {
// The next prompts answer `result` and, unless `text` is null, a copy of it (the password prompt);
// `hook` runs inside each, before the answer.
typedef void(WINAPI* PFN_UiDoubleScript)(DWORD result, const char* text, UiDoubleHook hook, void* context);
typedef void(WINAPI* PFN_UiDoubleRecording)(UiDoubleRecord* out);
typedef void(WINAPI* PFN_UiDoubleReset)();
}
