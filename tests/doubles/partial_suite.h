// What the partial suite library counts: its loads (process attaches) and its PXMMSIgetLangID calls.
// The counts live in this process's environment, so that they outlive the library between loads.
#pragma once

#include <windows.h>

#include <cstdio>
#include <cstdlib>

constexpr char kPartialSuiteLoads[] = "DXTEST_PARTIAL_SUITE_LOADS";
constexpr char kPartialSuiteLangIdCalls[] = "DXTEST_PARTIAL_SUITE_LANGID_CALLS";

inline int PartialSuiteCount(const char* name) {
    char text[16] = {};
    DWORD length = GetEnvironmentVariableA(name, text, sizeof text);
    return length == 0 || length >= sizeof text ? 0 : std::atoi(text);
}

inline void PartialSuiteCounted(const char* name) {
    char text[16];
    std::snprintf(text, sizeof text, "%d", PartialSuiteCount(name) + 1);
    SetEnvironmentVariableA(name, text);
}

inline void PartialSuiteResetCounts() {
    SetEnvironmentVariableA(kPartialSuiteLoads, nullptr);
    SetEnvironmentVariableA(kPartialSuiteLangIdCalls, nullptr);
}
