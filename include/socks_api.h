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
 * accept() for a socket that BINDs through its proxy: reads the proxy's second reply (as an 8-byte
 * SOCKS 4 packet, over as many calls as it takes) and returns s itself, which then needs one more
 * SOCKS_closesocket. Returns INVALID_SOCKET with the WinSock error 10035 while the reply is
 * incomplete, 10061 when it is not a grant. addr receives the peer the proxy reported; addr and
 * addrlen may be null. Other sockets go to plain accept(); for them a non-null addr with a null or
 * negative *addrlen gives 10014 without a call. Always sets the WinSock error.
 */
DXSOCKS_API SOCKET SOCKS_accept(SOCKET s, struct sockaddr *addr, int *addrlen);

/* bind() as a SOCKS BIND: name (non-null, IPv4, namelen bytes) is the peer expected to connect in. As SOCKS_BindEx. */
DXSOCKS_API int SOCKS_bind(SOCKET s, const struct sockaddr *name, int namelen);

/*
 * closesocket() for sockets the library knows: the socket is closed, and its state freed, only on the
 * last close owed (after a BIND's accept, two); otherwise returns 0 and leaves the socket open. A close
 * during a handshake never closes. Other sockets go to plain closesocket(). May be called from any
 * thread, also while the hidden thread still works on s: the state goes when that work ends.
 * Kept: a socket the library knows but that is closed with plain closesocket() keeps its state,
 * which the next socket WinSock gives the same handle value then finds as its own.
 */
DXSOCKS_API int SOCKS_closesocket(SOCKET s);

/*
 * getsockname(): for a socket with a proxy, the proxy's address with port 0 after a CONNECT, or with
 * the port the host gave to the BIND; at most *namelen bytes are written. name must not be null.
 * Other sockets go to plain getsockname(); a null namelen or a negative *namelen gives -1 with 10014
 * without a call.
 */
DXSOCKS_API int SOCKS_getsockname(SOCKET s, struct sockaddr *name, int *namelen);

/*
 * ioctlsocket(); FIONBIO also makes the socket's handshake event driven or blocking. Returns 0, or
 * the WinSock code itself on failure (not -1): 10014 when argument is null.
 */
DXSOCKS_API int SOCKS_ioctlsocket(SOCKET s, long command, u_long *argument);

/* listen(): for a socket with a proxy nothing is asked of WinSock and the result is 0. */
DXSOCKS_API int SOCKS_listen(SOCKET s, int backlog);

/*
 * select(): a socket of the write set that is in mid-handshake is held back and the call waits,
 * without a time limit, until its handshake is established, then puts it back. Returns the count of
 * the write set only; -1 with WinSock error 65534 (password prompt cancelled), with the prompt's
 * error, or without an error when a handshake failed.
 */
DXSOCKS_API int SOCKS_select(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds,
                             const struct timeval *timeout);

/*
 * WSAAsyncSelect(): with FD_CONNECT among events, before a connect, the selection is kept and
 * takes effect when the handshake ends: the outcome arrives as FD_CONNECT with the error in the
 * upper 16 bits of lParam, and the other events are selected then. During a handshake the call is
 * dropped (0). Returns 0, the result of WSAAsyncSelect, or 10038 when no state could be kept.
 */
DXSOCKS_API int SOCKS_WSAAsyncSelect(SOCKET s, HWND window, unsigned int message, long events);

/*
 * Starts the SOCKS family: the first call starts the hidden thread that runs non-blocking
 * handshakes. table (may be null) receives up to size bytes of the family's 33 function pointers
 * (264 bytes; a negative size copies all). Returns 1, or 0 when the thread could not be created.
 * The host still calls WSAStartup itself.
 */
DXSOCKS_API int SOCKS_Startup(void *table, int size);

/* Ends one SOCKS_Startup; the last one stops the hidden thread. Sockets are not closed. Returns 1. */
DXSOCKS_API int SOCKS_Cleanup(void);

/* Kept for old hosts: ignores its arguments and returns -1. Use SOCKS_SetProxyEx. */
DXSOCKS_API int SOCKS_SetProtocolVersion(SOCKET s, unsigned int version);

/*
 * Sets the callback that gives the password when a SOCKS 5 proxy asks for username/password; context
 * is handed back to it. A null callback returns the library to its own prompt. Logs nothing.
 */
DXSOCKS_API void SOCKS_SetPasswordCallback(void *context, DXSOCKS_PASSWORD_CALLBACK callback);

