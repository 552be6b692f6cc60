#include "PelorinNet/Path/Candidate.h"

#include <cstring>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <list>
#include <net/if.h>
#include <netinet/in.h>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

// A list as the system would give it.
class Interfaces {
public:
    void add(std::string name, unsigned flags, std::optional<SocketAddress> address)
    {
        Entry& entry = entries.emplace_back();
        entry.name = std::move(name);
        if (address && address->isIPv4()) {
            auto* const into = reinterpret_cast<sockaddr_in*>(&entry.storage);
            into->sin_family = AF_INET;
            std::memcpy(&into->sin_addr, address->host().data(), 4);
        } else {
            entry.storage.ss_family = AF_INET6;
        }
        entry.system.ifa_name = entry.name.data();
        entry.system.ifa_flags = flags;
        entry.system.ifa_addr = address ? reinterpret_cast<sockaddr*>(&entry.storage) : nullptr;
        if (entries.size() > 1) std::prev(entries.end(), 2)->system.ifa_next = &entry.system;
    }
    const ifaddrs* first() const { return entries.empty() ? nullptr : &entries.front().system; }

private:
    struct Entry {
        std::string name;
        sockaddr_storage storage{};
        ifaddrs system{};
    };
    std::list<Entry> entries;
};

TEST(HostCandidates, areTheAddressesThatAPeerMayTry)
{
    constexpr unsigned up = IFF_UP | IFF_RUNNING;
    const struct {
        const char* name;
        unsigned flags;
        const char* address; // null: none
        bool isOffered;
    } rows[] = {
        {"lo", up | IFF_LOOPBACK, "127.0.0.1", false},
        {"eth0", up, "192.168.1.20", true},
        {"eth0", up, nullptr, false},
        {"eth0", up, "fe80::1", false},
        {"eth1", IFF_RUNNING, "192.168.2.20", false},
        {"utun3", up, "10.9.9.9", false},
        {"tailscale0", up, "10.9.9.8", false},
        {"tun0", up, "10.8.0.2", false},
        {"wg0", up, "10.7.0.2", false},
        {"wlan0", up, "100.63.0.1", true},
        {"wlan0", up, "100.64.0.0", false},
        {"wlan0", up, "100.100.1.2", false},
        {"wlan0", up, "100.127.255.255", false},
        {"wlan0", up, "100.128.0.1", true},
        {"wlan0", up, "169.254.3.4", false},
        {"wlan0", up, "169.253.3.4", true},
        {"ppp0", up, "203.0.113.7", true},
    };
    Interfaces interfaces;
    std::vector<Candidate> expected;
    for (const auto& row : rows) {
        interfaces.add(row.name, row.flags,
            row.address ? SocketAddress::parse(row.address, 0) : std::optional<SocketAddress>());
        if (row.isOffered) expected.push_back({*SocketAddress::parse(row.address, 51'820), "host"});
    }
    EXPECT_EQ(hostCandidates(interfaces.first(), 51'820), expected);
    EXPECT_TRUE(hostCandidates(nullptr, 51'820).empty());
    for (const auto& own : hostCandidates(51'820)) {
        EXPECT_TRUE(own.address.isIPv4());
        EXPECT_NE(own.address.host()[0], 127);
        EXPECT_EQ(own.address.port, 51'820);
    }
}

TEST(Candidate, isReadAndWrittenAsJSON)
{
    const struct {
        const char* text;
        const char* expected; // as it is signed; null: nothing
    } rows[] = {
        {R"({"ip": "203.0.113.7", "port": 51820, "type": "srflx"})", "srflx 203.0.113.7:51820"},
        {R"({"type": "relay2", "port": 0, "ip": "fe80::1:2", "more": {}})", "relay2 [fe80:0:0:0:0:0:1:2]:0"},
        {R"({"ip": "1.2.3.4", "port": -1, "type": "host"})", "host 1.2.3.4:0"},
        {R"({"ip": "1.2.3.4", "port": -9223372036854775808, "type": "host"})", "host 1.2.3.4:0"},
        {R"({"ip": "1.2.3.4", "port": 65536, "type": "host"})", "host 1.2.3.4:65535"},
        {R"({"ip": "1.2.3.4", "port": 18446744073709551615, "type": "host"})", "host 1.2.3.4:65535"},
        {R"({"ip": "1.2.3.4", "port": 1, "type": "newer-kind"})", "newer-kind 1.2.3.4:1"},
        {R"({"ip": "relay.example", "port": 1, "type": "host"})", nullptr},
        {R"({"ip": "1.2.3", "port": 1, "type": "host"})", nullptr},
        {R"({"ip": "", "port": 1, "type": "host"})", nullptr},
        {R"({"ip": "1.2.3.4\u0000", "port": 1, "type": "host"})", nullptr},
        {R"({"ip": 16909060, "port": 1, "type": "host"})", nullptr},
        {R"({"ip": "1.2.3.4", "port": "1", "type": "host"})", nullptr},
        {R"({"ip": "1.2.3.4", "port": 1.5, "type": "host"})", nullptr},
        {R"({"ip": "1.2.3.4", "port": null, "type": "host"})", nullptr},
        {R"({"ip": "1.2.3.4", "port": 1, "type": ""})", nullptr},
        {R"({"ip": "1.2.3.4", "port": 1, "type": "host 9.9.9.9:9,srflx"})", nullptr},
        {R"({"ip": "1.2.3.4", "port": 1, "type": 3})", nullptr},
        {R"({"port": 1, "type": "host"})", nullptr},
        {R"({"ip": "1.2.3.4", "type": "host"})", nullptr},
        {R"({"ip": "1.2.3.4", "port": 1})", nullptr},
        {R"(["1.2.3.4", 1, "host"])", nullptr},
        {"null", nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        const auto candidate = Candidate::parse(nlohmann::json::parse(row.text));
        ASSERT_EQ(candidate.has_value(), row.expected != nullptr);
        if (!candidate) continue;
        EXPECT_EQ(candidate->signedText(), row.expected);
        EXPECT_EQ(Candidate::parse(candidate->json()), candidate);
    }
    EXPECT_EQ((Candidate{SocketAddress::ipv4({203, 0, 113, 7}, 51'820), "srflx"}.json().dump()),
        R"({"ip":"203.0.113.7","port":51820,"type":"srflx"})");
}

} // namespace
} // namespace pelorin
