#include "PelorinHost/HostServer.h"
#include "PelorinHost/Session/LockRule.h"
#include "PelorinNet/Channel/LoopbackPair.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Fakes/FakeHostPlatform.h"
#include "Tests/Fakes/FakePhone.h"
#include "Tests/Lab/Programs.h"
#include "Tests/PelorinHost/LogLines.h"

#include <deque>
#include <fmt/ranges.h>
#include <gmock/gmock.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using fakes::FakeHostPlatform;
using fakes::FakePhone;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

struct FakeListener final : TcpListener {
    explicit FakeListener(int& newCount) : count(newCount) { ++count; }
    ~FakeListener() override { --count; }
    FakeListener(const FakeListener&) = delete;
    FakeListener& operator=(const FakeListener&) = delete;
    std::uint16_t port() const override { return 7420; }
    int& count;
};

std::string describe(const ServerEvent& event)
{
    using namespace serverEvent;
    if (const auto* e = std::get_if<Listening>(&event)) return "listening " + e->address.value_or("nowhere");
    if (const auto* e = std::get_if<SessionStarted>(&event)) return "started " + e->label;
    if (const auto* e = std::get_if<SessionEnded>(&event)) return "ended " + e->reason.value_or("");
    if (const auto* e = std::get_if<Rejected>(&event)) return "rejected " + e->text;
    if (const auto* e = std::get_if<AllowedLogins>(&event))
        return fmt::format("logins {}", fmt::join(e->names, ","));
    if (const auto* e = std::get_if<Stats>(&event)) return "stats " + e->line;
    return "other";
}

struct ServerTest : testing::Test {
    FakeHostPlatform platform; // outlives the queues, whose last tasks still use it
    ManualQueues queues;
    lab::TemporaryFolder folder;
    PairingStore pairing{folder.path(), queues.makeQueue("pairing")};
    HostConfig config;
    std::deque<std::optional<NetError>> listenResults; // success once it is empty
    std::vector<std::string> listenCalls;
    int listenersAlive = 0;
    FakeListener* listener = nullptr;
    std::vector<std::string> events;
    std::vector<std::string> connectionLog;
    std::unique_ptr<HostServer> server;

    void begin(bool isTestMode = true)
    {
        config.allowLoopbackForTesting = isTestMode;
        const auto listen = [this](QueueRef, const std::string& address,
                                std::uint16_t port) -> Result<std::unique_ptr<TcpListener>, NetError> {
            listenCalls.push_back(fmt::format("{}:{}", address, port));
            if (!listenResults.empty()) {
                const auto result = listenResults.front();
                listenResults.pop_front();
                if (result) return std::unexpected(*result);
            }
            auto made = std::make_unique<FakeListener>(listenersAlive);
            listener = made.get();
            return made;
        };
        server = std::make_unique<HostServer>(SessionSurroundings{platform, queues, pairing, std::nullopt},
            config, listen, queues.makeQueue("dev.pelorin.host.server"));
        server->onEvent = [this](const ServerEvent& event) { events.push_back(describe(event)); };
        server->onConnectionLog = [this](const std::string& line) { connectionLog.push_back(line); };
        server->start();
    }

    std::unique_ptr<FakePhone> connect(std::string address = "127.0.0.1")
    {
        auto pair = LoopbackPair::make({.remoteAddress = std::move(address)});
        auto phone = std::make_unique<FakePhone>(std::move(pair.second), queues.makeQueue("phone"));
        server->accept(std::move(pair.first));
        queues.runReady();
        return phone;
    }

    std::unique_ptr<FakePhone> connectWithHello(SessionOptions options = {})
    {
        auto phone = connect();
        phone->hello();
        phone->send(message::SetOptions{options});
        queues.runReady();
        return phone;
    }
};

