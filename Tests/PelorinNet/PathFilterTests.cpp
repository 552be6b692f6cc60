#include "PelorinNet/Path/PathFilter.h"

#include <gtest/gtest.h>

namespace pelorin {
namespace {

TEST(PathFilter, sendsOnlyWhereAPeerCanBe)
{
    constexpr const char* server = "198.51.100.3";
    constexpr const char* privateServer = "10.9.0.1";
    PathFilter filter;
    filter.avoid(*SocketAddress::parse(server, 3478));
    const struct {
        const char* ip;
        std::uint16_t port;
        bool mayCheck, mayCheckRelay, mayRelay, mayRelayPrivately;
    } rows[] = {
        {"203.0.113.7", 51820, true, true, true, true}, {"192.168.1.20", 51820, true, true, false, true},
        {"10.0.0.1", 1, true, true, false, true}, {"172.16.0.1", 1, true, true, false, true},
        {"172.32.0.1", 1, true, true, true, true}, {"100.64.0.1", 1, true, true, false, true},
        {"100.128.0.1", 1, true, true, true, true}, {"223.255.255.255", 65535, true, true, true, true},
        {"198.51.100.3", 3478, false, false, false, false}, // the server itself
        {"198.51.100.3", 22, false, false, false, false}, {"198.51.100.3", 1023, false, false, false, false},
        {"198.51.100.3", 49152, false, true, true, true}, // what it gave to the peer
        {"203.0.113.7", 0, false, false, false, false}, {"0.0.0.0", 9, false, false, false, false},
        {"0.1.2.3", 9, false, false, false, false}, {"127.0.0.1", 9, false, false, false, false},
        {"127.255.0.1", 9, false, false, false, false}, {"169.254.1.1", 9, false, false, false, false},
        {"224.0.0.251", 5353, false, false, false, false},
        {"239.255.255.250", 1900, false, false, false, false}, {"240.0.0.1", 9, false, false, false, false},
        {"255.255.255.255", 9, false, false, false, false},
        {"::ffff:203.0.113.7", 9, false, false, false, false}, {"::1", 9, false, false, false, false},
        {"2001:db8::1", 9, false, false, false, false}, // no socket of ours speaks IPv6
    };
    for (const auto& row : rows) {
        const auto peer = *SocketAddress::parse(row.ip, row.port);
        SCOPED_TRACE(peer.text());
        EXPECT_EQ(filter.mayCheck(peer), row.mayCheck);
        EXPECT_EQ(filter.mayCheckRelay(peer), row.mayCheckRelay);
        EXPECT_EQ(filter.mayRelayTo(peer, *SocketAddress::parse(server, 3478)), row.mayRelay);
        EXPECT_EQ(filter.mayRelayTo(peer, *SocketAddress::parse(privateServer, 3478)), row.mayRelayPrivately);
    }
}

} // namespace
} // namespace pelorin
