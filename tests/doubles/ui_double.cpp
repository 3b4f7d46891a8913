#include "ui_double.h"

#include <cstring>
#include <string>

#include "suite_entries.h"

namespace {

UiDoubleRecord g_record = {};
DWORD g_result = 2;
bool g_hasText = false;
std::string g_text;
UiDoubleHook g_hook = nullptr;
void* g_hookContext = nullptr;
char* g_handedOut = nullptr;

void CopyText(char* out, size_t size, const char* text) {
    if (text == nullptr) text = "(null)";
    std::strncpy(out, text, size - 1);
    out[size - 1] = '\0';
}

}  // namespace

extern "C" {

DWORD WINAPI PXMSETUIDLL_DxsocksPwd(DWORD language, HWND owner, DWORD one, DWORD zero, DWORD family,
                                    const char* user, const char* proxyAddress, DWORD maxLength, char** password) {
    ++g_record.promptCalls;
    g_record.language = language;
    g_record.owner = owner;
    g_record.one = one;
    g_record.zero = zero;
    g_record.family = family;
    CopyText(g_record.user, sizeof g_record.user, user);
    CopyText(g_record.address, sizeof g_record.address, proxyAddress);
    g_record.maxLength = maxLength;
    g_record.textPointerWasNull = password != nullptr && *password == nullptr;
    if (g_hook != nullptr) g_hook(g_hookContext);
    if (g_hasText && password != nullptr) {
        g_handedOut = new char[g_text.size() + 1];
        std::memcpy(g_handedOut, g_text.c_str(), g_text.size() + 1);
        *password = g_handedOut;
    }
    return g_result;
}

DWORD WINAPI PXMSETUIDLL_DxsocksConfig(DWORD language, HWND owner, DWORD one, DWORD zero, DWORD family) {
    ++g_record.configCalls;
    g_record.language = language;
    g_record.owner = owner;
    g_record.one = one;
    g_record.zero = zero;
    g_record.family = family;
    if (g_hook != nullptr) g_hook(g_hookContext);
    return g_result;
}

void WINAPI PXMSETUIDLL_OnTimeout() { ++g_record.timeoutCalls; }

void WINAPI PXMSETUIDLL_FreeString(char* text) {
    ++g_record.freeCalls;
    g_record.freedTheTextGiven = text != nullptr && text == g_handedOut;
    if (text == g_handedOut) g_handedOut = nullptr;
    delete[] text;
}

void WINAPI UiDoubleScript(DWORD result, const char* text, UiDoubleHook hook, void* context) {
    g_result = result;
    g_hasText = text != nullptr;
    g_text = text != nullptr ? text : "";
    g_hook = hook;
    g_hookContext = context;
}

void WINAPI UiDoubleRecording(UiDoubleRecord* out) { *out = g_record; }

void WINAPI UiDoubleReset() {
    g_record = UiDoubleRecord{};
    UiDoubleScript(2, nullptr, nullptr, nullptr);
}

}  // extern "C"

// The prompt's signatures are the ones the library expects.
[[maybe_unused]] static const PFN_PXMSETUIDLL_DxsocksConfig kConfigSignature = &PXMSETUIDLL_DxsocksConfig;
[[maybe_unused]] static const PFN_PXMSETUIDLL_DxsocksPwd kPromptSignature = &PXMSETUIDLL_DxsocksPwd;
[[maybe_unused]] static const PFN_PXMSETUIDLL_OnTimeout kTimeoutSignature = &PXMSETUIDLL_OnTimeout;
[[maybe_unused]] static const PFN_PXMSETUIDLL_FreeString kFreeSignature = &PXMSETUIDLL_FreeString;
