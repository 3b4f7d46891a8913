// The identity table in named shared memory, and what a SOCKS handshake leaves in it. These cases look
// at the block itself, which any SOCKS handshake of the prefix opens: their group runs alone.
#include "identity_mapping.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "bench.h"
#include "bounded_text.h"
#include "log_capture.h"
#include "proxy_socket_factory.h"
#include "proxy_socket_manager.h"
#include "socks_api.h"
#include "socks_socket.h"
#include "test_helpers.h"

namespace {

// Whether any process holds the block: it lives as long as one handle does.
bool BlockExists() {
    HANDLE mapping = OpenFileMappingA(FILE_MAP_READ, FALSE, kIdentityTableName);
    if (mapping == nullptr) return false;
    CloseHandle(mapping);
    return true;
}

std::vector<uint8_t> Snapshot(HANDLE mapping) {
    std::vector<uint8_t> block(kIdentityTableSize);
    EXPECT_TRUE(IdentitySnapshot(mapping, block.data()));
    return block;
}

// Writes a header word through a view of its own.
void SetWord(HANDLE mapping, size_t offset, uint32_t value) {
    auto* view = static_cast<uint8_t*>(MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, kIdentityTableSize));
    ASSERT_NE(view, nullptr);
    std::memcpy(view + offset, &value, sizeof value);
    UnmapViewOfFile(view);
}

std::string Lookup(unsigned local, unsigned remote) {
    HANDLE reader = IdentityOpen(FILE_MAP_READ);
    if (reader == nullptr) return "(no block)";
    char name[kIdentityNameSize] = {};
    int found = IdentityLookup(reader, local, remote, name, sizeof name);
    CloseHandle(reader);
    return found ? name : "(not found)";
}

class IdentityMappingTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(BlockExists()) << "a handshake or a test left the block open"; }
};

