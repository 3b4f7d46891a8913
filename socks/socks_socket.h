// CSocksSocket: the per-socket SOCKS client. One stepper, ProcessState, drives the handshake: in a
// loop on the caller's thread for a blocking socket, one step per socket event for a non-blocking one.
#pragma once

#include "dxsocks_types.h"
#include "proxy_socket.h"
#include "socks4_wire.h"

class CSocksSocket : public CProxySocket {
public:
    explicit CSocksSocket(SOCKET s);
    CSocksSocket(SOCKET s, UnloggedTag) : CProxySocket(s) {}

    void SetProxy(const sockaddr_in* proxy, int length, const char* user, unsigned version);
    int StartConnect(unsigned command, const char* host, unsigned port, HWND parent, unsigned* error);
    int ConnectToServer(HWND parent);
    // Enters the socket's local port, the proxy's port and userId in the identity table, for the
    // time of the handshake. Nothing here fails the connect.
    void AddIdentity();
    // Takes this socket's entry out of the identity table and closes its mapping, once: the end of
    // the handshake, a retry, or the last close of a handshake that never finished.
    void DropIdentity();
    int ProcessState();
    int ProcessSocks4State();
    int SendSocks4Request();
    int CheckSocks4Reply();
    int ProcessSocks5State();
    int SendMethodSelect();
    int SendSocks5Request();
    int OnMethodRecv();
    int SendPassword(const wchar_t* password);
    void StartReading(int count);
    int OnRead();
    int SocketPeek(unsigned* error);
    int Send(const void* buffer, int length);
    void ConnectFinished(unsigned error);

    uint8_t socks4Packet[kSocks4PacketSize] = {};
    uint32_t protocolVersion = 4;
    HANDLE identityHandle = nullptr;
    uint32_t identityLocalPort = 0;

private:
    void AddIdentityEntry();
    int PeekReply(int tries, bool tenWhenGranted);
    int FailHandshake(int error);
    bool AskPassword(const char* proxyText, wchar_t* password);
    // The UI library's prompt: yes only for result 1 and a password of 1 to 129 characters.
    bool PromptPassword(const char* proxyText, wchar_t* password);
};

// The host's password callback and its context (SOCKS_SetPasswordCallback).
extern DXSOCKS_PASSWORD_CALLBACK g_pfnSocksPassword;
extern void* g_socksPasswordContext;

// Socket events of the SOCKS hidden window: one handshake step per FD_CONNECT or FD_READ.
int socksHiddenOnSocketEvent(SOCKET socket, unsigned error, unsigned events);
