#include "test_helpers.h"

#include <gtest/gtest.h>
#include <windows.h>
#include <shlobj.h>

#include <cstdio>
#include <cstring>

#include "bench.h"

namespace dxtest {

std::string Line(const std::string& text) { return "DXSOCKS: " + text; }

namespace {

Lines Framed(const std::string& name, SOCKET s, const Lines& body, const std::string* result) {
    Lines lines = {Line("Begin func " + name), Line(" socket = " + N(s))};
    for (const std::string& text : body) lines.push_back(Line(text));
    if (result != nullptr) lines.push_back(Line(" result = " + *result));
    lines.push_back(Line("End func " + name));
    return lines;
}

}  // namespace

Lines Frame(const std::string& name, SOCKET s, const Lines& body, int result) {
    const std::string text = std::to_string(result);
    return Framed(name, s, body, &text);
}

Lines FrameWithoutResult(const std::string& name, SOCKET s, const Lines& body) {
    return Framed(name, s, body, nullptr);
}

Lines BareFrame(const std::string& name, const Lines& body) {
    Lines lines = {Line("Begin func " + name)};
    for (const std::string& text : body) lines.push_back(Line(text));
    lines.push_back(Line("End func " + name));
    return lines;
}

Lines Joined(std::initializer_list<Lines> parts) {
    Lines lines;
    for (const Lines& part : parts) lines.insert(lines.end(), part.begin(), part.end());
    return lines;
}

std::string N(SOCKET s) { return std::to_string(static_cast<int>(s)); }

std::string Dotted(const sockaddr_in& address) { return inet_ntoa(address.sin_addr); }

std::string Pointer(const void* p) {
    char text[32];
    std::snprintf(text, sizeof text, "%016llX", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p)));
    return text;
}

Lines IdentityLines(SOCKET s, uint16_t proxyPort, const std::string& user, const Lines& logged) {
    sockaddr_in local = {};
    int length = sizeof local;
    getsockname(s, reinterpret_cast<sockaddr*>(&local), &length);
    const std::string localPort = std::to_string(ntohs(local.sin_port));
    const std::string add = Line("IdentityAdd(");
    std::string handle = "(no handle logged)";
    for (const std::string& line : logged) {
        std::string pointer = line.rfind(add, 0) == 0 ? line.substr(add.size(), 16) : "";
        if (pointer.size() == 16 && pointer.find_first_not_of("0123456789ABCDEF") == std::string::npos &&
            line.compare(add.size() + 16, 1, ",") == 0) {
            handle = pointer;
        }
    }
    return {"CSocksSocket::ProcessState - getsockname " + Dotted(local) + ":" + localPort,
            "IdentityAdd(" + handle + "," + localPort + "," + std::to_string(proxyPort) + "," + user + ")"};
}

HWND OwnWindowOfClass(const char* className) {
    struct Search {
        const char* className;
        HWND found;
    } search = {className, nullptr};
    EnumWindows(
        [](HWND window, LPARAM parameter) -> BOOL {
            auto* s = reinterpret_cast<Search*>(parameter);
            DWORD process = 0;
            GetWindowThreadProcessId(window, &process);
            char name[64] = {};
            GetClassNameA(window, name, sizeof name);
            if (process != GetCurrentProcessId() || std::strcmp(name, s->className) != 0) return TRUE;
            s->found = window;
            return FALSE;
        },
        reinterpret_cast<LPARAM>(&search));
    return search.found;
}

sockaddr_in Address(const char* dotted, uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = inet_addr(dotted);
    return address;
}

std::string Request(const std::string& target) {
    return "CONNECT " + target + " HTTP/1.1\r\nHost: " + target + "\r\n\r\n";
}

std::string Answer(const std::string& reply) { return "readhttp send=" + Hex(reply) + " drain=3000"; }

void MakeNonBlocking(SOCKET s, IoctlCall ioctl) {
    u_long on = 1;
    ASSERT_EQ(ioctl(s, static_cast<long>(FIONBIO), &on), 0);
}

SOCKET EchoConnection() {
    SOCKET plain = MakeTcpSocket();
    sockaddr_in address = Loopback(BenchPort("ECHO_PORT"));
    EXPECT_EQ(connect(plain, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return plain;
}

bool IsOpen(SOCKET s) {
    int type = 0;
    int length = sizeof type;
    return getsockopt(s, SOL_SOCKET, SO_TYPE, reinterpret_cast<char*>(&type), &length) == 0;
}

bool IsListening(SOCKET s) {
    BOOL listening = FALSE;
    int length = sizeof listening;
    getsockopt(s, SOL_SOCKET, SO_ACCEPTCONN, reinterpret_cast<char*>(&listening), &length);
    return listening != FALSE;
}

SOCKET ClosedHandle() {
    SOCKET s = MakeTcpSocket();
    closesocket(s);
    return s;
}

bool ReturnsWithin(int ms, const std::function<void()>& call) {
    auto* copy = new std::function<void()>(call);
    HANDLE thread = CreateThread(
        nullptr, 0,
        [](void* p) -> DWORD {
            (*static_cast<std::function<void()>*>(p))();
            return 0;
        },
        copy, 0, nullptr);
    if (thread == nullptr) return false;
    bool returned = WaitForSingleObject(thread, static_cast<DWORD>(ms)) == WAIT_OBJECT_0;
    if (returned) {
        delete copy;
    } else {
        TerminateThread(thread, 1);
    }
    CloseHandle(thread);
    return returned;
}

std::string SettingsFilePath() {
    char folder[MAX_PATH] = {};
    if (FAILED(SHGetFolderPathA(nullptr, CSIDL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, folder))) return "";
    return std::string(folder) + "\\Zelmont\\Verdane\\Settings.xml";
}

std::string IniFilePath() {
    char folder[MAX_PATH] = {};
    UINT length = GetWindowsDirectoryA(folder, sizeof folder);
    if (length == 0 || length >= sizeof folder) return "";
    return std::string(folder) + "\\dxapps.ini";
}

void ClearSettingsStore() {
    const std::string file = SettingsFilePath();
    if (!file.empty()) DeleteFileA(file.c_str());
    const std::string ini = IniFilePath();
    if (!ini.empty()) DeleteFileA(ini.c_str());
    RegDeleteTreeA(HKEY_CURRENT_USER, "Software\\Verdane");
    RegDeleteKeyA(HKEY_CURRENT_USER, "Software\\Verdane");
    RegDeleteTreeA(HKEY_USERS, ".Default\\Software\\Verdane");
    RegDeleteKeyA(HKEY_USERS, ".Default\\Software\\Verdane");
}

}  // namespace dxtest
