#include "PelorinNet/Rendezvous/ServiceMessage.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using nlohmann::json;
using testing::ElementsAre;
using Server = PathServers::Server;

TEST(ServiceMessage, isAnObjectAndNotTooDeep)
{
    for (const char* text : {"", "7", "[1]", "null", "{", "{\"a\":1}x", "{\"a\":\"\xff\"}", "\xff", "pong"}) {
        const auto parsed = ServiceMessage::parse(text);
        ASSERT_FALSE(parsed) << text;
        EXPECT_EQ(parsed.error().description, "rendezvous sent something that isn't a JSON object");
    }
    const std::string deep = "{\"b\":1,\"a\":" + std::string(30'000, '[') + std::string(30'000, ']') + "}";
    const auto parsed = ServiceMessage::parse(deep);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->at("b"), 1);
    EXPECT_LT(parsed->dump().size(), 50u);
}

TEST(ServiceMessage, hasATextOrNone)
{
    for (const char* none : {"null", "7", "[]", "{}", R"({"a": 7})", R"({"a": ["x"]})", R"({"b": "x"})"})
        EXPECT_EQ(ServiceMessage::text(json::parse(none), "a"), "") << none;
    EXPECT_EQ(ServiceMessage::text({{"a", "x"}}, "a"), "x");
}

TEST(ServiceMessage, lendsTheServersThatCanBeUsed)
{
    const auto servers = ServiceMessage::servers({{"turn",
        {{"username", "u"}, {"credential", "c"},
            {"uris",
                {"turn:turn-1.example:3479", "turn:192.0.2.1", "turn:turn-2.example?transport=udp",
                    "stun:stun.example", "turn:tcp.example?transport=tcp", "turns:tls.example", 7}}}}});
    const Server first{"turn-1.example", 3479}, second{"192.0.2.1", 3478}, third{"turn-2.example", 3478};
    EXPECT_THAT(servers.path.turn, ElementsAre(first, second, third));
    EXPECT_THAT(servers.path.stun, ElementsAre(first, second, third, Server{"stun.example", 3478}));
    EXPECT_EQ(servers.credentials, (TurnCredentials{"u", "c"}));

    for (const char* uri : {"turn:", "turn:a b", "turn:x.example:0", "turn:x.example:99999", "turn:x:1:2",
             "turn://x.example", "turn:user@x.example", "TURN:x.example", "x.example", ""}) {
        const auto none = ServiceMessage::servers({{"turn", {{"uris", {uri}}}}});
        EXPECT_TRUE(none.path.turn.empty() && none.path.stun.empty()) << uri;
    }
}

TEST(ServiceMessage, lendsNothingByHalves)
{
    for (const char* turn :
        {"null", "7", "[]", "{}", R"({"uris": 7, "username": "u"})", R"({"uris": ["turn:a.example"]})",
            R"({"uris": ["turn:a.example"], "username": 7, "credential": "c"})",
            R"({"uris": ["turn:a.example"], "username": "u", "credential": ""})",
            R"({"uris": ["stun:a.example"], "username": "u", "credential": "c"})"})
        EXPECT_FALSE(ServiceMessage::servers({{"turn", json::parse(turn)}}).credentials) << turn;
    json many = json::array();
    for (int i = 0; i < 1'000; ++i) many.push_back("stun:" + std::to_string(i) + ".example");
    EXPECT_EQ(ServiceMessage::servers({{"turn", {{"uris", many}}}}).path.stun.size(), 8u);
}

} // namespace
} // namespace pelorin
