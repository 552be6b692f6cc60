#pragma once

#include "PelorinPhone/PhoneStatistics.h"
#include "PelorinViewer/LatencyMeasurement.h"
#include "PelorinViewer/MotionMeasurement.h"

namespace pelorin {

// What one run of the viewer came to.
struct ViewerReport {
    std::string hostName;
    std::string path; // as the host describes it
    std::string codec; // "h264", "hevc"; empty before the first picture
    int widthPx = 0; // of the last picture
    int heightPx = 0;
    std::optional<double> firstPictureMs; // from connecting to the first decoded picture
    PhoneFigures figures;
    std::optional<LatencyFigures> latency;
    std::optional<MotionFigures> motion;

    // One JSON object; a figure that could not be measured is null.
    std::string json() const;
    std::string summary() const; // one line for people
};

} // namespace pelorin
