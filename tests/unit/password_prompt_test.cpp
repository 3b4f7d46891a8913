// The UI library's password prompt as both stacks call it, with a UI library double that records
// its arguments and answers as scripted, and the host's time-out while the prompt is open.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bench.h"
#include "test_helpers.h"
#include "http_api.h"
#include "http_socket.h"
#include "lifecycle.h"
#include "log_capture.h"
#include "module_files.h"
#include "proxy_socket_factory.h"
#include "proxy_socket_manager.h"
#include "socks_api.h"
#include "socks_socket.h"
#include "suite_library.h"
#include "ui_double.h"

namespace {

using dxtest::Line;

using Lines = std::vector<std::string>;

template <typename Entry>
Entry Export(HMODULE module, const char* name) {
    return reinterpret_cast<Entry>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

class PasswordPromptTest : public ::testing::Test {
protected:
    void SetUp() override {
        savedModule = g_hModule;
        ui = LoadLibraryA(dxtest::BesideProgram("..\\doubles\\ui\\pxmSetUI.dll").c_str());
        ASSERT_NE(ui, nullptr);
        g_hModule = ui;  // the UI double lies beside "this library"
        ForgetUILibrary();
        script = Export<PFN_UiDoubleScript>(ui, "UiDoubleScript");
        recording = Export<PFN_UiDoubleRecording>(ui, "UiDoubleRecording");
        Export<PFN_UiDoubleReset>(ui, "UiDoubleReset")();
        g_pProxySocketManager = new CProxySocketManager(MakeProxySocket);

        listener = dxtest::MakeTcpSocket();
        sockaddr_in any = dxtest::Loopback(0);
        ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&any), sizeof any), 0);
        ASSERT_EQ(listen(listener, SOMAXCONN), 0);
        int length = sizeof proxy;
        ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&proxy), &length), 0);
        host = dxtest::MakeTcpSocket();
        ASSERT_EQ(connect(host, reinterpret_cast<sockaddr*>(&proxy), sizeof proxy), 0);
        peer = accept(listener, nullptr, nullptr);
        ASSERT_NE(peer, INVALID_SOCKET);
    }
    void TearDown() override {
        delete g_pProxySocketManager;
        g_pProxySocketManager = nullptr;
        closesocket(host);
        closesocket(peer);
        closesocket(listener);
        g_configPromptActive = 0;
        g_configPromptTimedOut = 0;
        ForgetUILibrary();
        g_hModule = savedModule;
        FreeLibrary(ui);
    }
    static void ForgetUILibrary() {
        if (g_hSetUILibrary != nullptr) FreeLibrary(g_hSetUILibrary);
        g_hSetUILibrary = nullptr;
    }
    UiDoubleRecord Recording() const {
        UiDoubleRecord record;
        recording(&record);
        return record;
    }
    CSocksSocket* SocksObject(const char* user) {
        auto object = g_pProxySocketManager->FindOrAddSocket(host, kSocksSocketType).As<CSocksSocket>();
        object->SetProxy(&proxy, sizeof proxy, user, 5);
        object->state = kAwaitMethodReply;
        object->receiveBuffer[0] = 5;
        object->receiveBuffer[1] = 2;  // the proxy picked username/password
        return object.get();  // the registry's use keeps it
    }
    CHttpSocket* HttpObject(const char* user) {
        auto object = g_pProxySocketManager->FindOrAddSocket(host, kHttpSocketType).As<CHttpSocket>();
        object->SetProxy(&proxy, sizeof proxy, user, 1);
        lstrcpyA(object->targetHost, "example.com");
        lstrcpyA(object->targetService, "443");
        object->state = kConnected;
        return object.get();
    }
    std::string Sent() { return dxtest::Receive(peer, 4000, 300); }

    HMODULE savedModule = nullptr;
    HMODULE ui = nullptr;
    PFN_UiDoubleScript script = nullptr;
    PFN_UiDoubleRecording recording = nullptr;
    SOCKET listener = INVALID_SOCKET;
    SOCKET host = INVALID_SOCKET;
    SOCKET peer = INVALID_SOCKET;
    sockaddr_in proxy = {};
};

