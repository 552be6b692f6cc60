#include "PelorinViewer/MotionMeasurement.h"

#include "PelorinViewer/FrameMark.h"

namespace pelorin {

namespace {

using namespace std::chrono_literals;

// The first keyframe and the rate control's way to its level are no steady motion.
constexpr Duration settlingTime = 1s;

} // namespace

MotionMeasurement::MotionMeasurement(QueueRef newQueue, Duration newLength)
    : queue(std::move(newQueue)),
      length(newLength)
{
}

void MotionMeasurement::start()
{
    queue->assertCurrent();
    timer = queue->after(settlingTime, [this] { begin(); });
}

void MotionMeasurement::sawPicture(const DecodedPicture& picture)
{
    queue->assertCurrent();
    if (!isCounting) return;
    const auto mark = FrameMark::read(
        picture.widthPx, picture.heightPx, [&](int x, int y) { return int{picture.lumaAt(x, y)}; });
    torn += mark.isWhole ? 0 : 1;
    if (mark.number == lastNumber) return;
    lastNumber = mark.number;
    ++distinct;
}

void MotionMeasurement::begin()
{
    isCounting = true;
    timer = queue->after(length, [this] { end(); });
    if (onBegin) onBegin();
}

void MotionMeasurement::end()
{
    isCounting = false;
    onEnd({distinct / std::chrono::duration<double>(length).count(), torn});
}

} // namespace pelorin
