#include "proxy_socket_manager.h"

#include <new>
#include <type_traits>

#include "socks_socket.h"

CProxySocketManager* g_pProxySocketManager = nullptr;

namespace {

// Nothing in an object says which class made it, so both classes keep to trivially destructible
// fields and every object is freed the same way.
static_assert(std::is_trivially_destructible_v<CSocksSocket>, "objects are freed without knowing their class");

void ReleaseProxySocket(CListNode* node) { ::operator delete(static_cast<void*>(node)); }

}  // namespace

CProxySocketManager::~CProxySocketManager() { Clear(ReleaseProxySocket); }

CProxySocket* CProxySocketManager::AddSocket(SOCKET socket, int type) {
    CProxySocket* object = nullptr;
    if (type != kHttpSocketType) object = new (std::nothrow) CSocksSocket(socket);
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
