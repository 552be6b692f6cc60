#include "PelorinViewer/ScriptPlayer.h"

#include "PelorinViewer/Picture.h"

#include <fmt/format.h>
#include <utility>

namespace pelorin {

namespace {

using namespace std::chrono_literals;

// How much longer than the still spell itself a picture may go on moving before the script gives up.
constexpr Duration stillPatience = 10s;

} // namespace

ScriptPlayer::ScriptPlayer(QueueRef newQueue, std::vector<ScriptStep> newSteps)
    : queue(std::move(newQueue)),
      steps(std::move(newSteps))
{
}

void ScriptPlayer::start()
{
    queue->assertCurrent();
    isRunning = true;
    runSteps();
}

void ScriptPlayer::sawPicture(const DecodedPicture& picture)
{
    queue->assertCurrent();
    const bool moved = !last || showsChange(*last, picture);
    last = picture;
    if (awaitsChange && hasChanged()) return goOn();
    if (stillFor && moved) timer = queue->after(*stillFor, [this] { goOn(); });
}

void ScriptPlayer::runSteps()
{
    while (isRunning) {
        if (current == steps.size()) {
            end(End::finished);
            return;
        }
        const auto progress
            = std::visit([this](const auto& action) { return begin(action); }, steps[current].action);
        if (progress != Progress::next) return;
        ++current;
    }
}

void ScriptPlayer::goOn()
{
    settle();
    ++current;
    runSteps();
}

// Nothing is awaited any more. A change that was awaited counts once: what comes next is compared with the
// picture that showed it.
void ScriptPlayer::settle()
{
    timer.cancel();
    patience.cancel();
    stillFor.reset();
    if (std::exchange(awaitsChange, false)) reference = last;
}

ScriptPlayer::Progress ScriptPlayer::begin(const scriptStep::Send& step)
{
    reference = last;
    for (const Message& message : step.messages) onSend(message);
    return Progress::next;
}

ScriptPlayer::Progress ScriptPlayer::begin(const scriptStep::Wait& step)
{
    timer = queue->after(step.time, [this] { goOn(); });
    return Progress::later;
}

ScriptPlayer::Progress ScriptPlayer::begin(const scriptStep::ExpectChange& step)
{
    if (hasChanged()) {
        reference = last;
        return Progress::next;
    }
    awaitsChange = true;
    timer = queue->after(step.within, [this] { end(End::failed, "the picture did not change"); });
    return Progress::later;
}

ScriptPlayer::Progress ScriptPlayer::begin(const scriptStep::ExpectStill& step)
{
    stillFor = step.time;
    timer = queue->after(step.time, [this] { goOn(); });
    patience = queue->after(
        step.time + stillPatience, [this] { end(End::failed, "the picture did not stand still"); });
    return Progress::later;
}

ScriptPlayer::Progress ScriptPlayer::begin(const scriptStep::Screenshot& step)
{
    if (auto written = onScreenshot(step.file); !written) return end(End::failed, written.error());
    return Progress::next;
}

ScriptPlayer::Progress ScriptPlayer::begin(const scriptStep::Quit&)
{
    return end(End::quit);
}

ScriptPlayer::Progress ScriptPlayer::end(End end, const std::string& problem)
{
    isRunning = false;
    settle();
    std::string text
        = end == End::failed ? fmt::format("script line {}: {}", steps[current].line, problem) : "";
    onEnd(end, std::move(text));
    return Progress::ended;
}

bool ScriptPlayer::hasChanged() const
{
    return last && (!reference || showsChange(*reference, *last));
}

} // namespace pelorin
