// The base of the tests that play the proxy themselves: a listener on 127.0.0.1, and connected pairs
// whose far end the test holds. Every socket it made is closed when the test ends.
#pragma once

#include <gtest/gtest.h>
#include <winsock2.h>

#include <vector>

namespace dxtest {

class LoopbackPairTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // The host's socket, connected to the listener, and the far end that plays the proxy.
    struct Pair {
        SOCKET host = INVALID_SOCKET;
        SOCKET proxy = INVALID_SOCKET;
    };
    // A blocking read or peek of the host's end gives up after 5 s.
    Pair Connected();
    // A socket that is closed when the test ends.
    SOCKET Own(SOCKET s);
    // A new TCP socket, owned.
    SOCKET Socket();

    SOCKET listener = INVALID_SOCKET;
    sockaddr_in listenAddress = {};

private:
    std::vector<SOCKET> owned_;
};

// Whether s has something to read (or its end) within `ms`.
bool ReadableWithin(SOCKET s, int ms);

}  // namespace dxtest
