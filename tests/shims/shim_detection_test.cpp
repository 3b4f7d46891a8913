// SOCKS_DetectShims and HTTP_DetectShims as a host calls them, against control windows of another
// process (shim_window.exe) and the warning box, which a watcher thread finds among the calling
// thread's windows, reads and closes as a user would.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "copied_program.h"
#include "http_api.h"
#include "log_capture.h"
#include "module_files.h"
#include "registry_fixture.h"
#include "shim_support.h"
#include "socks_api.h"
#include "test_helpers.h"

namespace {

using dxtest::BoxRecord;
using dxtest::BoxWatcher;
using dxtest::Hive;
using dxtest::ShimWindow;

constexpr char kSocksKey[] = "Network Protocols\\SOCKS";
constexpr char kHttpKey[] = "Network Protocols\\HTTP";

using DetectCall = int (*)(int, HWND);

// Each case starts and ends with a user who never configured anything: Detect at its default.
class ShimDetectionTest : public ::testing::Test {
protected:
    void SetUp() override { dxtest::ClearSettingsStore(); }
    void TearDown() override { dxtest::ClearSettingsStore(); }

    // Calls `detect` on this thread while the watcher closes every box it shows.
    static int DetectWatched(DetectCall detect, int warn, HWND owner, std::vector<BoxRecord>* boxes) {
        BoxWatcher watcher(GetCurrentThreadId());
        int result = detect(warn, owner);
        *boxes = watcher.Stop();
        return result;
    }
};

TEST_F(ShimDetectionTest, NoShimGivesZeroAndNoBox) {
    for (DetectCall detect : {SOCKS_DetectShims, HTTP_DetectShims}) {
        std::vector<BoxRecord> boxes;
        EXPECT_EQ(DetectWatched(detect, 1, nullptr, &boxes), 0);
        EXPECT_TRUE(boxes.empty());
    }
}

TEST_F(ShimDetectionTest, AFirewalkerWindowIsFoundByBothFamilies) {
    ShimWindow shim(ShimWindow::kByClass, "Firewalker");
    ASSERT_TRUE(shim.Running());
    for (DetectCall detect : {SOCKS_DetectShims, HTTP_DetectShims}) {
        std::vector<BoxRecord> boxes;
        EXPECT_EQ(DetectWatched(detect, 0, nullptr, &boxes), 1);
        EXPECT_TRUE(boxes.empty());
    }
}

TEST_F(ShimDetectionTest, DetectZeroInTheUsersKeySwitchesTheCheckOff) {
    ShimWindow shim(ShimWindow::kByClass, "Firewalker");
    ASSERT_TRUE(shim.Running());
    ASSERT_TRUE(dxtest::PutNumber(Hive::kUser, kSocksKey, "Detect", 0));
    std::vector<BoxRecord> boxes;
    EXPECT_EQ(DetectWatched(SOCKS_DetectShims, 1, nullptr, &boxes), 0);
    EXPECT_TRUE(boxes.empty());
    // The other family's key has no value: its check stays on.
    EXPECT_EQ(DetectWatched(HTTP_DetectShims, 0, nullptr, &boxes), 1);
    ASSERT_TRUE(dxtest::PutNumber(Hive::kUser, kHttpKey, "Detect", 0));
    EXPECT_EQ(DetectWatched(HTTP_DetectShims, 1, nullptr, &boxes), 0);
    EXPECT_TRUE(boxes.empty());
}

TEST_F(ShimDetectionTest, FalseUnderTheDefaultProfileAloneSwitchesTheCheckOff) {
    ShimWindow shim(ShimWindow::kByClass, "Firewalker");
    ASSERT_TRUE(shim.Running());
    ASSERT_TRUE(dxtest::PutText(Hive::kDefaultProfile, kSocksKey, "Detect", "false"));
    ASSERT_TRUE(dxtest::PutText(Hive::kDefaultProfile, kHttpKey, "Detect", "FALSE"));
    ASSERT_FALSE(dxtest::KeyExists(Hive::kUser, kSocksKey));
    std::vector<BoxRecord> boxes;
    EXPECT_EQ(DetectWatched(SOCKS_DetectShims, 1, nullptr, &boxes), 0);
    EXPECT_EQ(DetectWatched(HTTP_DetectShims, 1, nullptr, &boxes), 0);
    EXPECT_TRUE(boxes.empty());
    // The user's own value comes first.
    ASSERT_TRUE(dxtest::PutNumber(Hive::kUser, kSocksKey, "Detect", 1));
    EXPECT_EQ(DetectWatched(SOCKS_DetectShims, 0, nullptr, &boxes), 1);
}

TEST_F(ShimDetectionTest, AnHttpCapWindowDisturbsOnlyTheHttpFamily) {
    ShimWindow shim(ShimWindow::kByTitle, "HttpCap - Control");
    ASSERT_TRUE(shim.Running());
    std::vector<BoxRecord> boxes;
    EXPECT_EQ(DetectWatched(HTTP_DetectShims, 1, nullptr, &boxes), 1);
    EXPECT_EQ(boxes.size(), 1u);
    EXPECT_EQ(DetectWatched(SOCKS_DetectShims, 1, nullptr, &boxes), 0);
    EXPECT_TRUE(boxes.empty());
}

TEST_F(ShimDetectionTest, ASocksCapWindowDisturbsOnlyTheSocksFamily) {
    ShimWindow shim(ShimWindow::kByTitle, "SocksCap - Control");
    ASSERT_TRUE(shim.Running());
    std::vector<BoxRecord> boxes;
    EXPECT_EQ(DetectWatched(SOCKS_DetectShims, 0, nullptr, &boxes), 1);
    EXPECT_EQ(DetectWatched(HTTP_DetectShims, 0, nullptr, &boxes), 0);
}

TEST_F(ShimDetectionTest, FirewalkerAndSocksCapTogetherGiveOneWarning) {
    ShimWindow firewalker(ShimWindow::kByClass, "Firewalker");
    ShimWindow socksCap(ShimWindow::kByTitle, "SocksCap - Control");
    ASSERT_TRUE(firewalker.Running());
    ASSERT_TRUE(socksCap.Running());
    dxtest::TestWindow host;
    HWND owner = host.Handle();
    ASSERT_NE(owner, nullptr);
    std::vector<BoxRecord> boxes;
    EXPECT_EQ(DetectWatched(SOCKS_DetectShims, 1, owner, &boxes), 1);
    ASSERT_EQ(boxes.size(), 1u);
    EXPECT_EQ(boxes[0].owner, owner);
}

TEST_F(ShimDetectionTest, TheWarningIsAStopBoxWithOurTextAndOkAlone) {
    ShimWindow shim(ShimWindow::kByClass, "Firewalker");
    ASSERT_TRUE(shim.Running());
    const dxtest::ShimTexts expected = dxtest::OurShimTexts();
    ASSERT_FALSE(expected.text.empty());
    dxtest::TestWindow host;
    HWND owner = host.Handle();
    ASSERT_NE(owner, nullptr);
    for (DetectCall detect : {SOCKS_DetectShims, HTTP_DetectShims}) {
        std::vector<BoxRecord> boxes;
        EXPECT_EQ(DetectWatched(detect, 1, owner, &boxes), 1);
        ASSERT_EQ(boxes.size(), 1u);
        const BoxRecord& box = boxes[0];
        EXPECT_EQ(box.text, expected.text);
        EXPECT_EQ(box.caption, expected.caption);
        EXPECT_EQ(box.owner, owner);
        EXPECT_TRUE(box.hasOk);
        EXPECT_EQ(box.otherButtons, 0);
        EXPECT_TRUE(box.stopIcon);
    }
}

TEST_F(ShimDetectionTest, AHostCallingDirectlyIsWarnedEachTime) {
    ShimWindow shim(ShimWindow::kByClass, "Firewalker");
    ASSERT_TRUE(shim.Running());
    for (int call = 0; call < 2; ++call) {
        std::vector<BoxRecord> boxes;
        EXPECT_EQ(DetectWatched(SOCKS_DetectShims, 1, nullptr, &boxes), 1);
        EXPECT_EQ(boxes.size(), 1u);
    }
}

TEST_F(ShimDetectionTest, WarnZeroShowsNothingAndLeavesTheActiveWindow) {
    ShimWindow shim(ShimWindow::kByClass, "Firewalker");
    ASSERT_TRUE(shim.Running());
    dxtest::ActivePopup windows;
    HWND popup = windows.Popup();
    ASSERT_TRUE(windows.Active());
    std::vector<BoxRecord> boxes;
    EXPECT_EQ(DetectWatched(SOCKS_DetectShims, 0, nullptr, &boxes), 1);
    EXPECT_EQ(DetectWatched(HTTP_DetectShims, 0, nullptr, &boxes), 1);
    EXPECT_TRUE(boxes.empty());
    EXPECT_EQ(GetActiveWindow(), popup);
}

TEST_F(ShimDetectionTest, WithoutAnOwnerTheBoxStandsOverTheTopOfTheActiveWindowWhichIsActiveAfter) {
    ShimWindow shim(ShimWindow::kByClass, "Firewalker");
    ASSERT_TRUE(shim.Running());
    dxtest::ActivePopup windows;
    HWND top = windows.Top();
    HWND popup = windows.Popup();
    ASSERT_TRUE(windows.Active());
    ASSERT_EQ(GetParent(popup), top);
    std::vector<BoxRecord> boxes;
    EXPECT_EQ(DetectWatched(SOCKS_DetectShims, 1, nullptr, &boxes), 1);
    ASSERT_EQ(boxes.size(), 1u);
    EXPECT_EQ(boxes[0].owner, top);
    EXPECT_EQ(GetActiveWindow(), top);
}

TEST_F(ShimDetectionTest, WithNoActiveWindowTheBoxHasNoOwner) {
    ShimWindow shim(ShimWindow::kByClass, "Firewalker");
    ASSERT_TRUE(shim.Running());
    // A thread with no window of its own has no active window.
    std::vector<BoxRecord> boxes;
    int result = -1;
    HWND active = reinterpret_cast<HWND>(1);
    std::thread caller([&] {
        active = GetActiveWindow();
        result = DetectWatched(HTTP_DetectShims, 1, nullptr, &boxes);
    });
    caller.join();
    EXPECT_EQ(active, nullptr);
    EXPECT_EQ(result, 1);
    ASSERT_EQ(boxes.size(), 1u);
    EXPECT_EQ(boxes[0].owner, nullptr);
}

TEST_F(ShimDetectionTest, EachCallLogsItsFrameAndResult) {
    ShimWindow shim(ShimWindow::kByTitle, "SocksCap - Control");
    ASSERT_TRUE(shim.Running());
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_DetectShims(0, nullptr), 1);
    EXPECT_EQ(HTTP_DetectShims(0, nullptr), 0);
    EXPECT_EQ(capture.Lines(), dxtest::Joined({dxtest::BareFrame("SOCKS_DetectShims", {" result = 1"}),
                                               dxtest::BareFrame("HTTP_DetectShims", {" result = 0"})}));
}

