// pelorin-viewer: shows and controls a host's desktop, in a window or without one. See --help.

#include "PelorinCore/Keys/KeyShortcut.h"
#include "PelorinNet/Log.h"
#include "PelorinViewer/HostList.h"
#include "PelorinViewer/ViewerProgram.h"

#include <CLI/CLI.hpp>
#include <map>

using namespace pelorin;

namespace {

constexpr int usageError = 2;

// With a count of frames but no time limit: a desktop that stands still sends few.
constexpr double framesTimeoutSeconds = 60;

constexpr auto footer = R"(HOST is one of
  'pelorin://pair?...'  the link that `pelorin-host pair` prints: pairs with that host, and shows it
  NAME                  a host that was paired so
  HOST:PORT             a host in test mode, without pairing

Keys in the window:
  a click         captures the mouse and the keyboard
  right Ctrl      gives them back
  F9              while they are given back: figures on and off

Exit codes: 0 fine, 2 wrong usage, 3 no connection, 4 refused or ended by the host (its text is printed),
5 an expectation of the script or a time limit failed, 6 the connection broke.
The script language is described in docs/viewer-script.md.)";

template <class Value>
std::function<std::string(const std::string&)> storing(Value& target,
    std::optional<std::remove_cvref_t<decltype(*target)>> (*parse)(std::string_view), const char* hint)
{
    return [&target, parse, hint](const std::string& text) -> std::string {
        target = parse(text);
        return target ? "" : "\"" + text + "\" is not " + hint;
    };
}

} // namespace

int main(int count, char** arguments)
{
    ViewerOptions options;
    std::string host;
    CLI::App app("Shows and controls the desktop of a Pelorin host.", "pelorin-viewer");
    app.footer(footer);
    auto* hostOption = app.add_option("host", host, "Whom to show, see below");
    bool lists = false;
    app.add_flag("--list", lists, "List the paired hosts");
    std::string forgotten;
    app.add_option("--forget", forgotten, "Forget the paired host of this name")->excludes(hostOption);
    app.add_flag("--headless", options.isHeadless, "No window; ends when what is asked below is done");
    app.add_option("--frames", options.frames, "End after so many decoded pictures")
        ->check(CLI::PositiveNumber);
    app.add_option("--seconds", options.seconds, "End after so long; with --measure motion: measure so long")
        ->check(CLI::PositiveNumber);
    app.add_option("--timeout", options.timeoutSeconds, "Give up after so many seconds (60 with --frames)")
        ->check(CLI::PositiveNumber);
    app.add_option("--script", options.scriptFile, "Input to play, see docs/viewer-script.md")
        ->check(CLI::ExistingFile);
    app.add_option("--screenshot", options.screenshotFile, "Write the last picture as PNG at the end");
    app.add_flag("--json", options.printsJSON, "Print figures as JSON at the end");
    app.add_flag("--overlay", options.showsOverlay, "Show figures in the window from the start");
    app.add_flag("--clipboard", options.sharesClipboard, "Share the clipboard with the host, both ways");
    app.add_option("--viewport", "WIDTHxHEIGHT[@SCALE] of the phone; otherwise the window's, or 1920x1080")
        ->check(storing(options.viewport, &parseViewport, "a size such as 1170x2532@3"));
    app.add_option("--codec", options.codec, "h264, hevc or any: what to offer to decode")
        ->transform(CLI::CheckedTransformer(std::map<std::string, CodecChoice>{
            {"any", CodecChoice::any}, {"h264", CodecChoice::h264}, {"hevc", CodecChoice::hevc}}));
    auto* followOption
        = app.add_flag("--follow-phone", options.followPhone, "Ask for a display shaped like the viewport");
    app.add_option("--phone-shape",
           "WIDTHxHEIGHT[@DENSITY] of a phone: asks for a display of its shape, so many of its "
           "pixels to a point")
        ->check(storing(options.viewport, &parseViewport, "a size such as 1170x2532@3"))
        ->excludes("--viewport")
        ->each([&options](const std::string&) { options.followPhone = true; });
    followOption->excludes("--phone-shape");
    app.add_flag("--privacy", options.wantsPrivacy, "Keep the host's own screens dark meanwhile");
    app.add_option(
        "--display", options.displayID, "Show this display instead of the main one; --verbose lists them");
    app.add_option(
           "--measure", options.measure, "latency: key presses until their pixels; motion: distinct frames")
        ->transform(CLI::CheckedTransformer(std::map<std::string, MeasureKind>{
            {"latency", MeasureKind::latency}, {"motion", MeasureKind::motion}}));
    app.add_option("--trials", options.trials, "Key presses to measure")->check(CLI::PositiveNumber);
    app.add_option("--key", options.key, "The key combination to press")->check([](const std::string& text) {
        return KeyShortcut::parse(text) ? "" : "\"" + text + "\" is no key combination";
    });
    app.add_option("--probe", "X,Y,WIDTH,HEIGHT in picture pixels where a press shows; otherwise the middle")
        ->check(storing(options.probe, &parseRect, "a rectangle such as 10,10,64,64"));
    bool isVerbose = false;
    app.add_flag("--verbose", isVerbose, "Log what goes on");
    app.set_version_flag("--version", "pelorin-viewer " PELORIN_VERSION);

    try {
        app.parse(count, arguments);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : usageError;
    }
    if (lists) return listHosts(ownPairedHosts(), options.printsJSON);
    if (!forgotten.empty()) return forgetHost(ownPairedHosts(), forgotten, options.printsJSON);
    auto target = host.empty() ? std::nullopt : parseTarget(host);
    if (!target) {
        std::fprintf(stderr, "pelorin-viewer: %s\n",
            host.empty() ? "which host? See --help" : "this pairing link is not whole");
        return usageError;
    }
    options.target = std::move(*target);
    if (options.frames > 0 && options.timeoutSeconds == 0) options.timeoutSeconds = framesTimeoutSeconds;
    Log::setLevel(isVerbose ? LogLevel::debug : LogLevel::warning);
    return runViewer(options);
}
