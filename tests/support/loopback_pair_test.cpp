#include "loopback_pair_test.h"

#include "bench.h"

namespace dxtest {

void LoopbackPairTest::SetUp() {
    listener = MakeTcpSocket();
    sockaddr_in any = Loopback(0);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&any), sizeof any), 0);
    ASSERT_EQ(listen(listener, SOMAXCONN), 0);
    int length = sizeof listenAddress;
    ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&listenAddress), &length), 0);
}

void LoopbackPairTest::TearDown() {
    for (SOCKET s : owned_) closesocket(s);
    owned_.clear();
    closesocket(listener);
}

SOCKET LoopbackPairTest::Own(SOCKET s) {
    owned_.push_back(s);
    return s;
}

SOCKET LoopbackPairTest::Socket() { return Own(MakeTcpSocket()); }

LoopbackPairTest::Pair LoopbackPairTest::Connected() {
    Pair pair;
    pair.host = Socket();
    EXPECT_EQ(connect(pair.host, reinterpret_cast<sockaddr*>(&listenAddress), sizeof listenAddress), 0);
    pair.proxy = Own(accept(listener, nullptr, nullptr));
    EXPECT_NE(pair.proxy, INVALID_SOCKET);
    DWORD limit = 5000;
    setsockopt(pair.host, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&limit), sizeof limit);
    return pair;
}

bool ReadableWithin(SOCKET s, int ms) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(s, &readable);
    timeval wait = {ms / 1000, (ms % 1000) * 1000};
    return select(0, &readable, nullptr, nullptr, &wait) == 1;
}

}  // namespace dxtest
