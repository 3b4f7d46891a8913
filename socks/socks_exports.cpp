// SOCKS_* exports, in ordinal order.
#include <cstring>

#include "config_dialog.h"
#include "determination.h"
#include "export_frame.h"
#include "lifecycle.h"
#include "log.h"
#include "proxy_socket_manager.h"
#include "resolver.h"
#include "result_codes.h"
#include "shim_detection.h"
#include "socks_api.h"
#include "socks_socket.h"
#include "suite_library.h"
#include "version_info.h"
#include "xml_registry.h"

namespace {

SharedUse<CSocksSocket> FindOrAddSocksSocket(SOCKET s) {
    return g_pProxySocketManager->FindOrAddSocket(s, kSocksSocketType).As<CSocksSocket>();
}

SharedUse<CSocksSocket> FindSocksSocket(SOCKET s) { return g_pProxySocketManager->FindSocket(s).As<CSocksSocket>(); }

// A handshake that ended without ConnectFinished still holds its identity entry; the registry frees
// objects without knowing their class, so it goes here, before the object does.
void DropSocksIdentity(CProxySocket* object) { static_cast<CSocksSocket*>(object)->DropIdentity(); }

// The dispatch table of SOCKS_Startup. Null slots are exports this build doesn't have.
const AnyFunction kSocksDispatchTable[33] = {
    Slot(SOCKS_accept),     Slot(SOCKS_bind),          Slot(SOCKS_closesocket),        Slot(SOCKS_connect),
    Slot(SOCKS_getsockname), Slot(SOCKS_ioctlsocket),  Slot(SOCKS_listen),             Slot(SOCKS_select),
    Slot(SOCKS_WSAAsyncSelect), Slot(SOCKS_Cleanup),   Slot(SOCKS_LogString),
    Slot(SOCKS_ConfigurationDialog),
    Slot(SOCKS_SetProxy),
    Slot(SOCKS_DetermineProxy),
    Slot(SOCKS_DetectShims),
    Slot(SOCKS_GetVersionInfo),
    Slot(SOCKS_SetProtocolVersion), Slot(SOCKS_SetLoggingCallback),
    Slot(SOCKS_SetPasswordCallback),
    Slot(SOCKS_SetLoggingCallbackEx), Slot(SOCKS_ConnectEx), Slot(SOCKS_BindEx), Slot(SOCKS_ConnectCanceled),
    Slot(SOCKS_GetConnectError),
    Slot(SOCKS_DetermineProxyEx), Slot(SOCKS_UseAddressFamily),
    Slot(SOCKS_SetXMLConfig), Slot(SOCKS_GetXMLConfig),
    Slot(SOCKS_ShowXMLConfigDlg),
    Slot(SOCKS_CleanupSocket), Slot(SOCKS_SetProxyEx),
    Slot(SOCKS_ConnectTimeout),
    Slot(SOCKS_SetParentHWND),
};

// A socket without a proxy takes what the determination picks, with version 4 unless a map says 5.
const Determination kSocksSocketDetermination = {SOCKS_DetermineProxyEx, 4};

LRESULT CALLBACK SocksHiddenWindowProcedure(HWND, UINT, WPARAM, LPARAM);
DWORD WINAPI SocksHiddenThread(void*);

const HiddenWindowFamily kSocksFamily = {
    "ZELMONT_SOCKS_HIDDEN_WINDOW", &g_hSocksWindow,      &g_hSocksThread,   &g_socksThreadDone,
    &g_socksStartupCount,          SocksHiddenWindowProcedure, SocksHiddenThread,
};

LRESULT CALLBACK SocksHiddenWindowProcedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    return HiddenWindowProcedure(kSocksFamily, socksHiddenOnSocketEvent, window, message, wParam, lParam);
}

DWORD WINAPI SocksHiddenThread(void*) { return RunHiddenWindowThread(kSocksFamily); }

}  // namespace

int socksHiddenOnSocketEvent(SOCKET s, unsigned error, unsigned events) {
    SOCKS_LogString("socksHiddenOnSocketEvent(socket:%d,error:%d,FD event:%x)", static_cast<int>(s),
                    static_cast<int>(error), events);
    // The use keeps the object for this step, should the host remove it meanwhile.
    SharedUse<CSocksSocket> object = FindSocksSocket(s);
    if (object == nullptr) return 1;
    // Kept: an FD_CONNECT that carries an error does nothing; the host's own time-out ends its wait.
    if ((events & FD_CONNECT) && error == 0) {
        object->OnConnected();
        error = static_cast<unsigned>(object->ProcessState());
        if (error != 0) SOCKS_LogString("socksHiddenOnSocketEvent(FD_CONNECT). Error %d", static_cast<int>(error));
    }
    if ((events & FD_READ) && error == 0 && object->state != kEstablished) {
        int result = object->ProcessState();
        if (result != 0) SOCKS_LogString("socksHiddenOnSocketEvent(FD_READ). Error %d", result);
    }
    return 1;
}