TEST_F(ServerTest, listensAgainWhenThePortWasTakenOrTheListenerFailed)
{
    listenResults = {NetError{"Address already in use"}, NetError{"Address already in use"}, {}};
    const LogLines log;
    begin();
    EXPECT_THAT(log.lines, testing::Contains("listen on 127.0.0.1 failed: Address already in use"));
    queues.advance(9s);
    EXPECT_TRUE(events.empty());
    queues.advance(1s);
    queues.advance(60s); // stays as it is
    EXPECT_THAT(events, ElementsAre("listening 127.0.0.1"));
    EXPECT_EQ(server->status().listening, "127.0.0.1:7420");

    listener->onFailure(NetError{"the interface went away"});
    EXPECT_THAT(log.lines, testing::Contains("listener failed: the interface went away"));
    EXPECT_EQ(server->status().listening, std::nullopt);
    queues.advance(5s);
    EXPECT_THAT(events, ElementsAre("listening 127.0.0.1", "listening nowhere", "listening 127.0.0.1"));
    EXPECT_EQ(listenersAlive, 1);
    EXPECT_EQ(listenCalls.size(), 4u);
}

// A host in a tailnet, with the Tailscale tool and phones that speak TLS.
struct TailnetServerTest : ServerTest {
    static constexpr const char* ownAddress = "100.64.0.1";
    static constexpr const char* phoneAddress = "100.64.0.2";

    void join()
    {
        platform.systemPort.executables = {"/usr/bin/tailscale"};
        platform.systemPort.interfaces = {{"lo", "127.0.0.1"}, {"tailscale0", ownAddress}};
        begin(false);
    }
    void answer(const std::string& login, const std::string& node)
    {
        const std::string json = R"({"Node": {"ComputedName": ")" + node
            + R"("}, "UserProfile": {"LoginName": ")" + login + R"("}})";
        ASSERT_TRUE(platform.systemPort.answer(ToolExit{0, json, {}}));
        queues.runReady();
    }
    void joinAs(const std::string& login)
    {
        join();
        answer(login, "desk");
        ASSERT_TRUE(platform.systemPort.answer(ToolExit{0, R"({"Self": {"DNSName": "desk.ts.net."}})", {}}));
        queues.runReady();
        events.clear();
    }

    // Connects with a key, or in plain text.
    std::unique_ptr<FakePhone> call(
        const std::optional<PelorinTLS::Key>& key, const std::string& address = phoneAddress)
    {
        auto pair = LoopbackPair::make({.remoteAddress = address});
        auto end = key ? PelorinTLS::clientChannel(std::move(pair.second), *key) : std::move(pair.second);
        auto phone = std::make_unique<FakePhone>(std::move(end), queues.makeQueue("phone"));
        server->accept(std::move(pair.first));
        queues.runReady();
        return phone;
    }

    // Pairs a phone the way phones do, and returns its key.
    PelorinTLS::Key pair(const std::string& name)
    {
        const auto offer = pairing.beginPairing();
        queues.runReady();
        const auto phone = call(offer.key);
        if (platform.systemPort.runningCount() > 0) answer("me@example.com", "phone");
        phone->send(message::PairRequest{offer.key.identity, name});
        queues.runReady();
        const auto result = phone->last<message::PairResult>();
        EXPECT_TRUE(phone->isClosed);
        return {result.deviceID, SecretBytes(ByteView(result.key))};
    }
};

TEST_F(TailnetServerTest, admitsNobodyBeforeItKnowsWhoseMachineItIs)
{
    config.allowedLoginNames = {"friend@example.com"};
    join();
    EXPECT_THAT(listenCalls, ElementsAre("100.64.0.1:7420"));
    const auto early = call(std::nullopt);
    queues.advance(1s); // in which it could have set up a secure channel to be told on
    EXPECT_TRUE(early->isClosed);
    EXPECT_THAT(
        connectionLog.back(), HasSubstr("rejected 100.64.0.2: 未确定（经 Tailscale 的连接会被拒绝）"));

    platform.systemPort.answer(ToolExit{1, {}, "not logged in"});
    queues.runReady();
    for (int i = 0; i < 3; ++i) {
        queues.advance(5s);
        platform.systemPort.answer(ToolExit{1, {}, "not logged in"});
        queues.runReady();
    }
    const auto reports = std::ranges::count_if(
        connectionLog, [](const auto& line) { return line.starts_with("whois for this Mac failed"); });
    EXPECT_EQ(reports, 1) << "once";
    call(std::nullopt);
    EXPECT_EQ(connectionLog.back(), "rejected 100.64.0.2: tailscale exited 1: not logged in");

    queues.advance(5s);
    answer("me@example.com", "desk");
    EXPECT_THAT(events, testing::Contains("logins me@example.com,friend@example.com"));
}

