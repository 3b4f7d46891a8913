// CProxySocket: the record that CSocksSocket and CHttpSocket share field for field. A registry lookup
// doesn't tell the two apart, so neither class may change this part.
#pragma once

#include <winsock2.h>
#include <windows.h>

#include <cstdint>

#include "linked_list.h"

// Handshake states. The numbering is shared by both stacks; 7 and 11 are unused by SOCKS.
enum ProxyState : uint32_t {
    kIdle = 0,
    kConnected = 1,
    kConnecting = 2,
    kAwaitSocks4Reply = 3,
    kAwaitMethodReply = 4,
    kGssapiRefused = 5,
    kAwaitPasswordStatus = 6,
    kAwaitConnectReply = 8,
    kFinished = 9,
    kEstablished = 10,
    kFailed = 12,
};

enum ProxyCommand : uint32_t {
    kCommandConnect = 1,
    kCommandBind = 2,
};

constexpr int kTargetHostSize = 1025;
constexpr int kTargetServiceSize = 33;
constexpr int kReceiveBufferSize = 1024;
constexpr int kUserIdSize = 512;

struct CProxySocket : CListNode {
    explicit CProxySocket(SOCKET s) : socket(s) {}

    int32_t lastError = 0;
    SOCKET socket;
    uint32_t state = kIdle;
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
