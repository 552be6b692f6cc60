#pragma once

#include "PelorinCore/Result.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

// The vocabulary that host and phone share: one struct per message, fields in wire order, and the value types
// that messages carry. How they become bytes is MessageCodec's.
namespace pelorin {

inline constexpr std::uint16_t protocolVersion = 5;

enum class MessageType : std::uint8_t {
    hello = 1,
    helloAck = 2,
    ping = 3,
    pong = 4,
    error = 5,
    bye = 6,
    videoFormat = 10,
    videoFrame = 11,
    requestKeyframe = 12,
    setViewport = 13,
    displayInfo = 14,
    setDisplay = 15,
    cursorPosition = 16,
    cursorImage = 17,
    pathInfo = 18,
    displayList = 19,
    mouseMove = 20,
    mouseButton = 21,
    scroll = 22,
    key = 23,
    text = 24,
    clientReport = 25,
    setOptions = 26,
    pasteText = 27,
    clipboard = 30,
    pairRequest = 40,
    pairResult = 41,
    liveActivityRegister = 50,
    liveActivityInfo = 51,
};

enum class ErrorCode : std::uint16_t {
    unauthorized = 1,
    versionMismatch = 2,
    replaced = 3,
    internalError = 4, // also what an unknown code decodes to
    permissionsMissing = 5,
    idleTimeout = 6,
};

enum class VideoCodec : std::uint8_t { h264 = 1, hevc = 2 };
enum class DisplayMode : std::uint8_t { mirrorMain = 0, followPhone = 1 };
enum class MouseButton : std::uint8_t { left = 0, right = 1, middle = 2 };
enum class ScrollPhase : std::uint8_t { none = 0, began = 1, changed = 2, ended = 3, cancelled = 4 };
enum class MomentumPhase : std::uint8_t { none = 0, began = 1, changed = 2, ended = 3 };

// The phone's drawable size in pixels and its pixels per point.
struct Viewport {
    std::uint32_t widthPx = 0;
    std::uint32_t heightPx = 0;
    float scale = 1;
    bool operator==(const Viewport&) const = default;
};

// Which display the phone wants; displayID 0 is the main display, density 0 the viewport's own scale.
struct DisplaySettings {
    DisplayMode mode = DisplayMode::mirrorMain;
    float density = 0;
    std::uint32_t displayID = 0;
    bool operator==(const DisplaySettings&) const = default;
};

// A set of bits that keeps every bit as received, known or not.
template <class Raw, class Tag>
struct OptionSet {
    Raw rawValue = 0;
    constexpr bool contains(OptionSet other) const { return (rawValue & other.rawValue) == other.rawValue; }
    constexpr OptionSet operator|(OptionSet other) const
    {
        return {static_cast<Raw>(rawValue | other.rawValue)};
    }
    constexpr OptionSet& operator|=(OptionSet other) { return *this = *this | other; }
    constexpr bool isEmpty() const { return rawValue == 0; }
    bool operator==(const OptionSet&) const = default;
};

using ClientCapabilities = OptionSet<std::uint32_t, struct ClientCapabilitiesTag>;
namespace clientCapability {
inline constexpr ClientCapabilities decodesHEVC{1};
inline constexpr ClientCapabilities drawsCursor{2};
inline constexpr ClientCapabilities choosesDisplay{4};
inline constexpr ClientCapabilities liveActivity{8};
inline constexpr ClientCapabilities readsFrameStamps{16}; // see FrameStamps.h
} // namespace clientCapability

using SessionOptions = OptionSet<std::uint32_t, struct SessionOptionsTag>;
namespace sessionOption {
inline constexpr SessionOptions clipboardSharing{1};
inline constexpr SessionOptions privacyScreen{2};
inline constexpr SessionOptions lockAtEnd{4};
} // namespace sessionOption

using KeyModifiers = OptionSet<std::uint8_t, struct KeyModifiersTag>;
namespace keyModifier {
inline constexpr KeyModifiers none{0};
inline constexpr KeyModifiers shift{1};
inline constexpr KeyModifiers control{2};
inline constexpr KeyModifiers option{4};
inline constexpr KeyModifiers command{8};
inline constexpr KeyModifiers capsLock{16};
inline constexpr KeyModifiers function{32};
} // namespace keyModifier

struct DisplayDescriptor {
    std::uint32_t id = 0;
    std::string name;
    std::uint32_t widthPt = 0;
    std::uint32_t heightPt = 0;
    bool isMain = false;
    bool operator==(const DisplayDescriptor&) const = default;
};

namespace message {

// clang-format off
struct Hello {
    static constexpr auto type = MessageType::hello;
    std::uint16_t version = 0;
    std::string clientName;
    Viewport viewport;
    DisplaySettings display;
    ClientCapabilities capabilities;
    bool operator==(const Hello&) const = default;
};
struct HelloAck {
    static constexpr auto type = MessageType::helloAck;
    std::uint16_t version = 0;
    std::string hostName;
    bool operator==(const HelloAck&) const = default;
};
struct Ping {
    static constexpr auto type = MessageType::ping;
    std::uint32_t id = 0;
    std::uint64_t sentMicros = 0;
    bool operator==(const Ping&) const = default;
};
struct Pong {
    static constexpr auto type = MessageType::pong;
    std::uint32_t id = 0;
    std::uint64_t sentMicros = 0; // echoes the ping
    bool operator==(const Pong&) const = default;
};
struct Error {
    static constexpr auto type = MessageType::error;
    ErrorCode code = ErrorCode::internalError;
    std::string message;
    bool operator==(const Error&) const = default;
};
struct Bye {
    static constexpr auto type = MessageType::bye;
    bool operator==(const Bye&) const = default;
};
struct VideoFormat {
    static constexpr auto type = MessageType::videoFormat;
    VideoCodec codec = VideoCodec::h264;
    std::vector<Bytes> parameterSets; // at most 255
    bool operator==(const VideoFormat&) const = default;
};
struct VideoFrame {
    static constexpr auto type = MessageType::videoFrame;
    bool isKeyframe = false;
    std::uint64_t ptsMicros = 0;
    Bytes data; // NAL units, each behind its 4-byte big-endian length
    bool operator==(const VideoFrame&) const = default;
};
struct RequestKeyframe {
    static constexpr auto type = MessageType::requestKeyframe;
    bool operator==(const RequestKeyframe&) const = default;
};
struct SetViewport {
    static constexpr auto type = MessageType::setViewport;
    Viewport viewport;
    bool operator==(const SetViewport&) const = default;
};
struct DisplayInfo {
    static constexpr auto type = MessageType::displayInfo;
    std::uint32_t captureWidthPx = 0;
    std::uint32_t captureHeightPx = 0;
    float displayWidthPt = 0;
    float displayHeightPt = 0;
    bool operator==(const DisplayInfo&) const = default;
};
struct SetDisplay {
    static constexpr auto type = MessageType::setDisplay;
    DisplaySettings settings;
    bool operator==(const SetDisplay&) const = default;
};
struct CursorPosition {
    static constexpr auto type = MessageType::cursorPosition;
    float x = 0; // display points, origin top left of the streamed display
    float y = 0;
    std::uint32_t appliedMoves = 0;
    bool operator==(const CursorPosition&) const = default;
};
struct CursorImage {
    static constexpr auto type = MessageType::cursorImage;
    std::uint32_t id = 0;
    float hotX = 0;
    float hotY = 0;
    float widthPt = 0;
    float heightPt = 0;
    Bytes png;
    bool operator==(const CursorImage&) const = default;
};
struct PathInfo {
    static constexpr auto type = MessageType::pathInfo;
    std::string description;
    bool operator==(const PathInfo&) const = default;
};
struct DisplayList {
    static constexpr auto type = MessageType::displayList;
    std::vector<DisplayDescriptor> displays; // at most 65,535
    bool operator==(const DisplayList&) const = default;
};
struct MouseMove {
    static constexpr auto type = MessageType::mouseMove;
    float dx = 0; // display points, already accelerated
    float dy = 0;
    bool operator==(const MouseMove&) const = default;
};
struct MouseButtonChange {
    static constexpr auto type = MessageType::mouseButton;
    MouseButton button = MouseButton::left;
    bool isDown = false;
    std::uint8_t clickCount = 0;
    bool operator==(const MouseButtonChange&) const = default;
};
struct Scroll {
    static constexpr auto type = MessageType::scroll;
    float dx = 0; // pixels
    float dy = 0;
    ScrollPhase phase = ScrollPhase::none;
    MomentumPhase momentum = MomentumPhase::none;
    bool operator==(const Scroll&) const = default;
};
struct Key {
    static constexpr auto type = MessageType::key;
    std::uint16_t keyCode = 0; // macOS virtual key code
    bool isDown = false;
    KeyModifiers modifiers;
    bool operator==(const Key&) const = default;
};
struct Text {
    static constexpr auto type = MessageType::text;
    std::string text;
    bool operator==(const Text&) const = default;
};
struct ClientReport {
    static constexpr auto type = MessageType::clientReport;
    float rttMs = 0;
    std::uint16_t fps = 0;
    bool operator==(const ClientReport&) const = default;
};
struct SetOptions {
    static constexpr auto type = MessageType::setOptions;
    SessionOptions options;
    bool operator==(const SetOptions&) const = default;
};
struct PasteText {
    static constexpr auto type = MessageType::pasteText;
    std::string text;
    bool pasteNow = false;
    bool operator==(const PasteText&) const = default;
};
struct Clipboard {
    static constexpr auto type = MessageType::clipboard;
    std::string text;
    bool operator==(const Clipboard&) const = default;
};
struct PairRequest {
    static constexpr auto type = MessageType::pairRequest;
    std::string pairingID;
    std::string deviceName;
    bool operator==(const PairRequest&) const = default;
};
struct PairResult {
    static constexpr auto type = MessageType::pairResult;
    std::string deviceID;
    Bytes key;
    std::string hostName;
    bool operator==(const PairResult&) const = default;
};
struct LiveActivityRegister {
    static constexpr auto type = MessageType::liveActivityRegister;
    bool enabled = false;
    std::string pushToStartToken;
    bool hasActivity = false;
    bool operator==(const LiveActivityRegister&) const = default;
};
struct LiveActivityInfo {
    static constexpr auto type = MessageType::liveActivityInfo;
    bool available = false;
    std::string channelID;
    std::string macName;
    std::string note;
    bool operator==(const LiveActivityInfo&) const = default;
};
// clang-format on

} // namespace message

using Message = std::variant<message::Hello, message::HelloAck, message::Ping, message::Pong, message::Error,
    message::Bye, message::VideoFormat, message::VideoFrame, message::RequestKeyframe, message::SetViewport,
    message::DisplayInfo, message::SetDisplay, message::CursorPosition, message::CursorImage,
    message::PathInfo, message::DisplayList, message::MouseMove, message::MouseButtonChange, message::Scroll,
    message::Key, message::Text, message::ClientReport, message::SetOptions, message::PasteText,
    message::Clipboard, message::PairRequest, message::PairResult, message::LiveActivityRegister,
    message::LiveActivityInfo>;

MessageType typeOf(const Message& message);
std::string_view nameOf(MessageType type); // the case's name, "hello", for logs

} // namespace pelorin
