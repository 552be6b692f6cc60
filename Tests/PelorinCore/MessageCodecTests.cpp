#include "SampleMessages.h"

#include "PelorinCore/Wire/MessageCodec.h"

#include <gmock/gmock.h>

namespace pelorin {
namespace {

Bytes payloadOf(const Message& message)
{
    ByteWriter writer;
    encodePayload(message, writer);
    return writer.data;
}

Result<Message, ProtocolError> decode(MessageType type, const Bytes& payload)
{
    std::vector<Message> messages;
    auto decoded = decodePayload(static_cast<std::uint8_t>(type), payload, messages);
    if (!decoded) return std::unexpected(decoded.error());
    return messages.at(0);
}

TEST(MessageCodec, writesTheDocumentedBytes)
{
    using namespace message;
    const struct {
        Message message;
        Bytes payload;
    } rows[] = {
        {Hello{5, "é", {1, 2, 1}, {DisplayMode::followPhone, 2, 3}, {0x11}},
            {0, 5, 0, 0, 0, 2, 0xC3, 0xA9, 0, 0, 0, 1, 0, 0, 0, 2, 0x3F, 0x80, 0, 0, 1, 0x40, 0, 0, 0, 0, 0,
                0, 3, 0, 0, 0, 0x11}},
        {Ping{1, 2}, {0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 2}},
        {Error{ErrorCode::replaced, "x"}, {0, 3, 0, 0, 0, 1, 'x'}},
        {VideoFormat{VideoCodec::hevc, {}}, {2, 0}},
        {VideoFormat{VideoCodec::h264, {{7}, {}}}, {1, 2, 0, 0, 0, 1, 7, 0, 0, 0, 0}},
        {VideoFrame{true, 0x0102, {9}}, {1, 0, 0, 0, 0, 0, 0, 1, 2, 0, 0, 0, 1, 9}},
        {CursorPosition{1, -1, 2}, {0x3F, 0x80, 0, 0, 0xBF, 0x80, 0, 0, 0, 0, 0, 2}},
        {DisplayList{{{1, "d", 2, 3, true}}}, {0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 'd', 0, 0, 0, 2, 0, 0, 0, 3, 1}},
        {MouseButtonChange{MouseButton::right, true, 2}, {1, 1, 2}},
        {Scroll{0, 1, ScrollPhase::ended, MomentumPhase::began}, {0, 0, 0, 0, 0x3F, 0x80, 0, 0, 3, 1}},
        {Key{0x0102, false, keyModifier::capsLock}, {1, 2, 0, 16}},
        {PasteText{"t", true}, {0, 0, 0, 1, 't', 1}},
        {ClientReport{1, 258}, {0x3F, 0x80, 0, 0, 1, 2}},
        {Bye{}, {}},
    };
    for (const auto& [message, payload] : rows)
        EXPECT_EQ(payloadOf(message), payload) << nameOf(typeOf(message));
}

TEST(MessageCodec, everyShorterPayloadIsTruncatedAndASurplusIsIgnored)
{
    for (const Message& message : sampleMessages()) {
        const Bytes payload = payloadOf(message);
        for (std::size_t size = 0; size < payload.size(); ++size) {
            const Bytes shorter{payload.begin(), payload.begin() + static_cast<std::ptrdiff_t>(size)};
            EXPECT_EQ(decode(typeOf(message), shorter).error(), ProtocolError::truncated())
                << nameOf(typeOf(message)) << " of " << size;
        }
        Bytes longer = payload;
        longer.insert(longer.end(), {0xFF, 0});
        EXPECT_EQ(*decode(typeOf(message), longer), message);
    }
}

TEST(MessageCodec, refusesEnumValuesOutsideTheirCases)
{
    const struct {
        MessageType type;
        Bytes payload; // good but for the byte tried
        std::size_t at;
        int first, last;
        const char* name;
    } rows[] = {
        {MessageType::videoFormat, {0, 0}, 0, 1, 2, "VideoCodec"},
        {MessageType::setDisplay, Bytes(9), 0, 0, 1, "DisplayMode"},
        {MessageType::mouseButton, Bytes(3), 0, 0, 2, "MouseButton"},
        {MessageType::scroll, Bytes(10), 8, 0, 4, "ScrollPhase"},
        {MessageType::scroll, Bytes(10), 9, 0, 3, "MomentumPhase"},
    };
    for (auto [type, payload, at, first, last, name] : rows) {
        for (int raw = 0; raw <= 255; ++raw) {
            payload[at] = static_cast<std::uint8_t>(raw);
            const auto decoded = decode(type, payload);
            ASSERT_EQ(decoded.has_value(), raw >= first && raw <= last) << name << " " << raw;
            if (decoded) continue;
            EXPECT_EQ(decoded.error().description(),
                "invalidValue(" + std::string{name} + " raw value " + std::to_string(raw) + ")");
        }
    }
}

TEST(MessageCodec, anUnknownErrorCodeIsAnInternalErrorWithItsText)
{
    for (const int code : {0, 7, 256, 0xFFFF}) {
        const Bytes payload{
            static_cast<std::uint8_t>(code >> 8), static_cast<std::uint8_t>(code), 0, 0, 0, 1, 'x'};
        EXPECT_EQ(
            *decode(MessageType::error, payload), Message(message::Error{ErrorCode::internalError, "x"}));
    }
    for (std::uint8_t code = 1; code <= 6; ++code)
        EXPECT_EQ(std::get<message::Error>(*decode(MessageType::error, {0, code, 0, 0, 0, 0})).code,
            ErrorCode{code});
}

TEST(MessageCodec, refusesTextThatIsNotUtf8)
{
    const auto decoded = decode(MessageType::clipboard, {0, 0, 0, 2, 0xC3, 0x28});
    EXPECT_EQ(decoded.error(), ProtocolError::invalidValue("string is not UTF-8"));
}

TEST(MessageCodec, listsHoldAsManyAsTheirCountCanSay)
{
    const Message sets = message::VideoFormat{VideoCodec::h264, std::vector<Bytes>(255, Bytes{1})};
    EXPECT_EQ(*decode(MessageType::videoFormat, payloadOf(sets)), sets);
    const Message displays = message::DisplayList{std::vector<DisplayDescriptor>(65'535)};
    EXPECT_EQ(*decode(MessageType::displayList, payloadOf(displays)), displays);
}

TEST(MessageCodecDeathTest, aListTooLongForItsCountStopsTheProgram)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(payloadOf(message::VideoFormat{VideoCodec::h264, std::vector<Bytes>(256)}), "a list fits");
    EXPECT_DEATH(payloadOf(message::DisplayList{std::vector<DisplayDescriptor>(65'536)}), "a list fits");
}

} // namespace
} // namespace pelorin
