// The registry's object factory: the one place below the exports that knows both socket classes.
#pragma once

#include <cstddef>

#include "proxy_socket_manager.h"

// Type kHttpSocketType makes a CHttpSocket; any other type a CSocksSocket. Null when out of memory.
// Either lies in a counted block of kProxySocketSize bytes, over the defaults of the other class.
CProxySocket* MakeProxySocket(SOCKET socket, int type);

// The room of every registry object: the larger of the two classes.
extern const size_t kProxySocketSize;
