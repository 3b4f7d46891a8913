// The IPv4 emulation and the binder, on a scripted world of names, services and libraries: no system
// resolver involved, so the same cases run natively under the sanitizers.
#include "legacy_resolver.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using legacy::AddrInfo;
using legacy::HostEnt;
using legacy::ServEnt;
using legacy::SockAddr;
using legacy::SockAddrIn;

uint32_t Net(unsigned a, unsigned b, unsigned c, unsigned d) {
    const unsigned char bytes[4] = {static_cast<unsigned char>(a), static_cast<unsigned char>(b),
                                    static_cast<unsigned char>(c), static_cast<unsigned char>(d)};
    uint32_t value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

uint16_t NetPort(unsigned port) {
    const unsigned char bytes[2] = {static_cast<unsigned char>(port >> 8), static_cast<unsigned char>(port)};
    uint16_t value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

std::string Dotted(uint32_t address) {
    unsigned char bytes[4];
    std::memcpy(bytes, &address, sizeof bytes);
    return std::to_string(bytes[0]) + "." + std::to_string(bytes[1]) + "." + std::to_string(bytes[2]) + "." +
           std::to_string(bytes[3]);
}

// What the scripted system knows, and what was asked of it.
struct World {
    struct Host {
        std::string name;
        std::vector<uint32_t> addresses;
        short type = 2;
        short length = 4;
    };
    std::map<std::string, Host> hosts;                   // by the asked text
    std::map<std::pair<std::string, std::string>, unsigned> services;  // (name, protocol) -> port
    std::map<unsigned, std::string> portNames;           // port -> name, any protocol
    std::map<uint32_t, std::string> reverse;             // address -> name
    std::vector<std::string> asked;
    std::vector<std::string> servicesAsked;
    int error = 11001;
    // Every name a new alias: the lookup chases it until its count runs out.
    bool endlessAliases = false;
    int aliasNumber = 0;

    int allocations = 0;
    int failAt = -1;  // the allocation, counted from 0, that fails
    std::set<void*> live;

    // Storage of the last answer, as the system's per-thread static data.
    std::string name;
    std::vector<uint32_t> addresses;
    std::vector<char*> list;
    HostEnt host{};
    std::string serviceName;
    std::string protocol;
    ServEnt service{};
    std::string ntoa;
};

World* g_world = nullptr;

const HostEnt* FakeHostByName(const char* text) {
    World& w = *g_world;
    w.asked.push_back(text);
    auto found = w.hosts.find(text);
    if (found == w.hosts.end() && !w.endlessAliases) return nullptr;
    if (found == w.hosts.end()) {
        w.name = "alias" + std::to_string(w.aliasNumber++);
        w.addresses.clear();
        w.host.h_addrtype = 2;
        w.host.h_length = 4;
    } else {
        w.name = found->second.name;
        w.addresses = found->second.addresses;
        w.host.h_addrtype = found->second.type;
        w.host.h_length = found->second.length;
    }
    w.list.clear();
    for (uint32_t& address : w.addresses) w.list.push_back(reinterpret_cast<char*>(&address));
    w.list.push_back(nullptr);
    w.host.h_name = &w.name[0];
    w.host.h_aliases = nullptr;
    w.host.h_addr_list = w.list.data();
    return &w.host;
}

const HostEnt* FakeHostByAddr(const char* address, int length, int family) {
    World& w = *g_world;
    if (length != 4 || family != 2) return nullptr;
    uint32_t value;
    std::memcpy(&value, address, sizeof value);
    auto found = w.reverse.find(value);
    if (found == w.reverse.end()) return nullptr;
    w.name = found->second;
    w.host = HostEnt{};
    w.host.h_name = &w.name[0];
    return &w.host;
}

const ServEnt* FakeServByName(const char* name, const char* protocol) {
    World& w = *g_world;
    w.servicesAsked.push_back(std::string(name) + "/" + protocol);
    auto found = w.services.find({name, protocol});
    if (found == w.services.end()) return nullptr;
    w.serviceName = name;
    w.protocol = protocol;
    w.service = ServEnt{&w.serviceName[0], nullptr, &w.protocol[0], static_cast<short>(NetPort(found->second))};
    return &w.service;
}

const ServEnt* FakeServByPort(int port, const char* protocol) {
    World& w = *g_world;
    w.servicesAsked.push_back(std::to_string(port) + "/" + (protocol != nullptr ? protocol : "any"));
    for (const auto& entry : w.portNames) {
        if (NetPort(entry.first) != static_cast<uint16_t>(port)) continue;
        w.serviceName = entry.second;
        w.service = ServEnt{&w.serviceName[0], nullptr, nullptr, static_cast<short>(port)};
        return &w.service;
    }
    return nullptr;
}

// Four decimal parts of at most 255 each; anything else is no address, as is 255.255.255.255.
uint32_t FakeInetAddr(const char* text) {
    unsigned parts[4];
    char tail;
    if (std::sscanf(text, "%u.%u.%u.%u%c", &parts[0], &parts[1], &parts[2], &parts[3], &tail) != 4) return 0xFFFFFFFF;
    for (unsigned part : parts) {
        if (part > 255) return 0xFFFFFFFF;
    }
    return Net(parts[0], parts[1], parts[2], parts[3]);
}

const char* FakeInetNtoa(uint32_t address) {
    g_world->ntoa = Dotted(address);
    return g_world->ntoa.c_str();
}

int FakeLastError() { return g_world->error; }

void* FakeAllocate(size_t count, size_t size) {
    World& w = *g_world;
    if (w.allocations++ == w.failAt) return nullptr;
    void* block = std::calloc(count, size);
    w.live.insert(block);
    return block;
}

void FakeRelease(void* block) {
    EXPECT_EQ(1u, g_world->live.erase(block)) << "freed a block the emulation did not allocate";
    std::free(block);
}

constexpr legacy::Calls kFakeCalls = {FakeHostByName, FakeHostByAddr, FakeServByName, FakeServByPort,
                                      FakeInetAddr,   FakeInetNtoa,   FakeLastError,  FakeAllocate,
                                      FakeRelease};

AddrInfo Hints(int flags, int family, int socketType) {
    AddrInfo hints{};
    hints.ai_flags = flags;
    hints.ai_family = family;
    hints.ai_socktype = socketType;
    return hints;
}

struct Node {
    int flags, family, socketType, protocol;
    size_t length;
    std::string canonical;
    std::string address;
    unsigned port;
};

class LegacyResolverTest : public ::testing::Test {
protected:
    void SetUp() override { g_world = &world_; }
    void TearDown() override {
        EXPECT_TRUE(world_.live.empty()) << world_.live.size() << " blocks left";
        g_world = nullptr;
    }

    int Resolve(const char* node, const char* service, const AddrInfo* hints) {
        AddrInfo* chain = reinterpret_cast<AddrInfo*>(&world_);  // overwritten first thing
        const int code = legacy::AddressInfo(kFakeCalls, node, service, hints, &chain);
        nodes_.clear();
        for (AddrInfo* n = chain; n != nullptr; n = n->ai_next) {
            const auto* record = reinterpret_cast<const SockAddrIn*>(n->ai_addr);
            EXPECT_EQ(2, record->sin_family);
            unsigned char port[2];
            std::memcpy(port, &record->sin_port, sizeof port);
            nodes_.push_back(Node{n->ai_flags, n->ai_family, n->ai_socktype, n->ai_protocol, n->ai_addrlen,
                                  n->ai_canonname != nullptr ? n->ai_canonname : "<null>", Dotted(record->sin_addr),
                                  static_cast<unsigned>(port[0] << 8 | port[1])});
        }
        if (code != 0) {
            EXPECT_EQ(nullptr, chain);
        }
        legacy::FreeAddressInfo(kFakeCalls, chain);
        return code;
    }

    World world_;
    std::vector<Node> nodes_;
};

TEST_F(LegacyResolverTest, NoHostWithAPortIsTheLoopbackAddress) {
    AddrInfo hints = Hints(0, 2, 1);
    ASSERT_EQ(0, Resolve(nullptr, "1080", &hints));
    ASSERT_EQ(1u, nodes_.size());
    EXPECT_EQ("127.0.0.1", nodes_[0].address);
    EXPECT_EQ(1080u, nodes_[0].port);
    EXPECT_EQ(0, nodes_[0].flags);
    EXPECT_EQ(1, nodes_[0].socketType);
    EXPECT_EQ(16u, nodes_[0].length);
    EXPECT_TRUE(world_.asked.empty());
}

TEST_F(LegacyResolverTest, PassiveWithoutHostIsTheAnyAddress) {
    AddrInfo hints = Hints(legacy::kPassive, 0, 1);
    ASSERT_EQ(0, Resolve(nullptr, "80", &hints));
    ASSERT_EQ(1u, nodes_.size());
    EXPECT_EQ("0.0.0.0", nodes_[0].address);
}

TEST_F(LegacyResolverTest, OnlyThreeDotsMakeANumber) {
    world_.hosts["1.2.3"] = {"three-parts", {Net(10, 0, 0, 3)}};
    world_.hosts["1.2.3.4.5"] = {"five-parts", {Net(10, 0, 0, 5)}};
    world_.hosts["300.1.1.1"] = {"big", {Net(10, 0, 0, 30)}};
    world_.hosts["255.255.255.255"] = {"broadcast", {Net(10, 0, 0, 255)}};
    AddrInfo hints = Hints(0, 2, 1);

    ASSERT_EQ(0, Resolve("1.2.3", "1", &hints));
    EXPECT_EQ("10.0.0.3", nodes_.at(0).address);
    ASSERT_EQ(0, Resolve("1.2.3.4.5", "1", &hints));
    EXPECT_EQ("10.0.0.5", nodes_.at(0).address);
    ASSERT_EQ(0, Resolve("300.1.1.1", "1", &hints));
    EXPECT_EQ("10.0.0.30", nodes_.at(0).address);
    ASSERT_EQ(0, Resolve("255.255.255.255", "1", &hints));
    EXPECT_EQ("10.0.0.255", nodes_.at(0).address);
    EXPECT_EQ((std::vector<std::string>{"1.2.3", "1.2.3.4.5", "300.1.1.1", "255.255.255.255"}), world_.asked);
    EXPECT_EQ(0, nodes_.at(0).flags);

    ASSERT_EQ(0, Resolve("1.2.3.4", "1", &hints));
    EXPECT_EQ("1.2.3.4", nodes_.at(0).address);
    EXPECT_EQ(legacy::kNumericHost, nodes_.at(0).flags);
    EXPECT_EQ(4u, world_.asked.size());
}

TEST_F(LegacyResolverTest, ANumericServiceKeepsItsLow16Bits) {
    AddrInfo hints = Hints(0, 2, 1);
    ASSERT_EQ(0, Resolve("1.2.3.4", "70000", &hints));
    EXPECT_EQ(4464u, nodes_.at(0).port);
    ASSERT_EQ(0, Resolve("1.2.3.4", "65536", &hints));
    EXPECT_EQ(0u, nodes_.at(0).port);
}

TEST_F(LegacyResolverTest, NoSocketTypeClonesEachAddressAsDatagram) {
    world_.hosts["two"] = {"two.example", {Net(10, 0, 0, 1), Net(10, 0, 0, 2)}};
    ASSERT_EQ(0, Resolve("two", "53", nullptr));
    ASSERT_EQ(4u, nodes_.size());
    const int types[] = {1, 2, 1, 2};
    const char* addresses[] = {"10.0.0.1", "10.0.0.1", "10.0.0.2", "10.0.0.2"};
    for (size_t i = 0; i < nodes_.size(); ++i) {
        EXPECT_EQ(types[i], nodes_[i].socketType) << i;
        EXPECT_EQ(addresses[i], nodes_[i].address) << i;
        EXPECT_EQ(53u, nodes_[i].port) << i;
        EXPECT_EQ(0, nodes_[i].flags) << i;
    }
}

TEST_F(LegacyResolverTest, AServiceNamePrefersTcpAndClonesTheUdpPort) {
    world_.services[{"both", "tcp"}] = 700;
    world_.services[{"both", "udp"}] = 701;
    world_.services[{"udponly", "udp"}] = 702;
    ASSERT_EQ(0, Resolve("1.2.3.4", "both", nullptr));
    ASSERT_EQ(2u, nodes_.size());
    EXPECT_EQ(1, nodes_[0].socketType);
    EXPECT_EQ(700u, nodes_[0].port);
    EXPECT_EQ(2, nodes_[1].socketType);
    EXPECT_EQ(701u, nodes_[1].port);
    EXPECT_EQ((std::vector<std::string>{"both/udp", "both/tcp"}), world_.servicesAsked);

    ASSERT_EQ(0, Resolve("1.2.3.4", "udponly", nullptr));
    ASSERT_EQ(1u, nodes_.size());
    EXPECT_EQ(2, nodes_[0].socketType);
    EXPECT_EQ(702u, nodes_[0].port);

    AddrInfo stream = Hints(0, 2, 1);
    world_.servicesAsked.clear();
    ASSERT_EQ(0, Resolve("1.2.3.4", "both", &stream));
    ASSERT_EQ(1u, nodes_.size());
    EXPECT_EQ(700u, nodes_[0].port);
    EXPECT_EQ((std::vector<std::string>{"both/tcp"}), world_.servicesAsked);
}

TEST_F(LegacyResolverTest, AnUnknownServiceNameDependsOnTheSocketType) {
    AddrInfo stream = Hints(0, 2, 1);
    EXPECT_EQ(10109, Resolve("1.2.3.4", "nosuch", &stream));
    EXPECT_EQ(11001, Resolve("1.2.3.4", "nosuch", nullptr));
    EXPECT_EQ(11001, Resolve("1.2.3.4", "", nullptr));
}

TEST_F(LegacyResolverTest, HintsAreCheckedInOrder) {
    EXPECT_EQ(11001, Resolve(nullptr, nullptr, nullptr));
    AddrInfo bad = Hints(0, 2, 1);
    bad.ai_addrlen = 16;
    EXPECT_EQ(11003, Resolve("1.2.3.4", "1", &bad));
    bad = Hints(0, 2, 1);
    bad.ai_next = &bad;
    EXPECT_EQ(11003, Resolve("1.2.3.4", "1", &bad));
    AddrInfo canonical = Hints(legacy::kCanonicalName, 23, 9);
    EXPECT_EQ(10022, Resolve(nullptr, "1", &canonical));
    AddrInfo family = Hints(0, 23, 9);
    EXPECT_EQ(10047, Resolve("1.2.3.4", "1", &family));
    AddrInfo type = Hints(0, 0, 4);
    EXPECT_EQ(10044, Resolve("1.2.3.4", "1", &type));
    type.ai_socktype = -1;
    EXPECT_EQ(10044, Resolve("1.2.3.4", "1", &type));
    AddrInfo numeric = Hints(legacy::kNumericHost, 2, 1);
    EXPECT_EQ(11001, Resolve("host", "1", &numeric));
    EXPECT_TRUE(world_.asked.empty());
    EXPECT_EQ(10022, legacy::AddressInfo(kFakeCalls, "1.2.3.4", "1", nullptr, nullptr));
}

TEST_F(LegacyResolverTest, CanonicalNames) {
    world_.hosts["www"] = {"www.example", {Net(10, 1, 1, 1)}};
    AddrInfo hints = Hints(legacy::kCanonicalName, 2, 1);
    ASSERT_EQ(0, Resolve("www", "1", &hints));
    EXPECT_EQ("www.example", nodes_.at(0).canonical);
    ASSERT_EQ(0, Resolve("1.2.3.4", "1", &hints));
    EXPECT_EQ("1.2.3.4", nodes_.at(0).canonical);
    EXPECT_EQ(legacy::kNumericHost, nodes_.at(0).flags);
    hints.ai_flags = 0;
    ASSERT_EQ(0, Resolve("www", "1", &hints));
    EXPECT_EQ("<null>", nodes_.at(0).canonical);
}

TEST_F(LegacyResolverTest, LookupFailuresGiveTheirCodes) {
    AddrInfo hints = Hints(0, 2, 1);
    world_.error = 11002;
    EXPECT_EQ(11002, Resolve("gone", "1", &hints));
    world_.error = 11003;
    EXPECT_EQ(11003, Resolve("gone", "1", &hints));
    world_.error = 11004;
    EXPECT_EQ(11001, Resolve("gone", "1", &hints));
    world_.error = 10060;
    EXPECT_EQ(11001, Resolve("gone", "1", &hints));
}

TEST_F(LegacyResolverTest, AnAnswerWithoutIpv4AddressesFollowsItsAliasOnce) {
    // The alias differs from the text, so a second attempt is made, asking for the same text again.
    world_.hosts["v6only"] = {"v6only.example", {Net(1, 2, 3, 4)}, 23, 16};
    AddrInfo hints = Hints(0, 2, 1);
    EXPECT_EQ(11003, Resolve("v6only", "1", &hints));
    EXPECT_EQ((std::vector<std::string>{"v6only", "v6only"}), world_.asked);

    world_.asked.clear();
    world_.hosts["none"] = {"none", {}};
    EXPECT_EQ(11003, Resolve("none", "1", &hints));
    EXPECT_EQ(1u, world_.asked.size());
    world_.asked.clear();
    world_.hosts["noname"] = {"", {}};
    EXPECT_EQ(11003, Resolve("noname", "1", &hints));
    EXPECT_EQ(1u, world_.asked.size());
}

TEST_F(LegacyResolverTest, TheAliasChainEndsAfterSixteenAttempts) {
    world_.endlessAliases = true;
    AddrInfo hints = Hints(0, 2, 1);
    EXPECT_EQ(11003, Resolve("wanderer", "1", &hints));
    ASSERT_EQ(16u, world_.asked.size());
    for (const std::string& text : world_.asked) EXPECT_EQ("wanderer", text);
}

TEST_F(LegacyResolverTest, ALongHostTextIsAskedWhole) {
    const std::string longName(2000, 'h');
    world_.hosts[longName] = {std::string(3000, 'c'), {Net(10, 9, 9, 9)}};
    AddrInfo hints = Hints(legacy::kCanonicalName, 2, 1);
    ASSERT_EQ(0, Resolve(longName.c_str(), "1", &hints));
    EXPECT_EQ(std::string(1024, 'c'), nodes_.at(0).canonical);
    EXPECT_EQ(longName, world_.asked.at(0));
}

TEST_F(LegacyResolverTest, EachFailingAllocationGivesNotEnoughMemoryAndLeaksNothing) {
    world_.hosts["many"] = {"many.example", {Net(10, 0, 0, 1), Net(10, 0, 0, 2), Net(10, 0, 0, 3)}};
    world_.services[{"svc", "tcp"}] = 1;
    world_.services[{"svc", "udp"}] = 2;
    struct Case {
        const char* node;
        const char* service;
        int flags;
    };
    const Case cases[] = {{"many", "svc", legacy::kCanonicalName}, {"1.2.3.4", "80", legacy::kCanonicalName},
                          {nullptr, "svc", 0}};
    for (const Case& c : cases) {
        AddrInfo hints = Hints(c.flags, 0, 0);
        world_.failAt = -1;
        world_.allocations = 0;
        ASSERT_EQ(0, Resolve(c.node, c.service, &hints));
        const int needed = world_.allocations;
        ASSERT_GT(needed, 1);
        for (int fail = 0; fail < needed; ++fail) {
            world_.allocations = 0;
            world_.failAt = fail;
            EXPECT_EQ(8, Resolve(c.node, c.service, &hints)) << (c.node ? c.node : "null") << " allocation " << fail;
            EXPECT_TRUE(world_.live.empty()) << "allocation " << fail;
        }
    }
}

class LegacyNameInfoTest : public LegacyResolverTest {
protected:
    SockAddrIn Record(uint32_t address, unsigned port) {
        SockAddrIn record{};
        record.sin_family = 2;
        record.sin_port = NetPort(port);
        record.sin_addr = address;
        return record;
    }
    int Name(const SockAddrIn& record, uint32_t hostSize, uint32_t serviceSize, int flags) {
        std::memset(host_, '#', sizeof host_);
        std::memset(service_, '#', sizeof service_);
        return legacy::NameInfo(kFakeCalls, reinterpret_cast<const SockAddr*>(&record), sizeof record,
                                   hostSize ? host_ : nullptr, hostSize, serviceSize ? service_ : nullptr,
                                   serviceSize, flags);
    }
    char host_[64];
    char service_[16];
};

TEST_F(LegacyNameInfoTest, NumericTexts) {
    const SockAddrIn record = Record(Net(192, 168, 1, 20), 65535);
    ASSERT_EQ(0, Name(record, 64, 16, legacy::kNameNumericHost | legacy::kNameNumericService));
    EXPECT_STREQ("192.168.1.20", host_);
    EXPECT_STREQ("65535", service_);
    EXPECT_TRUE(world_.servicesAsked.empty());
}

TEST_F(LegacyNameInfoTest, BoundsAreTheTextLengthPlusOne) {
    const SockAddrIn record = Record(Net(10, 0, 0, 1), 8080);
    const int numeric = legacy::kNameNumericHost | legacy::kNameNumericService;
    EXPECT_EQ(11003, Name(record, 64, 4, numeric));
    EXPECT_EQ('#', service_[0]);
    ASSERT_EQ(0, Name(record, 64, 5, numeric));
    EXPECT_STREQ("8080", service_);
    EXPECT_EQ('#', service_[5]);
    // The service is written before the host's bound is found too small.
    EXPECT_EQ(11003, Name(record, 8, 5, numeric));
    EXPECT_STREQ("8080", service_);
    EXPECT_EQ('#', host_[0]);
    ASSERT_EQ(0, Name(record, 9, 0, numeric));
    EXPECT_STREQ("10.0.0.1", host_);
    EXPECT_EQ('#', host_[9]);
}

TEST_F(LegacyNameInfoTest, BadArguments) {
    SockAddrIn record = Record(Net(10, 0, 0, 1), 1);
    EXPECT_EQ(11003, legacy::NameInfo(kFakeCalls, nullptr, 16, host_, 64, nullptr, 0, 0));
    EXPECT_EQ(11003, legacy::NameInfo(kFakeCalls, reinterpret_cast<const SockAddr*>(&record), 15, host_, 64,
                                         nullptr, 0, 0));
    record.sin_family = 23;
    EXPECT_EQ(10047, Name(record, 64, 16, 0));
    record.sin_family = 2;
    EXPECT_EQ(11001, Name(record, 0, 0, 0));
    EXPECT_EQ(10022, Name(record, 64, 16, legacy::kNameNumericHost | legacy::kNameRequired));
}

TEST_F(LegacyNameInfoTest, NamesOfServicesAndHosts) {
    world_.portNames[21] = "ftp";
    world_.reverse[Net(10, 0, 0, 7)] = "box.lan.example";
    const SockAddrIn record = Record(Net(10, 0, 0, 7), 21);
    ASSERT_EQ(0, Name(record, 64, 16, 0));
    EXPECT_STREQ("box.lan.example", host_);
    EXPECT_STREQ("ftp", service_);
    ASSERT_EQ(0, Name(record, 64, 16, legacy::kNameNoFqdn | legacy::kNameDatagram));
    EXPECT_STREQ("box", host_);
    EXPECT_EQ((std::vector<std::string>{std::to_string(NetPort(21)) + "/any", std::to_string(NetPort(21)) + "/udp"}),
              world_.servicesAsked);
    // The cut name must fit, the whole name need not.
    ASSERT_EQ(0, Name(record, 4, 0, legacy::kNameNoFqdn));
    EXPECT_STREQ("box", host_);
    EXPECT_EQ(11003, Name(record, 3, 0, legacy::kNameNoFqdn));
}

TEST_F(LegacyNameInfoTest, AnUnnamedAddress) {
    const SockAddrIn record = Record(Net(10, 0, 0, 8), 1);
    ASSERT_EQ(0, Name(record, 64, 0, 0));
    EXPECT_STREQ("10.0.0.8", host_);
    world_.error = 11002;
    EXPECT_EQ(11002, Name(record, 64, 0, legacy::kNameRequired));
    world_.error = 11003;
    EXPECT_EQ(11003, Name(record, 64, 0, legacy::kNameRequired));
    world_.error = 10014;
    EXPECT_EQ(11001, Name(record, 64, 0, legacy::kNameRequired));
}

// The binder against a scripted file system: which paths exist, what each library exports.
struct Libraries {
    std::string directory = "C:\\sys";
    std::map<std::string, std::set<std::string>> files;
    std::vector<std::string> loaded;
    std::vector<std::string> unloaded;
};
Libraries* g_libraries = nullptr;
std::vector<std::string> g_storage(16);

unsigned ScriptedDirectory(char* buffer, unsigned size) {
    const std::string& directory = g_libraries->directory;
    if (directory.size() >= size) return static_cast<unsigned>(directory.size() + 1);
    std::memcpy(buffer, directory.c_str(), directory.size() + 1);
    return static_cast<unsigned>(directory.size());
}

void* ScriptedLoad(const char* path) {
    g_libraries->loaded.push_back(path);
    auto found = g_libraries->files.find(path);
    return found == g_libraries->files.end() ? nullptr : &*found;
}

void* ScriptedLookup(void* library, const char* name) {
    auto* entry = static_cast<std::pair<const std::string, std::set<std::string>>*>(library);
    if (entry->second.count(name) == 0) return nullptr;
    for (std::string& slot : g_storage) {
        if (slot == entry->first + "!" + name) return &slot;
        if (slot.empty()) {
            slot = entry->first + "!" + name;
            return &slot;
        }
    }
    return nullptr;
}

void ScriptedUnload(void* library) {
    g_libraries->unloaded.push_back(static_cast<std::pair<const std::string, std::set<std::string>>*>(library)->first);
}

constexpr legacy::Loader kScriptedLoader = {ScriptedDirectory, ScriptedLoad, ScriptedLookup, ScriptedUnload};

int g_emulationMarks[3];
void* const kEmulation[3] = {&g_emulationMarks[0], &g_emulationMarks[1], &g_emulationMarks[2]};

const std::string* Bound(void* function) { return static_cast<const std::string*>(function); }

class ResolverBinderTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_libraries = &libraries_;
        for (std::string& slot : g_storage) slot.clear();
    }
    void TearDown() override { g_libraries = nullptr; }

    const std::set<std::string> all_ = {"getaddrinfo", "getnameinfo", "freeaddrinfo"};
    Libraries libraries_;
};

