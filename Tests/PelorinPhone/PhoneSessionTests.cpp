#include "PelorinPhone/PhoneSession.h"

#include "PelorinNet/Channel/LoopbackPair.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Peers/PictureEncoder.h"
#include "Tests/Peers/ScriptedHost.h"

#include <gtest/gtest.h>

using namespace pelorin;
using namespace std::chrono_literals;
using lab::PictureEncoder;

namespace {

class PhoneSessionTest : public testing::Test {
protected:
    PhoneSessionTest()
    {
        Log::observe([](LogLevel, std::string_view, std::string_view) {});
        auto pair = LoopbackPair::make({});
        host.emplace(std::move(pair.second), hostQueue);
        queue->post([this, channel = std::move(pair.first)]() mutable {
            session = std::make_unique<PhoneSession>(std::move(channel), queue, decodeQueue,
                PhoneSession::Settings{"Test phone", {1170, 2532, 3}, {}, clientCapability::decodesHEVC});
            session->onHello = [this](const std::string& name) { hostName = name; };
            session->onPicture = [this](const ReceivedPicture& picture) { pictures.push_back(picture); };
            session->onEnd = [this](const PhoneSession::End& reason) { end = reason; };
            session->start();
        });
        queues.runReady();
    }
    ~PhoneSessionTest() override
    {
        run([this] { session.reset(); });
        host.reset();
        queues.runReady();
        Log::observe({});
    }

    void run(Task task)
    {
        queue->post(std::move(task));
        queues.runReady();
    }
    void hostSays(const Message& message) { hostSays(encodeFrame(message)); }
    void hostSays(Bytes bytes)
    {
        hostQueue->post([this, bytes = std::move(bytes)]() mutable { host->say(std::move(bytes)); });
        queues.runReady();
    }
    void greet() { hostSays(message::HelloAck{protocolVersion, "Test host"}); }

    // Stamped as a host does that needs 5 ms, when its clock, which is ahead by a minute, shows the screen's
    // change.
    message::VideoFrame stamped(message::VideoFrame frame) const
    {
        const FrameStamps stamps{1000, 1000, 2500, 500};
        Bytes data = stamps.encodeSEI(encoder.format().codec);
        data.insert(data.end(), frame.data.begin(), frame.data.end());
        const auto now
            = std::chrono::duration_cast<std::chrono::microseconds>(queues.now().time_since_epoch());
        return {frame.isKeyframe, static_cast<std::uint64_t>((now + 60s - 5ms).count()), std::move(data)};
    }
    template <class Kind>
    std::vector<Kind> heard() const
    {
        return host->all<Kind>();
    }

