#include "PelorinHost/Session/VideoGate.h"

#include <gtest/gtest.h>

namespace pelorin {
namespace {

using enum VideoGate::Verdict;

TEST(VideoGate, sendsEveryKeyframeButAsksForNoneBeforeThereIsRoom)
{
    VideoGate gate;
    for (int i = 0; i < 2; ++i) EXPECT_EQ(gate.admit(false), send);
    EXPECT_EQ(gate.admit(false), dropAndRequestKeyframe);
    EXPECT_EQ(gate.admit(true), send);
    EXPECT_EQ(gate.admit(false), drop) << "asks for none while one waits already";
    EXPECT_FALSE(gate.keyframeWanted());
    for (int i = 0; i < 2; ++i) EXPECT_EQ(gate.admit(true), send) << "the encoder's own";
    EXPECT_EQ(gate.pendingVideoSends, 5);
    EXPECT_FALSE(gate.keyframeWanted());
    EXPECT_FALSE(gate.sent());

    EXPECT_FALSE(gate.sent());
    EXPECT_FALSE(gate.sent());
    EXPECT_TRUE(gate.sent()) << "the owed keyframe, once there is room";
    EXPECT_FALSE(gate.sent()) << "once";
}

TEST(VideoGate, asksAgainForAKeyframeThatNeverCame)
{
    VideoGate gate;
    gate.admit(false);
    gate.admit(false);
    EXPECT_EQ(gate.admit(false), dropAndRequestKeyframe);
    EXPECT_FALSE(gate.sent());
    EXPECT_TRUE(gate.tick());
    EXPECT_EQ(gate.admit(true), send);
    EXPECT_FALSE(gate.tick());
}

} // namespace
} // namespace pelorin
