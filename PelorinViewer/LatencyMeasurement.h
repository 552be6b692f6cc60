#pragma once

#include "PelorinPhone/Samples.h"
#include "PelorinPhone/VideoReceiver.h"
#include "PelorinViewer/ViewerOptions.h"

#include <random>

namespace pelorin {

struct LatencyFigures {
    Samples inputToPixelMs;
    int lost = 0; // presses that nothing was seen of
};

// Presses a key again and again and takes the time from sending it until the decoded picture shows what the
// desktop made of it: the brightness of the probed part changes. The pauses are random, from a fixed seed, so
// that presses fall on every moment of a frame. Queue: the session's. Owned by the Viewer.
class LatencyMeasurement {
public:
    struct Settings {
        int trials = 200;
        std::uint16_t keyCode = 0;
        KeyModifiers modifiers;
        std::optional<PictureRect> probe; // otherwise a square in the middle
    };
    LatencyMeasurement(QueueRef queue, Settings settings);

    std::function<void(const Message&)> onSend;
    std::function<void(LatencyFigures)> onEnd; // once; may destroy us

    void start();
    void sawPicture(const ReceivedPicture& picture);

private:
    void pauseThenPress();
    void press();
    void give(std::optional<double> milliseconds);
    double probedLuma(const DecodedPicture& picture) const;

    QueueRef queue;
    Settings settings;
    LatencyFigures figures;
    int done = 0;
    std::minstd_rand random; // default seed: every run has the same pauses
    std::optional<DecodedPicture> last;
    struct Press {
        SteadyTime at;
        double lumaBefore;
    };
    std::optional<Press> pressed; // waiting for the picture to show it
    Subscription timer;
};

} // namespace pelorin
