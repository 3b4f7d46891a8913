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
 * accept(), passed straight to WinSock: the HTTP family has no second reply to read. A non-null addr
 * with a null or negative *addrlen gives INVALID_SOCKET with 10014 without a call.
 */
DXSOCKS_API SOCKET HTTP_accept(SOCKET s, struct sockaddr *addr, int *addrlen);

/* bind() as a CONNECT exchange that then waits; name: non-null IPv4 record of namelen bytes. As HTTP_BindEx. */
DXSOCKS_API int HTTP_bind(SOCKET s, const struct sockaddr *name, int namelen);

/*
 * As SOCKS_closesocket: only the last close owed closes the socket; a close during the exchange
 * returns 0. Kept: a socket closed with plain closesocket() keeps the library's state for the next
 * socket with the same handle value.
 */
DXSOCKS_API int HTTP_closesocket(SOCKET s);

/* connect() through the socket's HTTP proxy: name must be a non-null IPv4 record. As HTTP_ConnectEx. */
DXSOCKS_API int HTTP_connect(SOCKET s, const struct sockaddr *name, int namelen);

/*
 * As SOCKS_getsockname: for a socket with a proxy, the proxy's address (port 0 after a CONNECT);
 * other sockets go to getsockname(), a null or negative length giving -1 with 10014 without a call.
 */
DXSOCKS_API int HTTP_getsockname(SOCKET s, struct sockaddr *name, int *namelen);

/*
 * ioctlsocket(); FIONBIO makes the socket's exchange event driven whatever the argument says.
 * Returns 0, or the WinSock code itself on failure (not -1): 10014 when argument is null.
 */
DXSOCKS_API int HTTP_ioctlsocket(SOCKET s, long command, u_long *argument);

/* listen(): for a socket with a proxy nothing is asked of WinSock and the result is 0. */
DXSOCKS_API int HTTP_listen(SOCKET s, int backlog);

/* As SOCKS_select: the same wait for sockets in mid-exchange, shared by both families. */
DXSOCKS_API int HTTP_select(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds,
                            const struct timeval *timeout);

/*
 * As SOCKS_WSAAsyncSelect: with FD_CONNECT before a connect, the outcome of the exchange arrives as
 * FD_CONNECT with the error in the upper 16 bits (65532 destination unknown to the proxy, 65533
 * proxy authentication, 10061 any other refusal). Returns 0, WSAAsyncSelect's result, or 10038.
 */
DXSOCKS_API int HTTP_WSAAsyncSelect(SOCKET s, HWND window, unsigned int message, long events);

/*
 * Starts the HTTP family: the first call starts its hidden thread. table (may be null) receives up
 * to size bytes of the family's 31 function pointers (248 bytes; a negative size copies all).
 * Returns 1, or 0 when the thread could not be created.
 */
DXSOCKS_API int HTTP_Startup(void *table, int size);

/*
 * Ends one HTTP_Startup; the last one stops the hidden thread, ending it after 1 s if need be. Returns 1.
 * Kept: the thread is terminated wherever it stands, even inside the host's password callback. Such
 * a callback must not allocate or hold a lock for long: a thread killed while it holds the process
 * heap's lock, or any other, blocks the process.
 */
DXSOCKS_API int HTTP_Cleanup(void);

/* The modal editor of the HTTP proxy maps: as SOCKS_ConfigurationDialog. */
DXSOCKS_API int HTTP_ConfigurationDialog(HWND owner);

/*
 * Names the HTTP proxy for s: proxy null or with address 0 means no proxy. Only length bytes of
 * proxy are read, those beyond count as zero: a record of fewer than 8 bytes names no proxy. user
 * (the proxy user name, at most 510 characters kept) must not be null when proxy holds an address;
 * authenticate 1 asks for Basic authentication. Returns 0, or 1 when no state could be kept for s
 * (INVALID_SOCKET).
 */
DXSOCKS_API int HTTP_SetProxy(SOCKET s, const struct sockaddr_in *proxy, int length, const char *user,
                              unsigned int authenticate);

/*
 * Sets the callback that gives the password for Basic authentication (a proxy named with
 * authenticate 1); context is handed back to it. The callback may accept an empty password. A
 * "user:password" text longer than 765 bytes is refused like a declined password (65534). A null
 * callback returns the library to its own prompt. Logs nothing.
 */
DXSOCKS_API void HTTP_SetPasswordCallback(void *context, DXSOCKS_PASSWORD_CALLBACK callback);

