#pragma once

#include "PelorinHost/Platform/Compression.h"

#include <mutex>
#include <optional>

namespace pelorin {

// What a session was asked for: the request and the properties set so far, as a backend reads them.
struct CompressionSettings {
    CompressionRequest request;
    ProfileLevel profile = ProfileLevel::h264HighAutoLevel;
    int frameRate = 60;
    int keyframeInterval = 3600; // frames
    double keyframeIntervalSeconds = 60;
    int bitsPerSecond = 8'000'000; // until somebody says
    int limitBytes = 0; // 0: no limit; else no span of limitSeconds may exceed it
    double limitSeconds = 1;

    explicit CompressionSettings(const CompressionRequest& asked);
    CompressionStatus set(const CompressionProperty& property);

    // The leaky bucket's size: small enough that what is in it and what flows in during the limit's span stay
    // under the limit, and that no picture alone blocks the path for long.
    int bucketBits() const;
};

// The settings as any thread may change them and the encoding thread takes them over between two pictures.
class SharedCompressionSettings {
public:
    explicit SharedCompressionSettings(const CompressionRequest& asked) : settings(asked) {}

    // Once taken, only the rate may still change.
    CompressionStatus set(const CompressionProperty& property);
    // What there is when it changed since the last time; the first time always.
    std::optional<CompressionSettings> takeChanged();

private:
    std::mutex lock; // guards all
    CompressionSettings settings;
    bool isChanged = true;
    bool isTaken = false;
};

} // namespace pelorin
