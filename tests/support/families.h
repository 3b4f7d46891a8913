// The two families of exports, SOCKS and HTTP, as records of the calls they share, so that a test of
// what both do alike is written once and run for each. Header only: the calls resolve in whichever
// program links the library.
#pragma once

#include <gtest/gtest.h>
#include <winsock2.h>
#include <windows.h>

#include <string>
#include <vector>

#include "bench.h"
#include "http_api.h"
#include "socks_api.h"
#include "test_helpers.h"

namespace dxtest {

struct ExportSlot {
    std::string name;
    int ordinal;
};

struct Family {
    const char* name;          // the exports' prefix
    const char* socketClass;   // the class of the family's socket objects, as the log names it
    const char* hiddenClass;   // the window class of the family's hidden window
    const char* eventHandler;  // the hidden window's socket-event handler, as the log names it
    const char* setProxyName;  // the export that names the proxy
    unsigned proxyArgument;    // the last argument of setProxy: a SOCKS version, or no HTTP authentication
    int (*setProxy)(SOCKET s, const sockaddr_in* proxy, int length, const char* user, unsigned argument);
    bool connectLogsResult;    // whether the address-record connect logs its result
    int startupOrdinal;
    int absentOrdinal;         // an ordinal within the family's range that nothing stands at
    int (*startup)(void* table, int size);
    int (*cleanup)();
    int (*connectEx)(SOCKET s, const char* host, unsigned port, HWND parent, int family);
    int (*bindEx)(SOCKET s, const char* host, unsigned port, HWND parent, int family);
    int (*connect)(SOCKET s, const sockaddr* name, int namelen);
    int (*getsockname)(SOCKET s, sockaddr* name, int* namelen);
    int (*ioctl)(SOCKET s, long command, u_long* argument);
    int (*select)(int nfds, fd_set* reads, fd_set* writes, fd_set* excepts, const timeval* timeout);
    int (*asyncSelect)(SOCKET s, HWND window, unsigned message, long events);
    int (*closesocket)(SOCKET s);
    void (*cleanupSocket)(SOCKET s);
    int (*connectCanceled)(SOCKET s);
    unsigned (*getConnectError)(SOCKET s);
    void (*connectTimeout)(SOCKET s);

    // The family's export of that name, e.g. Export("Cleanup") is "HTTP_Cleanup".
    std::string Export(const std::string& call) const { return std::string(name) + "_" + call; }
    // The dispatch table's slots in order, with the export each stands for; the startup is none.
    std::vector<ExportSlot> Table() const;
};

// The calls that both families have under the same names, in the order of Family's fields.
#define DXTEST_FAMILY_CALLS(prefix)                                                                            \
    prefix##_Startup, prefix##_Cleanup, prefix##_ConnectEx, prefix##_BindEx, prefix##_connect,                 \
        prefix##_getsockname, prefix##_ioctlsocket, prefix##_select, prefix##_WSAAsyncSelect, prefix##_closesocket, \
        prefix##_CleanupSocket, prefix##_ConnectCanceled, prefix##_GetConnectError, prefix##_ConnectTimeout

inline const Family kSocksFamily = {"SOCKS", "CSocksSocket", "ZELMONT_SOCKS_HIDDEN_WINDOW", "socksHiddenOnSocketEvent",
                                    "SOCKS_SetProxyEx", 4, SOCKS_SetProxyEx, false, 200, 5,
                                    DXTEST_FAMILY_CALLS(SOCKS)};
inline const Family kHttpFamily = {"HTTP", "CHttpSocket", "ZELMONT_HTTP_HIDDEN_WINDOW", "httpHiddenOnSocketEvent",
                                   "HTTP_SetProxy", 0, HTTP_SetProxy, true, 409, 417, DXTEST_FAMILY_CALLS(HTTP)};

#undef DXTEST_FAMILY_CALLS

inline std::vector<ExportSlot> Family::Table() const {
    // Both tables in one: the call, and its ordinal in each family (0: not in that family's table).
    struct Slot {
        const char* call;
        int socks;
        int http;
    };
    static const Slot kSlots[] = {
        {"accept", 1, 400},           {"bind", 2, 401},
        {"closesocket", 3, 402},      {"connect", 4, 403},
        {"getsockname", 6, 404},      {"ioctlsocket", 12, 405},
        {"listen", 13, 406},          {"select", 18, 407},
        {"WSAAsyncSelect", 101, 408}, {"Cleanup", 201, 410},
        {"LogString", 202, 411},      {"ConfigurationDialog", 203, 412},
        {"SetProxy", 204, 413},       {"DetermineProxy", 205, 414},
        {"DetectShims", 206, 415},    {"GetVersionInfo", 207, 416},
        {"SetProtocolVersion", 208, 0}, {"SetLoggingCallback", 209, 418},
        {"SetPasswordCallback", 211, 420}, {"SetLoggingCallbackEx", 210, 419},
        {"ConnectEx", 212, 421},      {"BindEx", 213, 422},
        {"ConnectCanceled", 214, 423}, {"GetConnectError", 215, 424},
        {"DetermineProxyEx", 216, 425}, {"UseAddressFamily", 217, 426},
        {"SetXMLConfig", 218, 427},   {"GetXMLConfig", 219, 428},
        {"ShowXMLConfigDlg", 220, 429}, {"CleanupSocket", 221, 430},
        {"SetProxyEx", 222, 0},       {"ConnectTimeout", 223, 431},
        {"SetParentHWND", 224, 432},
    };
    const bool socks = this == &kSocksFamily;
    std::vector<ExportSlot> table;
    for (const Slot& slot : kSlots) {
        int ordinal = socks ? slot.socks : slot.http;
        if (ordinal != 0) table.push_back({Export(slot.call), ordinal});
    }
    return table;
}

// A fake-proxy script that takes the family's connect request (SOCKS 4 without a user) and grants
// it; the caller adds what follows, e.g. " drain=3000" or " echo".
inline std::string Granting(const Family& family) {
    if (&family == &kSocksFamily) return "read=9 send=005a000000000000";
    return "readhttp send=" + Hex("HTTP/1.1 200 Connection established\r\n\r\n");
}

// What the family's socket sends for a connect to 127.0.0.1:port (SOCKS 4 without a user).
inline std::string ConnectRequest(const Family& family, uint16_t port) {
    if (&family == &kSocksFamily) {
        return std::string{4, 1, static_cast<char>(port >> 8), static_cast<char>(port & 0xff), 127, 0, 0, 1, 0};
    }
    return Request("127.0.0.1:" + std::to_string(port));
}

// The other family.
inline const Family& Other(const Family& family) { return &family == &kSocksFamily ? kHttpFamily : kSocksFamily; }

// A handshake of a table row: the family, what the fake proxy does, how the socket names it, and
// what the fake proxy has received by the end (hex).
struct Handshake {
    const Family* family;
    const char* name;
    std::string script;
    const char* user;
    unsigned proxyArgument;
    std::string sentHex;

    // Names `proxy` for s, with the row's user and argument.
    void NameProxy(SOCKET s, const sockaddr_in& proxy) const {
        ASSERT_EQ(family->setProxy(s, &proxy, sizeof proxy, user, proxyArgument), 0);
    }
};

// Both families, for INSTANTIATE_TEST_SUITE_P(..., ::testing::ValuesIn(kFamilies), FamilyName).
inline const Family* const kFamilies[] = {&kSocksFamily, &kHttpFamily};

// The family's name as the name of a parameterised test.
template <typename Info>
std::string FamilyName(const Info& info) {
    return info.param->name;
}

}  // namespace dxtest