TEST_F(ResolverBinderTest, Ws2_32OfTheSystemDirectoryServesAllThree) {
    libraries_.files["C:\\sys\\ws2_32"] = all_;
    legacy::ResolverBinding binding(kEmulation);
    EXPECT_FALSE(binding.Bound());
    EXPECT_EQ("C:\\sys\\ws2_32!getnameinfo", *Bound(binding.Bind(kScriptedLoader, legacy::kGetNameInfo)));
    EXPECT_TRUE(binding.Bound());
    EXPECT_EQ("C:\\sys\\ws2_32!getaddrinfo", *Bound(binding.Bind(kScriptedLoader, legacy::kGetAddrInfo)));
    EXPECT_EQ("C:\\sys\\ws2_32!freeaddrinfo", *Bound(binding.Bind(kScriptedLoader, legacy::kFreeAddrInfo)));
    EXPECT_EQ(std::vector<std::string>{"C:\\sys\\ws2_32"}, libraries_.loaded);
    EXPECT_TRUE(libraries_.unloaded.empty());
}

TEST_F(ResolverBinderTest, Ws2_32LackingFreeaddrinfoLeavesTheEmulationAndWship6Untried) {
    libraries_.files["C:\\sys\\ws2_32"] = {"getaddrinfo", "getnameinfo"};
    libraries_.files["C:\\sys\\wship6"] = all_;
    legacy::ResolverBinding binding(kEmulation);
    EXPECT_EQ(kEmulation[0], binding.Bind(kScriptedLoader, legacy::kGetAddrInfo));
    EXPECT_EQ(kEmulation[1], binding.Bind(kScriptedLoader, legacy::kGetNameInfo));
    EXPECT_EQ(kEmulation[2], binding.Bind(kScriptedLoader, legacy::kFreeAddrInfo));
    EXPECT_EQ(std::vector<std::string>{"C:\\sys\\ws2_32"}, libraries_.loaded);
    EXPECT_EQ(std::vector<std::string>{"C:\\sys\\ws2_32"}, libraries_.unloaded);
}

