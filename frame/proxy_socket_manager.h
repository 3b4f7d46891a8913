// CProxySocketManager: the one registry of socket objects of both stacks.
#pragma once

#include "linked_list.h"
#include "proxy_socket.h"

enum ProxySocketType : int {
    kSocksSocketType = 0,
    kHttpSocketType = 1,
};

// Makes the object of the class that `type` selects for `socket`, or null. The registry frees what it
// makes with ReleaseProxySocket: the classes keep to trivially destructible fields.
using ProxySocketFactory = CProxySocket* (*)(SOCKET socket, int type);
void ReleaseProxySocket(CListNode* node);

class CProxySocketManager : public CLinkedList {
public:
    // The factory sits above both socket classes (frame/proxy_socket_factory.h); tests may hand their own.
    explicit CProxySocketManager(ProxySocketFactory factory) : factory(factory) {}
    ~CProxySocketManager();

    CProxySocket* AddSocket(SOCKET socket, int type);
    CProxySocket* FindSocket(SOCKET socket) const;
    CProxySocket* FindOrAddSocket(SOCKET socket, int type);
    void RemoveSocket(SOCKET socket);

    // select() for both stacks: a socket in mid-handshake is taken out of the write set, and the call
    // waits, pumping messages, until its handshake ends.
    int Select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, const timeval* timeout);

private:
    ProxySocketFactory factory;
};

extern CProxySocketManager* g_pProxySocketManager;
