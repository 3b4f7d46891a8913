// The log as a host sees it through the exports.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "http_api.h"
#include "socks_api.h"

namespace {

struct Delivered {
    std::string via;  // "plain" or "ex"
    int value;
    void* context;
    std::string text;
};
std::vector<Delivered> g_delivered;
int g_errorSetByCallback;

void Plain(int value, const char* text) {
    g_delivered.push_back({"plain", value, nullptr, text});
    if (g_errorSetByCallback != 0) WSASetLastError(g_errorSetByCallback);
}

void Ex(void* context, const char* text) {
    g_delivered.push_back({"ex", 0, context, text});
    if (g_errorSetByCallback != 0) WSASetLastError(g_errorSetByCallback);
}

class LogExportsTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_delivered.clear();
        g_errorSetByCallback = 0;
    }
    void TearDown() override {
        SOCKS_SetLoggingCallback(nullptr);
        SOCKS_SetLoggingCallbackEx(nullptr, nullptr);
    }
    int context = 0;
};

TEST_F(LogExportsTest, WithBothCallbacksOnlyThePlainOneIsCalled) {
    SOCKS_SetLoggingCallbackEx(&context, Ex);
    SOCKS_SetLoggingCallback(Plain);
    SOCKS_LogString("hello %d %s", 7, "there");
    ASSERT_EQ(g_delivered.size(), 1u);
    EXPECT_EQ(g_delivered[0].via, "plain");
    EXPECT_EQ(g_delivered[0].value, 60);
    EXPECT_EQ(g_delivered[0].text, "DXSOCKS: hello 7 there\n");
}

TEST_F(LogExportsTest, OnlyTheExCallbackGetsContextAndNoNewline) {
    SOCKS_SetLoggingCallbackEx(&context, Ex);
    SOCKS_LogString("line %u", 3u);
    ASSERT_EQ(g_delivered.size(), 1u);
    EXPECT_EQ(g_delivered[0].via, "ex");
    EXPECT_EQ(g_delivered[0].context, &context);
    EXPECT_EQ(g_delivered[0].text, "DXSOCKS: line 3");
}

TEST_F(LogExportsTest, TheFamiliesShareOneLog) {
    HTTP_SetLoggingCallbackEx(&context, Ex);
    SOCKS_LogString("from socks");
    HTTP_LogString("from %s", "http");
    HTTP_SetLoggingCallback(Plain);
    SOCKS_LogString("plain now");
    ASSERT_EQ(g_delivered.size(), 3u);
    EXPECT_EQ(g_delivered[0].text, "DXSOCKS: from socks");
    EXPECT_EQ(g_delivered[1].text, "DXHTTP: from http");
    EXPECT_EQ(g_delivered[2].via, "plain");
    EXPECT_EQ(g_delivered[2].text, "DXSOCKS: plain now\n");
}

TEST_F(LogExportsTest, NullSwitchesACallbackOff) {
    SOCKS_SetLoggingCallback(Plain);
    SOCKS_SetLoggingCallbackEx(&context, Ex);
    SOCKS_SetLoggingCallback(nullptr);
    SOCKS_LogString("to ex");
    SOCKS_SetLoggingCallbackEx(&context, nullptr);
    SOCKS_LogString("to nobody");
    ASSERT_EQ(g_delivered.size(), 1u);
    EXPECT_EQ(g_delivered[0].via, "ex");
}

TEST_F(LogExportsTest, LongLinesAreCutTo254Characters) {
    std::string long_text(600, 'x');
    SOCKS_SetLoggingCallbackEx(&context, Ex);
    SOCKS_LogString("%s", long_text.c_str());
    SOCKS_SetLoggingCallback(Plain);
    SOCKS_LogString("%s", long_text.c_str());
    ASSERT_EQ(g_delivered.size(), 2u);
    std::string cut = "DXSOCKS: " + std::string(254 - 9, 'x');
    EXPECT_EQ(g_delivered[0].text, cut);
    EXPECT_EQ(g_delivered[1].text, cut + "\n");
    EXPECT_EQ(g_delivered[1].text.size(), 255u);
}

TEST_F(LogExportsTest, SocksLogStringRestoresTheWinsockErrorAndHttpLogStringDoesNot) {
    SOCKS_SetLoggingCallbackEx(&context, Ex);
    g_errorSetByCallback = 4242;
    WSASetLastError(10061);
    SOCKS_LogString("keeps");
    EXPECT_EQ(WSAGetLastError(), 10061);
    WSASetLastError(10061);
    HTTP_LogString("changes");
    EXPECT_EQ(WSAGetLastError(), 4242);
    // Without any callback the error stays too.
    SOCKS_SetLoggingCallbackEx(nullptr, nullptr);
    WSASetLastError(10035);
    SOCKS_LogString("nobody listens");
    EXPECT_EQ(WSAGetLastError(), 10035);
}

TEST_F(LogExportsTest, PercentInAnArgumentGoesThroughTheSecondPass) {
    SOCKS_SetLoggingCallbackEx(&context, Ex);
    const char* hosts[] = {"a%nb", "a%sb", "a%xb", "a%*db", "a%cb", "ab%"};
    const char* expected[] = {"ab", "a(null)b", "a0b", "a0b", "ab", "ab%"};
    for (const char* host : hosts) SOCKS_LogString("host %s", host);
    ASSERT_EQ(g_delivered.size(), 6u);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(g_delivered[i].text, std::string("DXSOCKS: host ") + expected[i]);
}

}  // namespace
