#include "PelorinPhone/PhoneStatistics.h"

#include <utility>

namespace pelorin {

std::string_view nameOf(Stage stage)
{
    static constexpr std::array<std::string_view, stageCount> names{
        "capture", "convert", "encode", "send", "network", "decode", "draw"};
    return names[static_cast<std::size_t>(stage)];
}

void PhoneStatistics::addArrival(std::size_t bytes)
{
    second.bytes += bytes;
    all.bytes += bytes;
}

void PhoneStatistics::addDrop()
{
    ++second.dropped;
    ++all.dropped;
}

void PhoneStatistics::addPicture(const StageTimes& stages, std::optional<double> ageMs)
{
    for (Span* span : {&second, &all}) {
        ++span->frames;
        for (std::size_t stage = 0; stage < stageCount; ++stage)
            if (stages.ms[stage]) span->stages[stage].add(*stages.ms[stage]);
        if (ageMs) span->age.add(*ageMs);
    }
}

void PhoneStatistics::addDrawing(double ms)
{
    second.stages[static_cast<std::size_t>(Stage::draw)].add(ms);
    all.stages[static_cast<std::size_t>(Stage::draw)].add(ms);
}

void PhoneStatistics::setRoundTrip(double ms)
{
    lastRttMs = ms;
}

PhoneFigures PhoneStatistics::takeSecond(double seconds)
{
    return figuresOf(std::exchange(second, {}), seconds);
}

PhoneFigures PhoneStatistics::total(double seconds) const
{
    return figuresOf(all, seconds);
}

PhoneFigures PhoneStatistics::figuresOf(const Span& span, double seconds) const
{
    PhoneFigures figures;
    figures.seconds = seconds;
    figures.frames = span.frames;
    figures.dropped = span.dropped;
    figures.rttMs = lastRttMs;
    if (seconds > 0) {
        figures.fps = span.frames / seconds;
        figures.mbps = static_cast<double>(span.bytes) * 8 / 1e6 / seconds;
    }
    for (std::size_t stage = 0; stage < stageCount; ++stage)
        figures.stages.ms[stage] = span.stages[stage].median();
    figures.ageMs = span.age.median();
    figures.age95Ms = span.age.percentile(0.95);
    return figures;
}

} // namespace pelorin
