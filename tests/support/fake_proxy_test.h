// The base of the tests that talk to the scripted fake proxy: a fresh socket, the fake proxy's and
// the echo server's addresses, and a fake proxy without scripts left over from an earlier test.
#pragma once

#include <gtest/gtest.h>
#include <winsock2.h>

#include <cstdint>
#include <string>

namespace dxtest {

class FakeProxyTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // How the test's socket goes at the end; by default it is retired, so that no later test gets
    // its handle while the library may still hold an object for it.
    virtual void Close(SOCKET socket);
    // Closes the test's socket now, e.g. so that the fake proxy's record is complete.
    void CloseNow();
    // The socket went another way (closed through the library): the end leaves it alone.
    void Forget() { s = INVALID_SOCKET; }
    // The test's socket as the log prints it.
    std::string S() const;
    uint16_t FakePort() const { return ntohs(fake.sin_port); }

    SOCKET s = INVALID_SOCKET;
    sockaddr_in fake = {};
    uint16_t echo = 0;
};

}  // namespace dxtest
