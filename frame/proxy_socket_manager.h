// CProxySocketManager: the one registry of socket objects of both stacks.
#pragma once

#include "linked_list.h"
#include "proxy_socket.h"

enum ProxySocketType : int {
    kSocksSocketType = 0,
    kHttpSocketType = 1,
};

class CProxySocketManager : public CLinkedList {
public:
    CProxySocketManager() = default;
    ~CProxySocketManager();

    CProxySocket* AddSocket(SOCKET socket, int type);
    CProxySocket* FindSocket(SOCKET socket) const;
    CProxySocket* FindOrAddSocket(SOCKET socket, int type);
    void RemoveSocket(SOCKET socket);
};

extern CProxySocketManager* g_pProxySocketManager;