TEST_F(TailnetServerTest, takesATaggedMachineForNobodys)
{
    config.requirePairing = false;
    joinAs("tagged-devices");
    const auto other = call(std::nullopt);
    answer("tagged-devices", "web-server");
    EXPECT_EQ(other->last<message::Error>().message, "tagged-devices（web-server） 不在允许列表");
}

TEST_F(TailnetServerTest, admitsByWhoisAndSaysWhyNot)
{
    config.requirePairing = false; // so that the words show
    config.allowedLoginNames = {"Friend@Example.com"};
    config.allowedNodeNames = {"phone"};
    joinAs("me@example.com");
    const struct {
        std::string login;
        std::string node;
        std::string refusal; // empty: admitted
    } rows[] = {
        {"ME@example.com", "Phone", ""},
        {"friend@example.com", "phone", ""},
        {"me@example.com", "phone2", "me@example.com（phone2） 不在允许列表"},
        {"stranger@example.com", "phone", "stranger@example.com（phone） 不在允许列表"},
    };
    int host = 10;
    for (const auto& [login, node, refusal] : rows) {
        const auto phone = call(std::nullopt, fmt::format("100.64.0.{}", host++));
        EXPECT_FALSE(phone->isClosed) << "not before Tailscale has answered";
        phone->hello();
        answer(login, node);
        EXPECT_EQ(phone->last<message::Error>().message, refusal);
        EXPECT_EQ(phone->count<message::HelloAck>(), refusal.empty() ? 1u : 0u) << login << node;
    }
    const auto broken = call(std::nullopt, "100.64.0.99");
    platform.systemPort.answer(std::unexpected(ToolFailure{ToolFailure::Kind::timedOut, "late"}));
    queues.runReady();
    EXPECT_EQ(broken->last<message::Error>().message, "tailscale CLI timed out");
    EXPECT_EQ(call(std::nullopt, "10.0.0.1")->last<message::Error>().message, "不是 Tailscale 地址");
}

TEST_F(TailnetServerTest, servesPairedPhonesAndTellsTheRestNothing)
{
    joinAs("me@example.com");
    const auto key = pair("my phone");
    ASSERT_EQ(pairing.devices().size(), 1u);
    EXPECT_EQ(connectionLog.back(), "paired my phone as " + key.identity);
    EXPECT_EQ(server->status().dnsName, "desk.ts.net");

    const auto phone = call(key);
    phone->hello();
    queues.runReady();
    EXPECT_EQ(phone->count<message::HelloAck>(), 1u);
    EXPECT_EQ(events.back(), "started phone");

    const PelorinTLS::Key wrongSecret = {key.identity, PelorinTLS::randomKey("").secret};
    const std::optional<PelorinTLS::Key> strangers[]
        = {wrongSecret, PelorinTLS::randomKey("dev-0123456789abcdef"), std::nullopt};
    for (const auto& stranger : strangers) {
        events.clear();
        const auto unpaired = call(stranger);
        unpaired->hello();
        queues.runReady();
        EXPECT_TRUE(unpaired->isClosed);
        EXPECT_TRUE(unpaired->received.empty());
        EXPECT_EQ(events.back(), "rejected phone：TLS 认证失败（未配对）");
        EXPECT_THAT(connectionLog, testing::Contains(StartsWith("rejected phone: ")));
    }
    EXPECT_FALSE(phone->isClosed) << "nobody else is any the worse";

    pairing.remove(key.identity);
    queues.runReady();
    EXPECT_TRUE(phone->isClosed);
    EXPECT_THAT(phone->last<message::Error>().message, StartsWith("这部手机没有和这台 Mac 配对"));
    const auto removed = call(key);
    removed->hello();
    queues.runReady();
    EXPECT_EQ(removed->count<message::HelloAck>(), 0u);
}

