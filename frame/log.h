// The diagnostics log: lines go to the host's callback, else nowhere.
#pragma once

#include "dxsocks_types.h"

extern DXSOCKS_LOG_CALLBACK g_pfnLogCallback;
extern void* g_logContext;
extern DXSOCKS_LOG_CALLBACK_EX g_pfnLogCallbackEx;

// Delivers `format` after the second formatting pass, which takes no arguments (log_format.h).
void LogMessage(int ignored, const char* format);

// Issues numbered report `id` with its arguments; nothing when the resource module lacks the string.
void ReportMessage(int ignored, unsigned id, ...);

extern "C" {
DXSOCKS_API void __cdecl SOCKS_LogString(const char* format, ...);
DXSOCKS_API void __cdecl HTTP_LogString(const char* format, ...);
DXSOCKS_API void SOCKS_SetLoggingCallback(DXSOCKS_LOG_CALLBACK callback);
DXSOCKS_API void HTTP_SetLoggingCallback(DXSOCKS_LOG_CALLBACK callback);
DXSOCKS_API void SOCKS_SetLoggingCallbackEx(void* context, DXSOCKS_LOG_CALLBACK_EX callback);
DXSOCKS_API void HTTP_SetLoggingCallbackEx(void* context, DXSOCKS_LOG_CALLBACK_EX callback);
}
