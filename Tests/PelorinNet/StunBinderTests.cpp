#include "PelorinNet/Path/StunBinder.h"

#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/PelorinNet/RawUDP.h"

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using Class = StunMessage::Class;

const SocketAddress reflexive = SocketAddress::ipv4({203, 0, 113, 7}, 51'820);

class StunBinderTest : public testing::Test {
protected:
    StunBinderTest()
    {
        socket->onReceive = [this](ByteView datagram, const SocketAddress&) {
            handled.push_back(binder && binder->handle(datagram));
        };
    }

    void bind()
    {
        binder->binding(*socket, server.address, [this](const Result<SocketAddress, NetError>& result) {
            outcomes.push_back(result ? result->text() : result.error().description);
        });
    }
    std::vector<RawUDP::Datagram> requests()
    {
        queues.runReady();
        return server.receive();
    }
    StunMessage answerTo(const Bytes& request, Class messageClass = Class::success) const
    {
        auto answer = *StunMessage::parse(request);
        answer.messageClass = messageClass;
        answer.attributes.push_back(StunMessage::xorAddressAttribute(
            StunMessage::AttributeType::xorMappedAddress, reflexive, answer.transactionID));
        return answer;
    }
    void send(const StunMessage& message)
    {
        server.send(message.serialize(), socket->localAddress());
        queues.runReady();
    }

    ManualQueues queues;
    QueueRef queue = queues.makeQueue("dev.pelorin.path");
    std::unique_ptr<UDPSocket> socket = *UDPSocket::open("127.0.0.1", 0, queue);
    std::unique_ptr<StunBinder> binder = std::make_unique<StunBinder>(queue);
    RawUDP server;
    std::vector<std::string> outcomes;
    std::vector<bool> handled;
};

using Outcomes = std::vector<std::string>;

TEST_F(StunBinderTest, isContentWithAnAnswerToAnyOfItsSends)
{
    for (int answered = 0; answered < 4; ++answered) {
        SCOPED_TRACE(answered);
        bind();
        auto sent = requests();
        for (int i = 0; i < answered; ++i) {
            queues.advance(499ms);
            EXPECT_TRUE(requests().empty());
            queues.advance(1ms);
            const auto again = requests();
            ASSERT_EQ(again.size(), 1u);
            EXPECT_EQ(again[0].bytes, sent[0].bytes);
        }
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(sent[0].bytes.size(), StunMessage::headerSize) << "no attributes";
        send(answerTo(sent[0].bytes));
        send(answerTo(sent[0].bytes));
        EXPECT_EQ(std::exchange(outcomes, {}), Outcomes{reflexive.text()});
        EXPECT_EQ(std::exchange(handled, {}), (std::vector{true, false}));
        queues.advance(10s);
        EXPECT_TRUE(requests().empty());
    }
}

TEST_F(StunBinderTest, givesASilentServerUpAfterThreeSeconds)
{
    bind();
    queues.advance(2'999ms);
    EXPECT_EQ(outcomes, Outcomes{});
    const auto sent = requests();
    EXPECT_EQ(sent.size(), 4u);
    queues.advance(1ms);
    EXPECT_EQ(outcomes, Outcomes{"STUN Binding to " + server.address.text() + " timed out"});
    send(answerTo(sent[0].bytes));
    EXPECT_EQ(outcomes.size(), 1u);
    EXPECT_EQ(handled, std::vector{false});
}

TEST_F(StunBinderTest, tellsAServerThatDoesNotSayWhatItSees)
{
    bind();
    auto answer = answerTo(requests().at(0).bytes);
    answer.attributes.clear();
    send(answer);
    EXPECT_EQ(outcomes, Outcomes{"Binding response without XOR-MAPPED-ADDRESS"});
}

TEST_F(StunBinderTest, waitsOnWhenItIsNotAnswered)
{
    bind();
    const auto request = requests().at(0).bytes;
    auto otherTransaction = answerTo(request), otherMethod = answerTo(request);
    otherTransaction.transactionID[0] ^= 0x80;
    otherMethod.method = StunMessage::Method::allocate;
    const std::pair<StunMessage, bool> rows[]
        = {{otherTransaction, false}, {otherMethod, false}, {answerTo(request, Class::request), false},
            {answerTo(request, Class::indication), false}, {answerTo(request, Class::error), true}};
    for (const auto& [message, isOurs] : rows) {
        send(message);
        EXPECT_EQ(outcomes, Outcomes{});
        EXPECT_EQ(std::exchange(handled, {}), std::vector{isOurs});
    }
    EXPECT_FALSE(binder->handle(Bytes(19, 0)));
    send(answerTo(request));
    EXPECT_EQ(outcomes, Outcomes{reflexive.text()});
}

TEST_F(StunBinderTest, keepsRequestsApartAndMayGoFromWithinACompletion)
{
    bind();
    binder->binding(*socket, server.address, [this](const auto&) {
        binder.reset();
        outcomes.push_back("gone");
    });
    const auto sent = requests();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_NE(sent[0].bytes, sent[1].bytes);
    send(answerTo(sent[1].bytes));
    EXPECT_EQ(outcomes, Outcomes{"gone"});
    queues.advance(10s);
    EXPECT_EQ(outcomes, Outcomes{"gone"}) << "what it waited for goes with it";
}

} // namespace
} // namespace pelorin
