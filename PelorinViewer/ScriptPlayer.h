#pragma once

#include "PelorinPhone/DecodedPicture.h"
#include "PelorinViewer/Script.h"

#include <functional>
#include <optional>

namespace pelorin {

// Plays a script against a running session, step after step, on the clock of its queue. Queue: the session's.
// Owned by the Viewer.
class ScriptPlayer {
public:
    enum class End { finished, quit, failed };

    ScriptPlayer(QueueRef queue, std::vector<ScriptStep> steps);

    // On the queue. All but onEnd are called within start, sawPicture or a timer and must leave us alive.
    std::function<void(const Message&)> onSend;
    std::function<Result<void, std::string>(const std::string& file)> onScreenshot; // of the last picture
    std::function<void(End, std::string text)> onEnd; // at most once; text says what failed and on which line

    void start();
    void sawPicture(const DecodedPicture& picture);

private:
    void runSteps();
    enum class Progress { next, later, ended };
    Progress begin(const scriptStep::Send& step);
    Progress begin(const scriptStep::Wait& step);
    Progress begin(const scriptStep::ExpectChange& step);
    Progress begin(const scriptStep::ExpectStill& step);
    Progress begin(const scriptStep::Screenshot& step);
    Progress begin(const scriptStep::Quit& step);
    void goOn();
    void settle();
    Progress end(End end, const std::string& problem = {});
    bool hasChanged() const;

    QueueRef queue;
    std::vector<ScriptStep> steps;
    std::size_t current = 0;
    bool isRunning = false;
    std::optional<DecodedPicture> last;
    std::optional<DecodedPicture>
        reference; // what was shown at the last input; nothing before the first picture
    std::optional<Duration> stillFor; // an expect still is under way
    bool awaitsChange = false; // an expect change is under way
    Subscription timer; // ends a wait, a still spell, or the time for a change
    Subscription patience; // ends the time for a still spell
};

} // namespace pelorin