/*
 * Connects s to host:port through the socket's proxy (set by SOCKS_SetProxyEx). host is the
 * destination's name or dotted address (may be null only for a version 5 proxy, which then fails
 * the lookup); port is in host order. parent owns any prompt the call raises; family is ignored.
 * Returns 0 on success, -1 on failure. A blocking socket returns after the whole handshake:
 * on a SOCKS 4 refusal the WinSock error is 10061, on a failed lookup it is the lookup's code; a
 * SOCKS 5 refusal leaves the WinSock error unset. A non-blocking socket returns 0 at once (not
 * 10035): the outcome is posted as FD_CONNECT to the window given to SOCKS_WSAAsyncSelect, or
 * SOCKS_select waits for it.
 * Kept: bytes that the proxy sends behind its grant in the same segment are read with the reply
 * and are lost to the host.
 * A socket that was given no proxy first runs SOCKS_DetermineProxyEx for host:port (with version 4
 * unless the map says 5): when no proxy applies the call fails with -1 and leaves the WinSock error
 * as it stood (never a direct connection); a declined first-use prompt gives 1223. parent becomes
 * the owner of that prompt.
 * Without library state for s (INVALID_SOCKET) the WinSock error is 10038.
 */
DXSOCKS_API int SOCKS_ConnectEx(SOCKET s, const char *host, unsigned int port, HWND parent, int family);

/*
 * connect() through the proxy: name must be a non-null IPv4 address record of namelen bytes.
 * Same results as SOCKS_ConnectEx.
 */
DXSOCKS_API int SOCKS_connect(SOCKET s, const struct sockaddr *name, int namelen);

/*
 * The modal editor of the SOCKS proxy maps over owner (unowned when owner is no window). OK writes
 * the settings file, Cancel drops the edits. Returns 1 when the user pressed OK (also when the file
 * could not be written), else 0: Cancel, no dialog (no resource library with its template), or a
 * SOCKS editor already open in any program, which is told in a message box.
 */
DXSOCKS_API int SOCKS_ConfigurationDialog(HWND owner);

/*
 * Names the SOCKS 4 proxy for s. proxy may be null or hold address 0: then s gets no proxy and
 * will connect to the destination itself. Only length bytes of proxy are read, those beyond count
 * as zero: a record of fewer than 8 bytes names no proxy. userId (the SOCKS 4 user id, the SOCKS 5 user name)
 * must not be null when proxy holds an address; at most 510 characters are kept.
 * Returns 0, or 1 when the library could not keep state for s (INVALID_SOCKET).
 */
DXSOCKS_API int SOCKS_SetProxy(SOCKET s, const struct sockaddr_in *proxy, int length, const char *userId);

/*
 * Looks for a running program that wraps the socket layer itself (a window of class Firewalker, or
 * one titled "SocksCap - Control"), unless the registry value Detect under Software\Verdane\Network
 * Protocols\SOCKS is 0 (HKEY_USERS\.Default's value counts when the user has none). With warn
 * non-zero and a program found, shows a stop box over owner, or without one over the top of the
 * active window, which is made active again after the box. Returns 1 if such a program runs, else 0.
 */
DXSOCKS_API int SOCKS_DetectShims(int warn, HWND owner);

/*
 * Does a proxy apply to host:port (port in host order)? Reads the settings file again (another
 * process may have written it); when the SOCKS family has no maps, first asks the user through the
 * first-use prompt of pxmSetUI.dll (owned by the window of SOCKS_SetParentHWND), and a declined or
 * missing prompt returns 0 with WinSock error 1223. Then the first map that takes the destination
 * decides. Returns 1 when it names a proxy whose name resolves: proxy receives its address (at most
 * proxySize bytes, zeroed first), userId its user (cut to userIdSize - 1 characters; the last byte
 * of userId becomes 0), *version 4 or 5 (version may be null). Else 0, and the WinSock error stays
 * as it stood (the proxy's failed look-up leaves its code): no map, a map without a proxy, and one
 * whose proxy host is "*" or a single character look alike. *family comes back as 2 (AF_INET)
 * unless the prompt was declined or the file not read back; family must not be null. A null
 * buffer, or a size of 0 or less, is not written.
 * Threads wait for each other here, pumping their own messages; a SOCKS and an HTTP determination
 * run side by side. A number in the settings file that is none raises std::invalid_argument or
 * std::out_of_range out of this call: a C++ host built with the same MinGW runtime can catch it,
 * a C host ends. Each call parses the file only when it changed (path, size, time), and picks from
 * the family's maps: meant for once per connection.
 */
DXSOCKS_API int SOCKS_DetermineProxyEx(const char *host, unsigned int port, struct sockaddr_in *proxy, int proxySize,
                                       char *userId, int userIdSize, unsigned int *version, int *family);

/*
 * SOCKS_DetermineProxyEx for the destination of an address record (its dotted address and port); a
 * null destination asks for an empty host and port 0, which only a map for any host takes; a record
 * shorter than 4 bytes gives port 0. The version is not handed out.
 */
DXSOCKS_API int SOCKS_DetermineProxy(const struct sockaddr *destination, int destinationLength,
                                     struct sockaddr_in *proxy, int proxySize, char *userId, int userIdSize);

/*
 * SOCKS_DetermineProxyEx's answer alone: its result, and *family (in and out, not null) as it
 * comes back, 2.
 */
DXSOCKS_API int SOCKS_UseAddressFamily(const char *host, unsigned int port, int *family);

