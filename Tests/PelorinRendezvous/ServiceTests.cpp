#include "Tests/Lab/Memory.h"
#include "Tests/PelorinRendezvous/ServicePeers.h"

#include "PelorinNet/Stun/HmacSHA1.h"

using namespace pelorin;
using namespace std::chrono_literals;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

TEST(RendezvousService, bringsAPhoneAndItsHostTogetherAndLeavesNoneBehind)
{
    ServicePeers peers({}, {"turn:relay.example.org:3478", "stun:stun.example.org"});
    ServicePeers::Host host;
    peers.enter(host);
    const auto phone = peers.phoneFor(host.id);
    peers.say(phone, {{"type", "connect"}, {"request", {{"clientKeyHash", "aGFzaA=="}, {"列", {1, 2.5}}}}});
    const json connect = peers.readOne(host.connection);
    EXPECT_EQ(connect["type"], "connect");
    EXPECT_EQ(connect["request"], (json{{"clientKeyHash", "aGFzaA=="}, {"列", {1, 2.5}}}));

    // As the relay computes it.
    const std::string user = connect["turn"]["username"];
    const auto mac = hmacSHA1(ServicePeers::secret().view(), {ByteView(Bytes(user.begin(), user.end()))});
    EXPECT_EQ(connect["turn"]["credential"], base64EncodedString(mac));
    const auto validUntil = std::chrono::seconds(std::stoll(user));
    EXPECT_EQ(validUntil,
        std::chrono::floor<std::chrono::seconds>(peers.queue->wallNow().time_since_epoch()) + 12h);
    EXPECT_THAT(connect["turn"]["uris"], ElementsAre("turn:relay.example.org:3478", "stun:stun.example.org"));

    const std::string session = connect["session"];
    peers.say(host.connection, {{"type", "accept"}, {"session", session}, {"response", {{"ufrag", "u"}}}});
    EXPECT_THAT(peers.read(phone), ElementsAre(R"({"type":"accept","response":{"ufrag":"u"}})"));
    peers.say(phone, {{"type", "signal"}, {"data", {{"n", 1}}}});
    EXPECT_EQ(peers.readOne(host.connection),
        (json{{"type", "signal"}, {"session", session}, {"data", {{"n", 1}}}}));
    peers.say(host.connection, {{"type", "signal"}, {"session", session}, {"data", {{"n", 2}}}});
    EXPECT_THAT(peers.read(phone), ElementsAre(R"({"type":"signal","data":{"n":2}})"));

    peers.say(host.connection, {{"type", "closed"}, {"session", session}});
    EXPECT_THAT(peers.read(phone), ElementsAre("close 1000"));
    // What crosses with the end is passed over.
    peers.say(host.connection, {{"type", "signal"}, {"session", session}, {"data", json::object()}});
    EXPECT_THAT(peers.read(host.connection), IsEmpty());
}

TEST(RendezvousService, tellsEachEndWhenTheOtherLeaves)
{
    ServicePeers peers;
    ServicePeers::Host host;
    peers.enter(host);
    const auto first = peers.phoneFor(host.id), second = peers.phoneFor(host.id),
               idle = peers.phoneFor(host.id);
    const std::string session = peers.ask(first, host);
    peers.ask(second, host);
    peers.hangUp(first);
    EXPECT_EQ(peers.readOne(host.connection), (json{{"type", "closed"}, {"session", session}}));
    peers.hangUp(host.connection);
    EXPECT_THAT(peers.read(second), ElementsAre(R"({"type":"closed"})", "close 1000"));
    peers.say(idle, {{"type", "connect"}, {"request", json::object()}}); // it was there a moment ago
    EXPECT_THAT(peers.read(idle), ElementsAre(R"({"type":"closed"})", "close 1000"));

    const auto late = peers.connect();
    peers.type(late, ServicePeers::head("/v1/connect/" + host.id, ServicePeers::upgradeFields));
    EXPECT_THAT(peers.read(late), ElementsAre("101", R"({"type":"hello","online":false})", "close 1000"));
}

