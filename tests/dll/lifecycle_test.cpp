// The families' startup and clean-up as a host sees them: the dispatch table, the count, the hidden
// window, and a clean-up whose hidden thread does not stop.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench.h"
#include "families.h"
#include "hidden_thread_stall.h"
#include "log_capture.h"
#include "socks_api.h"
#include "test_helpers.h"

namespace {

using dxtest::Family;
using dxtest::Line;
using dxtest::Lines;
using dxtest::ReturnsWithin;

HMODULE Library() { return GetModuleHandleA("DXSOCKS.DLL"); }

class FamilyLifecycleTest : public ::testing::TestWithParam<const Family*> {
protected:
    void SetUp() override { ASSERT_FALSE(HiddenWindowExists()) << "a test left the family started"; }
    const Family& F() const { return *GetParam(); }
    HWND HiddenWindow() const { return FindWindowA(F().hiddenClass, nullptr); }
    bool HiddenWindowExists() const { return HiddenWindow() != nullptr; }
    size_t TableSize() const { return F().Table().size() * sizeof(void*); }
};

TEST_P(FamilyLifecycleTest, EverySlotIsTheExportAtItsOrdinalAndTheMissingOnesAreNull) {
    using AnyFunction = void (*)();
    const std::vector<dxtest::ExportSlot> slots = F().Table();
    std::vector<AnyFunction> table(slots.size() + 1);
    std::memset(table.data(), 0xab, table.size() * sizeof(AnyFunction));
    ASSERT_EQ(F().startup(table.data(), static_cast<int>(TableSize())), 1);
    std::vector<std::string> missing;
    for (size_t i = 0; i < slots.size(); ++i) {
        const dxtest::ExportSlot& slot = slots[i];
        FARPROC byOrdinal = GetProcAddress(Library(), MAKEINTRESOURCEA(slot.ordinal));
        EXPECT_EQ(byOrdinal, GetProcAddress(Library(), slot.name.c_str())) << slot.name;
        EXPECT_EQ(reinterpret_cast<void*>(table[i]), reinterpret_cast<void*>(byOrdinal)) << slot.name;
        if (table[i] == nullptr) missing.push_back(slot.name);
    }
    // Nothing is written behind the table.
    AnyFunction untouched;
    std::memset(&untouched, 0xab, sizeof untouched);
    EXPECT_EQ(reinterpret_cast<void*>(table.back()), reinterpret_cast<void*>(untouched));
    FARPROC startup = GetProcAddress(Library(), MAKEINTRESOURCEA(F().startupOrdinal));
    EXPECT_NE(startup, nullptr);
    EXPECT_EQ(startup, GetProcAddress(Library(), F().Export("Startup").c_str()));
    EXPECT_EQ(GetProcAddress(Library(), MAKEINTRESOURCEA(F().absentOrdinal)), nullptr);
    // Every export of the family has its slot.
    EXPECT_EQ(missing, std::vector<std::string>{});
    EXPECT_EQ(F().cleanup(), 1);
}

TEST_P(FamilyLifecycleTest, TheCopyIsTheSmallerOfTheSizeAndTheTable) {
    const int whole = static_cast<int>(TableSize());
    struct Case {
        int size;
        int copied;
    };
    const Case cases[] = {{16, 16},   {1000, whole}, {whole + 1, whole}, {whole, whole},
                          {-1, whole}, {-1000, whole}, {0, 0},            {3, 3}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.size);
        unsigned char buffer[1000];
        std::memset(buffer, 0xab, sizeof buffer);
        ASSERT_EQ(F().startup(buffer, c.size), 1);
        for (size_t i = static_cast<size_t>(c.copied); i < sizeof buffer; ++i) ASSERT_EQ(buffer[i], 0xab) << i;
        if (c.copied >= 8) {
            void* first;
            std::memcpy(&first, buffer, sizeof first);
            EXPECT_EQ(first, reinterpret_cast<void*>(GetProcAddress(Library(), F().Export("accept").c_str())));
        }
        EXPECT_EQ(F().cleanup(), 1);
    }
}

TEST_P(FamilyLifecycleTest, TwoStartupsNeedTwoCleanups) {
    dxtest::LogCapture capture;
    ASSERT_EQ(F().startup(nullptr, 0), 1);
    ASSERT_EQ(F().startup(nullptr, 0), 1);
    HWND window = HiddenWindow();
    ASSERT_NE(window, nullptr);
    EXPECT_EQ(F().cleanup(), 1);
    EXPECT_TRUE(IsWindow(window));
    EXPECT_EQ(F().cleanup(), 1);
    EXPECT_FALSE(IsWindow(window));
    Lines lines = capture.Lines();
    EXPECT_EQ(dxtest::LinesStartingWith(lines, Line("Creating hidden window.")).size(), 1u);
    // The HTTP clean-up that ends the thread may wait for it; the other doesn't.
    const std::string waiting = F().Export("Cleanup") + " - waiting for thread to complete";
    EXPECT_LE(dxtest::LinesStartingWith(lines, Line(waiting)).size(), 1u);
    EXPECT_EQ(lines.back(), Line("End func " + F().Export("Cleanup")));
}