TEST_F(TailnetServerTest, turnsAwayWhoKeepsFailingButNotTheOthers)
{
    joinAs("me@example.com");
    const auto key = pair("my phone");
    const auto guess = [&] { return call(PelorinTLS::randomKey("dev-0123456789abcdef")); };
    const auto blocked = [&] { return server->status().blockedSources == 1; };
    int guesses = 0;
    for (; guesses < 100 && !blocked(); ++guesses) guess();
    EXPECT_TRUE(blocked());
    EXPECT_LT(guesses, 20);
    EXPECT_THAT(connectionLog, testing::Contains(StartsWith("turned away for ")));
    const auto lines = connectionLog.size();
    for (int i = 0; i < 1000; ++i) EXPECT_TRUE(guess()->isClosed);
    EXPECT_EQ(connectionLog.size(), lines) << "a flood costs not even a line";
    EXPECT_TRUE(call(key)->isClosed) << "the phone behind the same address has to wait";

    queues.advance(20min);
    EXPECT_FALSE(blocked());
    const auto phone = call(key);
    answer("me@example.com", "phone"); // it is asked anew, after so long
    phone->hello();
    queues.runReady();
    EXPECT_EQ(phone->count<message::HelloAck>(), 1u);

    for (int i = 0; i < 40; ++i) call(key, "100.64.0.77");
    EXPECT_LE(server->status().waitingForHello, SourcePenalties::maxPending);
}

TEST_F(TailnetServerTest, followsItsAddressAndItsKeys)
{
    joinAs("me@example.com");
    platform.systemPort.interfaces = {{"tailscale0", "100.64.0.9"}};
    queues.advance(5s);
    EXPECT_THAT(listenCalls, ElementsAre("100.64.0.1:7420", "100.64.0.9:7420"));
    EXPECT_EQ(server->status().dnsName, std::nullopt) << "it may be another tailnet";
    answer("me@example.com", "desk");
    platform.systemPort.interfaces = {};
    queues.advance(5s);
    EXPECT_EQ(server->status().listening, std::nullopt);
    EXPECT_EQ(connectionLog.back(), "no Tailscale address; waiting for Tailscale");
    platform.systemPort.interfaces = {{"tailscale0", "100.64.0.9"}};
    queues.advance(5s);
    EXPECT_EQ(listenCalls.size(), 3u);

    pairing.beginPairing(); // never used
    queues.advance(10min);
    const auto offer = pairing.beginPairing();
    queues.runReady();
    EXPECT_EQ(listenersAlive, 1);
    const auto late = call(offer.key);
    answer("me@example.com", "phone");
    EXPECT_FALSE(late->isClosed);
    queues.advance(9s); // says nothing
    EXPECT_FALSE(late->isClosed);
    queues.advance(2s);
    EXPECT_TRUE(late->isClosed);
}

TEST_F(ServerTest, admitsByAddressAndTellsTheRefusedWhy)
{
    const struct {
        std::string address;
        std::string refusal; // empty: admitted
    } rows[] = {
        {"127.0.0.1", ""},
        {"127.1.2.3", ""},
        {"::1", ""},
        {"192.168.1.2", "测试模式只接受本机连接"},
        {"::2", "测试模式只接受本机连接"},
        {"1127.0.0.1", "测试模式只接受本机连接"},
    };
    for (const auto& [address, refusal] : rows) {
        begin();
        events.clear();
        connectionLog.clear();
        const auto phone = connect(address);
        EXPECT_EQ(phone->isClosed, !refusal.empty()) << address;
        if (refusal.empty()) {
            EXPECT_EQ(server->status().waitingForHello, 1u) << address;
            continue;
        }
        EXPECT_EQ(phone->last<message::Error>(), (message::Error{ErrorCode::unauthorized, refusal}));
        EXPECT_THAT(events, ElementsAre("rejected " + address + "：" + refusal));
        EXPECT_THAT(connectionLog, ElementsAre("rejected " + address + ": " + refusal));
    }
}

