#include "PelorinHost/HostSession.h"
#include "PelorinHost/Input/ClipboardBridge.h"
#include "PelorinNet/Channel/LoopbackPair.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Fakes/FakeHostPlatform.h"
#include "Tests/Fakes/FakePhone.h"
#include "Tests/Lab/Programs.h"
#include "Tests/PelorinHost/LogLines.h"

#include <cmath>
#include <gmock/gmock.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using fakes::FakeHostPlatform;
using fakes::FakePhone;
using testing::ElementsAre;
using testing::HasSubstr;

struct SessionTest : testing::Test {
    FakeHostPlatform platform; // outlives the queues, whose last tasks still use it
    ManualQueues queues;
    lab::TemporaryFolder folder;
    PairingStore pairing{folder.path(), queues.makeQueue("pairing")};
    HostConfig config;
    LoopbackPair pair = LoopbackPair::make({});
    std::unique_ptr<FakePhone> phone;
    std::unique_ptr<HostSession> session;
    std::shared_ptr<Confined<VirtualDisplayManager>> virtualDisplays; // for phones that ask for one
    std::vector<std::string> closings;
    std::vector<std::string> lines;
    int hellos = 0;
    std::function<void()> onClosed;

    void open()
    {
        phone = std::make_unique<FakePhone>(std::move(pair.second), queues.makeQueue("phone"));
        session = std::make_unique<HostSession>(
            SessionSurroundings{platform, queues, pairing, std::nullopt, virtualDisplays}, config,
            std::move(pair.first), "本机（测试模式）", queues.makeQueue("dev.pelorin.host.session"));
        session->onClose = [this](HostSession&, std::optional<std::string> reason) {
            closings.push_back(reason.value_or("closed"));
            if (onClosed) onClosed();
        };
        session->onStats = [this](const SessionFigures& figures) { lines.push_back(figures.line()); };
        session->onHello = [this](HostSession&) { ++hellos; };
        session->start();
    }

    void begin(ClientCapabilities capabilities = {})
    {
        open();
        phone->hello(capabilities);
        queues.runReady();
        ASSERT_NE(platform.capture.stream, nullptr);
    }

    // Displays can be made: what is arranged is what is listed.
    void makeDisplays()
    {
        const auto queue = queues.makeQueue("dev.pelorin.host.display");
        virtualDisplays = std::make_shared<Confined<VirtualDisplayManager>>(queue,
            [this, queue] { return std::make_unique<VirtualDisplayManager>(platform.arrangement, queue); });
        platform.arrangement.onChange = [this, physical = platform.capture.displays] {
            const auto& made = platform.arrangement;
            platform.capture.displays = physical;
            if (made.virtualID == 0) return;
            const auto [width, height] = made.sizes.back();
            const Rect bounds{0, 0, double(width), double(height)};
            platform.capture.displays = {{made.virtualID, "SPARE-1", width, height, bounds, true}};
            platform.bounds.displays.insert(platform.bounds.displays.begin(), {made.virtualID, bounds});
        };
    }
    void helloAsPhone()
    {
        phone->send(message::Hello{protocolVersion, "phone", {1170, 2532, 3},
            {DisplayMode::followPhone, 0, 0}, clientCapability::choosesDisplay});
        queues.runReady();
    }

    void say(const Message& message)
    {
        phone->send(message);
        queues.runReady();
    }

    void feed(int pictures = 1)
    {
        for (int i = 0; i < pictures; ++i) {
            platform.capture.stream->feed();
            queues.runReady();
        }
    }

    // Lets time pass with a phone that pings, as every living one does.
    void pingFor(std::chrono::seconds time)
    {
        for (; time > 0s; time -= 1s) {
            say(message::Ping{});
            queues.advance(1s);
        }
    }
};