TEST_F(ResolverBinderTest, Wship6StandsInForAWs2_32WithoutGetaddrinfo) {
    libraries_.files["C:\\sys\\ws2_32"] = {"getnameinfo"};
    libraries_.files["C:\\sys\\wship6"] = all_;
    legacy::ResolverBinding binding(kEmulation);
    EXPECT_EQ("C:\\sys\\wship6!freeaddrinfo", *Bound(binding.Bind(kScriptedLoader, legacy::kFreeAddrInfo)));
    EXPECT_EQ((std::vector<std::string>{"C:\\sys\\ws2_32", "C:\\sys\\wship6"}), libraries_.loaded);
    EXPECT_EQ(std::vector<std::string>{"C:\\sys\\ws2_32"}, libraries_.unloaded);
}

TEST_F(ResolverBinderTest, NoLibraryOrAnIncompleteWship6LeavesTheEmulation) {
    legacy::ResolverBinding none(kEmulation);
    EXPECT_EQ(kEmulation[1], none.Bind(kScriptedLoader, legacy::kGetNameInfo));
    EXPECT_TRUE(none.Bound());
    EXPECT_EQ((std::vector<std::string>{"C:\\sys\\ws2_32", "C:\\sys\\wship6"}), libraries_.loaded);

    libraries_.loaded.clear();
    libraries_.files["C:\\sys\\wship6"] = {"getaddrinfo", "freeaddrinfo"};
    legacy::ResolverBinding partial(kEmulation);
    EXPECT_EQ(kEmulation[0], partial.Bind(kScriptedLoader, legacy::kGetAddrInfo));
    EXPECT_EQ(std::vector<std::string>{"C:\\sys\\wship6"}, libraries_.unloaded);

    libraries_.unloaded.clear();
    libraries_.files["C:\\sys\\wship6"] = {"getnameinfo"};
    legacy::ResolverBinding lacking(kEmulation);
    EXPECT_EQ(kEmulation[0], lacking.Bind(kScriptedLoader, legacy::kGetAddrInfo));
    EXPECT_EQ(std::vector<std::string>{"C:\\sys\\wship6"}, libraries_.unloaded);
}