TEST_F(IdentityMappingTest, AReaderNeverCreatesTheBlock) {
    SetLastError(0);
    EXPECT_EQ(IdentityOpen(FILE_MAP_READ), nullptr);
    EXPECT_FALSE(BlockExists());
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

TEST_F(IdentityMappingTest, AWriterCreatesAFreshBlockThatGoesWithTheLastHandle) {
    HANDLE mapping = IdentityOpen(FILE_MAP_WRITE);
    ASSERT_NE(mapping, nullptr);
    std::vector<uint8_t> block = Snapshot(mapping);
    EXPECT_EQ(IdentityWord(block.data(), 0), 0x1DE8u);
    EXPECT_EQ(IdentityWord(block.data(), 4), 1u);
    EXPECT_EQ(IdentityWord(block.data(), 8), 0u);
    EXPECT_EQ(IdentityWord(block.data(), 12), 0u);
    for (size_t i = 16; i < 48; ++i) EXPECT_EQ(block[i], 0) << i;
    EXPECT_EQ(IdentityWord(block.data(), 48), 76u);
    EXPECT_EQ(IdentityWord(block.data(), 52), 100u);
    CloseHandle(mapping);
    EXPECT_FALSE(BlockExists());
}

TEST_F(IdentityMappingTest, WhatOneHandleAddsAnotherReadsAndARemoveTakesBack) {
    HANDLE mapping = IdentityOpen(FILE_MAP_WRITE);
    ASSERT_NE(mapping, nullptr);
    EXPECT_EQ(IdentityAdd(mapping, 40001, 1080, "alice"), 1);
    EXPECT_EQ(Lookup(40001, 1080), "alice");
    EXPECT_EQ(Lookup(1080, 40001), "(not found)");
    // A second open finds the same block and doesn't lay down a fresh header.
    HANDLE again = IdentityOpen(FILE_MAP_WRITE);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(Lookup(40001, 1080), "alice");
    IdentityRemove(again, 40001, 1080);
    EXPECT_EQ(Lookup(40001, 1080), "(not found)");
    CloseHandle(again);
    CloseHandle(mapping);
}

TEST_F(IdentityMappingTest, AMutexOfTheNameLeavesNoMapping) {
    HANDLE mutex = CreateMutexA(nullptr, FALSE, kIdentityTableName);
    ASSERT_NE(mutex, nullptr);
    SetLastError(0);
    EXPECT_EQ(IdentityOpen(FILE_MAP_WRITE), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    CloseHandle(mutex);
}

TEST_F(IdentityMappingTest, AMappingTooSmallForTheBlockFailsEveryView) {
    HANDLE small = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 100, kIdentityTableName);
    ASSERT_NE(small, nullptr);
    HANDLE mapping = IdentityOpen(FILE_MAP_WRITE);
    ASSERT_NE(mapping, nullptr);
    SetLastError(0);
    EXPECT_EQ(IdentityAdd(mapping, 1, 2, "x"), 0);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    IdentityRemove(mapping, 1, 2);
    char name[kIdentityNameSize] = {};
    EXPECT_EQ(IdentityRead(mapping, 1, 2, name, sizeof name), IdentityLookupResult::kRefused);
    EXPECT_EQ(IdentityLookup(mapping, 1, 2, name, sizeof name), 0);
    CloseHandle(mapping);
    CloseHandle(small);
}

TEST_F(IdentityMappingTest, OtherLayoutsAreRefusedAndLeftAsTheyAre) {
    HANDLE mapping = IdentityOpen(FILE_MAP_WRITE);
    ASSERT_NE(mapping, nullptr);
    ASSERT_EQ(IdentityAdd(mapping, 7, 8, "eve"), 1);
    for (size_t offset : {kIdentityVersionAt, kIdentityEntrySizeAt}) {
        uint32_t original = IdentityWord(Snapshot(mapping).data(), offset);
        SetWord(mapping, offset, offset == kIdentityVersionAt ? 2 : 80);
        std::vector<uint8_t> before = Snapshot(mapping);
        EXPECT_EQ(IdentityAdd(mapping, 9, 10, "mallory"), 0);
        IdentityRemove(mapping, 7, 8);
        char name[kIdentityNameSize] = {};
        EXPECT_EQ(IdentityRead(mapping, 7, 8, name, sizeof name), IdentityLookupResult::kRefused);
        EXPECT_EQ(Snapshot(mapping), before) << offset;
        SetWord(mapping, offset, original);
    }
    EXPECT_EQ(Lookup(7, 8), "eve");
    CloseHandle(mapping);
}

// What CSocksSocket leaves in the table, at the unit testbed's fake proxy.
class SocksIdentityTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(BlockExists()) << "a handshake or a test left the block open";
        s = dxtest::MakeTcpSocket();
        ASSERT_NE(s, INVALID_SOCKET);
        object = new CSocksSocket(s);
        fake = dxtest::Loopback(dxtest::BenchPort("FAKE_PORT"));
        dxtest::FakeReset();
    }
    void TearDown() override {
        object->DropIdentity();
        delete object;
        closesocket(s);
        dxtest::FakeReset();
        EXPECT_FALSE(BlockExists());
    }
    uint16_t LocalPort() const {
        sockaddr_in local = {};
        int length = sizeof local;
        getsockname(s, reinterpret_cast<sockaddr*>(&local), &length);
        return ntohs(local.sin_port);
    }

    SOCKET s = INVALID_SOCKET;
    CSocksSocket* object = nullptr;
    sockaddr_in fake = {};
};

