#include "PelorinCore/Pairing/RemotePairingLink.h"

#include <gtest/gtest.h>
#include <vector>

namespace pelorin {
namespace {

constexpr std::string_view zeros = "AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA"; // 32 bytes

RemotePairingLink sampleLink()
{
    return {.hostName = "书房 & Studio",
        .hostID = "abcdefghijklmnopqrstuvwx27",
        .fingerprint = Bytes(32, 0),
        .service = "https://rendezvous.example.org/base?x=1&y",
        .code = SecretBytes(Bytes(32, 0xFF))};
}

PairingLink tailnetLink()
{
    return {.hostName = sampleLink().hostName,
        .address = "100.101.102.103",
        .dnsName = {},
        .port = 7420,
        .pairingID = "pair-0123456789abcdef",
        .key = SecretBytes(Bytes(32, 1))};
}

std::string with(std::string_view item, std::string_view replacement)
{
    std::string url = sampleLink().url();
    const std::size_t at = url.find(item);
    require(at != std::string::npos, "no such item in the link");
    return url.replace(at, item.size(), replacement);
}

TEST(RemotePairingLink, writesItsItemsInOrderAndReadsThemBack)
{
    const RemotePairingLink link = sampleLink();
    EXPECT_EQ(link.url(),
        "pelorin://pair?name=%E4%B9%A6%E6%88%BF%20%26%20Studio&host=abcdefghijklmnopqrstuvwx27&fp="
            + std::string(zeros)
            + "&service=https%3A%2F%2Frendezvous.example.org%2Fbase%3Fx%3D1%26y"
              "&code=__________________________________________8");
    EXPECT_EQ(RemotePairingLink::parse(link.url()), link);
    EXPECT_FALSE(PairingLink::parse(link.url()));
}

TEST(RemotePairingLink, refusesEveryLinkThatIsNotWhole)
{
    const std::vector<std::string> urls{
        "",
        "pelorin://pair?",
        with("pelorin:", "http:"),
        with("://pair?", "://pairing?"),
        with("name=", "nam="),
        with("host=", "h="),
        with("host=a", "host=A"),
        with("host=a", "host=1"),
        with("host=a", "host="),
        with("host=a", "host=aa"),
        with("fp=AA", "fp=A"),
        with("fp=AA", "fp=A%41A"),
        with("fp=AA", "fp=!A"),
        with("fp=", "pf="),
        with("https%3A", "wss%3A"),
        with("https%3A%2F%2Frendezvous.example.org%2Fbase%3Fx%3D1%26y", "https%3A%2F%2F"),
        with("https%3A%2F%2Frendezvous.example.org%2Fbase%3Fx%3D1%26y", ""),
        with("rendezvous", std::string(1024, 'a')),
        with("code=_", "code="),
        with("code=_", "code=%C3"),
        with("code=", "cod="),
    };
    for (const auto& url : urls) EXPECT_FALSE(RemotePairingLink::parse(url)) << url;
    const std::string url = sampleLink().url();
    for (std::size_t size = 0; size < url.size(); ++size)
        EXPECT_FALSE(RemotePairingLink::parse(std::string_view(url).substr(0, size))) << size;
}

TEST(PairingOffer, holdsTheWaysThatAreWhole)
{
    const PairingOffer both{tailnetLink(), sampleLink()};
    const std::string url = both.url();
    EXPECT_TRUE(url.starts_with(tailnetLink().url() + "&host="));
    EXPECT_EQ(PairingOffer::parse(url), both);
    EXPECT_EQ(PairingLink::parse(url), tailnetLink()); // by those who know one way only
    EXPECT_EQ(RemotePairingLink::parse(url), sampleLink());

    const PairingOffer onlyRemote{{}, sampleLink()}, onlyTailnet{tailnetLink(), {}};
    EXPECT_EQ(PairingOffer::parse(sampleLink().url()), onlyRemote);
    EXPECT_EQ(onlyRemote.url(), sampleLink().url());
    EXPECT_EQ(PairingOffer::parse(tailnetLink().url()), onlyTailnet);
    EXPECT_EQ(PairingOffer::parse(url.substr(0, url.size() - 1)), onlyTailnet); // the code was cut
    EXPECT_FALSE(PairingOffer::parse("pelorin://pair?name=Studio"));
}

} // namespace
} // namespace pelorin
