#include "fake_proxy_test.h"

#include "bench.h"
#include "test_helpers.h"

namespace dxtest {

void FakeProxyTest::SetUp() {
    s = MakeTcpSocket();
    ASSERT_NE(s, INVALID_SOCKET);
    fake = Loopback(BenchPort("FAKE_PORT"));
    echo = BenchPort("ECHO_PORT");
    FakeReset();
}

void FakeProxyTest::TearDown() {
    if (s != INVALID_SOCKET) Close(s);
    FakeReset();
}

void FakeProxyTest::Close(SOCKET socket) { Retire(socket); }

void FakeProxyTest::CloseNow() {
    Close(s);
    s = INVALID_SOCKET;
}

std::string FakeProxyTest::S() const { return N(s); }

}  // namespace dxtest