TEST_F(PasswordPromptTest, SocksPromptIsAskedWithTheSocketsUserAndTheProxyAddress) {
    script(1, "secret", nullptr, nullptr);
    HWND top = CreateWindowExA(0, "STATIC", "", WS_POPUP, 0, 0, 10, 10, nullptr, nullptr, nullptr, nullptr);
    HWND child = CreateWindowExA(0, "STATIC", "", WS_CHILD, 0, 0, 10, 10, top, nullptr, nullptr, nullptr);
    CSocksSocket* object = SocksObject("alice");
    object->parentWindow = child;
    dxtest::LogCapture capture;
    EXPECT_EQ(object->OnMethodRecv(), 0);
    EXPECT_EQ(object->state, kAwaitPasswordStatus);
    EXPECT_EQ(Sent(), std::string("\x01\x05" "alice" "\x06" "secret", 14));
    UiDoubleRecord record = Recording();
    EXPECT_EQ(record.promptCalls, 1);
    EXPECT_EQ(record.language, 0x1234u);  // from the suite library beside this library
    EXPECT_EQ(record.owner, top);
    EXPECT_EQ(record.one, 1u);
    EXPECT_EQ(record.zero, 0u);
    EXPECT_EQ(record.family, 0u);
    EXPECT_STREQ(record.user, "alice");
    EXPECT_STREQ(record.address, "127.0.0.1");
    EXPECT_EQ(record.maxLength, 260u);
    EXPECT_TRUE(record.textPointerWasNull);
    EXPECT_EQ(record.freeCalls, 1);
    EXPECT_TRUE(record.freedTheTextGiven);
    EXPECT_EQ(object->passwordPrompting, 0);
    Lines expected = {Line("CSocksSocket::OnMethodRecv - Requesting Password."),
                      Line("CSocksSocket::OnMethodRecv - Send Password."), Line("CSocksSocket::Send - 14 bytes sent.")};
    EXPECT_EQ(capture.Lines(), expected);
    DestroyWindow(top);
}

TEST_F(PasswordPromptTest, SocksPromptWithoutAUserSendsUserLengthZero) {
    script(1, "pw", nullptr, nullptr);
    CSocksSocket* object = SocksObject("");
    EXPECT_EQ(object->OnMethodRecv(), 0);
    EXPECT_STREQ(Recording().user, "");
    EXPECT_EQ(Recording().owner, nullptr);
    EXPECT_EQ(Sent(), std::string("\x01\x00\x02pw", 5));
}

TEST_F(PasswordPromptTest, SocksPromptPasswordOf129IsSentAnd130IsNone) {
    for (size_t length : {129u, 130u, 200u}) {
        SCOPED_TRACE(length);
        Export<PFN_UiDoubleReset>(ui, "UiDoubleReset")();
        std::string password(length, 'p');
        script(1, password.c_str(), nullptr, nullptr);
        CSocksSocket* object = SocksObject("u");
        object->canceled = 0;
        dxtest::LogCapture capture;
        int result = object->OnMethodRecv();
        EXPECT_EQ(Recording().freeCalls, 1);
        if (length == 129) {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(Sent(), std::string("\x01\x01u\x81", 4) + password);
        } else {
            EXPECT_EQ(result, -1);
            EXPECT_EQ(object->canceled, 1);
            EXPECT_EQ(object->state, kFailed);  // the failure tail follows in ProcessState
            EXPECT_EQ(capture.Lines().back(), Line("CSocksSocket::OnMethodRecv - Password dialog cancelled."));
        }
    }
}

