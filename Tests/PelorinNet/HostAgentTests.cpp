#include "PelorinNet/Rendezvous/HostAgent.h"

#include "PelorinNet/Identity/KeyFingerprint.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Peers/RemotePhone.h"
#include "Tests/Peers/ScriptedService.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* notUnderstood = "看不懂的请求";
constexpr const char* notPaired = "这部手机没有和这台 Mac 配对（可能在 Mac 上被移除了），请重新配对";
constexpr const char* notGenuine = "连接请求没有通过验证（手机时间不准，或请求被重放）";
constexpr const char* wrongCode = "配对码不对、已经过期或已经用过。请在 Mac 菜单里重新点「配对新手机」";
constexpr const char* noRoom = "这台 Mac 上的远程连接太多了，请稍后再试";

// A host whose service is played by the test, and phones with paths and QUIC of their own.
class HostAgentTest : public testing::Test {
protected:
    HostAgentTest()
    {
        Log::observe([this](LogLevel level, std::string_view category, std::string_view text) {
            if (level != LogLevel::debug && category == "rendezvous") logged.emplace_back(text);
        });
        agent = std::make_unique<HostAgent>(queue,
            HostRegistration::Settings{"书房", {"wss://one.example/v1/host"}},
            HostAgent::Means{queues, *identity, service.maker(), makePathWithoutServers});
        agent->phone = [this](const Bytes& keyHash) -> std::optional<HostAgent::Phone> {
            const auto found = paired.find(keyHash);
            return found == paired.end() ? std::nullopt : std::optional(found->second);
        };
        agent->onStream = [this](std::unique_ptr<Channel> channel, const HostAgent::Phone& phone) {
            streamsOf.push_back(phone.name);
            streams.push_back(std::make_unique<QuicEndOfStream>(std::move(channel), queue));
        };
        agent->start();
        queues.runReady();
        say({{"type", "challenge"}, {"nonce", "n"}});
        say({{"type", "registered"}});
        line().takeReceived();
        logged.clear();
    }
    ~HostAgentTest() override { Log::observe({}); }
    void SetUp() override
    {
        if (hostCandidates(1).empty()) GTEST_SKIP() << "no network interface here but loopback";
    }

    ScriptedService::Line& line() { return service.line(); }
    void say(json message)
    {
        line().say(std::move(message));
        queues.runReady();
    }
    void enterAgain()
    {
        advanceUntil([&] { return !line().isClosed; });
        say({{"type", "challenge"}, {"nonce", "n"}});
        say({{"type", "registered"}});
        line().takeReceived();
    }
    SignedRequest requestOf(const SoftwareIdentity& phone, PathDescription local = nowhere())
    {
        SignedRequest request{phone, agent->hostID, now()};
        request.nonce = "nonce-" + std::to_string(++nonces);
        request.local = std::move(local);
        return request;
    }
    std::int64_t now() const
    {
        return std::chrono::floor<std::chrono::seconds>(queue->wallNow().time_since_epoch()).count();
    }
    static PathDescription nowhere() { return {"abcdefgh", "abcdefghijklmnopqrstuvwx", {}}; }
    void connect(const std::string& id, json request)
    {
        say({{"type", "connect"}, {"session", id}, {"request", std::move(request)}});
    }
    // What the host answered: the refusal's reason, or "accept".
    std::string answerTo(json request)
    {
        const std::string id = "s" + std::to_string(++sessions);
        connect(id, std::move(request));
        for (const json& message : line().takeReceived()) {
            if (message["session"] != id || message["type"] == "signal") continue;
            return message["type"] == "reject" ? message["reason"] : message["type"];
        }
        return "nothing";
    }
    void pairWith(const SoftwareIdentity& phone, const std::string& name)
    {
        paired[phone.fingerprint()] = {"dev-" + name, name, phone.publicKey()};
    }
    bool advanceUntil(const std::function<bool()>& condition, Duration most = 20s)
    {
        const SteadyTime end = queues.now() + most;
        queues.runReady();
        while (!condition() && queues.now() < end) queues.advance(5ms);
        return condition();
    }
    // From request to path; both ends hear of it.
    std::unique_ptr<RemotePhone> arrive(const SoftwareIdentity& phone, const std::string& id)
    {
        auto end = std::make_unique<RemotePhone>(queues, phone, identity->fingerprint());
        connect(id, requestOf(phone, end->setup->local()).json());
        end->start(takeResponse(id), [this, id](json data) {
            line().say({{"type", "signal"}, {"session", id}, {"data", std::move(data)}});
        });
        advanceUntil([&] { return end->outcome.has_value() && hasLogged(": path ready ("); });
        EXPECT_TRUE(end->outcome && *end->outcome);
        return end;
    }
    json takeResponse(const std::string& id)
    {
        for (const json& message : line().takeReceived())
            if (message["type"] == "accept" && message["session"] == id) return message["response"];
        ADD_FAILURE() << "not accepted: " << id;
        return {};
    }
    bool hasLogged(const std::string& part) const
    {
        return std::ranges::any_of(logged, [&](const std::string& each) { return each.contains(part); });
    }
    void openStream(RemotePhone& phone)
    {
        phone.connect();
        phone.quic.open().channel->send({Bytes{'h', 'i'}});
        const auto count = streams.size() + 1;
        EXPECT_TRUE(
            advanceUntil([&] { return streams.size() == count && streams.back()->received.size() == 2; }));
    }