/*
 * Connects s to host:port (host order) through its HTTP proxy with one CONNECT request; host may be
 * a name only the proxy can resolve. Returns 0 or -1. Blocking: on a refused request the WinSock
 * error is left as WinSock had it and HTTP_GetConnectError gives 65532, 65533 or 10061; with a
 * failed TCP connect or send it is that code. Non-blocking: 0 at once, the outcome as FD_CONNECT.
 * Kept: bytes the proxy sends behind its reply in the same segment are read with it and are lost to
 * the host.
 * A socket given no proxy first runs HTTP_DetermineProxyEx for host:port: when no proxy applies the
 * call fails with -1 and leaves the WinSock error as it stood (never a direct connection); a
 * declined first-use prompt gives 1223. parent becomes the owner of that prompt.
 */
DXSOCKS_API int HTTP_ConnectEx(SOCKET s, const char *host, unsigned int port, HWND parent, int family);

/*
 * The CONNECT exchange of HTTP_ConnectEx, then a wait (pumping this thread's messages, no time
 * limit) until it is granted or refused. Returns 0; -1 with WinSock error -1 after a refusal (read
 * HTTP_GetConnectError and HTTP_ConnectCanceled); or the positive 10038 with error 0 when the socket
 * has no state, or was given no proxy and HTTP_DetermineProxyEx finds none for host:port.
 */
DXSOCKS_API int HTTP_BindEx(SOCKET s, const char *host, unsigned int port, HWND parent, int family);

/*
 * As SOCKS_DetermineProxyEx for the HTTP family's maps, with *basicAuthentication (not null) in place
 * of the version: 0, then the map's Basic flag when a proxy applies. The first-use prompt asks for
 * an HTTP proxy. Exceptions and threads as there.
 */
DXSOCKS_API int HTTP_DetermineProxyEx(const char *host, unsigned int port, struct sockaddr_in *proxy, int proxySize,
                                      char *userId, int userIdSize, unsigned int *basicAuthentication, int *family);

/* As SOCKS_DetermineProxy for the HTTP family, handing basicAuthentication on. */
DXSOCKS_API int HTTP_DetermineProxy(const struct sockaddr *destination, int destinationLength,
                                    struct sockaddr_in *proxy, int proxySize, char *userId, int userIdSize,
                                    unsigned int *basicAuthentication);

/* HTTP_DetermineProxyEx's answer alone: its result, and *family (not null) as it comes back, 2. */
DXSOCKS_API int HTTP_UseAddressFamily(const char *host, unsigned int port, int *family);

/* 1 if the password prompt of the last exchange on s was cancelled, else 0. */
DXSOCKS_API int HTTP_ConnectCanceled(SOCKET s);

/* The proxy's refusal of the last exchange on s (65532, 65533, 10061) or 1460, else 0. */
DXSOCKS_API unsigned int HTTP_GetConnectError(SOCKET s);

/*
 * As SOCKS_SetXMLConfig, for the HTTP family: one in-memory registry serves both families, so each
 * replaces what the other set. Grammar in dxsocks_types.h.
 */
DXSOCKS_API int HTTP_SetXMLConfig(const char *text);

/* The same as SOCKS_GetXMLConfig. */
DXSOCKS_API const char *HTTP_GetXMLConfig(void);

/* The HTTP editor over an empty in-memory registry of its own: as SOCKS_ShowXMLConfigDlg. */
DXSOCKS_API const char *HTTP_ShowXMLConfigDlg(HWND owner);

/* Forgets the library's state for s; does not close s. As SOCKS_CleanupSocket, from any thread. */
DXSOCKS_API void HTTP_CleanupSocket(SOCKET s);

/*
 * As SOCKS_DetectShims, for programs that would disturb HTTP connections: a window of class
 * Firewalker or one titled "HttpCap - Control"; Detect is read under Network Protocols\HTTP.
 */
DXSOCKS_API int HTTP_DetectShims(int warn, HWND owner);

/* The same as SOCKS_GetVersionInfo: the one version record of the library. */
DXSOCKS_API int HTTP_GetVersionInfo(void *out, int size);

/* As SOCKS_ConnectTimeout: closes an open password prompt of s, which then ends with 1460. */
DXSOCKS_API void HTTP_ConnectTimeout(SOCKET s);

/* The same as SOCKS_SetParentHWND: both families share one owner window. */
DXSOCKS_API void HTTP_SetParentHWND(HWND window);

/*
 * Writes one line to the log with the prefix "DXHTTP: ". format is a wsprintf format; a null one
 * writes no line. The formatted text is cut to 254 characters. Unlike SOCKS_LogString it may change the
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