TEST_F(PasswordPromptTest, SocksPromptDeclinedOrEmptyIsCancelled) {
    struct Case {
        DWORD result;
        const char* text;
        int frees;
    };
    const Case cases[] = {{2, nullptr, 0}, {2, "typed", 1}, {1, "", 1}, {1, nullptr, 0}, {0, "x", 1}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.result);
        Export<PFN_UiDoubleReset>(ui, "UiDoubleReset")();
        script(c.result, c.text, nullptr, nullptr);
        CSocksSocket* object = SocksObject("alice");
        object->canceled = 0;
        EXPECT_EQ(object->OnMethodRecv(), -1);
        EXPECT_EQ(object->canceled, 1);
        EXPECT_EQ(object->connectError, 0u);
        EXPECT_EQ(object->lastError, 65534);
        EXPECT_EQ(Recording().freeCalls, c.frees);
    }
    EXPECT_EQ(dxtest::Receive(peer, 300, 300), "");
}

TEST_F(PasswordPromptTest, CallbackTakesPrecedenceOverThePrompt) {
    auto callback = [](void*, wchar_t* password, int, const wchar_t*, const wchar_t*) {
        lstrcpyW(password, L"cb");
        return 1;
    };
    SOCKS_SetPasswordCallback(nullptr, callback);
    CSocksSocket* object = SocksObject("a");
    EXPECT_EQ(object->OnMethodRecv(), 0);
    SOCKS_SetPasswordCallback(nullptr, nullptr);
    EXPECT_EQ(Recording().promptCalls, 0);
    EXPECT_EQ(Sent(), std::string("\x01\x01" "a" "\x02" "cb", 6));
}

struct TimeOutContext {
    SOCKET s;
    void(WINAPI* connectTimeout)(SOCKET);
};

// The host's time limit runs out while the prompt is open.
void WINAPI TimeOutDuringThePrompt(void* context) {
    auto* timeOut = static_cast<TimeOutContext*>(context);
    timeOut->connectTimeout(timeOut->s);
}

TEST_F(PasswordPromptTest, SocksTimeOutDuringThePromptEndsWith1460) {
    TimeOutContext context = {host, SOCKS_ConnectTimeout};
    script(2, nullptr, TimeOutDuringThePrompt, &context);
    CSocksSocket* object = SocksObject("alice");
    dxtest::LogCapture capture;
    EXPECT_EQ(object->OnMethodRecv(), -1);
    EXPECT_EQ(Recording().timeoutCalls, 1);
    EXPECT_EQ(object->passwordTimedOut, 1);
    EXPECT_EQ(SOCKS_GetConnectError(host), 1460u);
    EXPECT_EQ(SOCKS_ConnectCanceled(host), 0);
    EXPECT_EQ(object->lastError, 1460);
    EXPECT_EQ(object->state, kFailed);
    std::string n = std::to_string(static_cast<int>(host));
    Lines expected = {Line("CSocksSocket::OnMethodRecv - Requesting Password."), Line("Begin func SOCKS_ConnectTimeout"),
                      Line(" socket = " + n), Line("End func SOCKS_ConnectTimeout"),
                      Line("CSocksSocket::OnMethodRecv - Password dialog timeout.")};
    Lines lines = capture.Lines();
    lines.resize(std::min(lines.size(), expected.size()));
    EXPECT_EQ(lines, expected);
}

TEST_F(PasswordPromptTest, TimeOutWithoutAnOpenPromptChangesNothing) {
    CSocksSocket* object = SocksObject("alice");
    SOCKS_ConnectTimeout(host);
    HTTP_ConnectTimeout(host);
    SOCKS_ConnectTimeout(INVALID_SOCKET);
    EXPECT_EQ(object->passwordTimedOut, 0);
    EXPECT_EQ(SOCKS_GetConnectError(host), 0u);
    EXPECT_EQ(Recording().timeoutCalls, 0);
    EXPECT_EQ(g_configPromptTimedOut, 0);
}