TEST_F(ServerTest, letsTheNewestHelloTakeOver)
{
    begin();
    const auto first = connectWithHello();
    const auto second = connect();
    EXPECT_FALSE(first->isClosed) << "a connection alone takes nothing over";
    events.clear();
    connectionLog.clear();
    second->hello();
    queues.runReady();
    EXPECT_EQ(first->last<message::Error>(), (message::Error{ErrorCode::replaced, "另一台设备已连接"}));
    EXPECT_TRUE(first->isClosed);
    EXPECT_THAT(events, ElementsAre("ended replaced by a new session", "started 本机（测试模式）"));
    EXPECT_THAT(connectionLog,
        ElementsAre(AllOf(StartsWith("session ended after "), HasSubstr("replaced by a new session")),
            "session started: 本机（测试模式）"));
    EXPECT_FALSE(second->isClosed);

    queues.advance(1s);
    EXPECT_THAT(events.back(), StartsWith("stats fake · 0 fps · "));
    EXPECT_EQ(server->status().session->clientName, "phone");
    second->send(message::Bye{});
    queues.runReady();
    EXPECT_EQ(events.back(), "ended client ended the session");
    EXPECT_FALSE(server->status().session);
}

TEST_F(ServerTest, boundsWhoNeverSaysHello)
{
    begin();
    const auto active = connectWithHello();
    std::vector<std::unique_ptr<FakePhone>> silent;
    for (int i = 0; i < 40; ++i) silent.push_back(connect());
    EXPECT_EQ(server->status().waitingForHello, 32u);
    for (std::size_t i = 0; i < silent.size(); ++i) EXPECT_EQ(silent[i]->isClosed, i < 8) << i;
    EXPECT_THAT(connectionLog,
        testing::Contains("closed before hello: 本机（测试模式）: too many connections waiting for hello"));

    silent.back()->hello();
    queues.runReady();
    EXPECT_EQ(events.back(), "started 本机（测试模式）");
    EXPECT_TRUE(active->isClosed);

    for (int i = 0; i < 11; ++i) {
        silent.back()->send(message::Ping{});
        queues.advance(1s);
    }
    EXPECT_EQ(server->status().waitingForHello, 0u);
    EXPECT_TRUE(silent[20]->isClosed);
    EXPECT_FALSE(silent.back()->isClosed) << "who said hello is not waited for any more";
    EXPECT_EQ(connectionLog.back(), "closed before hello: 本机（测试模式）: no hello in time");
}

TEST_F(ServerTest, keepsThePanelsDarkForAsLongAsThePhoneInControlWantsIt)
{
    const auto isDark = [&] {
        queues.runReady();
        return !platform.arrangement.gamma.empty();
    };
    begin();
    auto phone = connectWithHello(sessionOption::privacyScreen | sessionOption::clipboardSharing);
    EXPECT_TRUE(isDark());
    phone->send(message::SetOptions{sessionOption::clipboardSharing});
    EXPECT_FALSE(isDark());
    phone->send(message::SetOptions{sessionOption::privacyScreen});
    EXPECT_TRUE(isDark());

    auto second = connectWithHello();
    EXPECT_FALSE(isDark()) << "it replaced the one who wanted it";
    const std::pair<const char*, std::function<void()>> ends[] = {
        {"bye", [&] { second->send(message::Bye{}); }},
        {"vanishing", [&] { second->hangUp(); }},
        {"the menu", [&] { server->disconnect(); }},
        {"silence", [&] { queues.advance(10s); }},
        {"nonsense", [&] { second->send(Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}); }},
        {"quitting", [&] { server->stop(); }},
        {"the server's end", [&] { server.reset(); }},
    };
    for (const auto& [name, end] : ends) {
        begin();
        second = connectWithHello(sessionOption::privacyScreen);
        EXPECT_TRUE(isDark()) << name;
        end();
        EXPECT_FALSE(isDark()) << name;
    }
}

