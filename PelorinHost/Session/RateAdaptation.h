#pragma once

#include "PelorinCore/Rate/BitrateController.h"
#include "PelorinCore/Rate/CaptureScaler.h"
#include "PelorinCore/Wire/Message.h"
#include "PelorinHost/HostConfig.h"
#include "PelorinNet/Log.h"

namespace pelorin {

// The settings that a person may have written, brought to what encoder and capture can work with.
int usableBitrate(double mbps); // bits per second
int usableFrameRate(std::int64_t framesPerSecond);

// What the phone's reports mean for bitrate and capture size. Outlives capture restarts.
class RateAdaptation {
public:
    explicit RateAdaptation(const HostConfig& config);

    void dropped() { ++dropsSinceReport; }
    void captureIs(const message::DisplayInfo& info);

    struct Change {
        std::optional<int> bitrate; // bits per second
        std::optional<double> scale;
    };
    Change update(const message::ClientReport& report);
    void tick() { reportsThisSecond = 0; } // once a second

    int bitrate() const { return bitrateController.bitrate; }
    double scale() const { return captureScaler.scale; }

private:
    Log log{"session"};
    BitrateController bitrateController;
    CaptureScaler captureScaler;
    std::int64_t fullCapturePixels = 0; // of the capture at scale 1
    int dropsSinceReport = 0;
    int reportsThisSecond = 0;
};

} // namespace pelorin
