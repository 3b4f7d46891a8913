/*
 * Types and result codes shared by the SOCKS_* and HTTP_* exports of DXSOCKS.DLL.
 * Compiles as C and as C++.
 */
#ifndef DXSOCKS_TYPES_H
#define DXSOCKS_TYPES_H

#include <winsock2.h>
#include <windows.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifdef DXSOCKS_BUILDING_DLL
#define DXSOCKS_API __declspec(dllexport)
#else
#define DXSOCKS_API __declspec(dllimport)
#endif

/*
 * Result codes. Exports report failures as WinSock does, by a result and the WinSock last error;
 * each export's comment says which. Besides 0 and -1:
 */
#define DXSOCKS_WSAEWOULDBLOCK     10035 /* non-blocking step still pending */
#define DXSOCKS_WSAENOTSOCK        10038 /* the library could not keep state for the socket */
#define DXSOCKS_WSAEINVAL          10022 /* nothing to send (SOCKS 5 request) */
#define DXSOCKS_WSAEFAULT          10014
#define DXSOCKS_WSAECONNREFUSED    10061 /* any refusal by a proxy */
#define DXSOCKS_WSAHOST_NOT_FOUND  11001 /* SOCKS 4 destination without an address */
#define DXSOCKS_ERROR_TIMEOUT      1460  /* the host reported a time-out at the password prompt */
#define DXSOCKS_ERROR_CANCELLED    1223  /* the first-use prompt was declined */

/* Private codes; they fit the 16-bit error word of a socket message. */
#define DXSOCKS_HTTP_NOT_FOUND     65532 /* the HTTP proxy could not resolve the destination (404) */
#define DXSOCKS_PROXY_AUTH_FAILED  65533 /* proxy authentication required or refused (407) */
#define DXSOCKS_PASSWORD_CANCELLED 65534 /* the password prompt was cancelled */

/* The integer every line hands to a plain log callback. */
#define DXSOCKS_LOG_LINE_VALUE 60

/*
 * Log callbacks. The text is valid only during the call and is at most 254 characters; the plain
 * callback's text ends in "\n" (255 then). Callbacks run on whichever thread logs, the library's
 * hidden threads included, and must be re-entrant.
 *
 * Every line passes a second printf-style pass without arguments, so a '%' in a host name or user id
 * is read as a conversion. That pass never reads an argument: "%%" gives "%"; a conversion that
 * would take an argument prints as if given 0 or null ("%d", "%u", "%x" as 0, "%s" as "(null)",
 * "%p" as zeros, a '*' width or precision as 0); "%c" and "%n" print nothing and "%n" writes
 * nothing; an unknown or unfinished conversion, such as a lone '%' at the end, stays as it stands.
 */
typedef void (*DXSOCKS_LOG_CALLBACK)(int value, const char *text);
typedef void (*DXSOCKS_LOG_CALLBACK_EX)(void *context, const char *text);

/*
 * Password callback: fills `password` (size wide characters, always 260, terminated) for `user` at
 * the proxy whose address is `proxy` (numeric text) and returns non-zero to send it, 0 to decline.
 * It runs on the thread of the handshake: the caller's for a blocking socket, the hidden thread
 * otherwise. The library keeps no copy of the password.
 */
typedef int (*DXSOCKS_PASSWORD_CALLBACK)(void *context, wchar_t *password, int size, const wchar_t *user,
                                         const wchar_t *proxy);

/*
 * The library's version record, 74 bytes, as SOCKS_GetVersionInfo and HTTP_GetVersionInfo copy
 * it: major, minor and build agree with the file version of DXSOCKS.DLL; signature is 0xFACE; the
 * build date ("Nov 22 2026") and time ("15:18:46") are zero-filled texts.
 */
typedef struct DXSOCKS_VERSION_RECORD {
    unsigned short major;
    unsigned short minor;
    unsigned short build;
    unsigned short revision;
    unsigned short signature;
    char buildDate[32];
    char buildTime[32];
} DXSOCKS_VERSION_RECORD;

/*
 * XML registry text: a registry written by hand as XML, which the suite library KVTSOCK2.DLL reads
 * into the in-memory registry that the library can consult in place of the Windows one, and writes
 * back out in the same form. Narrow text in the ANSI code page, ending at its first zero byte:
 *
 *   <Registry>
 *     <Key name="HKEY_CURRENT_USER">
 *       <Key name="Software">
 *         <Key name="Verdane">
 *           <Key name="Network Protocols">
 *             <Key name="SOCKS">
 *               <Value name="Count" type="REG_DWORD" data="1"/>
 *               <Value name="Detect" type="REG_SZ" data="false"/>
 *               <Key name="Map0">
 *                 <Value name="Use Proxy" type="REG_BINARY" data="01"/>
 *                 <Value name="Proxy Address" type="REG_SZ" data="proxy.example"/>
 *               </Key>
 *             </Key>
 *           </Key>
 *         </Key>
 *       </Key>
 *     </Key>
 *   </Registry>
 *
 * - One <Registry> element (no attributes; <Registry/> is an empty registry), optionally after an
 *   XML declaration. White space between elements and comments <!-- --> are allowed; other text,
 *   DOCTYPE, CDATA and processing instructions are not.
 * - Its children are <Key> elements named "HKEY_CURRENT_USER", "HKEY_LOCAL_MACHINE" or "HKEY_USERS".
 *   A <Key> holds <Value> and <Key> elements; attribute `name` (required: 1 to 255 characters, no
 *   backslash) and `class` (optional, the key's class; not on the three roots). At most 512 levels
 *   below a root.
 * - <Value> has `name` (required; "" is the key's default value), `type` and the data:
 *     REG_SZ, REG_EXPAND_SZ   data="text"             the text and its terminator
 *     REG_DWORD               data="2" or "0x10"      decimal or hex, 0 to 4294967295; four bytes,
 *                                                     least significant first
 *     REG_BINARY              data="00ff 1a"          pairs of hex digits, blanks between pairs
 *     REG_MULTI_SZ            <String>a</String>...   children, each text terminated, and one more
 *                                                     terminator; no children: one terminator
 *   or, for any type including one given as a decimal number (type="11"), hex="..." with the exact
 *   bytes. GetXml uses hex= for bytes that a type's own form cannot carry.
 * - Names compare without regard to case, as in the registry; a key named twice in one parent is one
 *   key, and of two values of one name the later one stands.
 * - Attribute values are in double or single quotes; in them and in <String> text, &amp; &lt; &gt;
 *   &quot; &apos; stand for & < > " ', and &#N; or &#xN; (1 to 255) for that one byte of the code
 *   page. No other reference exists, nothing is expanded twice, and white space is kept as written.
 * Text outside this grammar is refused as a whole (the suite library's factory answers 13,
 * ERROR_INVALID_DATA). The text written back is in the same grammar, indented one element per line,
 * and read again gives the same registry.
 */

#ifdef __cplusplus
}
#endif

#endif /* DXSOCKS_TYPES_H */
