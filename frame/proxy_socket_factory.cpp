#include "proxy_socket_factory.h"

#include <new>
#include <type_traits>

#include "http_socket.h"
#include "socks_socket.h"

// The registry frees an object without knowing its class.
static_assert(std::is_trivially_destructible_v<CSocksSocket>, "objects are freed without knowing their class");
static_assert(std::is_trivially_destructible_v<CHttpSocket>, "objects are freed without knowing their class");

CProxySocket* MakeProxySocket(SOCKET socket, int type) {
    if (type == kHttpSocketType) return new (std::nothrow) CHttpSocket(socket);
    return new (std::nothrow) CSocksSocket(socket);
}
