/*
 * SOCKS_* exports of DXSOCKS.DLL: connect a host's own TCP socket through a SOCKS 4 or 5 proxy.
 * Compiles as C and as C++. The host owns WSAStartup and the sockets; after a successful connect
 * the socket is an ordinary connected socket for plain send and recv.
 */
#ifndef DXSOCKS_SOCKS_API_H
#define DXSOCKS_SOCKS_API_H

#include "dxsocks_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Connects s to host:port through the socket's proxy (set by SOCKS_SetProxyEx). host is the
 * destination's name or dotted address (may be null only for a version 5 proxy, which then fails
 * the lookup); port is in host order. parent owns any prompt the call raises; family is ignored.
 * Returns 0 on success, -1 on failure. A blocking socket returns after the whole handshake:
 * on a SOCKS 4 refusal the WinSock error is 10061, on a failed lookup it is the lookup's code.
 * A socket that was given no proxy fails with -1 and leaves the WinSock error as it stood.
 * Without library state for s (INVALID_SOCKET) the WinSock error is 10038.
 */
DXSOCKS_API int SOCKS_ConnectEx(SOCKET s, const char *host, unsigned int port, HWND parent, int family);

/*
 * connect() through the proxy: name must be a non-null IPv4 address record of namelen bytes.
 * Same results as SOCKS_ConnectEx.
 */
DXSOCKS_API int SOCKS_connect(SOCKET s, const struct sockaddr *name, int namelen);

/*
 * Names the SOCKS 4 proxy for s. proxy may be null or hold address 0: then s gets no proxy and
 * will connect to the destination itself. userId (the SOCKS 4 user id, the SOCKS 5 user name)
 * must not be null when proxy holds an address; at most 510 characters are kept.
 * Returns 0, or 1 when the library could not keep state for s (INVALID_SOCKET).
 */
DXSOCKS_API int SOCKS_SetProxy(SOCKET s, const struct sockaddr_in *proxy, int length, const char *userId);

/* As SOCKS_SetProxy, with the protocol version: 4 or 5. */
DXSOCKS_API int SOCKS_SetProxyEx(SOCKET s, const struct sockaddr_in *proxy, int length, const char *userId,
                                 unsigned int version);

/* 1 if the user cancelled the password prompt of the last connect on s, else 0 (also for an unknown s). */
DXSOCKS_API int SOCKS_ConnectCanceled(SOCKET s);

/* The error recorded for s by a password prompt time-out (1460), else 0 (also for an unknown s). */
DXSOCKS_API unsigned int SOCKS_GetConnectError(SOCKET s);

/*
 * Writes one line to the log with the prefix "DXSOCKS: ". format is a wsprintf format and must
 * not be null; the formatted text is cut to 254 characters. Leaves the WinSock error as it was.
 */
DXSOCKS_API void __cdecl SOCKS_LogString(const char *format, ...);

/*
 * Registers the plain log callback (null switches it off). It takes precedence over the Ex
 * callback: while it is set, the Ex callback is not called. Shared with HTTP_SetLoggingCallback.
 */
DXSOCKS_API void SOCKS_SetLoggingCallback(DXSOCKS_LOG_CALLBACK callback);

/*
 * Registers the log callback with a context handed back on every line (without a trailing
 * newline); null switches it off. Shared with HTTP_SetLoggingCallbackEx.
 */
DXSOCKS_API void SOCKS_SetLoggingCallbackEx(void *context, DXSOCKS_LOG_CALLBACK_EX callback);

#ifdef __cplusplus
}
#endif

#endif /* DXSOCKS_SOCKS_API_H */