    ManualQueues queues;
    const QueueRef queue = queues.makeQueue("dev.pelorin.host-agent");
    const std::unique_ptr<SoftwareIdentity> identity = makeQuicIdentity("host"),
                                            phone = makeQuicIdentity("phone"),
                                            another = makeQuicIdentity("another");
    ScriptedService service;
    std::map<Bytes, HostAgent::Phone> paired;
    std::vector<std::string> logged, streamsOf;
    std::vector<std::unique_ptr<QuicEndOfStream>> streams;
    int nonces = 0, sessions = 0;
    std::unique_ptr<HostAgent> agent;
};

TEST_F(HostAgentTest, refusesWhatItDoesNotTrust)
{
    pairWith(*phone, "phone");
    const auto late = [&](std::int64_t seconds) {
        auto request = requestOf(*phone);
        request.timestamp += seconds;
        return request.json();
    };
    const auto changed = [&](const json& change) {
        json request = requestOf(*phone).json();
        request.update(change);
        return request;
    };
    auto otherHost = requestOf(*phone);
    otherHost.hostID = KeyFingerprint::hostID(another->publicKey());
    json forged = requestOf(*another).json();
    forged["clientKeyHash"] = base64EncodedString(phone->fingerprint());
    json stranger = requestOf(*another).json();
    stranger["timestamp"] = 0;
    const json once = requestOf(*phone).json();

    const struct {
        const char* name;
        json request;
        const char* answer;
    } cases[] = {
        {"no object", 7, notUnderstood},
        {"no members", json::object(), notUnderstood},
        {"no hash", changed({{"clientKeyHash", ""}}), notUnderstood},
        {"a purpose we don't know", changed({{"purpose", "rule"}}), notUnderstood},
        {"a phone we don't know", requestOf(*another).json(), notPaired},
        {"a phone we don't know, and late", stranger, notPaired},
        {"121 s late", late(-121), notGenuine},
        {"121 s early", late(121), notGenuine},
        {"another password than was signed", changed({{"password", "x"}}), notGenuine},
        {"another's signature", forged, notGenuine},
        {"for another host", otherHost.json(), notGenuine},
        {"120 s late", late(-120), "accept"},
        {"120 s early", late(120), "accept"},
        {"new", once, "accept"},
        {"replayed", once, notGenuine},
    };
    for (const auto& [name, request, answer] : cases) {
        SCOPED_TRACE(name);
        logged.clear();
        EXPECT_EQ(answerTo(request), answer);
        if (answer == std::string("accept"))
            EXPECT_THAT(logged, Contains("phone: connect request"));
        else
            EXPECT_THAT(logged, ElementsAre(std::string("refused a request: ") + answer));
    }
    EXPECT_EQ(agent->sessionCount(), 3u);
    queues.advance(119s);
    EXPECT_EQ(answerTo(once), notGenuine) << "still in its window";
    queues.advance(10min);
    EXPECT_EQ(answerTo(once), notGenuine) << "long after it";
}

TEST_F(HostAgentTest, remembersNoNonceThatWasRefused)
{
    const json request = requestOf(*phone).json();
    EXPECT_EQ(answerTo(request), notPaired);
    pairWith(*phone, "phone");
    EXPECT_EQ(answerTo(request), "accept");
}