TEST_F(SessionTest, answersHelloAndShowsTheFirstPicture)
{
    begin();
    feed();
    EXPECT_EQ(phone->last<message::HelloAck>(), (message::HelloAck{5, "test-desktop"}));
    EXPECT_EQ(typeOf(phone->received.front()), MessageType::helloAck);
    EXPECT_EQ(phone->last<message::DisplayInfo>(), (message::DisplayInfo{1170, 658, 1920, 1080}));
    EXPECT_EQ(phone->last<message::PathInfo>().description, "loopback");
    ASSERT_EQ(phone->count<message::VideoFrame>(), 1u);
    EXPECT_TRUE(phone->last<message::VideoFrame>().isKeyframe);
    EXPECT_EQ(phone->last<message::VideoFormat>().parameterSets.size(), 2u);
    EXPECT_EQ(phone->count<message::DisplayList>(), 0u) << "only for phones that choose displays";
    EXPECT_EQ(hellos, 1);
    EXPECT_TRUE(session->saidHello);
    EXPECT_THAT(platform.powerPort.activities, ElementsAre("Pelorin session started"));
    EXPECT_EQ(platform.powerPort.heldAssertions(), 1);

    say(message::Bye{});
    EXPECT_THAT(closings, ElementsAre("client ended the session"));
    EXPECT_EQ(session->endKind, EndKind::userEnded);
    EXPECT_EQ(platform.powerPort.heldAssertions(), 0);
    EXPECT_TRUE(phone->isClosed);
    EXPECT_EQ(platform.capture.stream, nullptr);
}

TEST_F(SessionTest, listensToNothingButHelloAtFirst)
{
    open();
    for (const Message& early : {Message(message::Ping{1, 2}), Message(message::RequestKeyframe{}),
             Message(message::Key{0, true, {}}), Message(message::SetViewport{}), Message(message::Bye{}),
             Message(message::PasteText{"x", true}), Message(message::HelloAck{5, "me"})})
        say(early);
    EXPECT_TRUE(phone->received.empty());
    EXPECT_TRUE(platform.events.events.empty());
    phone->hello();
    queues.runReady();
    EXPECT_EQ(hellos, 1);
}

TEST_F(SessionTest, refusesInTheWordsThatThePhoneShows)
{
    const Message version4 = message::Hello{4, "old\nphone", {}, {}, {}};
    const Message version5 = message::Hello{5, "phone", {}, {}, {}};
    const struct {
        Message message;
        bool mayCapture;
        bool mayPost;
        ErrorCode code;
        std::string text;
    } rows[] = {
        {version4, false, false, ErrorCode::versionMismatch,
            "主机协议版本是 v5，客户端是 v4，请把两边都更新到最新版"},
        {version5, false, true, ErrorCode::permissionsMissing,
            "请在 Mac 上给 Pelorin Host 授予屏幕录制和辅助功能权限"},
        {version5, true, false, ErrorCode::permissionsMissing,
            "请在 Mac 上给 Pelorin Host 授予屏幕录制和辅助功能权限"},
        {message::PairRequest{"id", "phone"}, true, true, ErrorCode::unauthorized,
            "配对码已过期或已经用过。请在 Mac 菜单里重新点「配对新手机」再扫一次"},
    };
    for (const auto& [message, mayCapture, mayPost, code, text] : rows) {
        pair = LoopbackPair::make({});
        platform.permissionsPort.capture.isGranted = mayCapture;
        platform.permissionsPort.postEvents.isGranted = mayPost;
        open();
        say(message);
        EXPECT_EQ(phone->last<message::Error>(), (message::Error{code, text}));
        EXPECT_TRUE(phone->isClosed);
        EXPECT_EQ(session->endKind, EndKind::failed);
        EXPECT_EQ(hellos, 0);
        EXPECT_EQ(platform.capture.streamsMade, 0);
    }
}

