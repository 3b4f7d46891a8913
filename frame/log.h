// The diagnostics log: lines go to the host's callback, else nowhere.
#pragma once

#include "dxsocks_types.h"

// Delivers `format` after the second formatting pass, which takes no arguments (log_format.h).
void LogMessage(int ignored, const char* format);

// Where the formats of the numbered reports come from: a reader of string `id` into `buffer` of `size`
// bytes that returns the text's length, 0 when there is none. The entry routine hands the resource
// library's at attach; until then, and with null, no report is issued.
using ReportFormatSource = int (*)(unsigned id, char* buffer, int size);
void SetReportFormatSource(ReportFormatSource source);

// Issues numbered report `id` with its arguments; nothing when the resource module lacks the string.
void ReportMessage(int ignored, unsigned id, ...);

// The log frame of one exported call, its name given once: "Begin func %s", and " socket = %d" for a
// socket call; at the end " result = %d" where the call logs one, then "End func %s".
class ExportLog {
public:
    explicit ExportLog(const char* name);
    ExportLog(const char* name, SOCKET s);
    void End() const;
    void End(int result) const;
    const char* Name() const { return name; }

private:
    const char* name;
};

extern "C" {
DXSOCKS_API void __cdecl SOCKS_LogString(const char* format, ...);
DXSOCKS_API void __cdecl HTTP_LogString(const char* format, ...);
DXSOCKS_API void SOCKS_SetLoggingCallback(DXSOCKS_LOG_CALLBACK callback);
DXSOCKS_API void HTTP_SetLoggingCallback(DXSOCKS_LOG_CALLBACK callback);
DXSOCKS_API void SOCKS_SetLoggingCallbackEx(void* context, DXSOCKS_LOG_CALLBACK_EX callback);
DXSOCKS_API void HTTP_SetLoggingCallbackEx(void* context, DXSOCKS_LOG_CALLBACK_EX callback);
}
