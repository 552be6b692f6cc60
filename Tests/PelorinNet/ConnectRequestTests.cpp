#include "PelorinNet/Rendezvous/ConnectRequest.h"

#include "Tests/Peers/SignedRequest.h"
#include "Tests/PelorinNet/QuicPeers.h"

#include <gtest/gtest.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

const std::string hostID = "abcdefghijklmnopqrstuvwxyz";

class ConnectRequestTest : public testing::Test {
protected:
    ConnectRequestTest()
    {
        written.local.candidates = {{SocketAddress::ipv4({192, 0, 2, 7}, 51'820), "host"},
            {*SocketAddress::parse("2001:db8::1", 5'000), "srflx"}};
    }
    static json changed(json request, const json& changes)
    {
        request.merge_patch(changes); // null takes a member away
        return request;
    }

    const std::unique_ptr<SoftwareIdentity> phone = makeQuicIdentity("phone");
    SignedRequest written{*phone, hostID, 1'900'000'000};
};

TEST_F(ConnectRequestTest, isSignedAsTheProtocolSays)
{
    const auto request = ConnectRequest::parse(written.json());
    ASSERT_TRUE(request);
    EXPECT_EQ(request->signedText(hostID),
        "pelorin-connect-v1|abcdefghijklmnopqrstuvwxyz|1900000000|bm9uY2UtbnVtYmVyLW9uZQ|aufrag12|"
        "apasswordofchars24letter|host 192.0.2.7:51820,srflx [2001:db8:0:0:0:0:0:1]:5000");
    EXPECT_EQ(request->clientKeyHash, phone->fingerprint());
    EXPECT_TRUE(request->isSignedBy(phone->publicKey(), hostID));
    EXPECT_FALSE(request->isSignedBy(makeQuicIdentity("other")->publicKey(), hostID));
    EXPECT_FALSE(request->isSignedBy(phone->publicKey(), "another-host"));
    EXPECT_FALSE(request->isSignedBy({}, hostID));

    written.local.candidates.clear();
    EXPECT_TRUE(ConnectRequest::parse(written.json())->isSignedBy(phone->publicKey(), hostID));
}

// Whoever passes a request on can change nothing that the host goes by.
TEST_F(ConnectRequestTest, coversAllThatTheHostGoesBy)
{
    json candidates = written.json()["candidates"];
    std::swap(candidates[0], candidates[1]);
    for (const json& change : {json{{"timestamp", 1'900'000'001}}, {{"nonce", "another"}}, {{"ufrag", "x"}},
             {{"password", "x"}}, {{"candidates", json::array()}}, {{"candidates", candidates}},
             {{"candidates", json::array({candidates[1]})}}}) {
        const auto request = ConnectRequest::parse(changed(written.json(), change));
        ASSERT_TRUE(request) << change;
        EXPECT_FALSE(request->isSignedBy(phone->publicKey(), hostID)) << change;
    }
}

TEST_F(ConnectRequestTest, isUnderstoodWholeOrNotAtAll)
{
    const Bytes code(32, 7);
    const json candidate = written.json()["candidates"][0];
    json tooMany = json::array();
    for (int i = 0; i < 65; ++i) tooMany.push_back(candidate);
    const std::string long129(129, 'x'), notBase64 = "****", short31 = base64EncodedString(Bytes(31, 1));

    std::vector<json> changes{{{"timestamp", "1900000000"}}, {{"timestamp", 1.5}},
        {{"timestamp", std::uint64_t(-1)}}, {{"clientKeyHash", notBase64}}, {{"clientKeyHash", short31}},
        {{"signature", notBase64}}, {{"signature", ""}}, {{"signature", 7}}, {{"candidates", "x"}},
        {{"candidates", {{"ip", "192.0.2.7"}}}}, {{"candidates", tooMany}}, {{"candidates", {7}}},
        {{"candidates", {candidate, {{"ip", "no ip"}, {"port", 1}, {"type", "host"}}}}},
        {{"candidates", {{{"ip", "192.0.2.7"}, {"port", 1}, {"type", "a,b 1"}}}}}, {{"purpose", "rule"}},
        {{"purpose", 7}}, {{"purpose", ""}}};
    // Texts that stand between bars hold none, and nothing else that reads as another request.
    for (const char* key : {"nonce", "ufrag", "password"})
        for (const json& bad :
            {json(""), json("a|b"), json("a b"), json("a\n"), json("é"), json(long129), json(7)})
            changes.push_back({{key, bad}});
    const json whole = written.json();
    for (const auto& member : whole.items()) changes.push_back({{member.key(), nullptr}});
    for (const json& change : changes)
        EXPECT_FALSE(ConnectRequest::parse(changed(written.json(), change))) << change;

    ASSERT_TRUE(ConnectRequest::parse(written.pairing(code, "phone")));
    for (const json& change : std::vector<json>{{{"deviceName", nullptr}}, {{"deviceName", ""}},
             {{"deviceName", std::string(1'025, 'x')}}, {{"clientKey", nullptr}}, {{"clientKey", short31}},
             {{"proof", nullptr}}, {{"proof", notBase64}}, {{"purpose", "PAIR"}}})
        EXPECT_FALSE(ConnectRequest::parse(changed(written.pairing(code, "phone"), change))) << change;
    for (const char* odd : {"null", "7", "[]", "\"x\"", "{}"})
        EXPECT_FALSE(ConnectRequest::parse(json::parse(odd))) << odd;
}

TEST_F(ConnectRequestTest, isTimelyForTwoMinutesEitherWay)
{
    const auto request = ConnectRequest::parse(written.json());
    const WallTime then(1'900'000'000s);
    for (const auto& [off, isTimely] : {std::pair{0s, true}, {120s, true}, {121s, false}, {-120s, true},
             {-121s, false}, {-1'900'000'000s, false}})
        EXPECT_EQ(request->isTimely(then + off), isTimely) << off.count();
    EXPECT_TRUE(request->isTimely(then + 120'900ms)) << "seconds are whole ones";
    for (const std::int64_t extreme : {INT64_MIN, INT64_MAX}) {
        written.timestamp = extreme;
        EXPECT_FALSE(ConnectRequest::parse(written.json())->isTimely(then));
    }
}

TEST_F(ConnectRequestTest, bindsAPairingToItsExchange)
{
    const Bytes code(32, 7);
    const auto request = ConnectRequest::parse(written.pairing(code, "小明的 iPhone"));
    ASSERT_TRUE(request && request->pairing);
    EXPECT_EQ(request->pairing->deviceName, "小明的 iPhone");
    EXPECT_EQ(request->clientKeyHash, phone->fingerprint());
    EXPECT_TRUE(request->isSignedBy(request->pairing->clientKey, hostID));
    EXPECT_EQ(request->pairingContext(hostID),
        "abcdefghijklmnopqrstuvwxyz|1900000000|bm9uY2UtbnVtYmVyLW9uZQ|aufrag12");
}

TEST(NonceMemory, forgetsNoneThatCouldBeUsedAgain)
{
    NonceMemory memory;
    const SteadyTime start;
    EXPECT_TRUE(memory.isNew("n", "phone", start));
    EXPECT_TRUE(memory.isNew("n", "phone", start)) << "asking remembers nothing";
    memory.remember("n", "phone", start);
    EXPECT_FALSE(memory.isNew("n", "phone", start));
    EXPECT_FALSE(memory.isNew("n", "another", start));
    EXPECT_FALSE(memory.isNew("n", "phone", start + 241s)) << "a clock 120 s ahead is timely so long";
    EXPECT_TRUE(memory.isNew("n", "phone", start + 243s));
    EXPECT_EQ(memory.size(), 0u);
}

TEST(NonceMemory, hasAShareForEachPhone)
{
    NonceMemory memory;
    SteadyTime now;
    int granted = 0;
    for (int i = 0; i < 10'000; ++i, now += 100ms) {
        const std::string nonce = std::to_string(i);
        if (!memory.isNew(nonce, "greedy", now)) continue;
        memory.remember(nonce, "greedy", now);
        ++granted;
    }
    EXPECT_LE(memory.size(), NonceMemory::maxPerPhone);
    EXPECT_GT(granted, int(NonceMemory::maxPerPhone)) << "a share comes back";
    EXPECT_TRUE(memory.isNew("x", "modest", now));
}

} // namespace
} // namespace pelorin
