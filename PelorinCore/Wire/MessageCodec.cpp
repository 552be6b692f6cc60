#include "PelorinCore/Wire/MessageCodec.h"

#include "PelorinCore/Wire/ByteReader.h"

#include <array>
#include <concepts>
#include <limits>
#include <tuple>
#include <type_traits>

namespace pelorin {

namespace {

// The fields of every value type and message in wire order, said once: writer and reader both walk them. A
// type without its line does not compile.
template <class Value, class Type>
concept Of = std::same_as<std::remove_const_t<Value>, Type>;

// clang-format off
auto fieldsOf(Of<Viewport> auto& v) { return std::tie(v.widthPx, v.heightPx, v.scale); }
auto fieldsOf(Of<DisplaySettings> auto& v) { return std::tie(v.mode, v.density, v.displayID); }
auto fieldsOf(Of<DisplayDescriptor> auto& v) { return std::tie(v.id, v.name, v.widthPt, v.heightPt, v.isMain); }

auto fieldsOf(Of<message::Hello> auto& m) { return std::tie(m.version, m.clientName, m.viewport, m.display, m.capabilities); }
auto fieldsOf(Of<message::HelloAck> auto& m) { return std::tie(m.version, m.hostName); }
auto fieldsOf(Of<message::Ping> auto& m) { return std::tie(m.id, m.sentMicros); }
auto fieldsOf(Of<message::Pong> auto& m) { return std::tie(m.id, m.sentMicros); }
auto fieldsOf(Of<message::Error> auto& m) { return std::tie(m.code, m.message); }
auto fieldsOf(Of<message::Bye> auto&) { return std::tie(); }
auto fieldsOf(Of<message::VideoFormat> auto& m) { return std::tie(m.codec, m.parameterSets); }
auto fieldsOf(Of<message::VideoFrame> auto& m) { return std::tie(m.isKeyframe, m.ptsMicros, m.data); }
auto fieldsOf(Of<message::RequestKeyframe> auto&) { return std::tie(); }
auto fieldsOf(Of<message::SetViewport> auto& m) { return std::tie(m.viewport); }
auto fieldsOf(Of<message::DisplayInfo> auto& m) { return std::tie(m.captureWidthPx, m.captureHeightPx, m.displayWidthPt, m.displayHeightPt); }
auto fieldsOf(Of<message::SetDisplay> auto& m) { return std::tie(m.settings); }
auto fieldsOf(Of<message::CursorPosition> auto& m) { return std::tie(m.x, m.y, m.appliedMoves); }
auto fieldsOf(Of<message::CursorImage> auto& m) { return std::tie(m.id, m.hotX, m.hotY, m.widthPt, m.heightPt, m.png); }
auto fieldsOf(Of<message::PathInfo> auto& m) { return std::tie(m.description); }
auto fieldsOf(Of<message::DisplayList> auto& m) { return std::tie(m.displays); }
auto fieldsOf(Of<message::MouseMove> auto& m) { return std::tie(m.dx, m.dy); }
auto fieldsOf(Of<message::MouseButtonChange> auto& m) { return std::tie(m.button, m.isDown, m.clickCount); }
auto fieldsOf(Of<message::Scroll> auto& m) { return std::tie(m.dx, m.dy, m.phase, m.momentum); }
auto fieldsOf(Of<message::Key> auto& m) { return std::tie(m.keyCode, m.isDown, m.modifiers); }
auto fieldsOf(Of<message::Text> auto& m) { return std::tie(m.text); }
auto fieldsOf(Of<message::ClientReport> auto& m) { return std::tie(m.rttMs, m.fps); }
auto fieldsOf(Of<message::SetOptions> auto& m) { return std::tie(m.options); }
auto fieldsOf(Of<message::PasteText> auto& m) { return std::tie(m.text, m.pasteNow); }
auto fieldsOf(Of<message::Clipboard> auto& m) { return std::tie(m.text); }
auto fieldsOf(Of<message::PairRequest> auto& m) { return std::tie(m.pairingID, m.deviceName); }
auto fieldsOf(Of<message::PairResult> auto& m) { return std::tie(m.deviceID, m.key, m.hostName); }
auto fieldsOf(Of<message::LiveActivityRegister> auto& m) { return std::tie(m.enabled, m.pushToStartToken, m.hasActivity); }
auto fieldsOf(Of<message::LiveActivityInfo> auto& m) { return std::tie(m.available, m.channelID, m.macName, m.note); }
// clang-format on

class FieldWriter {
public:
    explicit FieldWriter(ByteWriter& bytes) : bytes(bytes) {}

    template <class Value>
    void writeFields(const Value& value)
    {
        std::apply([&](const auto&... field) { (write(field), ...); }, fieldsOf(value));
    }

private:
    void write(std::uint8_t value) { bytes.writeUInt8(value); }
    void write(std::uint16_t value) { bytes.writeUInt16(value); }
    void write(std::uint32_t value) { bytes.writeUInt32(value); }
    void write(std::uint64_t value) { bytes.writeUInt64(value); }
    void write(float value) { bytes.writeFloat(value); }
    void write(bool value) { bytes.writeBool(value); }
    void write(const std::string& text) { bytes.writeString(text); }
    void write(const Bytes& blob) { bytes.writeData(blob); }
    void write(const std::vector<Bytes>& list) { writeList<std::uint8_t>(list); }
    void write(const std::vector<DisplayDescriptor>& list) { writeList<std::uint16_t>(list); }

    template <class Raw, class Tag>
    void write(OptionSet<Raw, Tag> options)
    {
        write(options.rawValue);
    }

