#include "PelorinCore/Access/TailscaleStatus.h"
#include "PelorinCore/Access/TailscaleWhois.h"

#include <gtest/gtest.h>

using namespace pelorin;

namespace {

std::string repeated(const std::string& text, int times)
{
    std::string result;
    for (int i = 0; i < times; ++i) result += text;
    return result;
}

// As the tool prints it, shortened.
const std::string realAnswer = R"({
    "Node": {
        "ID": 4711, "StableID": "nABC123CNTRL", "Name": "janes-iphone.tail1234.ts.net.", "User": 123456,
        "Key": "nodekey:0123", "Addresses": ["100.101.102.103/32", "fd7a:115c:a1e0::1/128"],
        "Hostinfo": {"OS": "iOS", "Hostname": "Jane's iPhone", "Services": [{"Proto": "peerapi4", "Port": 1}]},
        "Created": "2024-01-01T00:00:00Z", "Online": true, "ComputedName": "janes-iphone",
        "ComputedNameWithHost": "janes-iphone"
    },
    "UserProfile": {"ID": 123456, "LoginName": "Jane@example.com", "DisplayName": "Jane", "Roles": []},
    "CapMap": null
})";

} // namespace

TEST(TailscaleWhois, readsWhatTheToolPrints)
{
    const auto whois = TailscaleWhois::parse(realAnswer);
    ASSERT_TRUE(whois) << whois.error().description;
    EXPECT_EQ(*whois, (TailscaleWhois{"Jane@example.com", "janes-iphone", "iOS"}));
}

TEST(TailscaleWhois, findsNameAndSystemWhereTheyAre)
{
    const struct {
        const char* node;
        TailscaleWhois expected;
    } rows[] = {
        {R"({"Name": "phone.tail1.ts.net."})", {"u", "phone.tail1.ts.net", {}}},
        {R"({"Name": "phone.tail1.ts.net.", "ComputedName": "phone"})", {"u", "phone", {}}},
        {R"({"Name": "phone.tail1.ts.net", "ComputedName": ""})", {"u", "phone.tail1.ts.net", {}}},
        {R"({"Name": null, "ComputedName": "phone."})", {"u", "phone", {}}},
        {R"({"computedname": "other", "ComputedName": "phone"})", {"u", "phone", {}}},
        {R"({"Name": "p", "Hostinfo": {}})", {"u", "p", {}}},
        {R"({"Name": "p", "Hostinfo": null})", {"u", "p", {}}},
        {R"({"Name": "p", "Hostinfo": {"OS": "linux"}})", {"u", "p", "linux"}},
        {R"({})", {"u", "", {}}},
    };
    for (const auto& row : rows) {
        const auto whois = TailscaleWhois::parse(
            std::string(R"({"UserProfile": {"LoginName": "u"}, "Node": )") + row.node + "}");
        ASSERT_TRUE(whois) << row.node << whois.error().description;
        EXPECT_EQ(*whois, row.expected) << row.node;
    }
}

TEST(TailscaleWhois, refusesWhatNamesNoUserAndSurvivesHostileJSON)
{
    const std::string texts[] = {
        "",
        "null",
        "[]",
        "peer not found",
        realAnswer.substr(0, realAnswer.size() / 2),
        realAnswer + "}",
        R"({"UserProfile": {"LoginName": "u"}})",
        R"({"Node": {"Name": "p"}})",
        R"({"Node": {"Name": "p"}, "UserProfile": {}})",
        R"({"Node": {"Name": "p"}, "UserProfile": {"LoginName": null}})",
        R"({"Node": {"Name": "p"}, "UserProfile": {"LoginName": ""}})",
        R"({"Node": {"Name": "p"}, "UserProfile": {"loginName": "u"}})",
        R"({"Node": {"Name": "p"}, "UserProfile": {"LoginName": ["u"]}})",
        R"({"Node": {"Name": "p"}, "UserProfile": "u"})",
        R"({"Node": {"Name": 7}, "UserProfile": {"LoginName": "u"}})",
        R"({"Node": {"Name": "p", "Hostinfo": []}, "UserProfile": {"LoginName": "u"}})",
        R"({"Node": {"Name": "p", "Hostinfo": {"OS": {}}}, "UserProfile": {"LoginName": "u"}})",
        R"({"Node": [], "UserProfile": {"LoginName": "u"}})",
        "{\"Node\": {\"Name\": \"\xC3\x28\"}, \"UserProfile\": {\"LoginName\": \"u\"}}",
        R"({"Node": {"Name": "p", "Cap": 1e999}, "UserProfile": {"LoginName": "u"}})",
        repeated("[", 1'000'000),
        repeated(R"({"Node":)", 100'000),
        R"({"Node": {}, "UserProfile": {"LoginName": "u"}, "Pad": ")" + std::string(1 << 20, 'x') + "\"}",
    };
    for (const auto& text : texts) {
        const auto whois = TailscaleWhois::parse(text);
        ASSERT_FALSE(whois) << text.substr(0, 100);
        EXPECT_FALSE(whois.error().description.empty());
    }
    // Nesting alone is no harm where nothing of ours lies.
    const auto deep = R"({"Node": {"Name": "p"}, "UserProfile": {"LoginName": "u"}, "CapMap": )"
        + repeated("[", 100'000) + repeated("]", 100'000) + "}";
    EXPECT_EQ(TailscaleWhois::parse(deep), (TailscaleWhois{"u", "p", {}}));
}

TEST(TailscaleStatus, tellsTheOwnNameAndWhereAPeerIsReached)
{
    const auto status = TailscaleStatus::parse(R"({
        "Version": "1.80.0", "BackendState": "Running",
        "Self": {"HostName": "desk", "DNSName": "desk.tail1.ts.net.", "TailscaleIPs": ["100.64.0.1"]},
        "Peer": {
            "nodekey:aa": {"DNSName": "phone.tail1.ts.net.", "CurAddr": "203.0.113.7:41641",
                           "TailscaleIPs": ["100.64.0.2", "fd7a:115c:a1e0::2"]},
            "nodekey:bb": {"DNSName": "relayed.tail1.ts.net.", "CurAddr": "", "TailscaleIPs": ["100.64.0.3"]},
            "nodekey:cc": {"DNSName": "new.tail1.ts.net.", "TailscaleIPs": null}
        }})");
    ASSERT_TRUE(status) << status.error().description;
    EXPECT_EQ(status->dnsName, "desk.tail1.ts.net");
    EXPECT_EQ(status->curAddrOf(*IPAddress::parse("fd7a:115c:a1e0:0::2")), "203.0.113.7:41641");
    EXPECT_EQ(status->curAddrOf(*IPAddress::parse("::ffff:100.64.0.2")), "203.0.113.7:41641");
    EXPECT_EQ(status->curAddrOf(*IPAddress::parse("100.64.0.3")), std::nullopt);
    EXPECT_EQ(status->curAddrOf(*IPAddress::parse("100.64.0.4")), std::nullopt);

    EXPECT_EQ(TailscaleStatus::parse(R"({"Self": null, "Peer": null})")->dnsName, std::nullopt);
    for (const char* text : {"", "[]", R"({"Self": 1})", R"({"Self": {"DNSName": 1}})", R"({"Peer": []})",
             R"({"Peer": {"a": {"CurAddr": 1}}})"})
        EXPECT_FALSE(TailscaleStatus::parse(text)) << text;
}
