#include "PelorinViewer/ScriptPlayer.h"

#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/PelorinViewer/TestPicture.h"

#include <gtest/gtest.h>

using namespace pelorin;
using namespace std::chrono_literals;
using lab::TestPicture;

namespace {

class ScriptPlayerTest : public testing::Test {
protected:
    void play(std::string_view script)
    {
        queue->post([this, steps = parseScript(script).value()]() mutable {
            end.reset();
            player.emplace(queue, std::move(steps));
            player->onSend = [this](const Message& message) { sent.push_back(message); };
            player->onScreenshot = [](const std::string& file) -> Result<void, std::string> {
                if (file.starts_with('/')) return std::unexpected("no such folder");
                return {};
            };
            player->onEnd = [this](ScriptPlayer::End how, const std::string& text) {
                EXPECT_FALSE(end);
                end = how;
                endText = text;
            };
            player->start();
        });
        queues.runReady();
    }
    void show(std::uint8_t luma)
    {
        queue->post([this, luma] { player->sawPicture(TestPicture(64, 48, luma).get()); });
        queues.runReady();
    }

    ManualQueues queues;
    QueueRef queue = queues.makeQueue("session");
    std::optional<ScriptPlayer> player;
    std::vector<Message> sent;
    std::optional<ScriptPlayer::End> end;
    std::string endText;
};

TEST_F(ScriptPlayerTest, sendsInOrderAndWaitsInBetween)
{
    play("move 1 1\nwait 100\nmove 2 2\nmove 3 3");
    EXPECT_EQ(sent.size(), 1U);
    queues.advance(99ms);
    EXPECT_EQ(sent.size(), 1U);
    queues.advance(1ms);
    EXPECT_EQ(sent.size(), 3U);
    EXPECT_EQ(end, ScriptPlayer::End::finished);
}

TEST_F(ScriptPlayerTest, takesTheFirstPictureForAChange)
{
    play("expect change 5\nmove 1 1");
    queues.advance(4s);
    EXPECT_TRUE(sent.empty());
    show(50);
    EXPECT_EQ(sent.size(), 1U);
}

TEST_F(ScriptPlayerTest, findsAChangeThatCameBetweenTheInputAndTheExpectation)
{
    play("expect change 5\nmove 1 1\nwait 100\nexpect change 1\nexpect change 1");
    show(50);
    show(120); // answers the move
    queues.advance(100ms);
    EXPECT_FALSE(end); // it counts once
    show(122); // refinement is no change
    queues.advance(900ms);
    EXPECT_FALSE(end);
    show(50);
    EXPECT_EQ(end, ScriptPlayer::End::finished);
}

TEST_F(ScriptPlayerTest, failsWithTheLineWhenNothingChanges)
{
    play("expect change 5\n# click\nclick left\nexpect change 2\nmove 1 1");
    show(50);
    show(52);
    queues.advance(2s);
    EXPECT_EQ(end, ScriptPlayer::End::failed);
    EXPECT_EQ(endText, "script line 4: the picture did not change");
    EXPECT_EQ(sent.size(), 2U);
    show(200);
    queues.advance(10s);
    EXPECT_EQ(sent.size(), 2U);
}

TEST_F(ScriptPlayerTest, waitsUntilThePictureStandsStillButNotForever)
{
    play("expect still 500");
    for (int i = 0; i < 10; ++i) {
        show(i % 2 == 0 ? 50 : 200);
        queues.advance(400ms);
    }
    EXPECT_FALSE(end);
    show(51);
    queues.advance(300ms);
    show(50); // no visible change
    queues.advance(200ms);
    EXPECT_EQ(end, ScriptPlayer::End::finished);

    play("expect still 500");
    for (int i = 0; i < 27; ++i) {
        show(i % 2 == 0 ? 50 : 200);
        queues.advance(400ms);
    }
    EXPECT_EQ(end, ScriptPlayer::End::failed);
}

TEST_F(ScriptPlayerTest, endsAtQuitAndAtAScreenshotThatFails)
{
    play("screenshot a.png\nquit\nmove 1 1");
    EXPECT_EQ(end, ScriptPlayer::End::quit);
    play("screenshot /no/b.png\nmove 1 1");
    EXPECT_EQ(end, ScriptPlayer::End::failed);
    EXPECT_EQ(endText, "script line 1: no such folder");
    EXPECT_TRUE(sent.empty());
}

} // namespace
