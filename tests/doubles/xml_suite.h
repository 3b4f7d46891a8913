// A suite library whose in-memory registry factory a test scripts: the factory can hand out a
// recording registry or not, and fail with a code of the test's choosing; the settings file's path
// entry answers 0 unless a test names a path. Built twice: with both factory entries
// (xml_suite.def) and without XmlReleaseReg (xml_suite_no_release.def).
#pragma once

#include <windows.h>

#include "suite_entries.h"

struct XmlSuiteRecord {
    int createCalls;
    int releaseCalls;
    DWORD family;
    bool textWasNull;
    char text[64];
    // What XmlCreateReg found in the pointer it was handed, and the last pointer released.
    void* pointerAtCreate;
    void* released;
    // The recording registry's last operation, numbered in the interface's order from 1.
    int operation;
    int operationCalls;
    HKEY key;
    char name[64];
    DWORD reserved;
    DWORD index;
    DWORD type;
    DWORD size;
    DWORD options;
    REGSAM access;
    char keyClass[64];
};

extern "C" {
// The next factory calls return `createResult`; with `handOut` they set the recording registry first.
typedef void(WINAPI* PFN_XmlSuiteScript)(LONG createResult, BOOL handOut);
// The path the settings file entry writes and what it answers; a null path is never written.
typedef void(WINAPI* PFN_XmlSuiteSettingsPath)(const char* path, DWORD answer);
// The value every query of the recording registry finds; a result other than 0 fails the query.
typedef void(WINAPI* PFN_XmlSuiteValue)(LONG result, DWORD type, const BYTE* data, DWORD size);
typedef void(WINAPI* PFN_XmlSuiteRecording)(XmlSuiteRecord* out);
// The recording registry the factory hands out.
typedef IXmlRegistry*(WINAPI* PFN_XmlSuiteObject)();
}
