#pragma once

#include "PelorinNet/Rendezvous/PhoneConnector.h"
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
    // How the session that runs now, or ran last, came about; times from the beginning of its connect.
    struct Connect {
        bool isRemote = false; // through the rendezvous service
        PhoneConnector::Steps steps; // of a remote one
        std::optional<Duration> hello; // the host's answer
        std::optional<Duration> firstPicture;
        std::string path; // as this end knows it, and as it is now
    };
    Connect connect;
    int pathChanges = 0;
    int resumes = 0; // sessions that took the place of a lost one
    PhoneFigures figures;
    std::optional<LatencyFigures> latency;
    std::optional<MotionFigures> motion;

    // One JSON object; a figure that could not be measured is null.
    std::string json() const;
    std::string summary() const; // one line for people
};

} // namespace pelorin
