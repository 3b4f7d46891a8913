#include "bench.h"

#include <gtest/gtest.h>
#include <ws2tcpip.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace dxtest {
namespace {

class WinsockEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        WSADATA data;
        ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
    }
    void TearDown() override { WSACleanup(); }
};

const auto* const kWinsock = ::testing::AddGlobalTestEnvironment(new WinsockEnvironment);

std::map<std::string, std::string> ReadEnvFile(const char* variable) {
    std::map<std::string, std::string> result;
    const char* path = std::getenv(variable);
    if (path == nullptr) throw std::runtime_error(std::string(variable) + " is not set: run the tests through ctest");
    std::ifstream file(path);
    if (!file) throw std::runtime_error(std::string("cannot read the file ") + path);
    std::string line;
    while (std::getline(file, line)) {
        size_t equals = line.find('=');
        if (equals != std::string::npos) result[line.substr(0, equals)] = line.substr(equals + 1);
    }
    return result;
}

const std::map<std::string, std::string>& BenchFile() {
    static const std::map<std::string, std::string> values = ReadEnvFile("DXTEST_BENCH");
    return values;
}

// One control request, one answer line.
std::string Control(const std::string& request) {
    sockaddr_in address = Loopback(BenchPort("CONTROL_PORT"));
    // A busy machine now and then fails a loopback connect the next try makes: a few tries, and the
    // last error in the message.
    SOCKET s = INVALID_SOCKET;
    int error = 0;
    for (int attempt = 0; attempt < 5 && s == INVALID_SOCKET; ++attempt) {
        if (attempt > 0) Sleep(200);
        s = MakeTcpSocket();
        if (connect(s, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            error = WSAGetLastError();
            closesocket(s);
            s = INVALID_SOCKET;
        }
    }
    if (s == INVALID_SOCKET) {
        throw std::runtime_error("fake proxy control port refused five connects, the last with WinSock error " +
                                 std::to_string(error));
    }
    SendAll(s, request + "\n");
    std::string answer;
    char c;
    DWORD timeout = 30000;
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&timeout), sizeof timeout);
    while (recv(s, &c, 1, 0) == 1 && c != '\n') answer += c;
    closesocket(s);
    return answer;
}

}  // namespace

uint16_t BenchPort(const std::string& key) {
    auto found = BenchFile().find(key);
    if (found == BenchFile().end()) throw std::runtime_error("the bench file has no " + key);
    return static_cast<uint16_t>(std::stoi(found->second));
}

sockaddr_in Loopback(uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

SOCKET MakeTcpSocket() { return socket(AF_INET, SOCK_STREAM, IPPROTO_TCP); }

void Retire(SOCKET s) {
    static std::vector<SOCKET> retired;
    shutdown(s, SD_BOTH);
    retired.push_back(s);
}

bool SendAll(SOCKET s, const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        int n = send(s, bytes.data() + sent, static_cast<int>(bytes.size() - sent), 0);
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

std::string Receive(SOCKET s, size_t count, int timeoutMs) {
    std::string result;
    DWORD start = GetTickCount();
    while (result.size() < count) {
        int left = timeoutMs - static_cast<int>(GetTickCount() - start);
        if (left <= 0) break;
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(s, &readable);
        timeval wait = {left / 1000, (left % 1000) * 1000};
        if (select(0, &readable, nullptr, nullptr, &wait) <= 0) break;
        char buffer[4096];
        int want = static_cast<int>(std::min<size_t>(sizeof buffer, count - result.size()));
        int n = recv(s, buffer, want, 0);
        if (n <= 0) break;
        result.append(buffer, static_cast<size_t>(n));
    }
    return result;
}

std::string Hex(const std::string& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char c : bytes) {
        hex += kDigits[c >> 4];
        hex += kDigits[c & 15];
    }
    return hex;
}

std::string Unhex(const std::string& hex) {
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return bytes;
}

int FakeScript(const std::string& steps) {
    std::string answer = Control("SCRIPT " + steps);
    if (answer.rfind("OK ", 0) != 0) throw std::runtime_error("fake proxy refused the script: " + answer);
    return std::stoi(answer.substr(3));
}

int FakeScriptFor(uint16_t clientPort, const std::string& steps) {
    return FakeScript("for=" + std::to_string(clientPort) + " " + steps);
}

FakeLog FakeReceived(int id, int timeoutMs) {
    std::string answer = Control("LOG " + std::to_string(id) + " " + std::to_string(timeoutMs));
    std::istringstream words(answer);
    std::string tag, status, hex, ident;
    words >> tag >> status >> hex >> ident;
    if (tag != "LOG") throw std::runtime_error("fake proxy log answer: " + answer);
    const std::string identTag = "ident=";
    std::string identHex = ident.rfind(identTag, 0) == 0 ? ident.substr(identTag.size()) : "-";
    return {status, hex == "-" ? std::string() : Unhex(hex), identHex == "-" ? std::string() : Unhex(identHex)};
}

void FakeReset() { Control("RESET"); }

std::vector<uint16_t> ListeningPorts(const std::string& service) {
    std::string answer = Control("LISTENING " + service);
    std::istringstream words(answer);
    std::string tag;
    words >> tag;
    if (tag != "PORTS") throw std::runtime_error("listening ports answer: " + answer);
    std::vector<uint16_t> ports;
    int port;
    while (words >> port) ports.push_back(static_cast<uint16_t>(port));
    return ports;
}

uint16_t IdentdPort() {
    static const std::map<std::string, std::string> values = ReadEnvFile("DXTEST_IDENTD");
    auto found = values.find("IDENTD_PORT");
    if (found == values.end()) throw std::runtime_error("the identd file has no IDENTD_PORT");
    return static_cast<uint16_t>(std::stoi(found->second));
}

std::string AskIdent(uint16_t port, const std::string& query) {
    SOCKET s = MakeTcpSocket();
    sockaddr_in address = Loopback(port);
    std::string answer;
    if (connect(s, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 && SendAll(s, query)) {
        DWORD start = GetTickCount();
        while (answer.find('\n') == std::string::npos && GetTickCount() - start < 5000) {
            std::string more = Receive(s, 1, 5000 - static_cast<int>(GetTickCount() - start));
            if (more.empty()) break;
            answer += more;
        }
    }
    closesocket(s);
    return answer;
}

std::string AskIdent(uint16_t localPort, uint16_t remotePort) {
    return AskIdent(IdentdPort(), std::to_string(localPort) + " , " + std::to_string(remotePort) + "\r\n");
}

}  // namespace dxtest
