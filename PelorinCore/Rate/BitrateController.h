#pragma once

#include <optional>

namespace pelorin {

// Finds the video bitrate that the path carries: down on loss or queueing delay, up after a calm spell, where
// queueing is a report's round trip above a baseline that follows lower ones at once and higher ones slowly.
// Bitrates are bits per second, times milliseconds.
class BitrateController {
public:
    // Starts at start, brought between the bounds. A minBitrate equal to maxBitrate never moves.
    BitrateController(int minBitrate, int maxBitrate, int start);

    // Takes one report of the phone; drops are the frames dropped since the last one. Returns the new bitrate
    // when it changed. A round trip that cannot be one (NaN, infinite, negative) leaves the baseline alone
    // and counts as neither calm nor congested; its drops cut all the same.
    std::optional<int> update(int drops, double rttMs);

    int bitrate;
    std::optional<double> baselineRTT; // absent until the first usable report

    double congestionDelay = 40; // more queueing than this cuts
    double calmDelay = 15; // less than this is calm
    double decreaseFactor = 0.7;
    double increaseFactor = 1.15;
    int calmSecondsToIncrease = 3; // reports, which come about once a second
    int calmSeconds = 0;

private:
    std::optional<double> queueingDelay(double rttMs);
    std::optional<int> countCalm();
    std::optional<int> moveTo(double target);

    int minBitrate;
    int maxBitrate;
};

} // namespace pelorin
