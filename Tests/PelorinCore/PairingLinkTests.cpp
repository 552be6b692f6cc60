#include "PelorinCore/Pairing/PairingLink.h"

#include <gtest/gtest.h>
#include <vector>

namespace pelorin {
namespace {

constexpr std::string_view keyText = "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8";

PairingLink sampleLink()
{
    Bytes key(32);
    for (std::size_t i = 0; i < key.size(); ++i) key[i] = static_cast<std::uint8_t>(i);
    return {.hostName = "Studio",
        .address = "100.101.102.103",
        .dnsName = "studio.example-tailnet.ts.net",
        .port = 7878,
        .pairingID = "pair-0123456789abcdef",
        .key = SecretBytes(std::move(key))};
}

// A whole link with one of its items replaced.
std::string with(std::string_view item, std::string_view replacement)
{
    std::string url = sampleLink().url();
    const std::size_t at = url.find(item);
    require(at != std::string::npos, "no such item in the link");
    return url.replace(at, item.size(), replacement);
}

const std::string keyItem = "&key=" + std::string(keyText);

} // namespace

TEST(PairingLink, writesItsItemsInOrderAndReadsThemBack)
{
    PairingLink link = sampleLink();
    EXPECT_EQ(link.url(),
        "pelorin://pair?name=Studio&addr=100.101.102.103&dns=studio.example-tailnet.ts.net&port=7878"
        "&id=pair-0123456789abcdef"
            + keyItem);
    EXPECT_EQ(PairingLink::parse(link.url()), link);

    link.dnsName.reset();
    EXPECT_EQ(link.url().find("dns"), std::string::npos);
    EXPECT_EQ(PairingLink::parse(link.url()), link);
}

TEST(PairingLink, carriesEveryNameThroughItsUrl)
{
    for (const std::string_view name :
        {"书房的 Mac", "a&b=c?d#e/f:g@h", "100%", "%41", "+ +", "Café\n\t\"<>", "🖥", "", "name=x&key=y"}) {
        PairingLink link = sampleLink();
        link.hostName = name;
        link.address = "fd7a:115c:a1e0::1";
        const std::string url = link.url();
        EXPECT_EQ(PairingLink::parse(url), link) << url;
        for (const char c : url) EXPECT_TRUE(c > ' ' && c < 0x7F) << url;
    }
}

TEST(PairingLink, readsWhatOthersMayWrite)
{
    const std::string rest = "&addr=100.101.102.103&dns=studio.example-tailnet.ts.net&port=7878"
                             "&id=pair-0123456789abcdef"
        + keyItem;
    for (const std::string& url : {
             "PELORIN://Pair?name=Studio" + rest, // RFC 3986, 3.1 and 3.2.2
             "pelorin://pair/?name=Studio" + rest, "pelorin://pair?name=Studio" + rest + "=",
             "pelorin://pair?name=Studio" + rest + "#name=Other", "pelorin://pair?" + rest + "&name=Studio&&",
             "pelorin://pair?name&color=red&n%61me=%53tudio&name=Other" + rest, // first with a value
         })
        EXPECT_EQ(PairingLink::parse(url), sampleLink()) << url;
}

TEST(PairingLink, refusesEveryLinkThatIsNotWhole)
{
    std::vector<std::string> urls{
        "",
        "pelorin://pair",
        "pelorin://pair?",
        "pelorin:pair?name=Studio",
        with("pelorin:", "http:"),
        with("pelorin://", "pelorin:/"),
        with("://pair?", "://pairing?"),
        with("://pair?", "://user@pair?"),
        with("://pair?", "://pair:80?"),
        with("://pair?", "://?"),
        with("://pair?", "://pair#?"),
        with("name=", "nam="),
        with("name=Studio&", "name&"),
        with("addr=", "Addr="),
        with("id=", "di="),
        with("port=7878", "port="),
        with("port=7878", "port=65536"),
        with("port=7878", "port=-1"),
        with("port=7878", "port=%2B1"),
        with("port=7878", "port=78x"),
        with("port=7878", "port= 78"),
        with(keyItem, ""),
        with(keyItem, "&key="),
        with(keyItem, "&key=AAEC"),
        with(keyItem, keyItem + "AA"),
        with(keyItem, "&key=AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHg"), // 31 bytes
        with(keyItem, "&key=!AECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8"),
        with("Studio", "%"),
        with("Studio", "%4"),
        with("Studio", "%zz"),
        with("Studio", "%-1"),
        with("Studio", "%C3"),
        with("Studio", "\xFF"),
        with(keyItem, keyItem + "&other=%C3"),
    };
    for (const auto& url : urls) EXPECT_FALSE(PairingLink::parse(url)) << url;
}

TEST(PairingLink, noCutOfALinkIsALink)
{
    const std::string url = sampleLink().url();
    for (std::size_t size = 0; size < url.size(); ++size)
        EXPECT_FALSE(PairingLink::parse(std::string_view(url).substr(0, size))) << size;
}

TEST(SecretBytes, wipesWhatItReplacesAndComparesWhole)
{
    SecretBytes secret(Bytes(64, 0xAA));
    const SecretBytes copy = secret;
    EXPECT_EQ(copy, secret);
    for (const std::size_t place : {0, 31, 63}) {
        Bytes other(64, 0xAA);
        other[place] ^= 1;
        EXPECT_NE(SecretBytes(std::move(other)), secret);
    }
    EXPECT_NE(SecretBytes(Bytes(63, 0xAA)), secret);

    const SecretBytes moved = std::move(secret);
    EXPECT_TRUE(secret.isEmpty()); // NOLINT(bugprone-use-after-move): that is what is asked
    secret = copy;
    EXPECT_EQ(secret, moved);

    Bytes bytes(16, 0xAA);
    SecretBytes::wipe(bytes);
    EXPECT_EQ(bytes, Bytes(16, 0));
}

} // namespace pelorin
