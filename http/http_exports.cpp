// HTTP_* exports, in ordinal order.
#include "config_dialog.h"
#include "determination.h"
#include "export_frame.h"
#include "http_api.h"
#include "http_socket.h"
#include "lifecycle.h"
#include "log.h"
#include "suite_library.h"
#include "proxy_socket_manager.h"
#include "result_codes.h"
#include "shim_detection.h"
#include "version_info.h"
#include "xml_registry.h"

namespace {

SharedUse<CHttpSocket> FindOrAddHttpSocket(SOCKET s) {
    return g_pProxySocketManager->FindOrAddSocket(s, kHttpSocketType).As<CHttpSocket>();
}


// The dispatch table of HTTP_Startup. Null slots are exports this build doesn't have.
const AnyFunction kHttpDispatchTable[31] = {
    Slot(HTTP_accept),     Slot(HTTP_bind),        Slot(HTTP_closesocket), Slot(HTTP_connect),
    Slot(HTTP_getsockname), Slot(HTTP_ioctlsocket), Slot(HTTP_listen),      Slot(HTTP_select),
    Slot(HTTP_WSAAsyncSelect), Slot(HTTP_Cleanup),  Slot(HTTP_LogString),
    Slot(HTTP_ConfigurationDialog),
    Slot(HTTP_SetProxy),
    Slot(HTTP_DetermineProxy),
    Slot(HTTP_DetectShims),
    Slot(HTTP_GetVersionInfo),
    Slot(HTTP_SetLoggingCallback),
    Slot(HTTP_SetPasswordCallback),
    Slot(HTTP_SetLoggingCallbackEx), Slot(HTTP_ConnectEx), Slot(HTTP_BindEx), Slot(HTTP_ConnectCanceled),
    Slot(HTTP_GetConnectError),
    Slot(HTTP_DetermineProxyEx), Slot(HTTP_UseAddressFamily),
    Slot(HTTP_SetXMLConfig), Slot(HTTP_GetXMLConfig),
    Slot(HTTP_ShowXMLConfigDlg),
    Slot(HTTP_CleanupSocket),
    Slot(HTTP_ConnectTimeout),
    Slot(HTTP_SetParentHWND),
};

// A socket without a proxy takes what the determination picks, with the map's Basic flag.
const Determination kHttpSocketDetermination = {HTTP_DetermineProxyEx, 0};

LRESULT CALLBACK HttpHiddenWindowProcedure(HWND, UINT, WPARAM, LPARAM);
DWORD WINAPI HttpHiddenThread(void*);

const HiddenWindowFamily kHttpFamily = {
    "ZELMONT_HTTP_HIDDEN_WINDOW", &g_hHttpWindow,       &g_hHttpThread,   &g_httpThreadDone,
    &g_httpStartupCount,          HttpHiddenWindowProcedure, HttpHiddenThread,
};

LRESULT CALLBACK HttpHiddenWindowProcedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    return HiddenWindowProcedure(kHttpFamily, httpHiddenOnSocketEvent, window, message, wParam, lParam);
}

DWORD WINAPI HttpHiddenThread(void*) { return RunHiddenWindowThread(kHttpFamily); }

constexpr DWORD kCleanupWaitMs = 1000;

}  // namespace

extern "C" {

// A plain forward: the HTTP family has no second reply to read.
SOCKET HTTP_accept(SOCKET s, sockaddr* addr, int* addrlen) {
    if (addr != nullptr && AddressLengthFaults(addrlen)) return INVALID_SOCKET;
    return accept(s, addr, addrlen);
}

int HTTP_bind(SOCKET s, const sockaddr* name, int namelen) {
    ExportLog log("HTTP_bind", s);
    int result = CallWithAddressRecord(HTTP_BindEx, s, name, namelen);
    log.End(result);
    return result;
}

int HTTP_closesocket(SOCKET s) { return CloseManagedSocket("HTTP_closesocket", s); }

int HTTP_connect(SOCKET s, const sockaddr* name, int namelen) {
    ExportLog log("HTTP_connect", s);
    int result = CallWithAddressRecord(HTTP_ConnectEx, s, name, namelen);
    log.End(result);
    return result;
}

int HTTP_getsockname(SOCKET s, sockaddr* name, int* namelen) {
    return GetManagedSockName("HTTP_getsockname", "CHttpSocket", s, name, namelen);
}

// FIONBIO makes the exchange event driven whatever the argument says.
int HTTP_ioctlsocket(SOCKET s, long command, u_long* argument) {
    ExportLog log("HTTP_ioctlsocket", s);
    if (command == static_cast<long>(FIONBIO)) {
        SharedUse<CHttpSocket> object = FindOrAddHttpSocket(s);
        // INVALID_SOCKET gets no object; the real call then reports the handle.
        if (object != nullptr) object->asyncMode = 1;
        SOCKS_LogString(" set socket non-blocking");
    }
    int result;
    if (argument == nullptr) {
        // WinSock on Windows refuses it before anything; Wine would write through it.
        WSASetLastError(dxcode::kFault);
        result = dxcode::kFault;
    } else {
        result = ioctlsocket(s, command, argument);
        if (result == SOCKET_ERROR) result = WSAGetLastError();
    }
    log.End(result);
    return result;
}

int HTTP_listen(SOCKET s, int backlog) { return ListenManaged("HTTP_listen", s, backlog); }

int HTTP_select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, const timeval* timeout) {
    return SelectManaged("HTTP_select", nfds, readfds, writefds, exceptfds, timeout);
}

