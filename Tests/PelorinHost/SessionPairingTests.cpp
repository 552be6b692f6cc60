#include "PelorinHost/HostSession.h"
#include "PelorinNet/Channel/LoopbackPair.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Fakes/FakeHostPlatform.h"
#include "Tests/Fakes/FakePhone.h"
#include "Tests/Fakes/ProvenChannel.h"
#include "Tests/Lab/Programs.h"

#include <gmock/gmock.h>

namespace pelorin {
namespace {

using fakes::FakePhone;
using testing::IsEmpty;
using testing::SizeIs;

const std::string expired = "配对码已过期或已经用过。请在 Mac 菜单里重新点「配对新手机」再扫一次";

// Sessions on channels whose phone has proved to be somebody.
struct SessionPairing : testing::Test {
    fakes::FakeHostPlatform platform;
    ManualQueues queues;
    lab::TemporaryFolder folder;
    PairingStore store{folder.path(), queues.makeQueue("pairing")};
    std::unique_ptr<FakePhone> phone;
    std::unique_ptr<HostSession> session;
    std::string closing; // the reason of the last session's end

    void open(const std::string& identity)
    {
        auto pair = LoopbackPair::make({});
        phone = std::make_unique<FakePhone>(std::move(pair.second), queues.makeQueue("phone"));
        session = std::make_unique<HostSession>(SessionSurroundings{platform, queues, store, std::nullopt},
            HostConfig(), std::make_unique<fakes::ProvenChannel>(std::move(pair.first), identity),
            "me@example.com", queues.makeQueue("dev.pelorin.host.session"));
        closing.clear();
        session->onClose = [this](HostSession&, const std::optional<std::string>& reason) {
            closing = reason.value_or("closed");
        };
        session->start();
    }

    void say(const Message& message)
    {
        phone->send(message);
        queues.runReady();
    }
};

TEST_F(SessionPairing, answersTheProvenRequestWithAKeyAndEnds)
{
    const auto offer = store.beginPairing();
    open(offer.key.identity);
    say(message::PairRequest{offer.key.identity, "王小明的 iPhone\n"});
    ASSERT_THAT(store.devices(), SizeIs(1));
    const auto device = store.devices()[0];
    EXPECT_EQ(device.name, "王小明的 iPhone ");
    ASSERT_THAT(phone->received, SizeIs(1));
    const auto result = phone->last<message::PairResult>();
    EXPECT_EQ(result.deviceID, device.id);
    EXPECT_EQ(SecretBytes(ByteView(result.key)), device.key);
    EXPECT_EQ(result.hostName, "test-desktop");
    EXPECT_TRUE(phone->isClosed);
    EXPECT_EQ(session->endKind, EndKind::paired);
    EXPECT_EQ(closing, "paired 王小明的 iPhone  as " + device.id);
    EXPECT_FALSE(session->saidHello);
}

TEST_F(SessionPairing, pairsNobodyOnAnyOtherGround)
{
    const auto used = store.beginPairing();
    ASSERT_TRUE(store.redeem(used.key.identity, "first"));
    const auto offer = store.beginPairing();
    const struct {
        const char* what;
        std::string channel;
        std::string request;
    } rows[] = {
        {"without TLS", "", offer.key.identity},
        {"as a phone that is paired already", store.devices()[0].id, offer.key.identity},
        {"with the identity of the offer, proved for another", used.key.identity, offer.key.identity},
        {"with another identity, proved for the offer", offer.key.identity, used.key.identity},
        {"with no identity, proved for the offer", offer.key.identity, ""},
        {"with a used code", used.key.identity, used.key.identity},
    };
    for (const auto& [what, channel, request] : rows) {
        open(channel);
        say(message::PairRequest{request, "phone"});
        EXPECT_EQ(phone->last<message::Error>(), (message::Error{ErrorCode::unauthorized, expired})) << what;
        EXPECT_EQ(phone->count<message::PairResult>(), 0u) << what;
        EXPECT_EQ(session->endKind, EndKind::failed) << what;
    }
    EXPECT_THAT(store.devices(), SizeIs(1));
    EXPECT_TRUE(store.pending());

    open(offer.key.identity);
    queues.advance(PairingStore::validity);
    say(message::PairRequest{offer.key.identity, "late"});
    EXPECT_EQ(phone->last<message::Error>().message, expired);
}

TEST_F(SessionPairing, showsNothingOfTheDesktopOnAPairingChannel)
{
    const auto offer = store.beginPairing();
    open(offer.key.identity);
    const Message attempts[] = {message::Ping{1, 2}, message::Bye{}, message::RequestKeyframe{},
        message::SetViewport{}, message::SetDisplay{}, message::MouseMove{1, 1}, message::MouseButtonChange{},
        message::Scroll{}, message::Key{0, true, {}}, message::Text{"x"}, message::ClientReport{},
        message::SetOptions{}, message::PasteText{"x", true}, message::LiveActivityRegister{}};
    for (const Message& attempt : attempts) say(attempt);
    EXPECT_THAT(phone->received, IsEmpty());
    EXPECT_THAT(platform.events.events, IsEmpty());

    say(message::Hello{5, "phone", {}, {}, {}});
    EXPECT_EQ(phone->last<message::Error>().code, ErrorCode::unauthorized);
    EXPECT_EQ(phone->count<message::HelloAck>(), 0u);
    EXPECT_TRUE(phone->isClosed);
    EXPECT_EQ(session->endKind, EndKind::failed);
    EXPECT_EQ(closing, "hello on a connection for pairing");
    EXPECT_EQ(platform.capture.stream, nullptr);
    say(message::PairRequest{offer.key.identity, "phone"});
    EXPECT_THAT(store.devices(), IsEmpty()) << "the session is over";
}

} // namespace
} // namespace pelorin
