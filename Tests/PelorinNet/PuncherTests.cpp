#include "PelorinNet/Path/Puncher.h"

#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/PelorinNet/RawUDP.h"

#include <algorithm>
#include <fmt/format.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using Class = StunMessage::Class;
using AttributeType = StunMessage::AttributeType;

ByteView bytesOf(std::string_view text)
{
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// The other end, at as many addresses as a case gives it, each of which answers only what it is told to.
class PuncherTest : public testing::Test {
protected:
    PuncherTest() { makePuncher(); }

    void makePuncher()
    {
        puncher = std::make_unique<Puncher>(*proxy, queue, [this](const SocketAddress& address) {
            return std::ranges::find(forbidden, address) == forbidden.end();
        });
        puncher->remote = phone;
        puncher->onSelected
            = [this](const Candidate& candidate) { note("selected " + candidate.signedText()); };
        puncher->onPeerCheck = [this](const SocketAddress& source) { checkedBy.push_back(source); };
        proxy->onOtherDatagram = [this](ByteView datagram, const SocketAddress& source) {
            if (puncher) puncher->handle(datagram, source);
        };
    }

    static Candidate candidate(const RawUDP& at, std::string type = "host")
    {
        return {at.address, std::move(type)};
    }
    void start(const std::vector<Candidate>& targets, Duration patience = 10s)
    {
        puncher->start(targets, queues.now() + patience,
            [this](const auto& peer) { note(peer ? "found " + peer->signedText() : "found nothing"); });
    }
    void note(std::string what) { notes.push_back(std::move(what)); }
    std::vector<std::string> takeNotes()
    {
        queues.runReady();
        return std::exchange(notes, {});
    }

    std::vector<StunMessage> received(const RawUDP& at)
    {
        queues.runReady();
        std::vector<StunMessage> messages;
        for (const auto& datagram : at.receive()) messages.push_back(*StunMessage::parse(datagram.bytes));
        return messages;
    }
    // How many checks have arrived there.
    std::size_t checks(const RawUDP& at) { return received(at).size(); }
    StunMessage check(const RawUDP& at)
    {
        const auto all = received(at);
        EXPECT_EQ(all.size(), 1u);
        return all.empty() ? StunMessage{} : all.front();
    }

    SocketAddress ours() const
    {
        return SocketAddress::ipv4({127, 0, 0, 1}, proxy->network().localAddress().port);
    }
    Bytes answerTo(const StunMessage& check, std::string_view password) const
    {
        StunMessage answer{check.method, Class::success, check.transactionID, {}};
        answer.attributes.push_back(
            StunMessage::xorAddressAttribute(AttributeType::xorMappedAddress, ours(), answer.transactionID));
        return answer.serialize(bytesOf(password));
    }
    void answer(const RawUDP& at, const StunMessage& check)
    {
        at.send(answerTo(check, phone.password), ours());
    }
    StunMessage checkOfPhone() const
    {
        StunMessage request;
        request.transactionID = StunMessage::newTransactionID();
        request.attributes.emplace_back(AttributeType::username, puncher->local.ufrag + ":" + phone.ufrag);
        return request;
    }
    void sendCheck(const RawUDP& from)
    {
        from.send(checkOfPhone().serialize(bytesOf(puncher->local.password)), ours());
        queues.runReady();
    }

    ManualQueues queues;
    QueueRef queue = queues.makeQueue("dev.pelorin.path");
    std::unique_ptr<DatagramProxy> proxy = *DatagramProxy::open(queue);
    const PathCredentials phone{"phoneUfr", "phonePasswordOf24Letters"};
    std::unique_ptr<Puncher> puncher;
    std::vector<SocketAddress> forbidden;
    std::vector<std::string> notes;
    std::vector<SocketAddress> checkedBy;
};

using Notes = std::vector<std::string>;

TEST_F(PuncherTest, checksEveryTargetEveryFiftyMilliseconds)
{
    const RawUDP one, other;
    start({candidate(one), candidate(other, "srflx"), candidate(one, "srflx")});
    EXPECT_EQ(checks(one), 1u) << "an address is checked once, whatever it is called";
    EXPECT_EQ(checks(other), 1u);
    queues.advance(49ms);
    EXPECT_EQ(checks(one), 0u);
    queues.advance(1ms);
    EXPECT_EQ(checks(one), 1u);
    queues.advance(1s);
    EXPECT_EQ(checks(one), 20u);
    EXPECT_EQ(puncher->checksSent(), 44);
    EXPECT_EQ(puncher->checksAnswered(), 0);
}

TEST_F(PuncherTest, asksSoThatOnlyThePeerUnderstands)
{
    const RawUDP one;
    start({candidate(one)});
    queues.runReady();
    const auto datagrams = one.receive();
    ASSERT_EQ(datagrams.size(), 1u);
    const auto message = *StunMessage::parse(datagrams[0].bytes);
    EXPECT_EQ(message.method, StunMessage::Method::binding);
    EXPECT_EQ(message.messageClass, Class::request);
    ASSERT_EQ(message.attributes.size(), 2u);
    EXPECT_EQ(message.attributes[0],
        StunMessage::Attribute(AttributeType::username, "phoneUfr:" + puncher->local.ufrag));
    EXPECT_TRUE(StunMessage::verifyIntegrity(datagrams[0].bytes, bytesOf(phone.password)));
}

TEST_F(PuncherTest, takesTheFirstThatAnswers)
{
    const RawUDP one, other;
    start({candidate(one), candidate(other, "srflx")});
    const auto early = check(one);
    queues.advance(50ms);
    answer(other, received(other).back());
    EXPECT_EQ(takeNotes(),
        (Notes{"found srflx " + other.address.text(), "selected srflx " + other.address.text()}));
    EXPECT_EQ(puncher->selected(), candidate(other, "srflx"));
    answer(one, early);
    queues.advance(20s);
    EXPECT_EQ(takeNotes(), Notes{});
    EXPECT_EQ(puncher->checksAnswered(), 2);
    received(one);
    queues.advance(1s);
    EXPECT_EQ(checks(one) + checks(other), 0u) << "the search is over";
}

TEST_F(PuncherTest, isNotFooledByOthers)
{
    const RawUDP target;
    const struct {
        const char* what;
        Class messageClass = Class::success;
        StunMessage::Method method = StunMessage::Method::binding;
        std::string_view password = {}; // empty: not signed
        std::uint8_t idFlip = 0;
    } rows[] = {
        {"signed with another password", Class::success, StunMessage::Method::binding,
            "phonePasswordOf24Lettres"},
        {"signed with our own password", Class::success, StunMessage::Method::binding,
            puncher->local.password},
        {"not signed"},
        {"of another transaction", Class::success, StunMessage::Method::binding, phone.password, 1},
        {"an error", Class::error, StunMessage::Method::binding, phone.password},
        {"of another method", Class::success, StunMessage::Method::refresh, phone.password},
        {"our own check, reflected", Class::request, StunMessage::Method::binding, phone.password},
    };
    start({candidate(target)});
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        StunMessage forged = check(target);
        forged.messageClass = row.messageClass;
        forged.method = row.method;
        forged.transactionID[3] ^= row.idFlip;
        target.send(
            row.password.empty() ? forged.serialize() : forged.serialize(bytesOf(row.password)), ours());
        EXPECT_EQ(takeNotes(), Notes{});
        queues.advance(50ms);
    }
    EXPECT_EQ(puncher->checksAnswered(), 0);
    answer(target, check(target));
    EXPECT_EQ(takeNotes().size(), 2u);
}

