#include "PelorinNet/Log.h"
#include "Tests/PelorinRendezvous/ScriptedBroker.h"
#include "Tests/PelorinRendezvous/ServicePeers.h"

using namespace pelorin;
using namespace std::chrono_literals;
using nlohmann::json;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

struct Node {
    Node(ScriptedBroker& broker, const std::shared_ptr<ManualQueues>& time, Service::Options options)
        : port(broker),
          peers(time, &port, std::move(options), {"turn:relay.example.org:3478"})
    {
        port.queue = peers.queue;
        port.reach(true);
        time->runReady();
    }

    ScriptedBroker::Port port;
    ServicePeers peers;
};

class RendezvousCluster : public testing::Test {
protected:
    RendezvousCluster()
    {
        Log::observe([this](LogLevel level, std::string_view category, std::string_view text) {
            if (category == "cluster" && level == LogLevel::warning) warnings.emplace_back(text);
        });
        for (int i = 0; i < 3; ++i) start();
    }
    ~RendezvousCluster() override { Log::observe({}); }

    Node& start(const Limits& limits = {})
    {
        Service::Options options;
        options.limits = limits;
        options.showsStatus = true;
        return *nodes.emplace_back(std::make_unique<Node>(broker, time, options));
    }
    ServicePeers& at(std::size_t node) { return nodes.at(node)->peers; }
    void runReady() { time->runReady(); }
    void reach(bool nowInReach)
    {
        for (const auto& node : nodes) node->port.reach(nowInReach);
        runReady();
    }

    ServicePeers::Host hostAt(std::size_t node, SigningKey key = SigningKey::generate().value())
    {
        ServicePeers::Host host{.key = std::move(key)};
        at(node).enter(host);
        runReady();
        return host;
    }
    std::vector<std::string> read(std::size_t node, ConnectionID connection)
    {
        runReady();
        return at(node).read(connection);
    }
    ConnectionID knock(std::size_t node, const std::string& hostID)
    {
        const auto phone = at(node).connect();
        at(node).type(phone, ServicePeers::head("/v1/connect/" + hostID, ServicePeers::upgradeFields));
        return phone;
    }
    ConnectionID phoneAt(std::size_t node, const std::string& hostID)
    {
        const auto phone = knock(node, hostID);
        EXPECT_THAT(read(node, phone), ElementsAre("101", HasSubstr(R"("online":true)")));
        return phone;
    }
    // The session, as the host hears of it.
    std::string ask(
        std::size_t node, ConnectionID phone, std::size_t hostNode, const ServicePeers::Host& host)
    {
        at(node).say(phone, {{"type", "connect"}, {"request", {{"nonce", 7}}}});
        const auto heard = read(hostNode, host.connection);
        EXPECT_THAT(heard, ElementsAre(HasSubstr(R"("request":{"nonce":7})")));
        return heard.empty() ? "" : json::parse(heard.front())["session"].get<std::string>();
    }
    std::string accepted(std::size_t node, ConnectionID phone, std::size_t hostNode, ServicePeers::Host& host)
    {
        const std::string session = ask(node, phone, hostNode, host);
        at(hostNode).say(
            host.connection, {{"type", "accept"}, {"session", session}, {"response", json::object()}});
        EXPECT_THAT(read(node, phone), ElementsAre(HasSubstr("accept")));
        return session;
    }
    std::string pageOf(std::size_t node, const std::string& target)
    {
        const auto visitor = at(node).connect("203.0.113.9");
        at(node).type(visitor, ServicePeers::head(target));
        const auto all = read(node, visitor);
        EXPECT_THAT(all, SizeIs(1));
        at(node).hangUp(visitor);
        return all.empty() ? "" : all.front();
    }
    std::string status(std::size_t node, const std::string& hostID)
    {
        return pageOf(node, "/v1/status/" + hostID);
    }

    const std::shared_ptr<ManualQueues> time = std::make_shared<ManualQueues>();
    ScriptedBroker broker;
    std::vector<std::unique_ptr<Node>> nodes;
    std::vector<std::string> warnings;
};

constexpr auto offline = R"({"type":"hello","online":false})";