TEST_F(SessionTest, endsWithAReasonWhateverBreaksTheConnection)
{
    const struct {
        std::function<void()> happens;
        std::string reason;
    } rows[] = {
        {[&] { phone->hello(); }, "protocol error: unexpected hello"},
        {[&] { phone->send(Bytes{11, 0xFF, 0xFF, 0xFF, 0xFF}); },
            "protocol error: frameTooLarge(4294967295)"},
        {[&] { phone->send(Bytes{22, 0, 0, 0, 10, 0, 0, 0, 0, 0, 0, 0, 0, 5, 0}); },
            "protocol error: invalidValue(ScrollPhase raw value 5)"},
        {[&] { phone->hangUp(); }, "client disconnected"},
        {[&] {
             phone->send(Bytes{24, 0, 0, 1}); // within a frame's head
             phone->hangUp();
         },
            "client disconnected"},
    };
    for (const auto& [happens, reason] : rows) {
        pair = LoopbackPair::make({});
        closings.clear();
        platform.events.takeEvents();
        begin();
        say(message::Key{56, true, keyModifier::shift});
        happens();
        queues.runReady();
        EXPECT_THAT(closings, ElementsAre(reason));
        EXPECT_EQ(session->endKind, EndKind::dropped);
        EXPECT_EQ(platform.events.events.back(), "key 56 up flags 0 modifier");
    }
}

TEST_F(SessionTest, endsASilentPhoneButForgivesTheSilenceOfItsOwnSleep)
{
    begin();
    queues.advance(4s);
    queues.stall(60s); // the host itself was asleep
    queues.runReady();
    queues.advance(4s);
    EXPECT_TRUE(closings.empty());
    queues.advance(3s);
    EXPECT_THAT(closings, ElementsAre("client stopped responding"));
    EXPECT_EQ(phone->count<message::Error>(), 0u);
}

TEST_F(SessionTest, endsAnIdleSessionAndSaysForHowLong)
{
    const struct {
        double minutes;
        std::chrono::seconds stillThereAfter;
        std::chrono::seconds goneAfter;
        std::string text;
    } rows[] = {
        {15, 900s, 902s, "超过 15 分钟没有操作，已自动断开"},
        {1.5, 90s, 92s, "超过 1 分钟没有操作，已自动断开"},
        {0.5, 30s, 32s, "超过 30 秒没有操作，已自动断开"},
        {0, 2000s, 2000s, ""},
        {-1, 2000s, 2000s, ""},
        {1e300, 2000s, 2000s, ""},
    };
    for (const auto& [minutes, stillThereAfter, goneAfter, text] : rows) {
        pair = LoopbackPair::make({});
        closings.clear();
        config.idleTimeoutMinutes = minutes;
        begin();
        pingFor(10s);
        say(message::MouseMove{1, 1}); // input counts, pings do not
        pingFor(stillThereAfter);
        EXPECT_TRUE(closings.empty()) << minutes;
        pingFor(goneAfter - stillThereAfter);
        EXPECT_EQ(phone->last<message::Error>().message, text) << minutes;
        EXPECT_EQ(closings.empty(), text.empty());
        if (!text.empty()) {
            EXPECT_EQ(session->endKind, EndKind::idle);
        }
    }
}

TEST_F(SessionTest, dropsFramesForAPhoneThatStopsReadingAndGoesOnWithAKeyframe)
{
    begin();
    feed(3);
    const std::size_t before = phone->count<message::VideoFrame>();
    pair.pauseSecond(true);
    for (int i = 0; i < 100; ++i) {
        feed();
        say(message::RequestKeyframe{});
        say(message::Ping{static_cast<std::uint32_t>(i), 0});
    }
    const auto encoded = platform.encoders.lastSession().encodes.size();
    EXPECT_LT(encoded, 120u) << "keyframes are not made for nothing";
    queues.advance(1s);
    EXPECT_THAT(lines.back(), HasSubstr("丢帧 9"));

    pair.pauseSecond(false);
    queues.runReady();
    const auto frames = phone->all<message::VideoFrame>();
    EXPECT_LE(frames.size() - before, 6u) << "what waited was bounded";
    const auto pongs = phone->all<message::Pong>();
    ASSERT_EQ(pongs.size(), 100u);
    for (std::uint32_t i = 0; i < 100; ++i) EXPECT_EQ(pongs[i].id, i);
    EXPECT_TRUE(frames.back().isKeyframe);
    feed();
    EXPECT_FALSE(phone->last<message::VideoFrame>().isKeyframe) << "and the stream is in order again";
}