TEST_F(HostAgentTest, handsOverTheStreamsOfAPhone)
{
    pairWith(*phone, "iPhone");
    const auto end = arrive(*phone, "a");
    EXPECT_THAT(logged, ElementsAre("iPhone: connect request", HasSubstr("iPhone: path ready (direct ")));
    openStream(*end);
    EXPECT_THAT(streamsOf, ElementsAre("iPhone"));
    EXPECT_THAT(streams[0]->channel->pathDescription(), HasSubstr("direct "));
    EXPECT_EQ(streams[0]->channel->peerIdentity(), "dev-iPhone");
    EXPECT_EQ(streams[0]->received, (Bytes{'h', 'i'}));

    // The path outlives the service and every wait, until the last stream ends.
    say({{"type", "closed"}, {"session", "a"}});
    line().cut("gone");
    enterAgain();
    agent->networkChanged();
    queues.advance(10min);
    EXPECT_EQ(agent->sessionCount(), 1u);
    end->quic.open().channel->send({Bytes{'2'}});
    EXPECT_TRUE(advanceUntil([&] { return streams.size() == 2; }));
    streams[0].reset();
    queues.advance(5s);
    EXPECT_EQ(agent->sessionCount(), 1u);
    streams[1].reset();
    EXPECT_TRUE(advanceUntil([&] { return agent->sessionCount() == 0; }));
    EXPECT_TRUE(advanceUntil([&] { return end->quic.closed.has_value(); })) << "the phone is told";
    EXPECT_THAT(line().received, IsEmpty()) << "that registration knows nothing of the session";
}

TEST_F(HostAgentTest, borrowsRelaysAnewWhileASessionLasts)
{
    pairWith(*phone, "iPhone");
    RemotePhone end(queues, *phone, identity->fingerprint());
    say({{"type", "connect"}, {"session", "a"}, {"request", requestOf(*phone, end.setup->local()).json()},
        {"turn", {{"uris", {"turn:relay.example"}}, {"username", "u"}, {"credential", "c"}}}});
    end.start(takeResponse("a"),
        [this](json data) { line().say({{"type", "signal"}, {"session", "a"}, {"data", std::move(data)}}); });
    ASSERT_TRUE(advanceUntil([&] { return end.outcome.has_value() && hasLogged(": path ready ("); }));
    openStream(end);
    queues.advance(4h);
    EXPECT_EQ(service.lines.size(), 2u);
    EXPECT_EQ(line().url, "wss://one.example/v1/connect/" + agent->hostID);
    EXPECT_FALSE(line().isClosed);
    streams.clear();
    EXPECT_TRUE(advanceUntil([&] { return agent->sessionCount() == 0; }));
    EXPECT_TRUE(line().isClosed);
}

TEST_F(HostAgentTest, tellsTheServiceWhenASessionIsOver)
{
    pairWith(*phone, "iPhone");
    const auto end = arrive(*phone, "a");
    openStream(*end);
    line().takeReceived();
    streams.clear();
    EXPECT_TRUE(advanceUntil([&] { return agent->sessionCount() == 0; }));
    EXPECT_THAT(line().received, ElementsAre(json{{"type", "closed"}, {"session", "a"}}));
}

TEST_F(HostAgentTest, givesUpAPathThatNobodyUses)
{
    pairWith(*phone, "iPhone");
    const auto end = arrive(*phone, "a");
    end->connect(*phone); // without a stream
    queues.advance(29s);
    EXPECT_EQ(agent->sessionCount(), 1u);
    queues.advance(2s);
    EXPECT_EQ(agent->sessionCount(), 0u);
    EXPECT_THAT(logged, Contains("iPhone: no session within 30 s, closing the path"));
}

TEST_F(HostAgentTest, tellsThePhoneWhyThereIsNoPath)
{
    pairWith(*phone, "iPhone");
    connect("a", requestOf(*phone).json());
    line().takeReceived();
    queues.advance(16s);
    EXPECT_EQ(agent->sessionCount(), 0u);
    EXPECT_THAT(logged, Contains(HasSubstr("iPhone: path setup failed: no path to the peer within 15 s")));
    const auto told = line().takeReceived();
    ASSERT_EQ(told.size(), 2u);
    EXPECT_EQ(told[0]["type"], "signal");
    EXPECT_EQ(told[0]["session"], "a");
    EXPECT_THAT(told[0]["data"]["error"].get<std::string>(),
        HasSubstr("Mac 这边建立路径失败：no path to the peer within 15 s"));
    EXPECT_EQ(told[1], (json{{"type", "closed"}, {"session", "a"}}));
}