TEST_F(RendezvousCluster, bringsAPhoneToItsHostAtAnotherNodeInOrderBothWays)
{
    auto host = hostAt(0);
    const auto phone = knock(1, host.id);
    // One that does not wait for the hello.
    at(1).say(phone, {{"type", "connect"}, {"request", {{"nonce", 7}}}});
    const auto greeted = read(1, phone);
    ASSERT_THAT(greeted, ElementsAre("101", AllOf(HasSubstr(R"("online":true)"), HasSubstr("turn:relay"))));
    const json connect = at(0).readOne(host.connection);
    EXPECT_TRUE(connect["turn"].is_object());
    const std::string session = connect["session"];
    at(0).say(host.connection, {{"type", "accept"}, {"session", session}, {"response", {{"ufrag", "列\n"}}}});
    std::vector<std::string> toPhone{json{{"type", "accept"}, {"response", {{"ufrag", "列\n"}}}}.dump()};
    std::vector<std::string> toHost;
    runReady();
    for (int i = 0; i < 50; ++i) {
        at(1).say(phone, {{"type", "signal"}, {"data", {{"n", i}}}});
        toHost.push_back(json{{"type", "signal"}, {"session", session}, {"data", {{"n", i}}}}.dump());
        at(0).say(host.connection, {{"type", "signal"}, {"session", session}, {"data", {{"n", i}}}});
        toPhone.push_back(json{{"type", "signal"}, {"data", {{"n", i}}}}.dump());
    }
    const auto parsed = [](const std::vector<std::string>& texts) {
        std::vector<json> values;
        for (const auto& text : texts) values.push_back(json::parse(text));
        return values;
    };
    EXPECT_EQ(parsed(read(1, phone)), parsed(toPhone));
    EXPECT_EQ(parsed(read(0, host.connection)), parsed(toHost));
    at(0).say(host.connection, {{"type", "closed"}, {"session", session}});
    EXPECT_THAT(read(1, phone), ElementsAre("close 1000"));
    EXPECT_THAT(pageOf(0, "/"), HasSubstr("sessions   0"));
}

TEST_F(RendezvousCluster, tellsEachEndWhenTheOtherLeaves)
{
    auto host = hostAt(0);
    const auto leaving = phoneAt(1, host.id), staying = phoneAt(2, host.id), rejected = phoneAt(2, host.id);
    const std::string session = accepted(1, leaving, 0, host);
    at(1).hangUp(leaving);
    runReady();
    EXPECT_EQ(at(0).readOne(host.connection), (json{{"type", "closed"}, {"session", session}}));
    const std::string refused = ask(2, rejected, 0, host);
    at(0).say(host.connection, {{"type", "reject"}, {"session", refused}, {"reason", "忙"}});
    EXPECT_THAT(read(2, rejected), ElementsAre(HasSubstr("忙"), "close 1000"));
    accepted(2, staying, 0, host);
    at(0).hangUp(host.connection);
    EXPECT_THAT(read(2, staying), ElementsAre(R"({"type":"closed"})", "close 1000"));
    EXPECT_THAT(pageOf(0, "/"), HasSubstr("sessions   0"));
}

TEST_F(RendezvousCluster, knowsAtOnceWhoIsNowhere)
{
    auto host = hostAt(0);
    EXPECT_EQ(status(0, host.id), R"(200 {"online":true})");
    EXPECT_EQ(status(2, host.id), R"(200 {"online":true})");
    at(0).hangUp(host.connection);
    EXPECT_EQ(status(2, host.id), R"(200 {"online":false})");
    EXPECT_THAT(read(1, knock(1, host.id)), ElementsAre("101", offline, "close 1000"));
}

TEST_F(RendezvousCluster, servesItsOwnHostsWithoutTheBrokerAndSaysSoOnce)
{
    auto host = hostAt(0);
    const auto phone = phoneAt(1, host.id), waiting = knock(2, host.id);
    const std::string session = accepted(1, phone, 0, host);
    at(1).say(phone, {{"type", "signal"}, {"data", {{"n", 1}}}}); // lost on the way
    reach(false);
    reach(false);
    EXPECT_THAT(warnings, SizeIs(3)); // one a node
    EXPECT_THAT(read(1, phone), ElementsAre(R"({"type":"closed"})", "close 1013"));
    EXPECT_THAT(read(2, waiting), Contains(HasSubstr("close")));
    EXPECT_THAT(read(0, host.connection), Contains(HasSubstr("closed")));
    EXPECT_EQ(status(1, host.id), R"(200 {"online":false})");
    EXPECT_THAT(read(1, knock(1, host.id)), ElementsAre("101", offline, "close 1000"));
    const auto local = phoneAt(0, host.id);
    accepted(0, local, 0, host);

    const auto late = hostAt(2); // while it is away
    reach(true);
    EXPECT_EQ(status(1, host.id), R"(200 {"online":true})");
    EXPECT_EQ(status(1, late.id), R"(200 {"online":true})");
    const auto again = phoneAt(1, host.id);
    accepted(1, again, 0, host);
    EXPECT_THAT(read(0, local), IsEmpty()); // went on all the time
}