TEST_F(ResolverBinderTest, NoSystemDirectoryBindsTheEmulationForGood) {
    libraries_.directory = "";
    libraries_.files["\\ws2_32"] = all_;
    legacy::ResolverBinding binding(kEmulation);
    EXPECT_EQ(kEmulation[2], binding.Bind(kScriptedLoader, legacy::kFreeAddrInfo));
    EXPECT_TRUE(binding.Bound());
    EXPECT_TRUE(libraries_.loaded.empty());
    libraries_.directory = "C:\\sys";
    libraries_.files["C:\\sys\\ws2_32"] = all_;
    EXPECT_EQ(kEmulation[0], binding.Bind(kScriptedLoader, legacy::kGetAddrInfo));
    EXPECT_TRUE(libraries_.loaded.empty());
}

TEST_F(ResolverBinderTest, ADirectoryTooLongForItsBufferIsNone) {
    libraries_.directory = std::string(300, 'd');
    legacy::ResolverBinding binding(kEmulation);
    EXPECT_EQ(kEmulation[0], binding.Bind(kScriptedLoader, legacy::kGetAddrInfo));
    EXPECT_TRUE(libraries_.loaded.empty());
}

TEST_F(ResolverBinderTest, TheLongestDirectoryStillGetsWholePaths) {
    libraries_.directory = "C:\\" + std::string(256, 'd');
    libraries_.files[libraries_.directory + "\\wship6"] = all_;
    legacy::ResolverBinding binding(kEmulation);
    EXPECT_EQ(libraries_.directory + "\\wship6!getaddrinfo", *Bound(binding.Bind(kScriptedLoader, 0)));
}

TEST_F(ResolverBinderTest, ThreadsBindingAtOnceAllEndWithTheSameFunctions) {
    libraries_.files["C:\\sys\\ws2_32"] = all_;
    // The scripted loader records into one vector: it is not for threads, so the threads use a quiet one.
    static const legacy::Loader quiet = {
        ScriptedDirectory, [](const char*) -> void* { return &g_storage; },
        [](void*, const char* name) -> void* { return const_cast<char*>(name); }, [](void*) {}};
    legacy::ResolverBinding binding(kEmulation);
    std::vector<std::thread> threads;
    void* seen[8][3] = {};
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 3; ++i) seen[t][(i + t) % 3] = binding.Bind(quiet, (i + t) % 3);
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (int t = 0; t < 8; ++t) {
        EXPECT_STREQ("getaddrinfo", static_cast<const char*>(seen[t][0]));
        EXPECT_STREQ("getnameinfo", static_cast<const char*>(seen[t][1]));
        EXPECT_STREQ("freeaddrinfo", static_cast<const char*>(seen[t][2]));
    }
}

}  // namespace