TEST_F(SessionTest, sharpensAPictureAtRestAndThenSendsNothing)
{
    begin();
    feed(10);
    EXPECT_EQ(phone->count<message::VideoFrame>(), 10u);
    queues.advance(149ms);
    EXPECT_EQ(phone->count<message::VideoFrame>(), 10u);
    queues.advance(1ms);
    EXPECT_EQ(phone->count<message::VideoFrame>(), 11u);
    pingFor(10s);
    const std::size_t refined = phone->count<message::VideoFrame>();
    EXPECT_EQ(refined, 14u) << "repeats that add nothing end it";
    pingFor(60s);
    EXPECT_EQ(phone->count<message::VideoFrame>(), refined);

    feed();
    pair.pauseSecond(true);
    feed();
    const auto encoded = platform.encoders.lastSession().encodes.size();
    queues.advance(3s);
    EXPECT_EQ(platform.encoders.lastSession().encodes.size(), encoded) << "not for a phone that lags behind";
}

TEST_F(SessionTest, givesUpOnAPhoneThatLetsAnswersPileUp)
{
    begin();
    pair.pauseSecond(true);
    for (int i = 0; i < 80'000 && closings.empty(); ++i) say(message::Ping{});
    ASSERT_EQ(closings.size(), 1u);
    EXPECT_THAT(closings[0], HasSubstr("client stopped reading, 10485"));
}

TEST_F(SessionTest, restartsAStoppedCaptureTwiceAndThenGivesUp)
{
    begin();
    feed();
    for (const int streams : {2, 3}) {
        platform.capture.stream->stopByItself("the display went away");
        queues.runReady();
        EXPECT_EQ(platform.capture.stream, nullptr) << "nothing is left of the stopped one";
        queues.advance(200ms);
        EXPECT_EQ(platform.capture.streamsMade, streams);
        feed();
        EXPECT_TRUE(phone->last<message::VideoFrame>().isKeyframe);
    }
    platform.capture.stream->stopByItself("the display went away");
    queues.runReady();
    EXPECT_THAT(closings, ElementsAre("屏幕采集已停止"));
    EXPECT_EQ(phone->last<message::Error>(), (message::Error{ErrorCode::internalError, "屏幕采集已停止"}));
    EXPECT_EQ(session->endKind, EndKind::failed);
}

TEST_F(SessionTest, ignoresWhatAnOlderStreamStillReports)
{
    begin();
    platform.capture.stream->stopByItself("once");
    platform.capture.stream->stopByItself("and again, from the stream that is being replaced");
    queues.advance(1s);
    EXPECT_EQ(platform.capture.streamsMade, 2);
}

TEST_F(SessionTest, followsThePhonesChoiceOfADisplayAtAPaceOfItsOwn)
{
    begin(clientCapability::choosesDisplay);
    platform.capture.displays.push_back({9, "beamer", 1280, 720, {1920, 0, 1280, 720}, false});
    platform.bounds.displays.push_back({9, {1920, 0, 1280, 720}});
    pingFor(2s);
    for (std::uint32_t i = 0; i < 1000; ++i)
        say(message::SetDisplay{{DisplayMode::mirrorMain, 0, 7 + i % 2 * 2}});
    EXPECT_LE(platform.capture.streamsMade, 2) << "a phone cannot make us restart at its pace";

    say(message::SetDisplay{{DisplayMode::followPhone, 0, 9}});
    queues.advance(500ms);
    EXPECT_EQ(platform.capture.stream->displayID, 7u);
    pingFor(1s);
    EXPECT_THAT(lines.back(), HasSubstr("镜像主屏（虚拟屏创建失败） · "));
}

TEST_F(SessionTest, pastesWhatThePhoneSends)
{
    begin();
    say(message::PasteText{"你好", true});
    EXPECT_THAT(platform.clipboard.texts, ElementsAre("你好"));
    EXPECT_TRUE(platform.events.events.empty()) << "not before the applications saw the clipboard change";
    queues.advance(50ms);
    EXPECT_THAT(platform.events.takeEvents(),
        ElementsAre("key 59 down flags 2 modifier", "key 9 down flags 2", "key 9 up flags 2",
            "key 59 up flags 0 modifier"));

    say(message::PasteText{"later", false});
    platform.clipboard.refuses = true;
    say(message::PasteText{"lost", true});
    queues.advance(1s);
    EXPECT_TRUE(platform.events.events.empty()) << "no paste of something else";
}

TEST_F(SessionTest, handsOnWhatIsCopiedToAPhoneThatSharesTheClipboard)
{
    const auto sent = [this] { return phone->count<message::Clipboard>(); };
    const auto share = [this](SessionOptions options) { say(message::SetOptions{options}); };
    platform.clipboard.copy("before the session");
    begin();
    platform.clipboard.copy("not asked for");
    pingFor(1s);
    EXPECT_EQ(platform.clipboard.questions, 0) << "nobody looks who does not share";
    share(sessionOption::clipboardSharing);
    pingFor(1s);
    EXPECT_EQ(sent(), 0u) << "what was there before";

    platform.clipboard.copy("你好");
    pingFor(1s);
    EXPECT_EQ(phone->last<message::Clipboard>().text, "你好");
    share(sessionOption::clipboardSharing | sessionOption::lockAtEnd);
    pingFor(10s);
    EXPECT_EQ(sent(), 1u) << "once";

    const std::string most(ClipboardBridge::mostBytes, 'x');
    platform.clipboard.copy(most);
    pingFor(1s);
    EXPECT_TRUE(phone->last<message::Clipboard>().text == most);

    const std::pair<std::optional<std::string>, Pasteboard::Types> unsent[] = {{most + "x", {"UTF8_STRING"}},
        {"", {"UTF8_STRING"}}, {std::nullopt, {"image/png"}},
        {"secret", {"UTF8_STRING", "x-kde-passwordManagerHint"}},
        {"secret", {"org.nspasteboard.ConcealedType", "UTF8_STRING"}},
        {"passing", {"org.nspasteboard.TransientType"}}, {"made", {"org.nspasteboard.AutoGeneratedType"}}};
    for (const auto& [text, types] : unsent) {
        platform.clipboard.copy(text, types);
        pingFor(1s);
        EXPECT_EQ(sent(), 2u) << types.front();
    }

    say(message::PasteText{"from the phone", false});
    pingFor(1s);
    platform.clipboard.copy("from the phone"); // a clipboard manager's doing
    pingFor(1s);
    EXPECT_EQ(sent(), 2u);
    platform.clipboard.copy("from the phone");
    pingFor(1s);
    EXPECT_EQ(sent(), 3u) << "this time somebody copied it";

    platform.clipboard.answersAtOnce = false;
    platform.clipboard.copy("slow");
    pingFor(1s);
    say(message::PasteText{"newer", false});
    platform.clipboard.answer();
    EXPECT_EQ(sent(), 3u) << "it is the past by now";
    platform.clipboard.copy("late");
    pingFor(1s);
    share({});
    platform.clipboard.answer();
    platform.clipboard.copy("no longer shared");
    pingFor(1s);
    EXPECT_EQ(sent(), 3u);
}

TEST_F(SessionTest, reportsTheCursorToAPhoneThatDrawsIt)
{
    begin(clientCapability::drawsCursor);
    queues.advance(400ms);
    EXPECT_FALSE(platform.capture.stream->configuration.showsCursor);
    EXPECT_EQ(phone->last<message::CursorPosition>(), (message::CursorPosition{100, 50, 0}));
    EXPECT_EQ(phone->last<message::CursorImage>(), (message::CursorImage{1, 1, 2, 16, 24, {1, 2, 3}}));

    const int questions = platform.cursorQuestions;
    pingFor(4s);
    EXPECT_EQ(phone->count<message::CursorPosition>(), 1u) << "at rest there is nothing to tell";
    EXPECT_NEAR(platform.cursorQuestions - questions, 40, 5);

    say(message::MouseMove{3, 4});
    queues.advance(8ms);
    EXPECT_EQ(phone->last<message::CursorPosition>().appliedMoves, 1u) << "at once";

    pair.pauseSecond(true);
    for (int i = 0; i < 50; ++i) {
        say(message::MouseMove{1, 0});
        queues.advance(8ms);
    }
    const std::size_t before = phone->count<message::CursorPosition>();
    pair.pauseSecond(false);
    queues.runReady();
    EXPECT_EQ(phone->count<message::CursorPosition>(), before + 2) << "one on its way, then only the latest";
    EXPECT_EQ(phone->last<message::CursorPosition>().appliedMoves, 51u);

    platform.cursorFingerprint = 2;
    queues.advance(100ms);
    EXPECT_EQ(phone->last<message::CursorImage>().id, 2u);
}

TEST_F(SessionTest, adaptsTheRateToThePhonesReports)
{
    config.bitrateMbps = 10;
    begin();
    feed();
    const auto rate = [&] {
        return platform.encoders.lastSession().last<compressionProperty::AverageBitRate>()->bitsPerSecond;
    };
    say(message::ClientReport{10, 60});
    say(message::ClientReport{NAN, 60});
    say(message::ClientReport{INFINITY, 60});
    EXPECT_EQ(rate(), 10'000'000);
    say(message::ClientReport{100, 60});
    EXPECT_EQ(rate(), 7'000'000);
    for (int i = 0; i < 10'000; ++i) say(message::ClientReport{i % 2 ? 1e6F : 0, 60});
    EXPECT_GE(platform.encoders.lastSession().properties.size(), 10u);
    EXPECT_LE(platform.encoders.lastSession().properties.size(), 60u) << "a flood is not followed";
}

TEST_F(SessionTest, survivesSettingsThatMakeNoSense)
{
    for (const double mbps : {0.0, -5.0, 1e300}) {
        for (const std::int64_t frameRate : {std::int64_t{0}, std::int64_t{-1}, std::int64_t{1} << 60}) {
            pair = LoopbackPair::make({});
            config.bitrateMbps = mbps;
            config.maxFrameRate = frameRate;
            begin();
            feed();
            EXPECT_EQ(phone->count<message::VideoFrame>(), 1u);
            const auto& encoder = platform.encoders.lastSession();
            EXPECT_GT(encoder.last<compressionProperty::AverageBitRate>()->bitsPerSecond, 0);
            EXPECT_GT(platform.capture.stream->configuration.maxFrameRate, 0);
        }
    }
}

TEST_F(SessionTest, turnsTheDisplayWithThePhoneWithinASecond)
{
    makeDisplays();
    open();
    helloAsPhone();
    say(message::SetViewport{{2000, 2000, 3}}); // half way
    say(message::SetViewport{{2532, 1170, 3}});
    queues.advance(500ms);
    EXPECT_THAT(platform.arrangement.sizes, ElementsAre(PointSize{390, 844}, PointSize{844, 390}));
    EXPECT_EQ(platform.arrangement.restorations, 0);
    platform.capture.stream->changeGeometry(platform.capture.displays[0]); // as the display server tells
    queues.advance(500ms);
    EXPECT_EQ(phone->last<message::DisplayInfo>(), (message::DisplayInfo{844, 390, 844, 390}));
    EXPECT_EQ(platform.capture.streamsMade, 1);
    say(message::MouseMove{5000, 5000});
    EXPECT_THAT(platform.events.events.back(), HasSubstr("moved to 843,389"));
}

TEST_F(SessionTest, fallsBackToTheMainDisplayWhenThereCanBeNoOther)
{
    makeDisplays();
    open();
    helloAsPhone();
    platform.arrangement.refusesSettings = true;
    const LogLines log;
    say(message::SetViewport{{2532, 1170, 3}});
    queues.advance(500ms);
    EXPECT_THAT(log.lines,
        testing::Contains("virtual display unavailable; falling back to the main display").Times(1));
    EXPECT_EQ(platform.capture.stream->displayID, 7u);
    EXPECT_EQ(phone->last<message::DisplayInfo>(), (message::DisplayInfo{1920, 1080, 1920, 1080}));
    pingFor(1s);
    EXPECT_THAT(lines.back(), HasSubstr("镜像主屏（虚拟屏创建失败） · "));
}

// While the display is being made, everything else a phone may send comes in already.
TEST_F(SessionTest, waitsForItsDisplayWithoutAStream)
{
    makeDisplays();
    platform.arrangement.refusedCreations = 7;
    open();
    helloAsPhone();
    EXPECT_EQ(platform.capture.stream, nullptr);
    for (const Message& message : {Message(message::RequestKeyframe{}), Message(message::ClientReport{}),
             Message(message::MouseMove{1, 1}), Message(message::SetViewport{{1170, 2532, 3}})})
        say(message);
    platform.capture.displays[0].name = "renamed";
    pingFor(3s);
    ASSERT_NE(platform.capture.stream, nullptr);
    EXPECT_EQ(platform.capture.stream->displayID, 108u);
    EXPECT_EQ(platform.capture.streamsMade, 1);
}

// Every prefix of a busy session, then the session is destroyed with everything under way.
TEST_F(SessionTest, canBeDestroyedAtAnyMoment)
{
    const std::vector<std::function<void()>> steps = {
        [&] { phone->hello(clientCapability::drawsCursor | clientCapability::choosesDisplay); },
        [&] { queues.runReady(); },
        [&] {
            if (platform.capture.stream) platform.capture.stream->feed();
        },
        [&] { phone->send(message::MouseButtonChange{MouseButton::left, true, 1}); },
        [&] { phone->send(message::MouseMove{1, 2}); },
        [&] { queues.runReady(); },
        [&] { phone->send(message::PasteText{"x", true}); },
        [&] { phone->send(message::SetViewport{{100, 100, 1}}); },
        [&] { phone->send(message::SetDisplay{{DisplayMode::followPhone, 1, 0}}); },
        [&] { queues.runReady(); },
        [&] { queues.advance(10ms); },
        [&] {
            if (platform.capture.stream) platform.capture.stream->stopByItself("gone");
        },
        [&] { queues.advance(700ms); },
        [&] { phone->send(message::Bye{}); },
        [&] { queues.runReady(); },
    };
    makeDisplays();
    for (std::size_t count = 0; count <= steps.size(); ++count) {
        for (const bool withinClose : {false, true}) {
            pair = LoopbackPair::make({});
            platform.events.takeEvents();
            open();
            onClosed = withinClose ? [this] { session.reset(); } : std::function<void()>();
            for (std::size_t i = 0; i < count; ++i) steps[i]();
            session.reset();
            queues.advance(10s);
            EXPECT_EQ(platform.capture.stream, nullptr);
            EXPECT_EQ(platform.arrangement.virtualID, 0u);
            EXPECT_EQ(platform.powerPort.heldAssertions(), 0);
            const auto& events = platform.events.events;
            const auto pressed
                = std::ranges::count_if(events, [](auto& e) { return e.starts_with("left down"); });
            const auto released
                = std::ranges::count_if(events, [](auto& e) { return e.starts_with("left up"); });
            EXPECT_EQ(pressed, released) << count;
        }
    }
}

} // namespace
} // namespace pelorin