TEST_F(HostAgentTest, endsWhatHasNoPathWithItsSignalling)
{
    pairWith(*phone, "iPhone");
    pairWith(*another, "iPad");
    const auto standing = arrive(*another, "standing");
    for (const bool isPhoneGone : {true, false}) {
        connect("a", requestOf(*phone).json());
        EXPECT_EQ(agent->sessionCount(), 2u);
        logged.clear();
        isPhoneGone ? say({{"type", "closed"}, {"session", "a"}}) : line().cut("gone");
        queues.runReady();
        EXPECT_EQ(agent->sessionCount(), 1u);
        EXPECT_EQ(hasLogged("the phone left before the path was up"), isPhoneGone);
    }
    enterAgain();
    openStream(*standing);
    EXPECT_THAT(streamsOf, ElementsAre("iPad"));
}

TEST_F(HostAgentTest, takesOnlyThePhoneThatThePathWasMadeFor)
{
    pairWith(*phone, "iPhone");
    pairWith(*another, "iPad");
    const auto stranger = makeQuicIdentity("stranger");
    const auto comesAs = [&](const std::unique_ptr<RemotePhone>& end, const SoftwareIdentity& shown) {
        end->connect(shown);
        end->quic.open().channel->send({Bytes{'x'}});
        return advanceUntil([&] { return end->quic.closed.has_value(); }) ? *end->quic.closed : "let in";
    };
    const auto first = arrive(*phone, "a"), second = arrive(*another, "b"), third = arrive(*phone, "c");
    EXPECT_NE(comesAs(first, *another), "let in") << "it has a path of its own";
    EXPECT_THAT(logged, Contains("another phone came over the path of iPhone"));
    EXPECT_NE(comesAs(third, *stranger), "let in");
    paired.erase(another->fingerprint());
    EXPECT_NE(comesAs(second, *another), "let in") << "removed since its request";
    EXPECT_THAT(streams, IsEmpty());
    openStream(*arrive(*phone, "d"));
    EXPECT_THAT(streamsOf, ElementsAre("iPhone"));
}

TEST_F(HostAgentTest, pairsAPhoneThatKnowsTheCode)
{
    const Bytes code(32, 7);
    bool isOffered = true;
    std::vector<HostAgent::PairingAttempt> attempts;
    agent->pair = [&](const HostAgent::PairingAttempt& attempt) -> std::optional<HostAgent::Phone> {
        attempts.push_back(attempt);
        const std::string proven = "pelorin-pair-v1|" + attempt.context + "|"
            + base64EncodedString(KeyFingerprint::of(attempt.publicKey));
        if (!isOffered || attempt.proof != hmacSHA256(code, Bytes(proven.begin(), proven.end())))
            return std::nullopt;
        isOffered = false;
        pairWith(*phone, attempt.deviceName);
        return paired[phone->fingerprint()];
    };
    // A proof is good for its own exchange alone, and what is out of its window uses no code up.
    const json good = requestOf(*phone).pairing(code, "iPhone");
    json moved = requestOf(*phone).pairing(code, "iPhone");
    moved["proof"] = good["proof"];
    auto late = requestOf(*phone);
    late.timestamp -= 121;
    json unsignedOne = requestOf(*phone).pairing(code, "iPhone");
    unsignedOne["ufrag"] = "other";
    EXPECT_EQ(answerTo(late.pairing(code, "iPhone")), notGenuine);
    EXPECT_EQ(answerTo(unsignedOne), notGenuine);
    EXPECT_THAT(attempts, IsEmpty());
    EXPECT_EQ(answerTo(requestOf(*phone).pairing(Bytes(32, 8), "iPhone")), wrongCode);
    EXPECT_EQ(answerTo(moved), wrongCode);
    EXPECT_TRUE(isOffered);

    connect("a", good);
    const json response = takeResponse("a");
    EXPECT_EQ(response["paired"], true);
    EXPECT_EQ(response["hostName"], "书房");
    EXPECT_EQ(answerTo(good), notGenuine) << "replayed";
    EXPECT_EQ(answerTo(requestOf(*phone).pairing(code, "iPhone")), wrongCode) << "used";
    EXPECT_EQ(answerTo(requestOf(*phone).json()), "accept");
    EXPECT_EQ(attempts.back().deviceName, "iPhone");
}