TEST_F(SocksIdentityTest, AHandshakeWithoutConnectFinishedKeepsItsEntryUntilDropped) {
    // A destination without an address: SOCKS 4 fails in kConnected, where ConnectFinished doesn't follow.
    dxtest::FakeScript("drain=3000");
    object->SetProxy(&fake, sizeof fake, "frank", 4);
    unsigned error = 0;
    object->StartConnect(kCommandConnect, "0.0.0.0", 80, nullptr, &error);
    ASSERT_EQ(object->state, kFailed);
    EXPECT_NE(object->identityHandle, nullptr);
    EXPECT_EQ(object->identityLocalPort, LocalPort());
    EXPECT_EQ(Lookup(LocalPort(), ntohs(fake.sin_port)), "frank");
    object->DropIdentity();
    EXPECT_EQ(object->identityHandle, nullptr);
    EXPECT_FALSE(BlockExists());
}

TEST_F(SocksIdentityTest, ANewAddTakesOutTheEntryAndMappingThatAnEarlierHandshakeLeft) {
    dxtest::FakeScript("drain=3000");
    object->SetProxy(&fake, sizeof fake, "first", 4);
    unsigned error = 0;
    object->StartConnect(kCommandConnect, "0.0.0.0", 80, nullptr, &error);
    ASSERT_NE(object->identityHandle, nullptr);
    uint16_t local = LocalPort();
    // The same key again, as a retry on the same connection would enter it: the old entry goes first.
    CopyText(object->userId, "second");
    dxtest::LogCapture capture;
    object->AddIdentity();
    EXPECT_EQ(Lookup(local, ntohs(fake.sin_port)), "second");
    HANDLE reader = IdentityOpen(FILE_MAP_READ);
    ASSERT_NE(reader, nullptr);
    std::vector<uint8_t> block = Snapshot(reader);
    CloseHandle(reader);
    EXPECT_EQ(IdentityWord(block.data(), kIdentityHighWaterAt), 1u);
    EXPECT_EQ(IdentityFindEntry(block.data(), local, ntohs(fake.sin_port)), 0);
    // Only the newest mapping is held: dropping it lets the block go.
    object->DropIdentity();
    EXPECT_FALSE(BlockExists());
    EXPECT_EQ(dxtest::LinesStartingWith(capture.Lines(), "DXSOCKS: IdentityAdd(").size(), 1u);
}

TEST_F(SocksIdentityTest, AnUnconnectedSocketEntersNothing) {
    dxtest::LogCapture capture;
    object->SetProxy(&fake, sizeof fake, "ghost", 4);
    object->AddIdentity();
    EXPECT_EQ(object->identityHandle, nullptr);
    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_FALSE(BlockExists());
}

// What stands in the table's way, and the line the connect logs for it; the connect goes on.
struct Obstacle {
    const char* what;
    HANDLE (*make)();
    const char* line;
};

HANDLE FullTable() {
    HANDLE mapping = IdentityOpen(FILE_MAP_WRITE);
    for (unsigned i = 0; i < kIdentitySlots; ++i) EXPECT_EQ(IdentityAdd(mapping, 100 + i, 1, "other"), 1);
    return mapping;
}
HANDLE MutexOfTheName() { return CreateMutexA(nullptr, FALSE, kIdentityTableName); }
HANDLE MappingOf100Bytes() {
    return CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 100, kIdentityTableName);
}

TEST_F(SocksIdentityTest, AnEntryThatCantBeMadeIsLoggedAndTheConnectGoesOn) {
    const Obstacle obstacles[] = {
        {"100 live entries", FullTable, "Could not write to memory mapped file."},
        {"a mutex of the name", MutexOfTheName, "Could not create memory mapped file."},
        {"a mapping of 100 bytes", MappingOf100Bytes, "Could not write to memory mapped file."},
    };
    for (const Obstacle& obstacle : obstacles) {
        HANDLE held = obstacle.make();
        ASSERT_NE(held, nullptr) << obstacle.what;
        SOCKET socket = dxtest::MakeTcpSocket();
        CSocksSocket connecting(socket);
        dxtest::FakeScript("read=9 send=005a000000000000 drain=3000");
        connecting.SetProxy(&fake, sizeof fake, "", 4);
        dxtest::LogCapture capture;
        unsigned error = 99;
        connecting.StartConnect(kCommandConnect, "127.0.0.1", 80, nullptr, &error);
        EXPECT_EQ(error, 0u) << obstacle.what;
        EXPECT_EQ(connecting.state, kEstablished) << obstacle.what;
        const dxtest::Lines logged = dxtest::LinesStartingWith(capture.Lines(), "DXSOCKS: ");
        dxtest::Lines identity = dxtest::IdentityLines(socket, ntohs(fake.sin_port), "", logged);
        // Without a mapping there is nothing to add to.
        if (obstacle.make == MutexOfTheName) identity.pop_back();
        identity.push_back(obstacle.line);
        for (std::string& line : identity) line = dxtest::Line(line);
        ASSERT_GE(logged.size(), identity.size()) << obstacle.what;
        EXPECT_EQ(dxtest::Lines(logged.begin(), logged.begin() + identity.size()), identity) << obstacle.what;
        closesocket(socket);
        CloseHandle(held);
    }
}

