// The test bench as the Windows tests see it: ports of the proxies and servers that the CTest
// fixture started on 127.0.0.1, the scripted fake proxy's control channel, and socket helpers.
#pragma once

#include <winsock2.h>

#include <cstdint>
#include <string>
#include <vector>

namespace dxtest {

// Port named `key` in the bench file (ECHO_PORT, BANNER_PORT, FAKE_PORT, DANTE_PORT, ...).
uint16_t BenchPort(const std::string& key);

sockaddr_in Loopback(uint16_t port);
SOCKET MakeTcpSocket();

// Ends the connection (both directions) but keeps the handle until the program exits, so that no
// later test gets the same handle back while the library still holds an object for it.
void Retire(SOCKET s);

// Sends all of `bytes` on a plain socket; false on failure.
bool SendAll(SOCKET s, const std::string& bytes);
// Receives until `count` bytes have arrived, the peer closes, or `timeoutMs` passes.
std::string Receive(SOCKET s, size_t count, int timeoutMs = 5000);

std::string Hex(const std::string& bytes);
std::string Unhex(const std::string& hex);

// Scripted fake proxy. A script serves the next connection that arrives at FAKE_PORT, or, made with
// FakeScriptFor, the connection from that client port.
// Steps: read=N readz readhttp send=HEX sleep=MS close rst echo drain=MS holdrecv=MS
// fin=MS (end-of-stream to the client, then take in what it still sends for up to MS)
// ident=PORT (ask the ident server on PORT who owns the connection, as a proxy that checks does).
struct FakeLog {
    std::string status;  // "done", "open" or "pending"
    std::string bytes;   // everything the fake proxy received on that connection
    std::string ident;   // the ident server's answer line to the ident step, empty without one
};
int FakeScript(const std::string& steps);
int FakeScriptFor(uint16_t clientPort, const std::string& steps);
FakeLog FakeReceived(int id, int timeoutMs = 5000);
void FakeReset();

// TCP ports on which the processes of a bench service (e.g. "danted") listen now.
std::vector<uint16_t> ListeningPorts(const std::string& service);

// The port of dxidentd that the `identd` fixture started (its file is in DXTEST_IDENTD).
uint16_t IdentdPort();
// Asks the ident server on `port` about the connection between `localPort` and `remotePort`, as
// "local , remote"; the answer line with its CR LF, or what came within 5 seconds.
std::string AskIdent(uint16_t port, const std::string& query);
std::string AskIdent(uint16_t localPort, uint16_t remotePort);

}  // namespace dxtest
