#include "log.h"

#include <gtest/gtest.h>

#include "log_capture.h"

namespace {

TEST(LogTest, ReportWithoutAStringProducesNothing) {
    dxtest::LogCapture capture;
    // This program holds no string table, as the library's own module holds none.
    for (unsigned id : {1001u, 1002u, 2002u, 2006u, 65535u}) ReportMessage(0, id, "10.0.0.1", 1080, 5);
    EXPECT_TRUE(capture.Lines().empty());
}

TEST(LogTest, ReportLeavesTheWinsockErrorAsItWas) {
    WSASetLastError(10061);
    ReportMessage(0, 2003, 5);
    EXPECT_EQ(WSAGetLastError(), 10061);
}

TEST(LogTest, LogMessageTakesNoPrefixAndFormatsOnceMore) {
    dxtest::LogCapture capture;
    LogMessage(0, "Failed to read xml node value\n");
    LogMessage(0, "50%% of %s");
    ASSERT_EQ(capture.Lines().size(), 2u);
    EXPECT_EQ(capture.Lines()[0], "Failed to read xml node value\n");
    EXPECT_EQ(capture.Lines()[1], "50% of (null)");
}

TEST(LogTest, TextIsFormattedTwice) {
    dxtest::LogCapture capture;
    SOCKS_LogString("user %s on %s", "a%nb%sc%xd%*de%cf%", "50%%");
    ASSERT_EQ(capture.Lines().size(), 1u);
    // The trailing '%' of the user id and the " o" behind it make a conversion: "% o" prints 0.
    EXPECT_EQ(capture.Lines()[0], "DXSOCKS: user ab(null)c0d0ef0n 50%");
}

}  // namespace