TEST(RendezvousService, registersNobodyWithoutTheKey)
{
    ServicePeers::Host host, other;
    const auto flipped = [](std::string base64) {
        base64[20] = base64[20] == 'A' ? 'B' : 'A';
        return base64;
    };
    struct Case {
        const char* what;
        std::function<void(json&, const std::string& nonce)> spoil;
    };
    const Case cases[] = {
        {"another's signature",
            [&](json& m, auto nonce) {
                m["signature"] = ServicePeers::registration(other, nonce)["signature"];
            }},
        {"another's key",
            [&](json& m, auto) { m["publicKey"] = base64EncodedString(other.key.publicKey()); }},
        {"an old nonce",
            [&](json& m, auto) { m = ServicePeers::registration(host, "bm9uY2Ugb2YgeWVzdGVy"); }},
        {"a changed signature", [&](json& m, auto) { m["signature"] = flipped(m["signature"]); }},
        {"a changed key", [&](json& m, auto) { m["publicKey"] = flipped(m["publicKey"]); }},
        {"a signature of zeros", [](json& m, auto) { m["signature"] = base64EncodedString(Bytes(64)); }},
        {"a signature in DER",
            [&](json& m, auto nonce) {
                const std::string text = "pelorin-host-v1|" + host.id + "|" + nonce;
                m["signature"] = base64EncodedString(host.key.sign(Bytes(text.begin(), text.end())).value());
            }},
        {"no key", [](json& m, auto) { m.erase("publicKey"); }},
        {"a number for a key", [](json& m, auto) { m["publicKey"] = 4; }},
        {"an accept",
            [](json& m, auto) { m = {{"type", "accept"}, {"session", "a"}, {"response", json::object()}}; }},
        {"a large one", [](json& m, auto) { m["name"] = std::string(5000, 'n'); }},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.what);
        ServicePeers peers;
        const auto id = peers.connect();
        const std::string nonce = peers.challenge(id);
        json message = ServicePeers::registration(host, nonce);
        each.spoil(message, nonce);
        peers.say(id, message);
        const auto said = peers.read(id);
        ASSERT_EQ(said.size(), 2);
        EXPECT_EQ(json::parse(said[0])["type"], "error");
        EXPECT_THAT(said[1], testing::AnyOf("close 1008", "close 1009"));
        for (const auto& hostID : {host.id, other.id}) {
            const auto asking = peers.connect("192.0.2.9");
            peers.type(asking, ServicePeers::head("/v1/status/" + hostID));
            EXPECT_THAT(peers.read(asking), ElementsAre(R"(200 {"online":false})"));
        }
    }
}

TEST(RendezvousService, letsANewerRegistrationReplaceTheOlder)
{
    ServicePeers peers;
    ServicePeers::Host host;
    peers.enter(host);
    const auto older = host.connection;
    const auto phone = peers.phoneFor(host.id);
    peers.ask(phone, host);
    peers.enter(host, "198.51.100.2");
    EXPECT_THAT(peers.read(older), ElementsAre("close 1000"));
    EXPECT_THAT(peers.read(phone), ElementsAre(R"({"type":"closed"})", "close 1000"));
    peers.hangUp(older); // takes nobody along
    const auto next = peers.phoneFor(host.id);
    EXPECT_FALSE(peers.ask(next, host).empty());
}

