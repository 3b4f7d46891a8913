#include "proxy_socket_manager.h"

#include <new>

#include "lifecycle.h"
#include "result_codes.h"

CProxySocketManager* g_pProxySocketManager = nullptr;

// Nothing in an object says which class made it, so every object is freed the same way.
void ReleaseProxySocket(CListNode* node) { ::operator delete(static_cast<void*>(node)); }

CProxySocketManager::~CProxySocketManager() { Clear(ReleaseProxySocket); }

CProxySocket* CProxySocketManager::AddSocket(SOCKET socket, int type) {
    CProxySocket* object = factory(socket, type);
    if (object != nullptr) Append(object);
    return object;
}

CProxySocket* CProxySocketManager::FindSocket(SOCKET socket) const {
    for (CListNode* node = First(); node != nullptr; node = Next(node)) {
        auto* object = static_cast<CProxySocket*>(node);
        if (object->socket == socket) return object;
    }
    return nullptr;
}

CProxySocket* CProxySocketManager::FindOrAddSocket(SOCKET socket, int type) {
    if (socket == INVALID_SOCKET) return nullptr;
    CProxySocket* object = FindSocket(socket);
    return object != nullptr ? object : AddSocket(socket, type);
}

void CProxySocketManager::RemoveSocket(SOCKET socket) {
    CProxySocket* object = FindSocket(socket);
    if (object == nullptr) return;
    Remove(object);
    ReleaseProxySocket(object);
}

// MinGW declares select with a non-const time-out, which it does not change.
int CProxySocketManager::Select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
                                const timeval* timeout) {
    if (writefds == nullptr || writefds->fd_count == 0 || First() == nullptr) {
        return select(nfds, readfds, writefds, exceptfds, const_cast<timeval*>(timeout));
    }
    fd_set managed = *writefds;
    // Kept: the entry that moves into place i is not looked at: of two managed sockets side by side, the
    // second stays in the set for the real select.
    for (u_int i = 0; i < writefds->fd_count && i < FD_SETSIZE; ++i) {
        if (FindSocket(writefds->fd_array[i]) == nullptr) continue;
        for (u_int j = i + 1; j < writefds->fd_count && j < FD_SETSIZE; ++j) {
            writefds->fd_array[j - 1] = writefds->fd_array[j];
        }
        --writefds->fd_count;
    }
    if (select(nfds, readfds, writefds, exceptfds, const_cast<timeval*>(timeout)) == SOCKET_ERROR) return SOCKET_ERROR;

    for (u_int i = 0; i < managed.fd_count && i < FD_SETSIZE; ++i) {
        CProxySocket* object = FindSocket(managed.fd_array[i]);
        if (object == nullptr || object->state == kIdle) continue;
        // No time limit here: the timeout served the real select only.
        while (object->state != kEstablished) {
            if (object->canceled) {
                WSASetLastError(dxcode::kPasswordCancelled);
                return SOCKET_ERROR;
            }
            if (object->connectError != 0) {
                WSASetLastError(static_cast<int>(object->connectError));
                return SOCKET_ERROR;
            }
            if (object->state == kFailed) return SOCKET_ERROR;
            PumpOneMessage();
        }
        if (writefds->fd_count < FD_SETSIZE) writefds->fd_array[writefds->fd_count++] = managed.fd_array[i];
    }
    return static_cast<int>(writefds->fd_count);
}
