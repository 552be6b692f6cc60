#pragma once

#include "PelorinCore/Pairing/RemotePairingLink.h"
#include "PelorinCore/Wire/Message.h"

#include <optional>
#include <string>
#include <variant>

namespace pelorin {

// A rectangle in picture pixels.
struct PictureRect {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    bool operator==(const PictureRect&) const = default;
};

struct HostAddress {
    std::string host;
    std::uint16_t port = 0;
    bool operator==(const HostAddress&) const = default;

    // "name:7420", "10.0.0.1:7420", "[::1]:7420"; nothing for anything else.
    static std::optional<HostAddress> parse(std::string_view text);
};

// Whom to connect to.
struct PairedHostName {
    std::string text;
    bool operator==(const PairedHostName&) const = default;
};
using ViewerTarget = std::variant<HostAddress, PairingOffer, PairedHostName>;

// HOST:PORT, a pairing link, or else the name of a paired host. Nothing for a link that is not whole.
std::optional<ViewerTarget> parseTarget(std::string_view text);

// "1280x720" or "1170x2532@3"; nothing for anything else, for sides of 0 or over 16384, and scales out of (0,
// 8].
std::optional<Viewport> parseViewport(std::string_view text);
// "X,Y,WIDTH,HEIGHT"
std::optional<PictureRect> parseRect(std::string_view text);

enum class MeasureKind { none, latency, motion };
enum class CodecChoice { any, h264, hevc };

// What one run of the viewer is asked to do.
struct ViewerOptions {
    ViewerTarget target;
    bool isHeadless = false;
    std::optional<Viewport> viewport; // otherwise the window's, or headless 1920x1080
    CodecChoice codec = CodecChoice::any;
    bool followPhone = false; // a display shaped like the viewport instead of the main one
    std::uint32_t displayID = 0; // 0: the main display

    int frames = 0; // ends after so many decoded pictures; 0: no matter
    double seconds = 0; // ends so long after the host's answer; 0: no matter
    double timeoutSeconds = 0; // gives up after so long; 0: never
    std::string scriptFile;
    std::string screenshotFile; // the last picture, written at the end
    bool printsJSON = false;
    bool showsOverlay = false;
    bool sharesClipboard = false; // with a window
    bool wantsPrivacy = false; // the host's panels are dark meanwhile

    MeasureKind measure = MeasureKind::none;
    int trials = 200; // latency
    std::string key = "space"; // latency: what is pressed
    std::optional<PictureRect> probe; // latency: where to look; otherwise the middle of the picture
};

} // namespace pelorin
