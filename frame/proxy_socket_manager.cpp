#include "proxy_socket_manager.h"

#include <utility>

#include "lifecycle.h"
#include "result_codes.h"

CProxySocketManager* g_pProxySocketManager = nullptr;

namespace {

auto Matching(SOCKET socket) {
    return [socket](const CListNode* node) { return static_cast<const CProxySocket*>(node)->socket == socket; };
}

ProxySocketUse AsProxySocket(SharedUse<CListNode> use) { return std::move(use).As<CProxySocket>(); }

}  // namespace

ProxySocketUse CProxySocketManager::AddSocket(SOCKET socket, int type) {
    // Made outside the lock: the constructor logs, which calls the host.
    CProxySocket* object = factory(socket, type);
    if (object == nullptr) return nullptr;
    return AsProxySocket(list.Append(object));
}

ProxySocketUse CProxySocketManager::FindSocket(SOCKET socket) const {
    return AsProxySocket(list.Find(Matching(socket)));
}

ProxySocketUse CProxySocketManager::FindOrAddSocket(SOCKET socket, int type) {
    if (socket == INVALID_SOCKET) return nullptr;
    ProxySocketUse found = FindSocket(socket);
    if (found != nullptr) return found;
    CProxySocket* object = factory(socket, type);
    if (object == nullptr) return nullptr;
    return AsProxySocket(list.AppendUnlessFound(object, Matching(socket)));
}

void CProxySocketManager::RemoveSocket(SOCKET socket) { list.UnlinkFirst(Matching(socket)); }

void CProxySocketManager::RemoveSocket(const CProxySocket* object) { list.Unlink(object); }

ProxySocketUse CProxySocketManager::At(uint32_t index) const { return AsProxySocket(list.At(index)); }

// MinGW declares select with a non-const time-out, which it does not change.
int CProxySocketManager::Select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
                                const timeval* timeout) {
    if (writefds == nullptr || writefds->fd_count == 0 || list.Empty()) {
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
        // The use keeps the object while this thread pumps, whoever removes it meanwhile.
        ProxySocketUse object = FindSocket(managed.fd_array[i]);
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
