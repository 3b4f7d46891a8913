// The result codes the library hands out or acts on, by name. Free of the Windows API, so that the
// wire code and its native tests use the same names; frame/export_frame.cpp checks them against the
// public DXSOCKS_* codes and the system's own.
#pragma once

#include <cstdint>

namespace dxcode {

constexpr int kFault = 10014;              // WSAEFAULT: a pointer or length the host gave is unusable
constexpr int kInvalid = 10022;            // WSAEINVAL: nothing to send (SOCKS 5 request)
constexpr int kWouldBlock = 10035;         // WSAEWOULDBLOCK: a step is still pending
constexpr int kNotSocket = 10038;          // WSAENOTSOCK: no object could be kept for the socket
constexpr int kNoBuffers = 10055;          // WSAENOBUFS: the request could not be allocated
constexpr int kConnectionRefused = 10061;  // WSAECONNREFUSED: any refusal by a proxy
constexpr int kHostNotFound = 11001;       // WSAHOST_NOT_FOUND: SOCKS 4 destination without an address
constexpr int kTimeout = 1460;             // ERROR_TIMEOUT: the host's time limit closed the prompt
constexpr int kCancelled = 1223;           // ERROR_CANCELLED: the first-use prompt was declined

// Private codes; they fit the 16-bit error word of a socket message.
constexpr int kHttpNotFound = 65532;        // the HTTP proxy could not resolve the destination (404)
constexpr int kProxyAuthFailed = 65533;     // proxy authentication required or refused (407)
constexpr int kPasswordCancelled = 65534;   // the password prompt was cancelled

// What a failed peek leaves in its error word: not a WinSock code.
constexpr uint32_t kPeekFailed = 0xFFFFFFFFu;

}  // namespace dxcode
