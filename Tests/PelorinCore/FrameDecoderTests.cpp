#include "AllocationWatch.h"
#include "SampleMessages.h"

#include <gmock/gmock.h>

#include <random>

namespace pelorin {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

Bytes header(std::uint8_t type, std::uint32_t length)
{
    return {type, static_cast<std::uint8_t>(length >> 24), static_cast<std::uint8_t>(length >> 16),
        static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)};
}

Bytes operator+(Bytes left, ByteView right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

void append(std::vector<Message>& messages, Result<std::vector<Message>, ProtocolError> fed)
{
    ASSERT_TRUE(fed) << fed.error().description();
    messages.insert(messages.end(), fed->begin(), fed->end());
}

TEST(FrameDecoder, samplesCoverEveryMessageType)
{
    std::vector<bool> seen(std::variant_size_v<Message>);
    for (const Message& message : sampleMessages()) seen[message.index()] = true;
    EXPECT_THAT(seen, testing::Each(true));
}

TEST(FrameDecoder, findsTheSameMessagesAtEveryCutOfTheStream)
{
    const Bytes stream = framesOf(sampleMessages());
    for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
        FrameDecoder decoder;
        std::vector<Message> messages;
        append(messages, decoder.feed(ByteView{stream}.first(cut)));
        append(messages, decoder.feed(ByteView{stream}.subspan(cut)));
        ASSERT_EQ(messages, sampleMessages()) << "cut at " << cut;
    }
}

TEST(FrameDecoder, findsTheSameMessagesByteByByteAndInRandomChunks)
{
    const Bytes stream = framesOf(sampleMessages());
    std::mt19937 random{7};
    for (const std::size_t longestChunk : {1, 2, 5, 6, 17, 300}) {
        FrameDecoder decoder;
        std::vector<Message> messages;
        for (ByteView rest = stream; !rest.empty();) {
            const std::size_t size = std::min(1 + random() % longestChunk, rest.size());
            append(messages, decoder.feed(rest.first(size)));
            rest = rest.subspan(size);
        }
        EXPECT_EQ(messages, sampleMessages()) << "chunks up to " << longestChunk;
    }
}

TEST(FrameDecoder, skipsUnknownTypesWhole)
{
    for (const std::uint8_t type : {0, 7, 9, 28, 29, 31, 39, 42, 49, 52, 200, 255}) {
        const Bytes looksLikeAFrame = encodeFrame(message::Bye{});
        const Bytes stream = header(type, 5) + looksLikeAFrame + encodeFrame(message::RequestKeyframe{});
        const auto messages = FrameDecoder{}.feed(stream);
        ASSERT_TRUE(messages);
        EXPECT_EQ(*messages, std::vector<Message>{message::RequestKeyframe{}}) << int{type};
    }
}

TEST(FrameDecoder, acceptsTheLargestPayload)
{
    Bytes payload(maxPayloadSize);
    payload[8] = 1; // ptsMicros
    const auto dataSize = static_cast<std::uint32_t>(maxPayloadSize - 13);
    std::copy_n(header(0, dataSize).begin() + 1, 4, payload.begin() + 9);
    FrameDecoder decoder;
    EXPECT_THAT(*decoder.feed(header(11, maxPayloadSize)), IsEmpty());
    const auto messages = decoder.feed(payload);
    ASSERT_TRUE(messages);
    ASSERT_THAT(*messages, SizeIs(1));
    EXPECT_EQ(std::get<message::VideoFrame>(messages->front()).data.size(), dataSize);
}

TEST(FrameDecoder, refusesATooLargeFrameByItsHeaderAlone)
{
    const struct {
        std::uint8_t type;
        std::uint32_t length;
    } headers[] = {{11, maxPayloadSize + 1}, {11, 0xFFFF'FFFF}, {200, maxPayloadSize + 1}, {6, 0x8000'0000}};
    for (const auto& [type, length] : headers) {
        FrameDecoder decoder;
        const Bytes bytes = header(type, length);
        EXPECT_THAT(*decoder.feed(ByteView{bytes}.first(4)), IsEmpty());
        EXPECT_EQ(decoder.feed(ByteView{bytes}.last(1)).error(), ProtocolError::frameTooLarge(length));
    }
}

TEST(FrameDecoder, allocatesForWhatIsThereNotForWhatIsAnnounced)
{
    const struct {
        const char* what;
        Bytes stream;
    } rows[] = {
        {"a frame without its payload", header(11, maxPayloadSize)},
        {"a frame with too much", header(11, 0xFFFF'FFFF)},
        {"data without its bytes", header(11, 13) + Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}},
        {"text without its bytes", header(24, 4) + Bytes{0x00, 0xFF, 0xFF, 0xFF}},
        {"displays that are not there", header(19, 2) + Bytes{0xFF, 0xFF}},
        {"parameter sets that are not there", header(10, 2) + Bytes{1, 0xFF}},
    };
    for (const auto& [what, stream] : rows) {
        const AllocationWatch memory;
        FrameDecoder decoder;
        const auto messages = decoder.feed(stream);
        EXPECT_TRUE(!messages || messages->empty()) << what;
        EXPECT_LT(memory.peak(), 2'000) << what;
    }
}

TEST(FrameDecoder, givesBackTheMemoryOfALargeFrame)
{
    const Bytes large = encodeFrame(message::Clipboard{std::string(10'000'000, 'x')});
    const Bytes small = encodeFrame(message::Ping{1, 2});
    const AllocationWatch memory;
    FrameDecoder decoder;
    ASSERT_THAT(*decoder.feed(large + ByteView{small}.first(7)), SizeIs(1));
    EXPECT_LT(memory.live(), 2'000'000);
    EXPECT_EQ(*decoder.feed(ByteView{small}.subspan(7)), std::vector<Message>{(message::Ping{1, 2})});
}

TEST(FrameDecoder, returnsNothingOfACallThatFailsAndKeepsFailing)
{
    FrameDecoder decoder;
    const Bytes stream
        = encodeFrame(message::Bye{}) + header(3, 11) + Bytes(11) + encodeFrame(message::Bye{});
    EXPECT_EQ(decoder.feed(stream).error(), ProtocolError::truncated());
    EXPECT_EQ(decoder.feed({}).error(), ProtocolError::truncated());
    EXPECT_EQ(decoder.feed(encodeFrame(message::Bye{})).error(), ProtocolError::truncated());
}

TEST(FrameCodec, videoFrameHeadAndDataMakeTheFrame)
{
    for (const std::size_t size : {0, 1, 300, 70'000}) {
        const message::VideoFrame frame{true, 0x1122'3344'5566'7788, Bytes(size, 0x5A)};
        EXPECT_EQ(
            encodeVideoFrameHead(frame.isKeyframe, frame.ptsMicros, size) + frame.data, encodeFrame(frame));
    }
}

} // namespace
} // namespace pelorin
