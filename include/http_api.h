/*
 * HTTP_* exports of DXSOCKS.DLL: connect a host's own TCP socket through an HTTP CONNECT proxy.
 * Compiles as C and as C++.
 */
#ifndef DXSOCKS_HTTP_API_H
#define DXSOCKS_HTTP_API_H

#include "dxsocks_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Writes one line to the log with the prefix "DXHTTP: ". format is a wsprintf format and must not
 * be null; the formatted text is cut to 254 characters. Unlike SOCKS_LogString it may change the
 * WinSock error.
 */
DXSOCKS_API void __cdecl HTTP_LogString(const char *format, ...);

/* Same as SOCKS_SetLoggingCallback: both families share one log. */
DXSOCKS_API void HTTP_SetLoggingCallback(DXSOCKS_LOG_CALLBACK callback);

/* Same as SOCKS_SetLoggingCallbackEx: both families share one log. */
DXSOCKS_API void HTTP_SetLoggingCallbackEx(void *context, DXSOCKS_LOG_CALLBACK_EX callback);

#ifdef __cplusplus
}
#endif

#endif /* DXSOCKS_HTTP_API_H */
