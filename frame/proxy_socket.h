// CProxySocket: the record that CSocksSocket and CHttpSocket share field for field. A registry lookup
// doesn't tell the two apart, so neither class may change this part.
#pragma once

#include <winsock2.h>
#include <windows.h>

#include <cstdint>

#include "linked_list.h"

// Handshake states of both stacks, one numbering. 3 to 8 are the SOCKS stack's, 11 and 13 the HTTP
// stack's; no state has the number 7.
enum ProxyState : uint32_t {
    kIdle = 0,                // no handshake: not begun, or abandoned by a close
    kConnected = 1,           // the TCP connection stands; the first packet is due
    kConnecting = 2,          // StartConnect has begun; the TCP connect is pending
    kAwaitSocks4Reply = 3,
    kAwaitMethodReply = 4,
    kGssapiRefused = 5,       // the proxy chose GSSAPI; failure follows at once
    kAwaitPasswordStatus = 6,
    kAwaitConnectReply = 8,
    kFinished = 9,            // ConnectFinished has run; on success 10 follows at once
    kEstablished = 10,        // the proxy granted the request: the socket is the host's
    kAwaitHttpReply = 11,     // the CONNECT request is sent
    kFailed = 12,             // a step failed; final only where ConnectFinished doesn't follow
    kHttpCancelled = 13,      // the HTTP password prompt was cancelled; 9 follows at once
};

enum ProxyCommand : uint32_t {
    kCommandConnect = 1,
    kCommandBind = 2,
};

constexpr int kTargetHostSize = 1025;
constexpr int kTargetServiceSize = 33;
constexpr int kReceiveBufferSize = 1024;
constexpr int kUserIdSize = 512;

// Selects a class's constructor that lays down its defaults without the log line: the factory puts
// the defaults of the other class under each object.
struct UnloggedTag {};
constexpr UnloggedTag kUnlogged{};

struct CProxySocket : CListNode {
    explicit CProxySocket(SOCKET s) : socket(s) {}

    // The mechanics both stacks share. `owner` names the class in the log lines.
    // SetProxy's common part: returns whether a proxy address was taken. Only the `length` bytes the
    // host gave are read; those beyond count as zero, so a record of fewer than 8 names no address.
    bool StoreProxy(const sockaddr_in* proxy, int length, const char* user);
    void ReportEvent(unsigned id);
    // The TCP connect to the proxy (or, without one, to the target). For an event-driven socket
    // FD_CONNECT goes to `hiddenWindow` first, and a pending connect counts as success. Returns 0 or
    // the code of a connect that failed at once; ConnectToServer hands that to its ConnectFinished.
    int BeginConnect(HWND parent, HWND hiddenWindow);
    void StartReadingAs(const char* owner, int count);
    // A counted read of up to `windowEnd - bytesRead` bytes, with 100 retries of 10 ms.
    int ReadCounted(const char* owner, int windowEnd);
    // Up to 100 peeks of `size` bytes into receiveBuffer, 10 ms apart.
    int PeekInto(int size, unsigned* error);
    int SendAs(const char* owner, const void* buffer, int length);
    // The end of a non-blocking handshake: the hidden window lets go, FD_CONNECT goes to the host's
    // window and the host's other events to WinSock. Returns whether the host's window was there.
    bool HandOverToHost(const char* owner, HWND hiddenWindow, unsigned error);
    void PushAsyncSelect(HWND window, unsigned message, unsigned events);
    void OnConnected();
    // The host's time limit ran out: an open password prompt is told to close through `closePrompt`,
    // and the exchange ends in 1460 when it returns. Without an open prompt nothing changes.
    void OnConnectTimeout(void (*closePrompt)());
    void GetSockName(sockaddr* name, const int* length) const;
    int ReleaseSocket();

    int32_t lastError = 0;
    SOCKET socket;
    ProxyState state = kIdle;
    int32_t useProxy = 0;
    int32_t proxyChosen = 0;
    int32_t asyncMode = 0;
    int32_t canceled = 0;
    uint32_t connectError = 0;
    uint32_t command = 0;
    int32_t useCount = 0;
    sockaddr_in targetAddress = {};
    char targetHost[kTargetHostSize] = {};
    char targetService[kTargetServiceSize] = {};
    uint16_t targetPort = 0;
    int32_t reading = 0;
    uint8_t* readPointer = nullptr;
    int32_t bytesRead = 0;
    int32_t bytesRequested = 0;
    uint8_t receiveBuffer[kReceiveBufferSize] = {};  // zeroed, so that no step reads an indeterminate byte
    HWND asyncWindow = nullptr;
    uint32_t asyncMessage = 0;
    uint32_t asyncEvents = 0;
    sockaddr_in proxyAddress = {};
    char userId[kUserIdSize] = {};
    uint8_t reserved = 255;  // set by the constructor, read nowhere
    int32_t inProcessState = 0;
    HWND parentWindow = nullptr;
    int32_t passwordPrompting = 0;
    int32_t passwordTimedOut = 0;
};
