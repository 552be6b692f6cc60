#include "PelorinViewer/LatencyMeasurement.h"

#include "PelorinViewer/Picture.h"

#include <cmath>
#include <utility>

namespace pelorin {

namespace {

using namespace std::chrono_literals;

// The encoder's first pictures are its worst and the desktop is still settling.
constexpr Duration settlingTime = 500ms;

// Long enough for the picture of the press before to be complete, and spread over many frames.
constexpr int shortestPauseMs = 120;
constexpr int longestPauseMs = 250;

// No answer after this long is no answer.
constexpr Duration patience = 2s;

// Of 219 luma steps from black to white; far beyond what a codec does to a picture that stands still.
constexpr double noticeableLuma = 20;

constexpr int defaultProbeSide = 64;

} // namespace

LatencyMeasurement::LatencyMeasurement(QueueRef newQueue, Settings newSettings)
    : queue(std::move(newQueue)),
      settings(std::move(newSettings))
{
}

void LatencyMeasurement::start()
{
    queue->assertCurrent();
    timer = queue->after(settlingTime, [this] { press(); });
}

void LatencyMeasurement::sawPicture(const ReceivedPicture& picture)
{
    queue->assertCurrent();
    last = picture.picture;
    if (!pressed || std::abs(probedLuma(picture.picture) - pressed->lumaBefore) < noticeableLuma) return;
    give(std::chrono::duration<double, std::milli>(picture.decodedAt - pressed->at).count());
}

void LatencyMeasurement::pauseThenPress()
{
    const int pause = std::uniform_int_distribution(shortestPauseMs, longestPauseMs)(random);
    timer = queue->after(std::chrono::milliseconds(pause), [this] { press(); });
}

void LatencyMeasurement::press()
{
    if (!last) return pauseThenPress();
    timer = queue->after(patience, [this] { give(std::nullopt); });
    pressed = Press{queue->now(), probedLuma(*last)};
    onSend(message::Key{settings.keyCode, true, settings.modifiers});
    onSend(message::Key{settings.keyCode, false, settings.modifiers});
}

void LatencyMeasurement::give(std::optional<double> milliseconds)
{
    timer.cancel();
    pressed.reset();
    if (milliseconds)
        figures.inputToPixelMs.add(*milliseconds);
    else
        ++figures.lost;
    if (++done < settings.trials) return pauseThenPress();
    onEnd(std::move(figures));
}

double LatencyMeasurement::probedLuma(const DecodedPicture& picture) const
{
    const PictureRect middle{(picture.widthPx - defaultProbeSide) / 2,
        (picture.heightPx - defaultProbeSide) / 2, defaultProbeSide, defaultProbeSide};
    return meanLuma(picture, settings.probe.value_or(middle));
}

} // namespace pelorin
