// The exports of the version record and of the shared owner window.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "http_api.h"
#include "lifecycle.h"
#include "log_capture.h"
#include "socks_api.h"
#include "test_helpers.h"
#include "version_text.h"

namespace {

std::vector<unsigned char> Copied(int (*getVersionInfo)(void*, int), int size, int* result) {
    std::vector<unsigned char> out(128, 0xEE);
    *result = getVersionInfo(out.data(), size);
    return out;
}

size_t CopiedLength(const std::vector<unsigned char>& out) {
    size_t length = out.size();
    while (length > 0 && out[length - 1] == 0xEE) --length;
    return length;
}

TEST(VersionInfoExportTest, SizeTenCopiesTheFiveNumbers) {
    dxtest::LogCapture capture;
    int result = 0;
    auto out = Copied(HTTP_GetVersionInfo, 10, &result);
    EXPECT_EQ(result, 1);
    EXPECT_EQ(CopiedLength(out), 10u);
    EXPECT_EQ(std::memcmp(out.data(), &g_versionRecord, 10), 0);
    // The success path has no end line.
    EXPECT_EQ(capture.Lines(), dxtest::Lines{dxtest::Line("Begin func HTTP_GetVersionInfo")});
}

TEST(VersionInfoExportTest, LargerOrNegativeSizeCopies74Bytes) {
    for (int size : {74, 100, -1, -1000}) {
        int result = 0;
        auto out = Copied(SOCKS_GetVersionInfo, size, &result);
        EXPECT_EQ(result, 1) << size;
        EXPECT_EQ(out[74], 0xEE) << size;
        EXPECT_EQ(std::memcmp(out.data(), &g_versionRecord, 74), 0) << size;
    }
    int result = 0;
    auto none = Copied(SOCKS_GetVersionInfo, 0, &result);
    EXPECT_EQ(result, 1);
    EXPECT_EQ(CopiedLength(none), 0u);
}

TEST(VersionInfoExportTest, NullOutGivesZeroWithTheEndLine) {
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_GetVersionInfo(nullptr, 74), 0);
    EXPECT_EQ(HTTP_GetVersionInfo(nullptr, 74), 0);
    EXPECT_EQ(capture.Lines(), dxtest::Joined({dxtest::BareFrame("SOCKS_GetVersionInfo", {}),
                                               dxtest::BareFrame("HTTP_GetVersionInfo", {})}));
}

TEST(ParentWindowExportTest, BothFamiliesWriteOneWindow) {
    dxtest::LogCapture capture;
    HWND first = reinterpret_cast<HWND>(0x1111);
    HWND second = reinterpret_cast<HWND>(0x2222);
    SOCKS_SetParentHWND(first);
    EXPECT_EQ(g_hParentWindow, first);
    HTTP_SetParentHWND(second);
    EXPECT_EQ(g_hParentWindow, second);
    SOCKS_SetParentHWND(nullptr);
    EXPECT_EQ(g_hParentWindow, nullptr);
    const dxtest::Lines socks = dxtest::BareFrame("SOCKS_SetParentHWND", {});
    EXPECT_EQ(capture.Lines(), dxtest::Joined({socks, dxtest::BareFrame("HTTP_SetParentHWND", {}), socks}));
}

}  // namespace