TEST_F(ShimDetectionTest, WithoutTheWarningsTextNoBoxAndStillOne) {
    // Beside DXSOCKS.DLL alone: no suite library names a resource library, and the library's own
    // module holds no strings.
    dxtest::ExpectCopiedCasePasses({{dxtest::BesideProgram("DXSOCKS.DLL"), "DXSOCKS.DLL"},
                                    {dxtest::BesideProgram("shim_window.exe"), "shim_window.exe"}},
                                   "ShimDetectionChild.DISABLED_NoTextNoBox");
}

TEST(ShimDetectionChild, DISABLED_NoTextNoBox) {
    ShimWindow shim(ShimWindow::kByClass, "Firewalker");
    ASSERT_TRUE(shim.Running());
    dxtest::TestWindow host;
    HWND owner = host.Handle();
    ASSERT_NE(owner, nullptr);
    for (DetectCall detect : {SOCKS_DetectShims, HTTP_DetectShims}) {
        BoxWatcher watcher(GetCurrentThreadId());
        EXPECT_EQ(detect(1, owner), 1);
        EXPECT_TRUE(watcher.Stop().empty());
    }
}

}  // namespace

// The check as each determination makes it, before the set is read: a warning per family and
// process, once a shim has been seen. The flags live as long as the process, so each case runs in a
// fresh copy of this program, beside the library, the suite library and our strings, and without a
// UI library, so that a set without maps declines the first-use prompt at once.
namespace {

int DetermineWatched(bool socks, std::vector<BoxRecord>* boxes) {
    sockaddr_in proxy = {};
    char user[512] = {};
    unsigned int word = 0;
    int family = 2;
    BoxWatcher watcher(GetCurrentThreadId());
    int result = socks ? SOCKS_DetermineProxyEx("example.com", 80, &proxy, sizeof proxy, user, sizeof user, &word,
                                                &family)
                       : HTTP_DetermineProxyEx("example.com", 80, &proxy, sizeof proxy, user, sizeof user, &word,
                                               &family);
    *boxes = watcher.Stop();
    return result;
}

// The number of warnings the determinations of one family show, in order.
std::vector<size_t> WarningsOf(bool socks, int determinations) {
    std::vector<size_t> counts;
    for (int i = 0; i < determinations; ++i) {
        std::vector<BoxRecord> boxes;
        DetermineWatched(socks, &boxes);
        counts.push_back(boxes.size());
    }
    return counts;
}

void RunDeterminationChild(const std::string& name) {
    dxtest::ExpectCopiedCasePasses({{dxtest::BesideProgram("DXSOCKS.DLL"), "DXSOCKS.DLL"},
                                    {dxtest::BesideProgram("KVTSOCK2.DLL"), "KVTSOCK2.DLL"},
                                    {dxtest::BesideProgram("DXSOCKS_0409.DLL"), "DXSOCKS_0409.DLL"},
                                    {dxtest::BesideProgram("shim_window.exe"), "shim_window.exe"}},
                                   "ShimDeterminationChild.DISABLED_" + name);
}

using Counts = std::vector<size_t>;

}  // namespace