extern "C" {

SOCKET SOCKS_accept(SOCKET s, sockaddr* addr, int* addrlen) {
    ExportLog log("SOCKS_accept", s);
    LogAddress("Begin addr %s:%d", addr);
    SharedUse<CSocksSocket> object = FindSocksSocket(s);
    SOCKET result;
    int error = 0;
    if (object == nullptr || !object->useProxy) {
        if (addr != nullptr && AddressLengthFaults(addrlen)) {
            result = INVALID_SOCKET;
        } else {
            result = accept(s, addr, addrlen);
        }
        error = WSAGetLastError();
    } else {
        // The second reply of a BIND, read as an 8-byte SOCKS 4 packet whichever version ran; the read
        // goes on over several calls.
        if (object->readPointer == nullptr || object->bytesRead >= object->bytesRequested) {
            object->readPointer = object->receiveBuffer;
            object->bytesRead = 0;
            object->bytesRequested = kSocks4PacketSize;
        }
        int received = recv(s, reinterpret_cast<char*>(object->readPointer),
                            object->bytesRequested - object->bytesRead, 0);
        if (received == SOCKET_ERROR) {
            result = INVALID_SOCKET;
            error = WSAGetLastError();
        } else {
            object->readPointer += received;
            object->bytesRead += received;
            SOCKS_LogString("* * * * * received %d, total %d, requested %d", received, object->bytesRead,
                            object->bytesRequested);
            if (object->bytesRead < object->bytesRequested) {
                result = INVALID_SOCKET;
                error = dxcode::kWouldBlock;
            } else {
                object->readPointer = nullptr;
                object->bytesRead = 0;
                object->bytesRequested = 0;
                const uint8_t* reply = object->receiveBuffer;
                if (reply[1] == kSocks4Granted || reply[0] == kSocks4Granted) {
                    sockaddr_in peer = {};
                    peer.sin_family = AF_INET;
                    std::memcpy(&peer.sin_port, reply + 2, 2);
                    std::memcpy(&peer.sin_addr, reply + 4, 4);
                    StoreAddress(peer, addr, addrlen);
                    // The accepted connection is this same handle, so it needs one more close.
                    ++object->useCount;
                    result = s;
                } else {
                    result = INVALID_SOCKET;
                    error = dxcode::kConnectionRefused;
                }
            }
        }
    }
    LogAddress("End addr %s:%d", addr);
    SOCKS_LogString("WinSock Error = %d", error);
    log.End(static_cast<int>(result));
    WSASetLastError(error);
    return result;
}

int SOCKS_bind(SOCKET s, const sockaddr* name, int namelen) {
    ExportLog log("SOCKS_bind", s);
    int result = CallWithAddressRecord(SOCKS_BindEx, s, name, namelen);
    log.End();
    return result;
}

int SOCKS_closesocket(SOCKET s) { return CloseManagedSocket("SOCKS_closesocket", s, DropSocksIdentity); }

int SOCKS_connect(SOCKET s, const sockaddr* name, int namelen) {
    ExportLog log("SOCKS_connect", s);
    int result = CallWithAddressRecord(SOCKS_ConnectEx, s, name, namelen);
    log.End();
    return result;
}

int SOCKS_getsockname(SOCKET s, sockaddr* name, int* namelen) {
    return GetManagedSockName("SOCKS_getsockname", "CSocksSocket", s, name, namelen);
}

int SOCKS_ioctlsocket(SOCKET s, long command, u_long* argument) {
    ExportLog log("SOCKS_ioctlsocket", s);
    int result;
    if (argument == nullptr) {
        WSASetLastError(dxcode::kFault);
        result = dxcode::kFault;
    } else {
        if (command == static_cast<long>(FIONBIO)) {
            SharedUse<CSocksSocket> object = FindOrAddSocksSocket(s);
            // INVALID_SOCKET gets no object; the real call then reports the handle.
            if (object != nullptr) object->asyncMode = *argument != 0 ? 1 : 0;
            SOCKS_LogString(*argument != 0 ? " set socket non-blocking" : " set socket blocking");
        }
        result = ioctlsocket(s, command, argument);
        if (result == SOCKET_ERROR) result = WSAGetLastError();
    }
    log.End(result);
    return result;
}

int SOCKS_listen(SOCKET s, int backlog) { return ListenManaged("SOCKS_listen", s, backlog); }

int SOCKS_select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, const timeval* timeout) {
    return SelectManaged("SOCKS_select", nfds, readfds, writefds, exceptfds, timeout);
}

int SOCKS_WSAAsyncSelect(SOCKET s, HWND window, unsigned int message, long events) {
    return AsyncSelectManaged("SOCKS_WSAAsyncSelect", kSocksSocketType, s, window, message, events);
}

