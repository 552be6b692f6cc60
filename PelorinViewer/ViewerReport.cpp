#include "PelorinViewer/ViewerReport.h"

#include <cmath>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace pelorin {

namespace {

using Json = nlohmann::ordered_json;

// Microseconds are as fine as anything here was measured.
Json rounded(std::optional<double> value)
{
    if (!value || !std::isfinite(*value)) return nullptr;
    return std::round(*value * 1000) / 1000;
}

Json stagesOf(const PhoneFigures& figures)
{
    Json stages = Json::object();
    for (std::size_t stage = 0; stage < stageCount; ++stage)
        stages[std::string(nameOf(static_cast<Stage>(stage)))] = rounded(figures.stages.ms[stage]);
    return stages;
}

Json inMs(const std::optional<Duration>& duration)
{
    if (!duration) return nullptr;
    return rounded(std::chrono::duration<double, std::milli>(*duration).count());
}

Json connectOf(const ViewerReport::Connect& connect)
{
    const auto& steps = connect.steps;
    return {{"way", connect.isRemote ? "rendezvous" : "direct"}, {"path", connect.path},
        {"serviceMs", inMs(steps.service)}, {"acceptedMs", inMs(steps.accepted)},
        {"pathMs", inMs(steps.path)}, {"securedMs", inMs(steps.secured)}, {"helloMs", inMs(connect.hello)},
        {"firstPictureMs", inMs(connect.firstPicture)}};
}

Json latencyOf(const Samples& samples)
{
    return {{"p50", rounded(samples.percentile(0.5))}, {"p95", rounded(samples.percentile(0.95))},
        {"p99", rounded(samples.percentile(0.99))}, {"n", samples.count()}};
}

} // namespace

std::string ViewerReport::json() const
{
    Json report{{"host", hostName}, {"path", path}, {"codec", codec}, {"widthPx", widthPx},
        {"heightPx", heightPx}, {"firstPictureMs", rounded(firstPictureMs)},
        {"seconds", rounded(figures.seconds)}, {"frames", figures.frames}, {"fps", rounded(figures.fps)},
        {"mbps", rounded(figures.mbps)}, {"dropped", figures.dropped}, {"rttMs", rounded(figures.rttMs)},
        {"connect", connectOf(connect)}, {"pathChanges", pathChanges}, {"resumes", resumes},
        {"stagesMs", stagesOf(figures)},
        {"pictureAgeMs", {{"p50", rounded(figures.ageMs)}, {"p95", rounded(figures.age95Ms)}}}};
    if (latency) {
        report["inputToPixelMs"] = latencyOf(latency->inputToPixelMs);
        report["lost"] = latency->lost;
    }
    if (motion) {
        report["distinctFps"] = rounded(motion->distinctFps);
        report["torn"] = motion->torn;
    }
    // Names come from the host: what is no UTF-8 must not end the program.
    return report.dump(2, ' ', false, Json::error_handler_t::replace);
}

std::string ViewerReport::summary() const
{
    return fmt::format("{} frames of {}x{} {} in {:.1f} s, {:.1f} Mbit/s, {} dropped", figures.frames,
        widthPx, heightPx, codec.empty() ? "video" : codec, figures.seconds, figures.mbps, figures.dropped);
}

} // namespace pelorin