TEST_F(ShimDetectionTest, DeterminationWarnsOncePerFamily) { RunDeterminationChild("OncePerFamily"); }

TEST(ShimDeterminationChild, DISABLED_OncePerFamily) {
    ShimWindow shim(ShimWindow::kByClass, "Firewalker");
    ASSERT_TRUE(shim.Running());
    EXPECT_EQ(WarningsOf(true, 3), (Counts{1, 0, 0}));
    EXPECT_EQ(WarningsOf(false, 3), (Counts{1, 0, 0}));
    // A host's own call still warns each time.
    std::vector<BoxRecord> boxes;
    BoxWatcher watcher(GetCurrentThreadId());
    EXPECT_EQ(SOCKS_DetectShims(1, nullptr), 1);
    EXPECT_EQ(watcher.Stop().size(), 1u);
}

TEST_F(ShimDetectionTest, DeterminationSeesAShimStartedBetweenTwoDeterminations) {
    RunDeterminationChild("StartedBetween");
}

TEST(ShimDeterminationChild, DISABLED_StartedBetween) {
    EXPECT_EQ(WarningsOf(true, 2), (Counts{0, 0}));
    ShimWindow shim(ShimWindow::kByTitle, "SocksCap - Control");
    ASSERT_TRUE(shim.Running());
    EXPECT_EQ(WarningsOf(true, 2), (Counts{1, 0}));
    // Not a window the HTTP family minds.
    EXPECT_EQ(WarningsOf(false, 2), (Counts{0, 0}));
}

