// The base of the unit tests that reach the library's registry of socket objects: a registry of
// their own for each test, and the loopback pairs whose far end plays the proxy.
#pragma once

#include "loopback_pair_test.h"
#include "proxy_socket_factory.h"
#include "proxy_socket_manager.h"

class RegistryPairTest : public dxtest::LoopbackPairTest {
protected:
    void SetUp() override {
        g_pProxySocketManager = new CProxySocketManager(MakeProxySocket);
        dxtest::LoopbackPairTest::SetUp();
    }
    void TearDown() override {
        dxtest::LoopbackPairTest::TearDown();
        delete g_pProxySocketManager;
        g_pProxySocketManager = nullptr;
    }
};