INSTANTIATE_TEST_SUITE_P(BothFamilies, FamilyLifecycleTest, ::testing::ValuesIn(dxtest::kFamilies),
                         dxtest::FamilyName<::testing::TestParamInfo<const Family*>>);

const char kSocksHiddenClass[] = "ZELMONT_SOCKS_HIDDEN_WINDOW";

bool SocksHiddenWindowExists() { return FindWindowA(kSocksHiddenClass, nullptr) != nullptr; }

class LifecycleTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(SocksHiddenWindowExists()) << "a test left the family started"; }
};

TEST_F(LifecycleTest, NullTableStartsAsUsual) {
    ASSERT_EQ(SOCKS_Startup(nullptr, 264), 1);
    EXPECT_TRUE(SocksHiddenWindowExists());
    EXPECT_EQ(SOCKS_Cleanup(), 1);
    EXPECT_FALSE(SocksHiddenWindowExists());
}

TEST_F(LifecycleTest, AStartupAfterACleanupMakesANewThreadAndWindow) {
    dxtest::LogCapture capture;
    ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1);
    EXPECT_EQ(SOCKS_Cleanup(), 1);
    ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1);
    EXPECT_TRUE(SocksHiddenWindowExists());
    EXPECT_EQ(SOCKS_Cleanup(), 1);
    const Lines startup = dxtest::BareFrame("SOCKS_Startup", {"Creating hidden window."});
    const Lines cleanup = dxtest::BareFrame("SOCKS_Cleanup", {});
    EXPECT_EQ(capture.Lines(), dxtest::Joined({startup, cleanup, startup, cleanup}));
}

TEST_F(LifecycleTest, CleanupWithoutStartupLeavesTheNextStartupWithoutAWindow) {
    EXPECT_EQ(SOCKS_Cleanup(), 1);  // the count goes to -1
    ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1);  // back to 0, and no thread
    EXPECT_FALSE(SocksHiddenWindowExists());
    ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1);  // 0 again: this one starts the thread
    EXPECT_TRUE(SocksHiddenWindowExists());
    EXPECT_EQ(SOCKS_Cleanup(), 1);
    EXPECT_FALSE(SocksHiddenWindowExists());
}

TEST_F(LifecycleTest, SetProtocolVersionIsMinusOneAndLogsNothing) {
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_SetProtocolVersion(INVALID_SOCKET, 5), -1);
    EXPECT_EQ(SOCKS_SetProtocolVersion(42, 4), -1);
    EXPECT_TRUE(capture.Lines().empty());
}

// ---- A hidden thread that does not stop ----

// A non-blocking connect whose FD_CONNECT reaches the family's hidden thread, there to be held by
// `stall`. The echo server stands as the proxy: only the TCP connect matters.
void StallTheHiddenThread(const Family& family, SOCKET s, const dxtest::HiddenThreadStall& stall) {
    dxtest::MakeNonBlocking(s, family.ioctl);
    sockaddr_in proxy = dxtest::Loopback(dxtest::BenchPort("ECHO_PORT"));
    ASSERT_EQ(family.setProxy(s, &proxy, sizeof proxy, "", family.proxyArgument), 0);
    ASSERT_EQ(family.connectEx(s, "127.0.0.1", 80, nullptr, AF_INET), 0);
    ASSERT_TRUE(stall.AwaitStall(5000));
}

