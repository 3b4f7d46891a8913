// What the recording suite library was asked to do with the dialogs, one line per call, kept in this
// process's environment so that the test reads it from any thread.
#pragma once

#include <windows.h>

#include <string>

constexpr char kRecordingSuiteCalls[] = "DXTEST_RECORDING_SUITE_CALLS";

inline std::string RecordingSuiteCalls() {
    char text[4096] = {};
    DWORD length = GetEnvironmentVariableA(kRecordingSuiteCalls, text, sizeof text);
    return length < sizeof text ? std::string(text, length) : std::string();
}

// A window handle as the record writes it.
inline std::string RecordedWindow(HWND window) {
    return std::to_string(reinterpret_cast<unsigned long long>(window));
}
