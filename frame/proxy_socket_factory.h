// The registry's object factory: the one place below the exports that knows both socket classes.
#pragma once

#include "proxy_socket_manager.h"

// Type kHttpSocketType makes a CHttpSocket; any other type a CSocksSocket. Null when out of memory.
CProxySocket* MakeProxySocket(SOCKET socket, int type);