// The registry frees objects without knowing their class: the family's last close and clean-up take
// out an entry that a handshake without ConnectFinished left, before the object goes.
class SocksIdentityReleaseTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(BlockExists()) << "a handshake or a test left the block open";
        g_pProxySocketManager = new CProxySocketManager(MakeProxySocket);
        s = dxtest::MakeTcpSocket();
        fake = dxtest::Loopback(dxtest::BenchPort("FAKE_PORT"));
        dxtest::FakeReset();
    }
    void TearDown() override {
        delete g_pProxySocketManager;
        g_pProxySocketManager = nullptr;
        dxtest::Retire(s);
        dxtest::FakeReset();
    }
    // A SOCKS 4 handshake that fails in kConnected, where no ConnectFinished follows.
    void FailWithoutConnectFinished() {
        dxtest::FakeScript("drain=3000");
        ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "left-behind", 4), 0);
        EXPECT_EQ(SOCKS_ConnectEx(s, "0.0.0.0", 80, nullptr, AF_INET), -1);
        object = g_pProxySocketManager->FindSocket(s).As<CSocksSocket>();
        ASSERT_NE(object, nullptr);
        ASSERT_EQ(object->state, kFailed);
        ASSERT_NE(object->identityHandle, nullptr);
        sockaddr_in local = {};
        int length = sizeof local;
        getsockname(s, reinterpret_cast<sockaddr*>(&local), &length);
        localPort = ntohs(local.sin_port);
        ASSERT_EQ(Lookup(localPort, ntohs(fake.sin_port)), "left-behind");
    }

    SOCKET s = INVALID_SOCKET;
    sockaddr_in fake = {};
    SharedUse<CSocksSocket> object;
    uint16_t localPort = 0;
};

TEST_F(SocksIdentityReleaseTest, CleanupSocketTakesTheEntryOutAndLetsTheBlockGo) {
    FailWithoutConnectFinished();
    SOCKS_CleanupSocket(s);
    EXPECT_EQ(object->identityHandle, nullptr);
    EXPECT_FALSE(BlockExists());
}

TEST_F(SocksIdentityReleaseTest, TheLastCloseTakesTheEntryOutBeforeTheObjectGoes) {
    FailWithoutConnectFinished();
    // Kept: a close in mid-handshake is never the last close, so it leaves the entry.
    EXPECT_EQ(SOCKS_closesocket(s), 0);
    EXPECT_EQ(Lookup(localPort, ntohs(fake.sin_port)), "left-behind");
    // As an object that ended in a final state with its entry still held would stand at its last close.
    object->state = kFinished;
    object->useCount = 1;
    s = dxtest::MakeTcpSocket();
    EXPECT_EQ(SOCKS_closesocket(object->socket), 0);
    EXPECT_EQ(object->identityHandle, nullptr);
    EXPECT_FALSE(BlockExists());
    EXPECT_EQ(g_pProxySocketManager->FindSocket(object->socket), nullptr);
}

}  // namespace
