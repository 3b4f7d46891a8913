// The numbered reports: their formats come from the resource library that the suite library names,
// and they reach the host's log callback with the arguments of each event, without a prefix.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "bench.h"
#include "fake_proxy_test.h"
#include "http_api.h"
#include "log_capture.h"
#include "module_files.h"
#include "socks_api.h"
#include "test_helpers.h"

namespace {

using dxtest::FakeScript;

// A report as the shipped resource library words it.
template <typename... Arguments>
std::string Report(unsigned id, Arguments... arguments) {
    HMODULE resources = LoadLibraryExA(dxtest::BesideProgram("DXSOCKS_0409.DLL").c_str(), nullptr,
                                       LOAD_LIBRARY_AS_DATAFILE);
    EXPECT_NE(resources, nullptr);
    char format[256] = {};
    EXPECT_GT(LoadStringA(resources, id, format, sizeof format), 0) << id;
    FreeLibrary(resources);
    char text[255];
    std::snprintf(text, sizeof text, format, arguments...);
    return text;
}

// The lines that carry no prefix: the reports.
std::vector<std::string> Reports(const std::vector<std::string>& lines) {
    std::vector<std::string> reports;
    for (const std::string& line : lines) {
        if (line.rfind("DXSOCKS: ", 0) != 0) reports.push_back(line);
    }
    return reports;
}

class ReportsTest : public dxtest::FakeProxyTest {
protected:
    // The socket as a report's %d argument.
    int Handle() const { return static_cast<int>(s); }
};

TEST_F(ReportsTest, Socks4ReplyCodesHaveTheirReports) {
    struct Case {
        const char* reply;
        unsigned id;
    };
    const Case cases[] = {{"005a000000000000", 2002}, {"005b000000000000", 2003}, {"005c000000000000", 2004},
                          {"005d000000000000", 2005}, {"0077000000000000", 2006}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.id);
        dxtest::Retire(s);
        s = dxtest::MakeTcpSocket();
        FakeScript(std::string("read=9 send=") + c.reply + " drain=2000");
        ASSERT_EQ(SOCKS_SetProxy(s, &fake, sizeof fake, ""), 0);
        dxtest::LogCapture capture;
        SOCKS_ConnectEx(s, "127.0.0.1", 4321, nullptr, AF_INET);
        std::string verdict = c.id == 2006 ? Report(2006, 0x77, Handle()) : Report(c.id, Handle());
        std::vector<std::string> expected = {Report(1003, "127.0.0.1", FakePort(), Handle()),
                                             Report(2000, "127.0.0.1", 4321, Handle()), verdict};
        EXPECT_EQ(Reports(capture.Lines()), expected);
    }
}

TEST_F(ReportsTest, HttpConnectReportsTheProxyAndTheTarget) {
    FakeScript("readhttp send=" + dxtest::Hex("HTTP/1.1 200 OK\r\n\r\n") + " drain=2000");
    ASSERT_EQ(HTTP_SetProxy(s, &fake, sizeof fake, "", 0), 0);
    dxtest::LogCapture capture;
    EXPECT_EQ(HTTP_ConnectEx(s, "127.0.0.1", 4321, nullptr, AF_INET), 0);
    std::vector<std::string> expected = {Report(1003, "127.0.0.1", FakePort(), Handle()),
                                         Report(2000, "127.0.0.1", 4321, Handle())};
    EXPECT_EQ(Reports(capture.Lines()), expected);
}

TEST_F(ReportsTest, DirectConnectWithoutAProxyReportsTheTarget) {
    // The fake proxy stands as the destination: a zero proxy address means no proxy.
    FakeScript("readhttp send=" + dxtest::Hex("HTTP/1.1 200 OK\r\n\r\n") + " drain=2000");
    sockaddr_in none = {};
    ASSERT_EQ(HTTP_SetProxy(s, &none, sizeof none, "", 0), 0);
    dxtest::LogCapture capture;
    EXPECT_EQ(HTTP_ConnectEx(s, "127.0.0.1", static_cast<unsigned>(FakePort()), nullptr, AF_INET), 0);
    std::vector<std::string> expected = {Report(1002, "127.0.0.1", FakePort(), Handle()),
                                         Report(2000, "127.0.0.1", FakePort(), Handle())};
    EXPECT_EQ(Reports(capture.Lines()), expected);
}

TEST_F(ReportsTest, BindReportsItsOwnRequest) {
    ASSERT_EQ(HTTP_Startup(nullptr, 0), 1);
    FakeScript("readhttp send=" + dxtest::Hex("HTTP/1.1 200 OK\r\n\r\n") + " drain=2000");
    // Through the library, which then runs the exchange on its hidden thread.
    dxtest::MakeNonBlocking(s, HTTP_ioctlsocket);
    ASSERT_EQ(HTTP_SetProxy(s, &fake, sizeof fake, "", 0), 0);
    dxtest::LogCapture capture;
    EXPECT_EQ(HTTP_BindEx(s, "127.0.0.1", 4321, nullptr, AF_INET), 0);
    std::vector<std::string> expected = {Report(1003, "127.0.0.1", FakePort(), Handle()),
                                         Report(2001, "127.0.0.1", 4321, Handle())};
    EXPECT_EQ(Reports(capture.Lines()), expected);
    HTTP_CleanupSocket(s);
    EXPECT_EQ(HTTP_Cleanup(), 1);
}

std::vector<std::string>* g_detachLines = nullptr;
void CollectDetachLine(void*, const char* text) { g_detachLines->push_back(text); }

// A second copy of the library, loaded and freed, reports its detach with both paths.
TEST(DetachReportTest, UnloadReportsTheHostProgramAndTheLibrary) {
    std::string folder = dxtest::MakeTempDirectory("detach");
    ASSERT_TRUE(dxtest::CopyInto(dxtest::BesideProgram("DXSOCKS.DLL"), folder, "DXCOPY.DLL"));
    HMODULE copy = LoadLibraryA((folder + "DXCOPY.DLL").c_str());
    ASSERT_NE(copy, nullptr);
    std::string copyPath = dxtest::ModulePath(copy);
    using SetCallbackEx = void(WINAPI*)(void*, void (*)(void*, const char*));
    auto setCallback = reinterpret_cast<SetCallbackEx>(
        reinterpret_cast<void*>(GetProcAddress(copy, "SOCKS_SetLoggingCallbackEx")));
    ASSERT_NE(setCallback, nullptr);
    std::vector<std::string> lines;
    g_detachLines = &lines;
    setCallback(nullptr, CollectDetachLine);
    FreeLibrary(copy);
    g_detachLines = nullptr;
    EXPECT_EQ(lines, std::vector<std::string>{Report(1006, dxtest::ModulePath(nullptr).c_str(), copyPath.c_str())});
    dxtest::RemoveTree(folder);
}

}  // namespace
