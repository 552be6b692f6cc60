#pragma once

#include "PelorinPhone/Samples.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace pelorin {

// The legs of a frame's way from the change on the host's screen to the phone's.
enum class Stage { capture, convert, encode, send, network, decode, draw };
inline constexpr std::size_t stageCount = 7;
std::string_view nameOf(Stage stage);

// Milliseconds by stage; a stage that nobody measured stays empty.
struct StageTimes {
    std::array<std::optional<double>, stageCount> ms;
    std::optional<double>& operator[](Stage stage) { return ms[static_cast<std::size_t>(stage)]; }
    const std::optional<double>& operator[](Stage stage) const { return ms[static_cast<std::size_t>(stage)]; }
};

// What a session looked like over some time. Times are medians.
struct PhoneFigures {
    double seconds = 0;
    int frames = 0; // decoded
    int dropped = 0; // arrived and not decoded: damaged, without a keyframe before, or too many waiting
    double fps = 0;
    double mbps = 0; // megabits of video per second
    std::optional<double> rttMs;
    StageTimes stages;
    std::optional<double> ageMs; // from the change on the host's screen to the decoded picture
    std::optional<double> age95Ms;
};

// Counts and times of one session, second by second and in all. A value of the PhoneSession.
class PhoneStatistics {
public:
    void addArrival(std::size_t bytes);
    void addDrop();
    void addPicture(const StageTimes& stages, std::optional<double> ageMs);
    void addDrawing(double ms);
    void setRoundTrip(double ms);

    std::optional<double> rttMs() const { return lastRttMs; }
    // Of what was added since the last call, which was that many seconds ago.
    PhoneFigures takeSecond(double seconds);
    PhoneFigures total(double seconds) const; // of what was added since restartTotal, or ever
    void restartTotal() { all = {}; }

private:
    struct Span {
        int frames = 0;
        int dropped = 0;
        std::size_t bytes = 0;
        std::array<Samples, stageCount> stages;
        Samples age;
    };
    PhoneFigures figuresOf(const Span& span, double seconds) const;

    Span second;
    Span all;
    std::optional<double> lastRttMs;
};

} // namespace pelorin
