#include "proxy_socket_factory.h"

#include <new>
#include <type_traits>

#include "http_socket.h"
#include "socks_socket.h"

// The registry frees an object without knowing its class.
static_assert(std::is_trivially_destructible_v<CSocksSocket>, "objects are freed without knowing their class");
static_assert(std::is_trivially_destructible_v<CHttpSocket>, "objects are freed without knowing their class");

const size_t kProxySocketSize = sizeof(CSocksSocket) > sizeof(CHttpSocket) ? sizeof(CSocksSocket) : sizeof(CHttpSocket);

// A lookup doesn't tell the classes apart, so a stack may meet an object of the other. Each object
// has the room of the larger class, and the fields the other class has beyond the common record hold
// what a fresh object of that class holds: that stack then acts as on a fresh object of its own.
// The other class's defaults are laid down first, without its constructor's log line, and the
// object's own class is constructed over them.
CProxySocket* MakeProxySocket(SOCKET socket, int type) {
    void* room = AllocateCountedBlock(kProxySocketSize);
    if (room == nullptr) return nullptr;
    if (type == kHttpSocketType) {
        new (room) CSocksSocket(socket, kUnlogged);
        return new (room) CHttpSocket(socket);
    }
    new (room) CHttpSocket(socket, kUnlogged);
    return new (room) CSocksSocket(socket);
}
