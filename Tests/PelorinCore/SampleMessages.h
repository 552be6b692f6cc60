#pragma once

#include "PelorinCore/Wire/FrameCodec.h"

namespace pelorin {

// At least one message of every type, with the values that codecs trip over: empty and multi-byte texts, zero
// bytes, extremes of each width, unknown option bits.
inline std::vector<Message> sampleMessages()
{
    using namespace message;
    return {
        Hello{5, "小红的 iPhone 📱", {1179, 2556, 3}, {DisplayMode::followPhone, 1.5F, 7}, {0xFFFF'FFFF}},
        HelloAck{65'535, ""},
        Ping{0xDEAD'BEEF, 0x0102'0304'0506'0708},
        Pong{0, 0xFFFF'FFFF'FFFF'FFFF},
        Error{ErrorCode::idleTimeout, "没有操作，已自动断开"},
        Bye{},
        VideoFormat{VideoCodec::hevc, {{0x40, 0x01}, {}, {0, 0, 0, 1}}},
        VideoFormat{VideoCodec::h264, {}},
        VideoFrame{true, 1, {0, 0, 0, 2, 0x65, 0x88}},
        VideoFrame{false, 0, {}},
        RequestKeyframe{},
        SetViewport{{0, 0xFFFF'FFFF, -0.5F}},
        DisplayInfo{2560, 1440, 1280.5F, 720},
        SetDisplay{{DisplayMode::mirrorMain, 0, 0xFFFF'FFFF}},
        CursorPosition{-12.25F, 1e30F, 42},
        CursorImage{9, 1, 2, 3, 4, {0x89, 'P', 'N', 'G', 0}},
        PathInfo{"中继 · 45 ms"},
        DisplayList{{{1, "主显示器", 1920, 1080, true}, {2, "", 0, 0, false}}},
        DisplayList{{}},
        MouseMove{0.125F, -3},
        MouseButtonChange{MouseButton::middle, true, 255},
        Scroll{-0.0F, 120, ScrollPhase::cancelled, MomentumPhase::ended},
        Key{55, true, keyModifier::command | keyModifier::shift},
        Text{std::string{"a\0b", 3}},
        ClientReport{23.5F, 60},
        SetOptions{sessionOption::clipboardSharing | sessionOption::lockAtEnd},
        PasteText{"line\nfeed", true},
        Clipboard{"é"},
        PairRequest{"id", ""},
        PairResult{"device", Bytes(32, 0xA5), "host"},
        LiveActivityRegister{true, "token", false},
        LiveActivityInfo{false, "", "Mac", "说明"},
    };
}

inline Bytes framesOf(const std::vector<Message>& messages)
{
    Bytes stream;
    for (const Message& message : messages) {
        const Bytes frame = encodeFrame(message);
        stream.insert(stream.end(), frame.begin(), frame.end());
    }
    return stream;
}

} // namespace pelorin