    template <class Value>
    void write(const Value& value)
    {
        if constexpr (std::is_enum_v<Value>)
            write(static_cast<std::underlying_type_t<Value>>(value));
        else
            writeFields(value);
    }

    template <class Count, class Element>
    void writeList(const std::vector<Element>& list)
    {
        require(list.size() <= std::numeric_limits<Count>::max(), "a list fits its count");
        write(static_cast<Count>(list.size()));
        for (const Element& element : list) write(element);
    }

    ByteWriter& bytes;
};

// Reads fields into place until the first that fails.
class FieldReader {
public:
    explicit FieldReader(ByteView payload) : bytes(payload) {}

    template <class Value>
    bool readFields(Value& value)
    {
        return std::apply([&](auto&... field) { return (read(field) && ...); }, fieldsOf(value));
    }

    ProtocolError failure; // once a read said no

private:
    bool read(std::uint8_t& value) { return take(bytes.readUInt8(), value); }
    bool read(std::uint16_t& value) { return take(bytes.readUInt16(), value); }
    bool read(std::uint32_t& value) { return take(bytes.readUInt32(), value); }
    bool read(std::uint64_t& value) { return take(bytes.readUInt64(), value); }
    bool read(float& value) { return take(bytes.readFloat(), value); }
    bool read(bool& value) { return take(bytes.readBool(), value); }
    bool read(std::string& text) { return take(bytes.readString(), text); }
    bool read(std::vector<Bytes>& list) { return readList<std::uint8_t>(list); }
    bool read(std::vector<DisplayDescriptor>& list) { return readList<std::uint16_t>(list); }
    bool read(VideoCodec& codec) { return readEnum(codec, VideoCodec::h264, VideoCodec::hevc, "VideoCodec"); }
    bool read(DisplayMode& mode)
    {
        return readEnum(mode, DisplayMode::mirrorMain, DisplayMode::followPhone, "DisplayMode");
    }
    bool read(MouseButton& button)
    {
        return readEnum(button, MouseButton::left, MouseButton::middle, "MouseButton");
    }
    bool read(ScrollPhase& phase)
    {
        return readEnum(phase, ScrollPhase::none, ScrollPhase::cancelled, "ScrollPhase");
    }
    bool read(MomentumPhase& phase)
    {
        return readEnum(phase, MomentumPhase::none, MomentumPhase::ended, "MomentumPhase");
    }

    // A code of a newer host still reaches the phone with its text.
    bool read(ErrorCode& code)
    {
        std::uint16_t raw = 0;
        if (!read(raw)) return false;
        const bool isKnown = raw >= static_cast<std::uint16_t>(ErrorCode::unauthorized)
            && raw <= static_cast<std::uint16_t>(ErrorCode::idleTimeout);
        code = isKnown ? static_cast<ErrorCode>(raw) : ErrorCode::internalError;
        return true;
    }

    bool read(Bytes& blob)
    {
        ByteView view;
        if (!take(bytes.readData(), view)) return false;
        blob.assign(view.data(), view.data() + view.size());
        return true;
    }

    template <class Raw, class Tag>
    bool read(OptionSet<Raw, Tag>& options)
    {
        return read(options.rawValue);
    }

    template <class Value>
    bool read(Value& value)
    {
        return readFields(value);
    }

    // Grows with what is really there, never by the count alone.
    template <class Count, class Element>
    bool readList(std::vector<Element>& list)
    {
        Count count = 0;
        if (!read(count)) return false;
        for (; count > 0; --count)
            if (!read(list.emplace_back())) return false;
        return true;
    }

    template <class Enum>
    bool readEnum(Enum& value, Enum first, Enum last, const char* typeName)
    {
        std::uint8_t raw = 0;
        if (!read(raw)) return false;
        if (raw < static_cast<std::uint8_t>(first) || raw > static_cast<std::uint8_t>(last)) {
            failure
                = ProtocolError::invalidValue(std::string{typeName} + " raw value " + std::to_string(raw));
            return false;
        }
        value = static_cast<Enum>(raw);
        return true;
    }

    template <class Value>
    bool take(Result<Value, ProtocolError>&& result, Value& value)
    {
        if (!result) [[unlikely]] {
            failure = std::move(result).error();
            return false;
        }
        value = *std::move(result);
        return true;
    }

    ByteReader bytes;
};

using PayloadDecoder = Result<void, ProtocolError> (*)(ByteView payload, std::vector<Message>& messages);

// Read straight into the list: a small message is cheaper to decode than to move.
template <class Type>
Result<void, ProtocolError> appendDecoded(ByteView payload, std::vector<Message>& messages)
{
    FieldReader reader{payload};
    Message& message = messages.emplace_back(std::in_place_type<Type>);
    if (!reader.readFields(*std::get_if<Type>(&message))) return std::unexpected(std::move(reader.failure));
    return {};
}

template <class... Types>
constexpr auto decodersOf(const std::variant<Types...>*)
{
    std::array<PayloadDecoder, 256> byCode{};
    ((byCode[static_cast<std::uint8_t>(Types::type)] = appendDecoded<Types>), ...);
    return byCode;
}

constexpr std::array<PayloadDecoder, 256> decoders = decodersOf(static_cast<const Message*>(nullptr));

} // namespace

void encodePayload(const Message& message, ByteWriter& writer)
{
    std::visit([&](const auto& fields) { FieldWriter{writer}.writeFields(fields); }, message);
}

Result<void, ProtocolError> decodePayload(
    std::uint8_t typeCode, ByteView payload, std::vector<Message>& messages)
{
    const PayloadDecoder decode = decoders[typeCode];
    if (!decode) return {};
    return decode(payload, messages);
}

} // namespace pelorin