int SOCKS_Startup(void* table, int size) {
    return StartFamily(kSocksFamily, "SOCKS_Startup", table, size, kSocksDispatchTable, sizeof kSocksDispatchTable);
}

int SOCKS_Cleanup(void) {
    ExportLog log("SOCKS_Cleanup");
    --g_socksStartupCount;
    if (g_socksStartupCount == 0 && IsWindow(g_hSocksWindow)) {
        g_socksThreadDone = 0;
        PostMessageA(g_hSocksWindow, WM_CLOSE, 0, 0);
        // Kept: no time limit; a hidden thread that never ends keeps this call here.
        while (IsWindow(g_hSocksWindow) || !g_socksThreadDone) PumpOneMessage();
    }
    log.End();
    return 1;
}

int SOCKS_ConfigurationDialog(HWND owner) {
    return ConfigurationDialogExport("SOCKS_ConfigurationDialog", ConfigFamily::kSocks, owner);
}

int SOCKS_SetProxy(SOCKET s, const sockaddr_in* proxy, int length, const char* userId) {
    return SOCKS_SetProxyEx(s, proxy, length, userId, 4);
}

int SOCKS_DetermineProxy(const sockaddr* destination, int destinationLength, sockaddr_in* proxy, int proxySize,
                         char* userId, int userIdSize) {
    return DetermineProxyByAddress(kSocksDetermination, destination, destinationLength, proxy, proxySize, userId,
                                   userIdSize, nullptr);
}

int SOCKS_DetectShims(int warn, HWND owner) { return DetectShims(kSocksShims, warn, owner); }

int SOCKS_GetVersionInfo(void* out, int size) { return CopyVersionRecord("SOCKS_GetVersionInfo", out, size); }

int SOCKS_SetProtocolVersion(SOCKET, unsigned int) { return -1; }

void SOCKS_SetPasswordCallback(void* context, DXSOCKS_PASSWORD_CALLBACK callback) {
    g_socksPasswordContext = context;
    g_pfnSocksPassword = callback;
}

int SOCKS_ConnectEx(SOCKET s, const char* host, unsigned int port, HWND parent, int family) {
    return ConnectThroughProxy<CSocksSocket>("SOCKS_ConnectEx", kSocksSocketType, s, host, port, parent, family,
                                             kSocksSocketDetermination);
}

// Unlike SOCKS_ConnectEx, this leaves g_hParentWindow alone.
int SOCKS_BindEx(SOCKET s, const char* host, unsigned int port, HWND parent, int family) {
    return BindThroughProxy<CSocksSocket>("SOCKS_BindEx", kSocksSocketType, BindWaitEnds::kOnCancel, s, host, port,
                                          parent, family, kSocksSocketDetermination);
}

int SOCKS_ConnectCanceled(SOCKET s) { return ReadCanceled("SOCKS_ConnectCanceled", s); }

unsigned int SOCKS_GetConnectError(SOCKET s) { return ReadConnectError("SOCKS_GetConnectError", s); }

int SOCKS_DetermineProxyEx(const char* host, unsigned int port, sockaddr_in* proxy, int proxySize, char* userId,
                           int userIdSize, unsigned int* version, int* family) {
    return DetermineProxyEx(kSocksDetermination, host, port, proxy, proxySize, userId, userIdSize, version, family);
}

int SOCKS_UseAddressFamily(const char* host, unsigned int port, int* family) {
    return UseAddressFamily(kSocksDetermination, "SOCKS_UseAddressFamily", host, port, family);
}

int SOCKS_SetXMLConfig(const char* text) { return SetXmlConfigExport("SOCKS_SetXMLConfig", kXmlRegistrySocks, text); }

const char* SOCKS_GetXMLConfig() { return GetXmlConfigExport("SOCKS_GetXMLConfig"); }

const char* SOCKS_ShowXMLConfigDlg(HWND owner) {
    return ShowXmlConfigDialogExport("SOCKS_ShowXMLConfigDlg", ConfigFamily::kSocks, owner);
}

void SOCKS_CleanupSocket(SOCKET s) { CleanupManagedSocket("SOCKS_CleanupSocket", s, DropSocksIdentity); }

int SOCKS_SetProxyEx(SOCKET s, const sockaddr_in* proxy, int length, const char* userId, unsigned int version) {
    ExportLog log("SOCKS_SetProxyEx", s);
    SharedUse<CSocksSocket> object = FindOrAddSocksSocket(s);
    if (object != nullptr) object->SetProxy(proxy, length, userId, version);
    log.End();
    return object != nullptr ? 0 : 1;
}

void SOCKS_ConnectTimeout(SOCKET s) { ReportConnectTimeout("SOCKS_ConnectTimeout", s, true, CloseUIPrompt); }

void SOCKS_SetParentHWND(HWND window) { StoreParentWindow("SOCKS_SetParentHWND", window); }

}  // extern "C"
