// CProxySocketManager: the one registry of socket objects of both stacks. Host threads and both
// hidden threads use it at once: the list operations exclude each other, and an object that a call
// or an event step still uses outlives its removal until that use ends.
#pragma once

#include "proxy_socket.h"
#include "shared_list.h"

enum ProxySocketType : int {
    kSocksSocketType = 0,
    kHttpSocketType = 1,
};

// A use of a registry object for the length of one export call or one hidden-window event step.
using ProxySocketUse = SharedUse<CProxySocket>;

// Makes the object of the class that `type` selects for `socket` in a counted block
// (AllocateCountedBlock) with its maker's use, or null. The classes keep to trivially destructible
// fields: the last use frees the block (FreeCountedBlock) without knowing the class.
using ProxySocketFactory = CProxySocket* (*)(SOCKET socket, int type);

class CProxySocketManager {
public:
    // The factory sits above both socket classes (frame/proxy_socket_factory.h); tests may hand their own.
    explicit CProxySocketManager(ProxySocketFactory factory) : factory(factory) {}

    ProxySocketUse AddSocket(SOCKET socket, int type);
    ProxySocketUse FindSocket(SOCKET socket) const;
    ProxySocketUse FindOrAddSocket(SOCKET socket, int type);
    // Unlinks at once; the object goes when its last use does.
    void RemoveSocket(SOCKET socket);
    // Unlinks this very object if it is still linked: a handle that was closed, reissued and given a
    // new object meanwhile keeps the new one.
    void RemoveSocket(const CProxySocket* object);

    uint32_t Count() const { return list.Count(); }
    ProxySocketUse At(uint32_t index) const;

    // select() for both stacks: a socket in mid-handshake is taken out of the write set, and the call
    // waits, pumping messages, until its handshake ends.
    int Select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, const timeval* timeout);

private:
    ProxySocketFactory factory;
    CSharedList list;
};

extern CProxySocketManager* g_pProxySocketManager;