TEST(RendezvousService, breaksWithWhoBreaksTheRules)
{
    const std::string utf8 = ServicePeers::frame("{\"type\":\"\xFF\"}");
    struct Case {
        const char* what;
        std::string bytes;
        const char* end;
    };
    const std::string deep
        = R"({"type":"connect","request":)" + std::string(40, '[') + std::string(40, ']') + "}";
    const Case cases[] = {
        {"binary", ServicePeers::frame("{}", 0x82), "close 1003"},
        {"not UTF-8", utf8, "close 1007"},
        {"too large", ServicePeers::frame(std::string(65'537, ' ')), "close 1009"},
        {"too large, in parts",
            ServicePeers::frame(std::string(40'000, ' '), 0x01)
                + ServicePeers::frame(std::string(30'000, ' '), 0x80),
            "close 1009"},
        {"a lying length", std::string("\x81\xFF\x7F\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 10), "close 1009"},
        {"not masked", std::string("\x81\x02{}"), "close 1002"},
        {"reserved bits", ServicePeers::frame("{}", 0xC1), "close 1002"},
        {"an unknown opcode", ServicePeers::frame("{}", 0x83), "close 1002"},
        {"a continuation of nothing", ServicePeers::frame("{}", 0x80), "close 1002"},
        {"a ping in parts", ServicePeers::frame("{}", 0x09), "close 1002"},
        {"a long ping", ServicePeers::frame(std::string(126, 'p'), 0x89), "close 1002"},
        {"no JSON", ServicePeers::frame("hello"), "close 1008"},
        {"no object", ServicePeers::frame("[]"), "close 1008"},
        {"too deep", ServicePeers::frame(deep), "close 1008"},
        {"no request", ServicePeers::frame(R"({"type":"connect","request":[]})"), "close 1008"},
        {"a signal before its time", ServicePeers::frame(R"({"type":"signal","data":{}})"), "close 1008"},
        {"two requests",
            ServicePeers::frame(R"({"type":"connect","request":{}})")
                + ServicePeers::frame(R"({"type":"connect","request":{}})"),
            "close 1008"},
        {"a large request",
            ServicePeers::frame(R"({"type":"connect","request":{"a":")" + std::string(62'000, 'a') + "\"}}"),
            "close 1009"},
    };
    for (const Case& each : cases) {
        for (const bool isCut : {false, true}) { // into single bytes
            SCOPED_TRACE(each.what);
            ServicePeers peers;
            ServicePeers::Host host;
            peers.enter(host);
            const auto phone = peers.phoneFor(host.id);
            if (isCut)
                for (const char byte : each.bytes) peers.type(phone, {&byte, 1});
            else
                peers.type(phone, each.bytes);
            EXPECT_THAT(peers.read(phone), ElementsAre(each.end));
            peers.type(phone, ServicePeers::frame("ping")); // nobody listens
            EXPECT_THAT(peers.read(phone), IsEmpty());
            peers.hangUp(phone);
            EXPECT_FALSE(peers.isOver(host.connection));
        }
    }
}

TEST(RendezvousService, answersPingsOfBothKindsAndTakesMessagesInParts)
{
    ServicePeers peers;
    ServicePeers::Host host;
    peers.enter(host);
    peers.type(host.connection,
        ServicePeers::frame("pi", 0x01) + ServicePeers::frame("hm", 0x89) + ServicePeers::frame("ng", 0x80)
            + ServicePeers::frame("pong"));
    EXPECT_THAT(peers.read(host.connection), ElementsAre("pong frame hm", "pong"));
    peers.say(host.connection, {{"type", "of tomorrow"}});
    EXPECT_FALSE(peers.isOver(host.connection));
    peers.type(host.connection, ServicePeers::frame(std::string("\x03\xE8", 2), 0x88));
    EXPECT_THAT(peers.read(host.connection), ElementsAre("close 1000"));
}

TEST(RendezvousService, answersHTTPAndNothingElse)
{
    const std::string id(26, 'a');
    struct Case {
        std::string request;
        const char* answer;
    };
    const Case cases[] = {
        {ServicePeers::head("/v1/status/" + id), R"(200 {"online":false})"},
        {ServicePeers::head("/v1/status/" + id + "?x=1"), R"(200 {"online":false})"},
        {ServicePeers::head("/v1/status/" + std::string(25, 'a')), "404"},
        {ServicePeers::head("/v1/status/" + std::string(26, '1')), "404"},
        {ServicePeers::head("/"), "404"}, // figures are not for all
        {ServicePeers::head("/metrics"), "404"}, {ServicePeers::head("/v1/host"), "426"},
        {ServicePeers::head("/v1/connect/" + id, "Upgrade: websocket\r\nConnection: upgrade\r\n"), "426"},
        {"POST /v1/host HTTP/1.1\r\n\r\n", "400"}, {"GET /v1/host HTTP/1.0\r\n\r\n", "400"},
        {"GET v1/host HTTP/1.1\r\n\r\n", "400"}, {"GET  HTTP/1.1\r\n\r\n", "400"},
        {ServicePeers::head("/", "Broken\r\n"), "400"}, {ServicePeers::head("/", "Two words: x\r\n"), "400"},
        {ServicePeers::head("/", "Content-Length: 5\r\n"), "400"},
        {ServicePeers::head("/", "Transfer-Encoding: chunked\r\n"), "400"}, {"\r\n\r\n", "400"},
        {"GET / HTTP/1.1\r\n" + std::string(9000, 'a'), "431"},
        {"\x16\x03\x01\x02\x01\xfc\x03\x03\r\n\r\n", "400"}, // TLS where there is none
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.request.substr(0, 60));
        for (const bool isCut : {false, true}) {
            ServicePeers peers;
            const auto visitor = peers.connect();
            if (isCut)
                for (const char byte : each.request) peers.type(visitor, {&byte, 1});
            else
                peers.type(visitor, each.request);
            const auto all = peers.read(visitor);
            ASSERT_EQ(all.size(), 1);
            EXPECT_TRUE(all[0].starts_with(each.answer)) << all[0];
            EXPECT_TRUE(peers.isOver(visitor));
            peers.type(visitor, ServicePeers::head("/"));
            EXPECT_THAT(peers.read(visitor), IsEmpty());
        }
    }
}

TEST(RendezvousService, showsFiguresThatNameNobodyWhenToldTo)
{
    Service::Options options;
    options.showsStatus = true;
    ServicePeers peers(options);
    ServicePeers::Host host;
    peers.enter(host);
    peers.ask(peers.phoneFor(host.id), host);
    for (const char* page : {"/", "/metrics"}) {
        const auto id = peers.connect("192.0.2.77");
        peers.type(id, ServicePeers::head(page));
        const auto all = peers.read(id);
        ASSERT_EQ(all.size(), 1);
        EXPECT_THAT(all[0], testing::MatchesRegex("200 (.|\n)*hosts +1\n(.|\n)*"));
        EXPECT_THAT(all[0], testing::Not(HasSubstr(host.id.substr(0, 6))));
        EXPECT_THAT(all[0], testing::Not(HasSubstr("192.0.2")));
    }
}

TEST(RendezvousService, waitsForNobodyLongerThanItSays)
{
    ServicePeers peers;
    ServicePeers::Host host, busy;
    peers.enter(host);
    peers.enter(busy);
    const auto stranger = peers.connect(), slowly = peers.connect(), unproven = peers.connect(),
               undecided = peers.phoneFor(host.id), asking = peers.phoneFor(busy.id);
    peers.challenge(unproven);
    peers.type(slowly, "GET / HT");
    const std::string session = peers.ask(asking, busy);
    peers.queues.advance(4s);
    for (const auto id : {stranger, slowly, unproven, undecided}) EXPECT_FALSE(peers.isOver(id));
    peers.type(slowly, "TP/1.1\r\n"); // drop by drop
    peers.queues.advance(2s);
    EXPECT_THAT(peers.read(stranger), ElementsAre(HasSubstr("408")));
    EXPECT_THAT(peers.read(slowly), ElementsAre(HasSubstr("408")));
    EXPECT_THAT(peers.read(unproven), ElementsAre("close 1008"));
    EXPECT_THAT(peers.read(undecided), ElementsAre("close 1008"));

    peers.queues.advance(20s);
    peers.type(busy.connection, ServicePeers::frame("ping")); // lives, and does not answer
    EXPECT_THAT(peers.read(asking), IsEmpty());
    peers.queues.advance(5s);
    EXPECT_THAT(
        peers.read(asking), ElementsAre(R"({"type":"reject","reason":"电脑没有回应"})", "close 1000"));
    EXPECT_THAT(peers.read(busy.connection), ElementsAre("pong", HasSubstr("closed")));
    peers.say(busy.connection, {{"type", "accept"}, {"session", session}, {"response", json::object()}});
    EXPECT_FALSE(peers.isOver(busy.connection));

    peers.queues.advance(31s); // a minute of the first host's silence
    EXPECT_THAT(peers.read(host.connection), ElementsAre("close 1008"));
    EXPECT_FALSE(peers.isOver(busy.connection));

    peers.queues.advance(28s); // and of the other's
    EXPECT_FALSE(peers.isOver(busy.connection));
    peers.queues.advance(2s);
    EXPECT_THAT(peers.read(busy.connection), ElementsAre("close 1008"));
}

// One host and its phone that stay for a day, and another phone from somewhere else every minute.
TEST(RendezvousService, holdsOnToNothingThroughADay)
{
    ServicePeers peers;
    ServicePeers::Host host;
    peers.enter(host);
    const auto settle = [&](ConnectionID phone) {
        const auto session = peers.ask(phone, host);
        peers.say(host.connection, {{"type", "accept"}, {"session", session}, {"response", json::object()}});
        EXPECT_THAT(peers.read(phone), ElementsAre(HasSubstr("accept")));
    };
    const auto staying = peers.phoneFor(host.id);
    settle(staying);
    std::ptrdiff_t afterAnHour = 0;
    for (int minute = 0; minute < 24 * 60; ++minute) {
        const auto passing
            = peers.phoneFor(host.id, fmt::format("10.{}.{}.1", minute / 250, minute % 250).c_str());
        settle(passing);
        peers.hangUp(passing);
        ASSERT_THAT(peers.read(host.connection), ElementsAre(HasSubstr("closed")));
        for (int i = 0; i < 4; ++i) {
            peers.queues.advance(15s);
            for (const auto id : {host.connection, staying}) {
                peers.type(id, ServicePeers::frame("ping"));
                ASSERT_THAT(peers.read(id), ElementsAre("pong")) << minute;
            }
        }
        if (minute == 60) afterAnHour = lab::heapInUse();
    }
    EXPECT_LE(lab::heapInUse() - afterAnHour, 8 * 1024);
    EXPECT_FALSE(peers.isOver(staying));
}

TEST(RendezvousService, bearsOnlySoMuchOfOneSource)
{
    Service::Options options;
    options.limits.connectionsPerSource = 4;
    options.limits.requestsPerMinute = 6;
    options.limits.registrationsPerMinute = 3;
    ServicePeers peers(options);
    ServicePeers::Host host;
    peers.enter(host, "198.51.100.1");

    // Open at once; all of an IPv6 network together.
    std::vector<ConnectionID> held;
    for (const char* address : {"2001:db8::1", "2001:db8::2", "2001:db8:0:0:ffff::", "2001:db8::4"})
        held.push_back(peers.connect(address));
    EXPECT_THAT(held, testing::Not(testing::Contains(0)));
    EXPECT_EQ(peers.connect("2001:db8::5"), 0);
    EXPECT_NE(peers.connect("2001:db8:0:1::1"), 0);
    peers.hangUp(held[0]);
    EXPECT_NE(peers.connect("2001:db8::5"), 0);

    // Requests.
    const auto status = [&](const char* address) {
        const auto id = peers.connect(address);
        if (id == 0) return std::string("not let in");
        peers.type(id, ServicePeers::head("/v1/status/" + host.id));
        const std::string said = peers.read(id).at(0);
        peers.hangUp(id);
        return said.substr(0, 3);
    };
    for (int i = 0; i < 6; ++i) EXPECT_EQ(status("203.0.113.1"), "200");
    EXPECT_EQ(status("203.0.113.1"), "429");
    EXPECT_EQ(status("203.0.113.2"), "200");
    peers.queues.advance(10s);
    EXPECT_EQ(status("203.0.113.1"), "200");

    // Registrations, good ones too.
    std::vector<std::string> ends;
    for (int i = 0; i < 4; ++i) {
        ServicePeers::Host next;
        next.connection = peers.connect("203.0.113.3");
        peers.say(next.connection, ServicePeers::registration(next, peers.challenge(next.connection)));
        ends.push_back(peers.read(next.connection).back());
        peers.hangUp(next.connection);
    }
    EXPECT_THAT(ends,
        ElementsAre(HasSubstr("registered"), HasSubstr("registered"), HasSubstr("registered"), "close 1013"));

    // Connections that come and go.
    int letIn = 0;
    for (int i = 0; i < 100; ++i)
        if (const auto id = peers.connect("203.0.113.4")) {
            ++letIn;
            peers.hangUp(id);
        }
    EXPECT_EQ(letIn, options.limits.connectsPerMinute());
}

TEST(RendezvousService, bearsOnlySoManyRequestsForOneHost)
{
    ServicePeers peers;
    ServicePeers::Host host;
    peers.enter(host);
    std::vector<ConnectionID> waiting;
    for (int i = 0; i < 8; ++i)
        waiting.push_back(peers.phoneFor(host.id, fmt::format("192.0.2.{}", i).c_str()));
    for (const auto phone : waiting) peers.ask(phone, host);
    const auto ninth = peers.phoneFor(host.id, "192.0.2.100");
    peers.say(ninth, {{"type", "connect"}, {"request", json::object()}});
    EXPECT_THAT(peers.read(ninth), ElementsAre(HasSubstr("电脑正忙，请稍后再试"), "close 1000"));
    EXPECT_THAT(peers.read(host.connection), IsEmpty());
    peers.hangUp(waiting[0]);
    peers.read(host.connection);
    const auto tenth = peers.phoneFor(host.id, "192.0.2.101");
    EXPECT_FALSE(peers.ask(tenth, host).empty());
}

TEST(RendezvousService, cutsNobodyOffForWhatOthersSend)
{
    ServicePeers peers;
    ServicePeers::Host host;
    peers.enter(host);
    const auto phone = peers.phoneFor(host.id);
    const std::string session = peers.ask(phone, host);
    peers.say(host.connection, {{"type", "accept"}, {"session", session}, {"response", json::object()}});
    peers.read(phone);
    // The host reads nothing: the phone is stopped, and the host stays.
    for (int i = 0; i < 10 && !peers.isOver(phone); ++i)
        peers.say(phone, {{"type", "signal"}, {"data", {{"a", std::string(50'000, 'a')}}}});
    EXPECT_THAT(peers.read(phone), ElementsAre("close 1013"));
    EXPECT_LE(peers.unsentBytes(host.connection), Limits::unsent);
    EXPECT_FALSE(peers.isOver(host.connection));

    // And who talks too much goes by itself.
    const auto chatty = peers.phoneFor(host.id);
    for (int i = 0; i < 101; ++i) peers.type(chatty, ServicePeers::frame("", 0x8A));
    EXPECT_THAT(peers.read(chatty), ElementsAre("close 1008"));
}

TEST(RendezvousService, takesAProxysWordForWhereItsClientsAre)
{
    Service::Options options;
    options.proxies = {*IPAddress::parse("10.0.0.1")};
    options.limits.connectionsPerSource = 2;
    ServicePeers peers(options);
    const auto through = [&](const std::string& field) {
        const auto id = peers.connect("10.0.0.1");
        peers.type(id, ServicePeers::head("/v1/host", std::string(ServicePeers::upgradeFields) + field));
        return peers.read(id).at(0).substr(0, 3);
    };
    EXPECT_EQ(through("X-Forwarded-For: 192.0.2.1\r\n"), "101");
    EXPECT_EQ(through("X-Forwarded-For: 198.51.100.7, 192.0.2.1\r\n"), "101"); // the client's own claim first
    EXPECT_EQ(through("X-Forwarded-For: 192.0.2.1\r\n"), "429");
    EXPECT_EQ(through("X-Forwarded-For: 192.0.2.2\r\n"), "101");
    EXPECT_EQ(through(""), "429");
    EXPECT_EQ(through("X-Forwarded-For: unknown\r\n"), "429");
    // From elsewhere it is just a field.
    for (int i = 0; i < 3; ++i) {
        const auto id = peers.connect("192.0.2.50");
        EXPECT_EQ(id == 0, i == 2);
        if (id)
            peers.type(id, ServicePeers::head("/v1/host", fmt::format("X-Forwarded-For: 192.0.3.{}\r\n", i)));
    }
}

TEST(RendezvousService, tellsAllThatItEnds)
{
    ServicePeers peers;
    ServicePeers::Host host;
    peers.enter(host);
    const auto phone = peers.phoneFor(host.id), visitor = peers.connect();
    peers.service.stop();
    EXPECT_THAT(peers.read(host.connection), ElementsAre("close 1001"));
    EXPECT_THAT(peers.read(phone), ElementsAre("close 1001"));
    EXPECT_THAT(peers.read(visitor), ElementsAre(HasSubstr("503")));
    for (const auto id : {host.connection, phone, visitor}) peers.hangUp(id);
}

TEST(RateLimiter, forgetsWhoHasPaidAndNobodyElse)
{
    RateLimiter<int> limiter(Rate::perMinute(2));
    SteadyTime now{};
    for (int i = 0; i < int(limiter.maxKnown); ++i) EXPECT_TRUE(limiter.take(i, now));
    EXPECT_FALSE(limiter.take(-1, now)); // a flood of sources costs newcomers, not memory
    EXPECT_TRUE(limiter.take(0, now));
    EXPECT_FALSE(limiter.take(0, now));
    now += 31s;
    EXPECT_TRUE(limiter.take(-1, now));
    EXPECT_EQ(limiter.knownCount(), 2); // the newcomer, and who still owes
    EXPECT_TRUE(limiter.take(0, now));
    EXPECT_FALSE(limiter.take(0, now));
}

} // namespace