TEST_F(PuncherTest, aStrangersAnswerIsNoneAndUsesItsCheckUp)
{
    const RawUDP target, stranger;
    start({candidate(target)});
    const auto first = check(target);
    answer(stranger, first);
    queues.runReady();
    answer(target, first);
    EXPECT_EQ(takeNotes(), Notes{}) << "the next round's check will tell";
}

TEST_F(PuncherTest, answersThePeerAndNobodyElse)
{
    const RawUDP source;
    const auto signedWith = [&](const StunMessage& request, std::string_view password) {
        return request.serialize(bytesOf(password));
    };
    const auto named = [&](const std::string& name) {
        auto request = checkOfPhone();
        request.attributes[0] = {AttributeType::username, name};
        return request;
    };
    const auto& own = puncher->local;
    auto nameless = checkOfPhone(), indication = checkOfPhone(), allocate = checkOfPhone();
    nameless.attributes.clear();
    indication.messageClass = Class::indication;
    allocate.method = StunMessage::Method::allocate;
    const struct {
        const char* what;
        Bytes datagram;
        bool isAnswered;
    } rows[] = {
        {"the peer's", signedWith(checkOfPhone(), own.password), true},
        {"another session's", signedWith(named("otherUfr:" + phone.ufrag), own.password), false},
        {"another peer's", signedWith(named(own.ufrag + ":otherUfr"), own.password), false},
        {"a prefix of the name", signedWith(named(own.ufrag + ":phoneUf"), own.password), false},
        {"more than the name", signedWith(named(own.ufrag + ":phoneUfrX"), own.password), false},
        {"the other way around", signedWith(named("phoneUfr:" + own.ufrag), own.password), false},
        {"without a name", signedWith(nameless, own.password), false},
        {"of another password", signedWith(checkOfPhone(), phone.password), false},
        {"unsigned", checkOfPhone().serialize(), false},
        {"an indication", signedWith(indication, own.password), false},
        {"of another method", signedWith(allocate, own.password), false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        source.send(row.datagram, ours());
        queues.runReady();
        const auto answers = source.receive();
        ASSERT_EQ(answers.size(), row.isAnswered ? 1u : 0u);
        EXPECT_EQ(std::exchange(checkedBy, {}).size(), answers.size());
        if (!row.isAnswered) continue;
        const auto answer = *StunMessage::parse(answers[0].bytes);
        EXPECT_EQ(answer.messageClass, Class::success);
        EXPECT_EQ(answer.transactionID, StunMessage::parse(row.datagram)->transactionID);
        EXPECT_EQ(answer.xorAddress(AttributeType::xorMappedAddress), source.address);
        EXPECT_TRUE(StunMessage::verifyIntegrity(answers[0].bytes, bytesOf(own.password)));
    }
    puncher->remote.reset();
    sendCheck(source);
    EXPECT_TRUE(source.receive().empty()) << "who the peer is was not known yet";
}

TEST_F(PuncherTest, followsThePeerToAnAddressNobodyTold)
{
    const RawUDP told, revealed, refused;
    forbidden = {refused.address};
    start({candidate(told), candidate(refused)});
    sendCheck(revealed);
    sendCheck(refused);
    EXPECT_EQ(checks(revealed), 1u) << "the answer, and no check before the next round";
    EXPECT_EQ(checks(refused), 1u);
    queues.advance(50ms);
    EXPECT_EQ(checks(refused), 0u);
    answer(revealed, check(revealed));
    EXPECT_EQ(takeNotes(),
        (Notes{"found prflx " + revealed.address.text(), "selected prflx " + revealed.address.text()}));
    sendCheck(told);
    EXPECT_EQ(received(told).back().messageClass, Class::success) << "answers go on";
}

TEST_F(PuncherTest, beginsOnceThePeerIsKnown)
{
    const RawUDP target;
    puncher->remote.reset();
    start({candidate(target)});
    queues.advance(200ms);
    EXPECT_EQ(checks(target), 0u);
    EXPECT_EQ(puncher->checksSent(), 0);
    puncher->remote = phone;
    queues.advance(50ms);
    EXPECT_EQ(checks(target), 1u);
}

TEST_F(PuncherTest, endsWithNothingAtTheDeadlineOrWhenStopped)
{
    const RawUDP target;
    start({candidate(target)}, 500ms);
    queues.advance(499ms);
    EXPECT_EQ(takeNotes(), Notes{});
    auto sent = received(target);
    EXPECT_EQ(sent.size(), 10u);
    queues.advance(1ms);
    EXPECT_EQ(takeNotes(), Notes{"found nothing"});
    received(target);
    answer(target, sent.back());
    EXPECT_EQ(takeNotes(), Notes{}) << "too late";

    start({candidate(target)});
    puncher->stop();
    EXPECT_EQ(takeNotes(), Notes{"found nothing"});
    puncher->stop();
    queues.advance(20s);
    EXPECT_EQ(takeNotes(), Notes{});
    EXPECT_EQ(checks(target), 1u);

    start({candidate(target)}, -1s); // passed already
    EXPECT_EQ(takeNotes(), Notes{"found nothing"});
}

TEST_F(PuncherTest, searchesAnewWhenThePathHasDied)
{
    const RawUDP one, other, revealed;
    start({candidate(one)});
    sendCheck(revealed);
    answer(one, check(one));
    EXPECT_EQ(takeNotes().size(), 2u);

    start({candidate(other)});
    EXPECT_FALSE(puncher->selected());
    checks(revealed);
    queues.advance(50ms);
    EXPECT_EQ(checks(one), 0u) << "it is no target any more";
    EXPECT_EQ(checks(revealed), 1u) << "what the peer revealed stays one";
    answer(other, received(other).back());
    EXPECT_EQ(
        takeNotes(), (Notes{"found host " + other.address.text(), "selected host " + other.address.text()}));
}

TEST_F(PuncherTest, aSecondStartTakesTheFirstOnesPlace)
{
    const RawUDP one, other;
    puncher->start({candidate(one)}, queues.now() + 1s, [this](const auto&) { note("the first"); });
    const auto old = check(one);
    start({candidate(other)}, 5s);
    answer(one, old);
    queues.advance(2s);
    EXPECT_EQ(takeNotes(), Notes{});
    EXPECT_EQ(checks(one), 0u);
    EXPECT_EQ(checks(other), 41u) << "one round at a time";
    queues.advance(3s);
    EXPECT_EQ(takeNotes(), Notes{"found nothing"});
}

TEST_F(PuncherTest, checksWhatIsAddedAtOnceAndKeepsTheListShort)
{
    const RawUDP one, late;
    start({candidate(one)});
    checks(one);
    puncher->add(candidate(late, "srflx"));
    puncher->add(candidate(late, "host"));
    puncher->add(candidate(one));
    EXPECT_EQ(checks(late), 1u);
    EXPECT_EQ(checks(one), 0u);

    const RawUDP sink({127, 0, 0, 2});
    for (int i = 0; i < 100; ++i)
        puncher->add({SocketAddress::ipv4({127, 0, 1, std::uint8_t(i)}, sink.address.port), "host"});
    const int sent = puncher->checksSent();
    const RawUDP latest;
    puncher->add(candidate(latest));
    queues.advance(50ms);
    EXPECT_EQ(puncher->checksSent(), sent + 1 + 32);
    EXPECT_EQ(checks(latest), 2u) << "of too many, the latest count";

    // Addresses that the peer reveals one after another end at the latest.
    start({});
    std::vector<std::unique_ptr<RawUDP>> moving;
    for (int i = 0; i < 40; ++i) sendCheck(*moving.emplace_back(std::make_unique<RawUDP>()));
    for (const auto& each : moving) each->receive();
    queues.advance(50ms);
    EXPECT_EQ(checks(*moving.front()), 0u);
    EXPECT_EQ(checks(*moving.back()), 1u);
}

TEST_F(PuncherTest, remembersNoMoreChecksThanItNeeds)
{
    const RawUDP target;
    start({candidate(target)}, 10min);
    const auto first = check(target);
    queues.advance(50ms * 2'046);
    const auto second = received(target).front();
    queues.advance(50ms * 2);
    answer(target, first);
    EXPECT_EQ(takeNotes(), Notes{}) << "forgotten";
    const auto last = received(target).back();
    answer(target, last);
    EXPECT_EQ(takeNotes().size(), 2u);
    answer(target, second);
    queues.runReady();
    EXPECT_LE(puncher->checksAnswered(), 2);
}

TEST_F(PuncherTest, mayStartAnewOrGoFromWithinItsCallbacks)
{
    const RawUDP target;
    puncher->start(
        {candidate(target)}, queues.now() + 1s, [&](const auto&) { start({candidate(target)}, 1s); });
    queues.advance(1s);
    queues.advance(1s);
    EXPECT_EQ(takeNotes(), Notes{"found nothing"});
    received(target);

    puncher->start({candidate(target)}, queues.now() + 1s, [&](const auto&) { puncher.reset(); });
    answer(target, check(target));
    queues.runReady();
    EXPECT_FALSE(puncher);
    EXPECT_EQ(takeNotes(), Notes{}) << "nobody is left to select";

    makePuncher();
    puncher->onPeerCheck = [&](const SocketAddress&) { puncher.reset(); };
    sendCheck(target);
    EXPECT_FALSE(puncher);

    makePuncher();
    start({candidate(target)}, 1s);
    puncher.reset();
    queues.advance(20s);
    EXPECT_EQ(takeNotes(), Notes{});
}

// Two whole ends on one machine, each knowing the other's address from another source than its packets.
TEST(Puncher, meetsItsLike)
{
    ManualQueues queues;
    const auto queue = queues.makeQueue("dev.pelorin.path");
    struct End {
        explicit End(const QueueRef& queue)
            : proxy(*DatagramProxy::open(queue)),
              puncher(*proxy, queue, [](const SocketAddress&) { return true; })
        {
            proxy->onOtherDatagram = [this](ByteView datagram, const SocketAddress& source) {
                puncher.handle(datagram, source);
            };
        }
        SocketAddress address() const
        {
            return SocketAddress::ipv4({127, 0, 0, 1}, proxy->network().localAddress().port);
        }
        std::unique_ptr<DatagramProxy> proxy;
        Puncher puncher;
        std::optional<Candidate> found;
    };
    End here(queue), there(queue);
    here.puncher.remote = there.puncher.local;
    there.puncher.remote = here.puncher.local;
    // This one is told nothing and learns where the other is from its checks.
    here.puncher.start({}, queues.now() + 1s, [&](const auto& peer) { here.found = peer; });
    there.puncher.start(
        {{here.address(), "srflx"}}, queues.now() + 1s, [&](const auto& peer) { there.found = peer; });
    queues.advance(50ms);
    queues.runReady();
    EXPECT_EQ(there.found, (Candidate{here.address(), "srflx"}));
    EXPECT_EQ(here.found, (Candidate{there.address(), "prflx"}));
}

TEST(ConnectivityCheck, isAnsweredByASuccessOfThePeersAlone)
{
    const PathCredentials here = PathCredentials::random(), there = PathCredentials::random();
    const auto id = StunMessage::newTransactionID();
    const auto source = SocketAddress::ipv4({203, 0, 113, 7}, 51'820);
    const Bytes request = ConnectivityCheck::request(here, there, id);
    const auto answer = ConnectivityCheck::answer(request, source, there, here);
    ASSERT_TRUE(answer);
    EXPECT_TRUE(ConnectivityCheck::isAnswer(*answer, there));
    EXPECT_FALSE(ConnectivityCheck::isAnswer(*answer, here));
    EXPECT_FALSE(ConnectivityCheck::isAnswer(request, there)) << "a check that was sent back";
    EXPECT_FALSE(ConnectivityCheck::answer(request, source, here, there)) << "to another";
    EXPECT_FALSE(ConnectivityCheck::answer(*answer, source, there, here));
}

TEST(PathCredentials, areDrawnEvenlyFromLettersAndDigits)
{
    constexpr std::string_view alphabet = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    std::vector<int> counts(256);
    constexpr int draws = 2'000;
    for (int i = 0; i < draws; ++i) {
        const auto credentials = PathCredentials::random();
        ASSERT_EQ(credentials.ufrag.size(), 8u);
        ASSERT_EQ(credentials.password.size(), 24u);
        for (const unsigned char c : credentials.ufrag + credentials.password) ++counts[c];
    }
    int total = 0, firstEight = 0;
    for (std::size_t i = 0; i < alphabet.size(); ++i) {
        const int count = counts[static_cast<unsigned char>(alphabet[i])];
        EXPECT_GT(count, 0);
        total += count;
        if (i < 8) firstEight += count;
    }
    EXPECT_EQ(total, draws * 32) << "nothing else occurs";
    // 256 is not a multiple of 62: without care the first eight come up in 15.6 % of all draws rather than in
    // 12.9. Ten standard deviations lie between.
    EXPECT_LT(double(firstEight) / total, 0.1425);
}

} // namespace
} // namespace pelorin