/*
 * Copies the first size bytes of the library's version record (DXSOCKS_VERSION_RECORD, 74 bytes;
 * a size above 74, or a negative one, copies all 74) to out. Returns 1, or 0 when out is null.
 */
DXSOCKS_API int SOCKS_GetVersionInfo(void *out, int size);

/* As SOCKS_SetProxy, with the protocol version: 4 or 5. */
DXSOCKS_API int SOCKS_SetProxyEx(SOCKET s, const struct sockaddr_in *proxy, int length, const char *userId,
                                 unsigned int version);

/*
 * Asks the socket's proxy to BIND for an incoming connection from host:port (host order). Use a
 * non-blocking socket (SOCKS_WSAAsyncSelect or SOCKS_ioctlsocket FIONBIO first): the call waits,
 * pumping the calling thread's messages, until the proxy has granted the request, and a refused or
 * failed BIND never returns. Returns 0; -1 with WinSock error -1 when the password prompt was
 * cancelled; or the positive 10038 with WinSock error 0 when the socket has no state, or was given
 * no proxy and SOCKS_DetermineProxyEx finds none for host:port.
 */
DXSOCKS_API int SOCKS_BindEx(SOCKET s, const char *host, unsigned int port, HWND parent, int family);

/* 1 if the user cancelled the password prompt of the last connect on s, else 0 (also for an unknown s). */
DXSOCKS_API int SOCKS_ConnectCanceled(SOCKET s);

/* The error recorded for s by a password prompt time-out (1460), else 0 (also for an unknown s). */
DXSOCKS_API unsigned int SOCKS_GetConnectError(SOCKET s);

/*
 * Points every configuration read of both families at a registry written as XML, in the grammar told
 * in dxsocks_types.h: the suite library (KVTSOCK2.DLL, beside the host's executable first) makes an
 * in-memory registry of text (null: an empty one). The former one is released first, even when the
 * new one cannot be made. Returns 1, or 0 when the suite library or its factory is missing or the
 * text does not parse. Not to be called while another thread reads configuration.
 */
DXSOCKS_API int SOCKS_SetXMLConfig(const char *text);

/*
 * The in-memory registry as XML text in the same grammar, owned by the library and valid until the
 * next SOCKS_GetXMLConfig or HTTP_GetXMLConfig or SetXMLConfig call; null when none is set.
 */
DXSOCKS_API const char *SOCKS_GetXMLConfig(void);

/*
 * The same editor as SOCKS_ConfigurationDialog, with every configuration read of the process bound
 * for good to a new, empty in-memory registry (as SOCKS_SetXMLConfig(NULL)). Returns that registry's
 * XML text, as SOCKS_GetXMLConfig does, when the user pressed OK; null on Cancel, with another
 * editor open, or without the suite library.
 */
DXSOCKS_API const char *SOCKS_ShowXMLConfigDlg(HWND owner);

/*
 * Forgets the library's state for s (after a close in mid-handshake, say); does not close s. May be
 * called from any thread: a handshake step that runs on s meanwhile ends on the old state.
 */
DXSOCKS_API void SOCKS_CleanupSocket(SOCKET s);

/*
 * Writes one line to the log with the prefix "DXSOCKS: ". format is a wsprintf format; a null one
 * writes no line. The formatted text is cut to 254 characters. Leaves the WinSock error as it was.
 */
DXSOCKS_API void __cdecl SOCKS_LogString(const char *format, ...);

/*
 * Registers the plain log callback (null switches it off). It takes precedence over the Ex
 * callback: while it is set, the Ex callback is not called. Shared with HTTP_SetLoggingCallback.
 */
DXSOCKS_API void SOCKS_SetLoggingCallback(DXSOCKS_LOG_CALLBACK callback);

/*
 * Registers the log callback with a context handed back on every line (without a trailing
 * newline); null switches it off. Shared with HTTP_SetLoggingCallbackEx. Callback and context are
 * set together: a line never reaches one callback with the other's context. A line under way on
 * another thread may still reach the callback set before.
 */
DXSOCKS_API void SOCKS_SetLoggingCallbackEx(void *context, DXSOCKS_LOG_CALLBACK_EX callback);

/*
 * Tells the library that the host's own time limit for the connect on s ran out. It acts only on an
 * open password prompt, which closes: the exchange then ends with 1460 (SOCKS_GetConnectError and
 * the FD_CONNECT error). It neither closes s nor ends an exchange that is in no prompt. May be
 * called from any thread.
 */
DXSOCKS_API void SOCKS_ConnectTimeout(SOCKET s);

/*
 * Sets the window that owns the library's prompts (null: none). Shared with HTTP_SetParentHWND and
 * written by SOCKS_ConnectEx and HTTP_ConnectEx too: the last writer decides.
 */
DXSOCKS_API void SOCKS_SetParentHWND(HWND window);

#ifdef __cplusplus
}
#endif

#endif /* DXSOCKS_SOCKS_API_H */