    ManualQueues queues;
    QueueRef queue = queues.makeQueue("session");
    QueueRef decodeQueue = queues.makeQueue("decode");
    QueueRef hostQueue = queues.makeQueue("host");
    std::optional<lab::ScriptedHost> host;
    std::unique_ptr<PhoneSession> session;
    PictureEncoder encoder{VideoCodec::h264, 64, 48};
    std::string hostName;
    std::vector<ReceivedPicture> pictures;
    std::optional<PhoneSession::End> end;
};

TEST_F(PhoneSessionTest, saysHelloFirstAndReadsStamps)
{
    ASSERT_FALSE(host->heard.empty());
    const auto* hello = std::get_if<message::Hello>(&host->heard.front());
    ASSERT_TRUE(hello);
    EXPECT_EQ(hello->version, protocolVersion);
    EXPECT_EQ(hello->clientName, "Test phone");
    EXPECT_EQ(hello->viewport, (Viewport{1170, 2532, 3}));
    EXPECT_EQ(hello->capabilities, clientCapability::decodesHEVC | clientCapability::readsFrameStamps);
    greet();
    EXPECT_EQ(hostName, "Test host");
}

TEST_F(PhoneSessionTest, predictsThePointerFromEveryMoveThatTheHostIsTold)
{
    std::optional<CursorPredictor::Place> place;
    run([&] {
        session->onPointer = [&](const CursorPredictor& pointer) { place = pointer.at(queue->now()); };
        session->send(message::MouseMove{7, 7}); // before the host's answer: nobody hears of it
    });
    greet();
    hostSays(message::DisplayInfo{390, 844, 390, 844});
    hostSays(message::CursorPosition{100, 50, 0});
    EXPECT_EQ(place, (CursorPredictor::Place{100, 50}));
    run([&] {
        session->send(message::MouseMove{3, 4});
        session->send(message::MouseMove{-500, 0});
    });
    EXPECT_EQ(place, (CursorPredictor::Place{0, 54})) << "at once, and not beyond the display";
    hostSays(message::CursorPosition{103, 54, 1});
    EXPECT_EQ(place, (CursorPredictor::Place{0, 54}));
}

TEST_F(PhoneSessionTest, decodesAndTellsWhereTheTimeWent)
{
    greet();
    hostSays(encoder.format());
    for (int i = 0; i < 3; ++i) {
        hostSays(stamped(encoder.encode(100)));
        queues.advance(16ms);
    }
    ASSERT_EQ(pictures.size(), 3U);
    EXPECT_TRUE(pictures[0].isKeyframe);
    EXPECT_NEAR(pictures[2].picture.lumaAt(60, 4), 100, 4);
    const auto figures = session->total();
    EXPECT_EQ(figures.frames, 3);
    EXPECT_EQ(figures.dropped, 0);
    EXPECT_EQ(figures.stages[Stage::encode], 2.5);
    EXPECT_NEAR(figures.stages[Stage::network].value(), 0, 0.001); // the loopback takes no virtual time
    EXPECT_NEAR(figures.ageMs.value(), 5, 0.001);
}

TEST_F(PhoneSessionTest, listensToNothingButTheAnswerBeforeIt)
{
    hostSays(encoder.format());
    hostSays(encoder.encode(100));
    run([this] { session->send(message::MouseMove{1, 1}); });
    EXPECT_TRUE(pictures.empty());
    EXPECT_TRUE(heard<message::MouseMove>().empty());
    greet();
    run([this] { session->send(message::MouseMove{1, 1}); });
    EXPECT_EQ(heard<message::MouseMove>().size(), 1U);
    hostSays(encoder.encode(100)); // a delta without format
    EXPECT_TRUE(pictures.empty());
    EXPECT_FALSE(end);
}

TEST_F(PhoneSessionTest, refusesAnotherVersion)
{
    hostSays(message::HelloAck{4, "Old host"});
    ASSERT_TRUE(end);
    EXPECT_EQ(end->kind, PhoneSession::End::Kind::incompatible);
    EXPECT_TRUE(hostName.empty());
}

class PhoneSessionFedWith : public PhoneSessionTest, public testing::WithParamInterface<Bytes> {};

INSTANTIATE_TEST_SUITE_P(Rows, PhoneSessionFedWith,
    testing::Values(Bytes{6, 0xFF, 0xFF, 0xFF, 0xFF}, // longer than any frame
        Bytes{2, 0, 0, 0, 1, 5}, // a helloAck cut short
        Bytes{19, 0, 0, 0, 2, 0xFF, 0xFF}, // 65,535 displays in no bytes
        Bytes{10, 0, 0, 0, 2, 3, 0})); // a codec that does not exist

TEST_P(PhoneSessionFedWith, bytesThatAreNoFramesEnds)
{
    hostSays(GetParam());
    ASSERT_TRUE(end);
    EXPECT_EQ(end->kind, PhoneSession::End::Kind::protocolError);
}

TEST_F(PhoneSessionTest, takesTheLongestDisplayList)
{
    greet();
    std::size_t count = 0;
    session->onDisplayList = [&](const std::vector<DisplayDescriptor>& displays) { count = displays.size(); };
    hostSays(
        message::DisplayList{std::vector(65'535, DisplayDescriptor{1, std::string(100, 'x'), 1, 1, false})});
    EXPECT_EQ(count, 65'535U);
    EXPECT_FALSE(end);
}

TEST_F(PhoneSessionTest, ignoresWhatOnlyAPhoneSays)
{
    greet();
    const std::vector<Message> others{
        message::Bye{}, message::Ping{1, 2}, message::Hello{5, "me", {}, {}, {}}, message::Key{0, true, {}}};
    for (const Message& message : others) hostSays(message);
    hostSays(message::HelloAck{4, "again"});
    EXPECT_FALSE(end);
    EXPECT_EQ(hostName, "Test host");
}

TEST_F(PhoneSessionTest, keepsItselfAliveAndReportsEverySecond)
{
    greet();
    hostSays(encoder.format());
    const auto pingsBefore = heard<message::Ping>().size();
    for (int i = 0; i < 30; ++i) {
        hostSays(stamped(encoder.encode(100)));
        queues.advance(100ms);
    }
    EXPECT_EQ(heard<message::Ping>().size(), pingsBefore + 3);
    const auto reports = heard<message::ClientReport>();
    ASSERT_EQ(reports.size(), 3U);
    EXPECT_NEAR(reports[1].fps, 10, 1);
    EXPECT_FALSE(end);
}

TEST_F(PhoneSessionTest, reportsNothingBeforeThereIsARoundTripAndThenWhatIsStillOnItsWay)
{
    greet();
    host->answersPings = false;
    queues.advance(1s);
    ASSERT_EQ(heard<message::ClientReport>().size(), 1U); // the first ping was answered before
    EXPECT_NEAR(heard<message::ClientReport>()[0].rttMs, 0, 0.01);
    for (int i = 0; i < 30; ++i) { // the path is blocked one way
        hostSays(message::PathInfo{"loopback"});
        queues.advance(100ms);
    }
    const auto reports = heard<message::ClientReport>();
    ASSERT_EQ(reports.size(), 4U);
    EXPECT_NEAR(reports[3].rttMs, 3000, 1);
}

TEST_F(PhoneSessionTest, endsAfterFiveSecondsOfSilence)
{
    greet();
    host->answersPings = false;
    queues.advance(4900ms);
    EXPECT_FALSE(end);
    queues.advance(1200ms);
    ASSERT_TRUE(end);
    EXPECT_EQ(end->kind, PhoneSession::End::Kind::dropped);
}

TEST_F(PhoneSessionTest, forgivesTheSilenceOfItsOwnSleep)
{
    greet();
    queues.stall(600s);
    queues.runReady();
    queues.advance(3s);
    EXPECT_FALSE(end);
}

TEST_F(PhoneSessionTest, asksForKeyframesAtABoundedRateUntilOneComes)
{
    greet();
    hostSays(encoder.format());
    encoder.encode(100);
    for (int i = 0; i < 50; ++i) {
        hostSays(encoder.encode(100));
        queues.advance(10ms);
    }
    EXPECT_TRUE(pictures.empty());
    const auto asked = heard<message::RequestKeyframe>().size();
    EXPECT_GE(asked, 2U);
    EXPECT_LE(asked, 3U);
    EXPECT_EQ(session->total().dropped, 50);

    hostSays(encoder.encode(120, true));
    hostSays(encoder.encode(120));
    EXPECT_EQ(pictures.size(), 2U);
    queues.advance(300ms);
    const auto askedAtKeyframe = heard<message::RequestKeyframe>().size();
    queues.advance(2s);
    EXPECT_EQ(heard<message::RequestKeyframe>().size(), askedAtKeyframe);
}

TEST_F(PhoneSessionTest, asksAgainWhenTheRequestedKeyframeIsDamagedAndNothingFollows)
{
    greet();
    hostSays(encoder.format());
    encoder.encode(100);
    hostSays(encoder.encode(100));
    ASSERT_EQ(heard<message::RequestKeyframe>().size(), 1U);
    auto damaged = encoder.encode(100, true);
    damaged.data.resize(damaged.data.size() / 2);
    hostSays(damaged);
    queues.advance(1s);
    EXPECT_EQ(heard<message::RequestKeyframe>().size(), 2U);
}

TEST_F(PhoneSessionTest, showsNoDeltaAfterADamagedPicture)
{
    greet();
    hostSays(encoder.format());
    hostSays(encoder.encode(100));
    auto damaged = encoder.encode(100);
    damaged.data.pop_back();
    hostSays(damaged);
    hostSays(encoder.encode(100));
    EXPECT_EQ(pictures.size(), 1U);
    hostSays(encoder.encode(90, true));
    EXPECT_EQ(pictures.size(), 2U);
}

TEST_F(PhoneSessionTest, boundsWhatWaitsForTheDecoder)
{
    greet();
    hostSays(encoder.format());
    Bytes flood = encodeFrame(encoder.encode(100));
    const Bytes delta = encodeFrame(encoder.encode(100));
    for (int i = 0; i < 3 * VideoReceiver::maxWaiting; ++i)
        flood.insert(flood.end(), delta.begin(), delta.end());
    hostSays(flood); // decoding begins when all of it is there
    EXPECT_LE(pictures.size(), static_cast<std::size_t>(VideoReceiver::maxWaiting));
    EXPECT_EQ(heard<message::RequestKeyframe>().size(), 1U);
    pictures.clear();
    hostSays(encoder.encode(100, true));
    EXPECT_EQ(pictures.size(), 1U);
}

TEST_F(PhoneSessionTest, mayBeDestroyedInAnyCallback)
{
    greet();
    hostSays(encoder.format());
    session->onPicture = [this](const ReceivedPicture&) { session.reset(); };
    Bytes frames = encodeFrame(encoder.encode(100));
    for (int i = 0; i < 3; ++i) {
        const Bytes delta = encodeFrame(encoder.encode(100));
        frames.insert(frames.end(), delta.begin(), delta.end());
    }
    hostSays(frames);
    EXPECT_FALSE(session);
}

TEST_F(PhoneSessionTest, mayBeDestroyedWhenItEnds)
{
    session->onEnd = [this](const PhoneSession::End&) { session.reset(); };
    Bytes frames = encodeFrame(message::Error{ErrorCode::unauthorized, "no"});
    const Bytes more = encodeFrame(message::Error{ErrorCode::unauthorized, "no again"});
    frames.insert(frames.end(), more.begin(), more.end());
    hostSays(frames);
    EXPECT_FALSE(session);
    queues.advance(10s);
}

} // namespace
