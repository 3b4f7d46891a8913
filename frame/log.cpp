#include "log.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "bounded_text.h"
#include "log_format.h"

namespace {

// The host's callbacks. The Ex callback and its context are one pair: a line never reaches one
// callback with another's context. The lock is held only to write or copy them, never while a
// callback runs.
struct LogCallbacks {
    DXSOCKS_LOG_CALLBACK plain = nullptr;
    void* context = nullptr;
    DXSOCKS_LOG_CALLBACK_EX withContext = nullptr;
};
std::mutex g_logCallbacksLock;
LogCallbacks g_logCallbacks;

LogCallbacks CurrentCallbacks() {
    std::lock_guard<std::mutex> hold(g_logCallbacksLock);
    return g_logCallbacks;
}

void SetPlainCallback(DXSOCKS_LOG_CALLBACK callback) {
    std::lock_guard<std::mutex> hold(g_logCallbacksLock);
    g_logCallbacks.plain = callback;
}

void SetCallbackWithContext(void* context, DXSOCKS_LOG_CALLBACK_EX callback) {
    std::lock_guard<std::mutex> hold(g_logCallbacksLock);
    g_logCallbacks.context = context;
    g_logCallbacks.withContext = callback;
}

constexpr size_t kTextSize = 1024;    // the formatted text
constexpr size_t kJoinedSize = 1040;  // prefix and text
constexpr size_t kLineCount = 255;    // delivered line: 254 characters and the terminator
constexpr size_t kReportFormatSize = 256;

ReportFormatSource g_reportFormatSource = nullptr;

// A null format delivers no line.
void LogWithPrefix(const char* prefix, const char* format, va_list arguments) {
    if (format == nullptr) return;
    char text[kTextSize] = {};
    wvsprintfA(text, format, arguments);  // never writes more than 1024 bytes
    char joined[kJoinedSize];
    BoundedWriter writer(joined, sizeof joined);
    writer.Put(prefix);
    writer.Put(text);
    LogMessage(0, joined);
}

}  // namespace

void LogMessage(int, const char* format) {
    char line[kLineCount + 1];
    size_t length = FormatWithoutArguments(format, line, kLineCount);
    LogCallbacks callbacks = CurrentCallbacks();
    if (callbacks.plain != nullptr) {
        line[length] = '\n';
        line[length + 1] = '\0';
        callbacks.plain(DXSOCKS_LOG_LINE_VALUE, line);
    } else if (callbacks.withContext != nullptr) {
        callbacks.withContext(callbacks.context, line);
    }
}

void SetReportFormatSource(ReportFormatSource source) { g_reportFormatSource = source; }

void ReportMessage(int, unsigned id, ...) {
    // Looking up a missing string sets the last error, which the surrounding call may be about to report.
    int saved = WSAGetLastError();
    char format[kReportFormatSize];
    ReportFormatSource source = g_reportFormatSource;
    if (source != nullptr && source(id, format, sizeof format) > 0) {
        char text[kLineCount];
        va_list arguments;
        va_start(arguments, id);
        std::vsnprintf(text, sizeof text, format, arguments);
        va_end(arguments);
        LogMessage(0, text);
    }
    WSASetLastError(saved);
}

ExportLog::ExportLog(const char* exportName) : name(exportName) { SOCKS_LogString("Begin func %s", name); }

ExportLog::ExportLog(const char* exportName, SOCKET s) : ExportLog(exportName) {
    SOCKS_LogString(" socket = %d", static_cast<int>(s));
}

void ExportLog::End() const { SOCKS_LogString("End func %s", name); }

void ExportLog::End(int result) const {
    SOCKS_LogString(" result = %d", result);
    End();
}

extern "C" {

void __cdecl SOCKS_LogString(const char* format, ...) {
    int saved = WSAGetLastError();
    va_list arguments;
    va_start(arguments, format);
    LogWithPrefix("DXSOCKS: ", format, arguments);
    va_end(arguments);
    WSASetLastError(saved);
}

// Unlike the SOCKS twin, this keeps no promise about the WinSock error.
void __cdecl HTTP_LogString(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    LogWithPrefix("DXHTTP: ", format, arguments);
    va_end(arguments);
}

void SOCKS_SetLoggingCallback(DXSOCKS_LOG_CALLBACK callback) { SetPlainCallback(callback); }
void HTTP_SetLoggingCallback(DXSOCKS_LOG_CALLBACK callback) { SetPlainCallback(callback); }

void SOCKS_SetLoggingCallbackEx(void* context, DXSOCKS_LOG_CALLBACK_EX callback) {
    SetCallbackWithContext(context, callback);
}

void HTTP_SetLoggingCallbackEx(void* context, DXSOCKS_LOG_CALLBACK_EX callback) {
    SetCallbackWithContext(context, callback);
}

}  // extern "C"
