#pragma once

#include <cstdint>
#include <optional>

namespace pelorin {

// Fits the size of the capture to the bitrate: fewer pixels when each gets too few bits, more when the next
// larger size would leave plenty. Going up asks for more bits and longer than going down, so that it does not
// flap between two sizes.
class CaptureScaler {
public:
    // Takes the bitrate (bits per second) and the pixels that a capture at scale 1 has, about once a second.
    // Returns the new scale when it changed. Without pixels, or at a scale of no step, nothing is counted.
    std::optional<double> update(int bitrate, std::int64_t fullPixels);

    double scale = 1; // 1, 0.75 or 0.5
    double frameRate = 30; // assumed for the bits that a pixel gets
    double lowBitsPerPixel = 0.02; // under this the picture starves
    double highBitsPerPixel = 0.05; // over this, at the next larger scale, there is room
    int secondsToStepDown = 3;
    int secondsToStepUp = 8;
    int lowSeconds = 0;
    int highSeconds = 0;

private:
    double bitsPerPixel(double atScale, int bitrate, std::int64_t fullPixels) const;
    std::optional<double> stepTo(double newScale);
};

} // namespace pelorin