int HTTP_WSAAsyncSelect(SOCKET s, HWND window, unsigned int message, long events) {
    return AsyncSelectManaged("HTTP_WSAAsyncSelect", kHttpSocketType, s, window, message, events);
}

int HTTP_Startup(void* table, int size) {
    return StartFamily(kHttpFamily, "HTTP_Startup", table, size, kHttpDispatchTable, sizeof kHttpDispatchTable);
}

// Kept: unlike SOCKS_Cleanup this pumps nothing; it waits for the thread 1 s, then ends it, wherever
// it stands (even inside the host's password callback).
int HTTP_Cleanup(void) {
    ExportLog log("HTTP_Cleanup");
    --g_httpStartupCount;
    if (g_httpStartupCount == 0 && IsWindow(g_hHttpWindow)) {
        g_httpThreadDone = 0;
        PostMessageA(g_hHttpWindow, WM_CLOSE, 0, 0);
        if ((IsWindow(g_hHttpWindow) || !g_httpThreadDone) && g_hHttpThread != nullptr) {
            SOCKS_LogString("HTTP_Cleanup - waiting for thread to complete");
            if (WaitForSingleObject(g_hHttpThread, kCleanupWaitMs) != WAIT_OBJECT_0) TerminateThread(g_hHttpThread, 0);
        }
    }
    log.End();
    return 1;
}

void HTTP_SetPasswordCallback(void* context, DXSOCKS_PASSWORD_CALLBACK callback) {
    g_httpPasswordContext = context;
    g_pfnHttpPassword = callback;
}

int HTTP_ConfigurationDialog(HWND owner) {
    return ConfigurationDialogExport("HTTP_ConfigurationDialog", ConfigFamily::kHttp, owner);
}

int HTTP_SetProxy(SOCKET s, const sockaddr_in* proxy, int length, const char* user, unsigned int authenticate) {
    ExportLog log("HTTP_SetProxy", s);
    SharedUse<CHttpSocket> object = FindOrAddHttpSocket(s);
    if (object != nullptr) object->SetProxy(proxy, length, user, authenticate);
    log.End();
    return object != nullptr ? 0 : 1;
}

int HTTP_DetermineProxy(const sockaddr* destination, int destinationLength, sockaddr_in* proxy, int proxySize,
                        char* userId, int userIdSize, unsigned int* basicAuthentication) {
    return DetermineProxyByAddress(kHttpDetermination, destination, destinationLength, proxy, proxySize, userId,
                                   userIdSize, basicAuthentication);
}

int HTTP_DetectShims(int warn, HWND owner) { return DetectShims(kHttpShims, warn, owner); }

int HTTP_GetVersionInfo(void* out, int size) { return CopyVersionRecord("HTTP_GetVersionInfo", out, size); }

int HTTP_ConnectEx(SOCKET s, const char* host, unsigned int port, HWND parent, int family) {
    return ConnectThroughProxy<CHttpSocket>("HTTP_ConnectEx", kHttpSocketType, s, host, port, parent, family,
                                            kHttpSocketDetermination);
}

// There is no bind on the wire: the same CONNECT exchange, then a wait for its end, which a recorded
// refusal ends too.
int HTTP_BindEx(SOCKET s, const char* host, unsigned int port, HWND parent, int family) {
    return BindThroughProxy<CHttpSocket>("HTTP_BindEx", kHttpSocketType, BindWaitEnds::kOnCancelOrConnectError, s,
                                         host, port, parent, family, kHttpSocketDetermination);
}

int HTTP_ConnectCanceled(SOCKET s) { return ReadCanceled("HTTP_ConnectCanceled", s); }

unsigned int HTTP_GetConnectError(SOCKET s) { return ReadConnectError("HTTP_GetConnectError", s); }

int HTTP_DetermineProxyEx(const char* host, unsigned int port, sockaddr_in* proxy, int proxySize, char* userId,
                          int userIdSize, unsigned int* basicAuthentication, int* family) {
    return DetermineProxyEx(kHttpDetermination, host, port, proxy, proxySize, userId, userIdSize, basicAuthentication,
                            family);
}

int HTTP_UseAddressFamily(const char* host, unsigned int port, int* family) {
    return UseAddressFamily(kHttpDetermination, "HTTP_UseAddressFamily", host, port, family);
}

int HTTP_SetXMLConfig(const char* text) { return SetXmlConfigExport("HTTP_SetXMLConfig", kXmlRegistryHttp, text); }

const char* HTTP_GetXMLConfig() { return GetXmlConfigExport("HTTP_GetXMLConfig"); }

const char* HTTP_ShowXMLConfigDlg(HWND owner) {
    return ShowXmlConfigDialogExport("HTTP_ShowXMLConfigDlg", ConfigFamily::kHttp, owner);
}

void HTTP_CleanupSocket(SOCKET s) { CleanupManagedSocket("HTTP_CleanupSocket", s); }

void HTTP_ConnectTimeout(SOCKET s) { ReportConnectTimeout("HTTP_ConnectTimeout", s, false, CloseUIPrompt); }

void HTTP_SetParentHWND(HWND window) { StoreParentWindow("HTTP_SetParentHWND", window); }

}  // extern "C"