TEST_F(HostAgentTest, saysSoWhenItHasNoSocketLeft)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer needs a pipe now and then to look at an address";
#endif
    pairWith(*phone, "iPhone");
    const json request = requestOf(*phone).json();
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const int next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(next);
    rlimit none{rlim_t(next), limit.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &none);
    const std::string answer = answerTo(request);
    ::setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_THAT(answer, HasSubstr("Mac 无法打开网络端口："));
    EXPECT_EQ(agent->sessionCount(), 0u);
    EXPECT_EQ(answerTo(requestOf(*phone).json()), "accept");
}

TEST_F(HostAgentTest, makesRoomForANewPathButNotAtTheCostOfASession)
{
    pairWith(*phone, "iPhone");
    pairWith(*another, "iPad");
    const auto running = arrive(*another, "running");
    openStream(*running);
    for (std::size_t i = 0; i < 3 * HostAgent::maxSessions; ++i) {
        connect("s" + std::to_string(i), requestOf(*phone).json());
        EXPECT_LE(agent->sessionCount(), HostAgent::maxSessions);
    }
    const auto said = line().takeReceived();
    const auto hasSaid = [&](const json& message) { return std::ranges::find(said, message) != said.end(); };
    EXPECT_TRUE(hasSaid({{"type", "signal"}, {"session", "s0"}, {"data", {{"error", noRoom}}}}));
    EXPECT_TRUE(hasSaid({{"type", "closed"}, {"session", "s0"}}));
    EXPECT_FALSE(hasSaid({{"type", "closed"}, {"session", "running"}}));
    EXPECT_FALSE(running->quic.closed);
    EXPECT_FALSE(streams[0]->closed);
}

TEST_F(HostAgentTest, isShakenByNothingThatTheServiceSays)
{
    pairWith(*phone, "iPhone");
    connect("a", requestOf(*phone).json());
    const json odd[] = {nullptr, 7, "x", json::array(), json::object(), {{"error", json::array()}},
        {{"candidates", 7}}, {{"candidates", {1, nullptr, "x"}}}};
    for (const char* type : {"connect", "signal", "closed", "registered", "challenge", "", "unheard-of"})
        for (const json& session : {json("b"), json("a"), json(""), json(7), json(std::string(1'000, 'x'))})
            for (const json& value : odd)
                say({{"type", type}, {"session", session}, {"request", value}, {"data", value},
                    {"turn", value}});
    say({{"type", 7}});
    EXPECT_EQ(answerTo(requestOf(*phone).json()), "accept");
    json twice = requestOf(*phone).json();
    connect("twice", twice);
    connect("twice", requestOf(*phone).json());
    EXPECT_TRUE(hasLogged("the rendezvous service used a session's id again"));
}

TEST_F(HostAgentTest, mayStopAtAnyMoment)
{
    pairWith(*phone, "iPhone");
    for (int moment = 0; moment < 4; ++moment) {
        SCOPED_TRACE(moment);
        std::unique_ptr<RemotePhone> end;
        if (moment == 0)
            line().say({{"type", "connect"}, {"session", "a"}, {"request", requestOf(*phone).json()}});
        if (moment == 1) connect("a", requestOf(*phone).json());
        if (moment > 1) end = arrive(*phone, "a");
        if (moment > 2) openStream(*end);
        agent->stop();
        EXPECT_EQ(agent->sessionCount(), 0u);
        EXPECT_TRUE(line().isClosed);
        queues.advance(2min);
        if (moment > 2) {
            EXPECT_TRUE(streams.back()->closed);
        }
        agent->start();
        queues.runReady();
        enterAgain();
        logged.clear();
    }
    const auto end = arrive(*phone, "last");
    openStream(*end);
    agent->onStream = [this](std::unique_ptr<Channel>, const HostAgent::Phone&) { agent.reset(); };
    end->quic.open().channel->send({Bytes{'x'}});
    EXPECT_TRUE(advanceUntil([&] { return !agent; }));
    queues.advance(2min);
}

} // namespace
} // namespace pelorin