TEST_F(PasswordPromptTest, TimeOutTellsAnOpenFirstUsePrompt) {
    g_configPromptActive = 1;
    HTTP_ConnectTimeout(INVALID_SOCKET);
    EXPECT_EQ(Recording().timeoutCalls, 1);
    EXPECT_EQ(g_configPromptTimedOut, 0);  // only the SOCKS family notes it
    SOCKS_ConnectTimeout(INVALID_SOCKET);
    EXPECT_EQ(Recording().timeoutCalls, 2);
    EXPECT_EQ(g_configPromptTimedOut, 1);
}

TEST_F(PasswordPromptTest, HttpPromptGivesThePasswordForTheCredentials) {
    script(1, "x", nullptr, nullptr);
    CHttpSocket* object = HttpObject("alice");
    EXPECT_EQ(object->SendHttpAuthentication(), 0);
    EXPECT_EQ(Sent(), "CONNECT example.com:443 HTTP/1.1\r\nHost: example.com:443\r\n"
                      "Proxy-Authorization: basic YWxpY2U6eA==\r\n\r\n");
    UiDoubleRecord record = Recording();
    EXPECT_EQ(record.family, 1u);
    EXPECT_EQ(record.language, 0x1234u);
    EXPECT_EQ(record.one, 1u);
    EXPECT_EQ(record.zero, 0u);
    EXPECT_STREQ(record.user, "alice");
    EXPECT_STREQ(record.address, "127.0.0.1");
    EXPECT_EQ(record.maxLength, 1024u - 5u - 1u);
    EXPECT_EQ(record.freeCalls, 1);
    EXPECT_TRUE(record.freedTheTextGiven);
}

TEST_F(PasswordPromptTest, HttpPromptSizeLeaves513BytesBehindA510CharacterUser) {
    script(2, nullptr, nullptr, nullptr);
    CHttpSocket* object = HttpObject(std::string(510, 'u').c_str());
    EXPECT_EQ(object->SendHttpAuthentication(), -1);
    EXPECT_EQ(Recording().maxLength, 513u);
}

TEST_F(PasswordPromptTest, HttpPromptEmptyOrDeclinedIsCancelled) {
    for (DWORD result : {1u, 2u}) {
        Export<PFN_UiDoubleReset>(ui, "UiDoubleReset")();
        script(result, result == 1 ? "" : "typed", nullptr, nullptr);
        CHttpSocket* object = HttpObject("alice");
        WSASetLastError(0);
        EXPECT_EQ(object->SendHttpAuthentication(), -1);
        EXPECT_EQ(WSAGetLastError(), 65534);
        EXPECT_EQ(object->canceled, 1);
        EXPECT_EQ(Recording().freeCalls, 1);
    }
    EXPECT_EQ(dxtest::Receive(peer, 300, 300), "");
}

TEST_F(PasswordPromptTest, HttpPromptTextIsCutToTheBuffer) {
    script(1, "0123456789abc", nullptr, nullptr);
    CHttpSocket* object = HttpObject("alice");
    char password[10];
    EXPECT_EQ(object->getPassword(password, sizeof password), 1);
    EXPECT_STREQ(password, "012345678");
    EXPECT_EQ(Recording().maxLength, 10u);
    EXPECT_EQ(object->getPassword(nullptr, 0), 0);  // nothing to write into
    EXPECT_EQ(Recording().freeCalls, 2);
}

TEST_F(PasswordPromptTest, HttpTimeOutDuringThePromptEndsWith1460) {
    TimeOutContext context = {host, HTTP_ConnectTimeout};
    script(2, nullptr, TimeOutDuringThePrompt, &context);
    CHttpSocket* object = HttpObject("alice");
    WSASetLastError(0);
    EXPECT_EQ(object->SendHttpAuthentication(), -1);
    EXPECT_EQ(WSAGetLastError(), 1460);
    EXPECT_EQ(Recording().timeoutCalls, 1);
    EXPECT_EQ(HTTP_GetConnectError(host), 1460u);
    EXPECT_EQ(HTTP_ConnectCanceled(host), 0);
}

}  // namespace