TEST_F(ServerTest, keepsDarkPanelsDarkUntilTheDesktopIsLocked)
{
    const auto isDark = [&] {
        queues.runReady();
        return !platform.arrangement.gamma.empty();
    };
    const SessionOptions wish = sessionOption::lockAtEnd | sessionOption::privacyScreen;
    begin();
    const std::pair<const char*, std::function<void(fakes::FakePhone&)>> ends[] = {
        {"bye", [&](auto& phone) { phone.send(message::Bye{}); }},
        {"nonsense, then the grace",
            [&](auto& phone) {
                phone.send(Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
                queues.advance(9s);
                EXPECT_TRUE(isDark());
                EXPECT_EQ(platform.screenLock.requests, 1) << "of the row before";
                queues.advance(2s);
            }},
    };
    for (const auto& [name, end] : ends) {
        const auto phone = connectWithHello(wish);
        end(*phone);
        EXPECT_TRUE(isDark()) << name;
        platform.screenLock.answer(LockedBy::system);
        EXPECT_FALSE(isDark()) << name;
    }

    connectWithHello(wish)->hangUp();
    EXPECT_TRUE(isDark());
    const auto back = connect();
    back->hello();
    EXPECT_TRUE(isDark()) << "it is about to say whether it wants that";
    back->send(message::SetOptions{wish});
    queues.advance(3s);
    EXPECT_TRUE(isDark());
    back->hangUp();
    EXPECT_TRUE(isDark());
    const auto other = connect();
    other->hello();
    queues.advance(3s);
    EXPECT_FALSE(isDark()) << "it does not ask for it";
    EXPECT_EQ(platform.screenLock.requests, 2);
}

TEST_F(ServerTest, asksForTheLockByTheKindOfEnd)
{
    const SessionOptions wish = sessionOption::lockAtEnd;
    const struct {
        EndKind kind;
        LockRule rule;
    } rows[] = {
        {EndKind::dropped, LockRule::afterGrace},
        {EndKind::userEnded, LockRule::atOnce},
        {EndKind::idle, LockRule::atOnce},
        {EndKind::failed, LockRule::atOnce},
        {EndKind::replaced, LockRule::never},
        {EndKind::endedOnMac, LockRule::never},
        {EndKind::paired, LockRule::never},
    };
    for (const auto& [kind, rule] : rows) {
        EXPECT_EQ(lockRuleFor(kind, wish), rule) << static_cast<int>(kind);
        EXPECT_EQ(lockRuleFor(kind, sessionOption::clipboardSharing), LockRule::never)
            << static_cast<int>(kind);
    }

    begin();
    connectWithHello(wish); // and drops out
    queues.advance(9s);
    const auto back = connectWithHello(wish);
    queues.advance(4s);
    EXPECT_EQ(platform.screenLock.requests, 0) << "it came back in time";
    back->send(message::Bye{});
    queues.runReady();
    EXPECT_EQ(platform.screenLock.requests, 1);
    platform.screenLock.answer(LockedBy::system);
    queues.runReady();
    EXPECT_EQ(connectionLog.back(), "locked the Mac");
    connectWithHello(wish);
    queues.advance(11s);
    EXPECT_EQ(platform.screenLock.requests, 2);
    platform.screenLock.answer(LockedBy::shortcut);
    queues.runReady();
    EXPECT_EQ(connectionLog.back(), "locked the Mac with ⌃⌘Q");
}

TEST_F(ServerTest, canBeDestroyedWithSessionsInEveryState)
{
    begin();
    const auto active = connectWithHello();
    platform.capture.stream->feed();
    const auto waiting = connect();
    active->send(message::Bye{});
    waiting->hello();
    server.reset();
    queues.advance(20s);
    EXPECT_TRUE(active->isClosed);
    EXPECT_TRUE(waiting->isClosed);
    EXPECT_EQ(platform.capture.stream, nullptr);
    EXPECT_EQ(platform.powerPort.heldAssertions(), 0);
}

} // namespace
} // namespace pelorin