TEST_F(ShimDetectionTest, DeterminationWithDetectZeroAloneInAUserKeyWarnsFromTheSecond) {
    // With no settings file the key is a registry configuration, which the first determination moves
    // into the file, deleting the key and its Detect with it.
    ASSERT_TRUE(dxtest::PutNumber(Hive::kUser, kSocksKey, "Detect", 0));
    RunDeterminationChild("DetectZeroAlone");
}

TEST(ShimDeterminationChild, DISABLED_DetectZeroAlone) {
    ShimWindow shim(ShimWindow::kByClass, "Firewalker");
    ASSERT_TRUE(shim.Running());
    ASSERT_TRUE(dxtest::GetValue(Hive::kUser, kSocksKey, "Detect").found);
    EXPECT_EQ(WarningsOf(true, 1), (Counts{0}));
    EXPECT_FALSE(dxtest::GetValue(Hive::kUser, kSocksKey, "Detect").found);
    EXPECT_EQ(WarningsOf(true, 2), (Counts{1, 0}));
}

TEST_F(ShimDetectionTest, DeterminationWithDetectZeroUnderTheDefaultProfileNeverWarns) {
    ASSERT_TRUE(dxtest::PutNumber(Hive::kDefaultProfile, kSocksKey, "Detect", 0));
    ASSERT_TRUE(dxtest::PutNumber(Hive::kDefaultProfile, kHttpKey, "Detect", 0));
    RunDeterminationChild("DetectZeroDefault");
}

TEST(ShimDeterminationChild, DISABLED_DetectZeroDefault) {
    ShimWindow shim(ShimWindow::kByClass, "Firewalker");
    ASSERT_TRUE(shim.Running());
    EXPECT_EQ(WarningsOf(true, 2), (Counts{0, 0}));
    EXPECT_EQ(WarningsOf(false, 2), (Counts{0, 0}));
}