TEST_F(RendezvousCluster, endsWhatANodeThatLostTheBrokerAloneHadWithOthers)
{
    auto host = hostAt(0);
    const auto phone = phoneAt(1, host.id);
    const std::string session = accepted(1, phone, 0, host);
    nodes[1]->port.reach(false);
    nodes[1]->port.reach(true);
    EXPECT_THAT(read(1, phone), ElementsAre(R"({"type":"closed"})", "close 1013"));
    at(0).say(host.connection, {{"type", "signal"}, {"session", session}, {"data", json::object()}});
    EXPECT_THAT(read(0, host.connection), ElementsAre(HasSubstr("closed")));
}

TEST_F(RendezvousCluster, missesANodeThatDiedWithinSeconds)
{
    auto hostOfDead = hostAt(2), host = hostAt(0);
    const auto phone = phoneAt(1, hostOfDead.id), phoneOfDead = phoneAt(2, host.id);
    accepted(1, phone, 2, hostOfDead);
    const std::string session = accepted(2, phoneOfDead, 0, host);
    nodes[2].reset();
    nodes.pop_back();
    EXPECT_EQ(status(1, hostOfDead.id), R"(200 {"online":false})");
    time->advance(11s);
    EXPECT_THAT(read(1, phone), ElementsAre(R"({"type":"closed"})", "close 1013"));
    EXPECT_EQ(at(0).readOne(host.connection), (json{{"type", "closed"}, {"session", session}}));
}

TEST_F(RendezvousCluster, sendsAnEndAwayOnceTheOtherNodeAnswersNoMore)
{
    const auto host = hostAt(0);
    nodes[0]->port.onMessage = {}; // it hears, and does nothing
    const auto phone = knock(1, host.id);
    EXPECT_THAT(read(1, phone), ElementsAre("101"));
    time->advance(3s);
    EXPECT_THAT(at(1).read(phone), ElementsAre(offline, "close 1000"));
}

TEST_F(RendezvousCluster, letsTheNewerRegistrationReplaceTheOlderElsewhere)
{
    const auto older = hostAt(0);
    const auto phone = phoneAt(1, older.id);
    ask(1, phone, 0, older);
    auto newer = hostAt(2, older.key);
    EXPECT_THAT(read(0, older.connection), ElementsAre("close 1000"));
    EXPECT_THAT(read(1, phone), ElementsAre(R"({"type":"closed"})", "close 1000"));
    accepted(1, phoneAt(1, newer.id), 2, newer);
    EXPECT_THAT(nodes[0]->port.subjects, SizeIs(1));
}

TEST_F(RendezvousCluster, decidesByAgeWhoMovedWhileTheBrokerWasAway)
{
    const auto older = hostAt(0), other = hostAt(1);
    reach(false);
    time->advance(5s);
    const auto newer = hostAt(2, older.key);
    time->advance(5s);
    // Whichever is heard first.
    for (const std::size_t node : {0U, 1U, 2U}) {
        nodes[node]->port.reach(true);
        time->advance(1s);
    }
    EXPECT_THAT(read(0, older.connection), ElementsAre("close 1000"));
    EXPECT_THAT(read(2, newer.connection), IsEmpty());
    EXPECT_THAT(read(1, other.connection), IsEmpty());
}

TEST_F(RendezvousCluster, keepsTheYoungerWhereTheOlderComesBackLast)
{
    const auto older = hostAt(0);
    nodes[0]->port.reach(false);
    runReady();
    time->advance(5s);
    const auto newer = hostAt(2, older.key); // which the older one does not hear
    nodes[0]->port.reach(true);
    time->advance(1s);
    EXPECT_THAT(read(0, older.connection), ElementsAre("close 1000"));
    EXPECT_THAT(read(2, newer.connection), IsEmpty());
}

TEST_F(RendezvousCluster, holdsTheLimitsOfAHostAcrossNodes)
{
    Limits limits;
    limits.requestsPerMinute = 3;
    start(limits);
    auto host = hostAt(3);
    for (int i = 0; i < 3; ++i) ask(i, phoneAt(i, host.id), 3, host);
    const auto phone = phoneAt(0, host.id);
    at(0).say(phone, {{"type", "connect"}, {"request", json::object()}});
    EXPECT_THAT(read(0, phone), ElementsAre(HasSubstr(std::string(Switchboard::busy)), "close 1000"));
    EXPECT_THAT(read(3, host.connection), IsEmpty());
}