TEST(HttpStuckCleanupTest, CleanupEndsAHiddenThreadThatDoesNotStopWithinASecond) {
    const Family& http = dxtest::kHttpFamily;
    ASSERT_EQ(HTTP_Startup(nullptr, 0), 1);
    HWND first = FindWindowA(http.hiddenClass, nullptr);
    ASSERT_NE(first, nullptr);
    SOCKET s = dxtest::MakeTcpSocket();
    DWORD elapsed = 0;
    Lines lines;
    HANDLE thread = nullptr;
    {
        dxtest::HiddenThreadStall stall;
        StallTheHiddenThread(http, s, stall);
        int cleanup = 0;
        ASSERT_TRUE(ReturnsWithin(8000, [&] {
            DWORD start = GetTickCount();
            cleanup = HTTP_Cleanup();
            elapsed = GetTickCount() - start;
        }));
        EXPECT_EQ(cleanup, 1);
        lines = stall.Collected();
        ASSERT_NE(stall.Thread(), nullptr);
        ASSERT_TRUE(DuplicateHandle(GetCurrentProcess(), stall.Thread(), GetCurrentProcess(), &thread, 0, FALSE,
                                    DUPLICATE_SAME_ACCESS));
    }
    EXPECT_GE(elapsed, 900u);
    EXPECT_LT(elapsed, 5000u);
    EXPECT_EQ(dxtest::LinesStartingWith(lines, Line("HTTP_Cleanup - waiting for thread to complete")).size(), 1u);
    EXPECT_EQ(lines.back(), Line("End func HTTP_Cleanup"));
    // Ended from outside, with exit code 0, while the callback still held it.
    EXPECT_EQ(WaitForSingleObject(thread, 2000), static_cast<DWORD>(WAIT_OBJECT_0));
    DWORD exitCode = 1;
    EXPECT_TRUE(GetExitCodeThread(thread, &exitCode));
    EXPECT_EQ(exitCode, 0u);
    CloseHandle(thread);
    HTTP_CleanupSocket(s);
    closesocket(s);

    // The ended thread could not unregister its window class; without that no later startup of the
    // family would get a window. Its window may outlive it for a while, so the startup can return
    // before the new window is there.
    EXPECT_TRUE(UnregisterClassA(http.hiddenClass, Library()));
    bool restarted = false;
    ASSERT_TRUE(ReturnsWithin(5000, [&] { restarted = HTTP_Startup(nullptr, 0) == 1; }));
    EXPECT_TRUE(restarted);
    HWND second = nullptr;
    DWORD start = GetTickCount();
    while ((second = FindWindowA(http.hiddenClass, nullptr)) == nullptr && GetTickCount() - start < 3000) Sleep(20);
    EXPECT_NE(second, nullptr);
    EXPECT_NE(second, first);
    EXPECT_EQ(HTTP_Cleanup(), 1);
}

// The child names its two moments with events whose names begin with this variable's value.
const char kChildTagVariable[] = "DXTEST_STUCK_CLEANUP_TAG";

// SOCKS_Cleanup pumps without a time limit until the hidden thread is gone, so the call that meets
// a stuck thread never returns: a process of its own makes it, and the test ends that process.
TEST(SocksStuckCleanupTest, CleanupNeverReturnsWhileTheHiddenThreadIsStuck) {
    const std::string tag = "dxtest-stuck-cleanup-" + std::to_string(GetCurrentProcessId());
    HANDLE entered = CreateEventA(nullptr, TRUE, FALSE, (tag + "-entered").c_str());
    HANDLE returned = CreateEventA(nullptr, TRUE, FALSE, (tag + "-returned").c_str());
    ASSERT_NE(entered, nullptr);
    ASSERT_NE(returned, nullptr);

    char program[MAX_PATH];
    ASSERT_GT(GetModuleFileNameA(nullptr, program, sizeof program), 0u);
    std::string command = std::string("\"") + program +
                          "\" --gtest_also_run_disabled_tests --gtest_filter=SocksStuckCleanupChild.*";
    // Detached: the child's own test output stays out of this one's.
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION child = {};
    SetEnvironmentVariableA(kChildTagVariable, tag.c_str());
    BOOL started = CreateProcessA(nullptr, &command[0], nullptr, nullptr, FALSE, DETACHED_PROCESS, nullptr, nullptr,
                                  &startup, &child);
    SetEnvironmentVariableA(kChildTagVariable, nullptr);
    ASSERT_TRUE(started) << GetLastError();

    HANDLE either[] = {entered, child.hProcess};
    EXPECT_EQ(WaitForMultipleObjects(2, either, FALSE, 20000), static_cast<DWORD>(WAIT_OBJECT_0))
        << "the child did not reach SOCKS_Cleanup";
    // Still inside the call a while later.
    EXPECT_EQ(WaitForSingleObject(child.hProcess, 2000), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_EQ(WaitForSingleObject(returned, 0), static_cast<DWORD>(WAIT_TIMEOUT));

    TerminateProcess(child.hProcess, 1);
    EXPECT_EQ(WaitForSingleObject(child.hProcess, 10000), static_cast<DWORD>(WAIT_OBJECT_0));
    CloseHandle(child.hThread);
    CloseHandle(child.hProcess);
    CloseHandle(entered);
    CloseHandle(returned);
}

// Not a test of its own: the child process of the test above, which runs it by name.
TEST(SocksStuckCleanupChild, DISABLED_HoldTheHiddenThreadAndCleanUp) {
    const char* tag = std::getenv(kChildTagVariable);
    ASSERT_NE(tag, nullptr) << "runs only as the child of SocksStuckCleanupTest";
    HANDLE entered = OpenEventA(EVENT_MODIFY_STATE, FALSE, (std::string(tag) + "-entered").c_str());
    HANDLE returned = OpenEventA(EVENT_MODIFY_STATE, FALSE, (std::string(tag) + "-returned").c_str());
    ASSERT_NE(entered, nullptr);
    ASSERT_NE(returned, nullptr);
    ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1);
    SOCKET s = dxtest::MakeTcpSocket();
    // Held for longer than the parent looks.
    dxtest::HiddenThreadStall stall(60000);
    StallTheHiddenThread(dxtest::kSocksFamily, s, stall);
    SetEvent(entered);
    SOCKS_Cleanup();
    SetEvent(returned);
}

}  // namespace
