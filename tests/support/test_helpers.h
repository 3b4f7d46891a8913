// Small helpers that the library's tests share: the texts the log and the HTTP exchange produce, an
// export's log frame, the state of a socket as WinSock sees it, and a bounded call on a thread of its own.
#pragma once

#include <winsock2.h>
#include <windows.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

namespace dxtest {

using Lines = std::vector<std::string>;

// A library log line: "DXSOCKS: " and the text.
std::string Line(const std::string& text);
// An export's frame in the log, each a Line: "Begin func <name>", " socket = <s>", the `body`,
// " result = <result>", "End func <name>".
Lines Frame(const std::string& name, SOCKET s, const Lines& body, int result);
// The same for the exports that log no result (SOCKS_SetProxyEx, HTTP_SetProxy, the CleanupSocket calls).
Lines FrameWithoutResult(const std::string& name, SOCKET s, const Lines& body);
// The frame of the exports that log no socket: "Begin func <name>", the `body`, "End func <name>".
Lines BareFrame(const std::string& name, const Lines& body);
// The parts one after the other, e.g. the frames of calls made in a row.
Lines Joined(std::initializer_list<Lines> parts);
// A socket handle as the log prints it (" socket = %d").
std::string N(SOCKET s);
std::string Dotted(const sockaddr_in& address);
// A pointer as wsprintf's %p prints it: 16 upper-case hex digits without a prefix.
std::string Pointer(const void* p);
// The two lines (without prefix) a SOCKS handshake logs as it enters its identity: the socket's own
// address and port, then the add with the mapping's handle, that port, `proxyPort` and `user`. The
// handle is the one `logged` shows, if it has the form of a pointer.
Lines IdentityLines(SOCKET s, uint16_t proxyPort, const std::string& user, const Lines& logged);
// The first window of this process with the class `className`, or null: a window class name is seen
// by every program of the Wine prefix.
HWND OwnWindowOfClass(const char* className);
// An address record for dotted text and a host-order port.
sockaddr_in Address(const char* dotted, uint16_t port);

// The CONNECT request the HTTP stack sends for `target` ("host:port"), without authentication.
std::string Request(const std::string& target);
// A fake-proxy script that reads the request, sends `reply` and stays for a while.
std::string Answer(const std::string& reply);

// An ioctlsocket of WinSock or of one of the families.
using IoctlCall = int (*)(SOCKET s, long command, u_long* argument);
// FIONBIO on through `ioctl`; a failure fails the test.
void MakeNonBlocking(SOCKET s, IoctlCall ioctl = ::ioctlsocket);
// A plain socket connected to the echo server: writable at once.
SOCKET EchoConnection();

bool IsOpen(SOCKET s);
bool IsListening(SOCKET s);
// A handle that WinSock no longer knows: the socket was made and closed again.
SOCKET ClosedHandle();

// Runs `call` on a thread of its own, as a host's second thread would, and waits at most `ms` for it.
// The library's waits have no limit of their own: a call that overruns is ended with its thread.
bool ReturnsWithin(int ms, const std::function<void()>& call);

// The settings file the suite library names: <per-user application data>\Zelmont\Verdane\Settings.xml.
std::string SettingsFilePath();
// The older single-map file, dxapps.ini in the Windows folder, where a name without a folder points.
std::string IniFilePath();
// A user who never configured a proxy: the settings file, dxapps.ini and the Software\Verdane keys of
// the user's hive and of HKEY_USERS\.Default removed. Tests that call it hold the settings_store lock.
void ClearSettingsStore();

}  // namespace dxtest