TEST_F(RendezvousCluster, stopsAFloodBeforeItReachesTheBroker)
{
    const auto host = hostAt(0);
    const auto phone = phoneAt(1, host.id);
    const auto before = broker.carried.size();
    for (int i = 0; i < 1000 && !at(1).isOver(phone); ++i) at(1).type(phone, ServicePeers::frame("pong"));
    EXPECT_THAT(read(1, phone), ElementsAre("close 1008"));
    EXPECT_LT(broker.carried.size() - before, 150);

    const auto eager = knock(1, host.id);
    for (int i = 0; i < 2; ++i) at(1).type(eager, ServicePeers::frame(std::string(40'000, ' ')));
    EXPECT_THAT(read(1, eager), Contains("close 1008"));
    runReady();
    EXPECT_THAT(pageOf(0, "/"), HasSubstr("sessions   0"));
}

TEST_F(RendezvousCluster, endsASessionThatTheBrokerHasNoRoomFor)
{
    auto host = hostAt(0);
    const auto first = phoneAt(1, host.id), second = phoneAt(2, host.id);
    const std::string session = accepted(1, first, 0, host);
    accepted(2, second, 0, host);
    nodes[0]->port.isFull = true;
    at(0).say(host.connection, {{"type", "signal"}, {"session", session}, {"data", json::object()}});
    EXPECT_THAT(read(0, host.connection), ElementsAre(HasSubstr(session)));
    nodes[0]->port.isFull = false;
    at(1).say(first, {{"type", "signal"}, {"data", json::object()}});
    EXPECT_THAT(read(1, first), ElementsAre(R"({"type":"closed"})", "close 1013"));
    nodes[2]->port.isFull = true;
    at(2).say(second, {{"type", "signal"}, {"data", json::object()}});
    EXPECT_THAT(read(2, second), ElementsAre("close 1013"));
}

TEST_F(RendezvousCluster, isUnmovedByWhatNoNodeSays)
{
    auto host = hostAt(0);
    const auto phone = phoneAt(1, host.id);
    const std::string session = accepted(1, phone, 0, host);
    const auto open = std::ranges::find(broker.carried, "open", &Broker::Message::text);
    ASSERT_NE(open, broker.carried.end());
    const std::string phoneSubject = open->replyTo,
                      stranger = NodeAddress{std::string(22, 'A'), std::string(22, 'B')}.subject();
    const auto hostSubject = NodeSubject::ofHost(host.id);
    const Broker::Message messages[] = {
        {phoneSubject, "", "text\n{\"type\":\"closed\"}"},
        {phoneSubject, stranger, "text\n{\"type\":\"closed\"}"},
        {phoneSubject, stranger, "close 1000\n"},
        {phoneSubject, stranger, "gone"},
        {phoneSubject, "pelorin.node.x.y", "gone"},
        {phoneSubject, phoneSubject, "gone"},
        {phoneSubject + ".more", stranger, "gone"},
        {hostSubject, "", "open"},
        {hostSubject, "somewhere.else", "ask"},
        {hostSubject, "", "registered -1"},
        {hostSubject, "", "registered 99999999999999999999"},
        {hostSubject, "", ""},
        {hostSubject, "", std::string("\0\xFF\n", 3)},
    };
    for (const auto& message : messages) broker.inject(message);
    at(1).say(phone, {{"type", "signal"}, {"data", {{"n", 1}}}});
    EXPECT_THAT(read(0, host.connection), ElementsAre(HasSubstr(session)));
    EXPECT_THAT(read(1, phone), IsEmpty());
    // One that asks for the host a second time in the same words is one guest.
    broker.inject(*open);
    runReady();
    EXPECT_THAT(pageOf(0, "/metrics"), HasSubstr("guests_total 1\n"));
}

TEST_F(RendezvousCluster, takesLeaveOfOtherNodesPhonesWhenItStops)
{
    auto host = hostAt(0);
    const auto phone = phoneAt(1, host.id), other = phoneAt(2, host.id);
    accepted(1, phone, 0, host);
    const std::string session = accepted(2, other, 0, host);
    at(2).service.stop();
    EXPECT_THAT(read(2, other), ElementsAre("close 1001"));
    EXPECT_EQ(at(0).readOne(host.connection), (json{{"type", "closed"}, {"session", session}}));
    at(0).service.stop();
    EXPECT_THAT(read(1, phone), ElementsAre("close 1001"));
}

TEST(NodeMessages, areReadAsTheyWereWrittenAndElseNotAtAll)
{
    for (const std::string text : {"open", "ask", "online", "gone", "registered 0", "registered 86400000",
             "text\n", "text\n{\"a\":\n\"b\"}", "close 1000\n", "close 1013\ntoo slow"}) {
        const auto message = NodeMessage::parse(text);
        ASSERT_TRUE(message) << text;
        EXPECT_EQ(NodeMessage::write(*message), text);
    }
    for (const std::string& text :
        {std::string(), std::string("Open"), std::string("open\n"), std::string("open "),
            std::string("registered"), std::string("registered "), std::string("registered 1x"),
            std::string("registered -1"), std::string("registered 1\n"), std::string("text"),
            "text\n" + std::string(200'000, 'x'), std::string("close 1000"), std::string("close 1006\n"),
            std::string("close 70000\n"), "close 1000\n" + std::string(124, 'x')})
        EXPECT_FALSE(NodeMessage::parse(text)) << text.substr(0, 40);
}

} // namespace
