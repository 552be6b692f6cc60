#pragma once

#include "PelorinHost/Platform/Compression.h"

#include <map>
#include <utility>

namespace pelorin {

// An encoder that answers as scripted and records what it is asked. One thread, as the hand-driven queues
// are.
class FakeCompression final : public Compression {
public:
    struct Encode {
        int widthPx = 0;
        int heightPx = 0;
        std::uint64_t sequence = 0;
        SteadyTime presentationTime;
        CaptureTimes captureTimes;
        bool forceKeyframe = false;
        CompressionSession::Output output;
        bool isEmitted = false;
    };

    // What one session went through; outlives it.
    struct Session {
        CompressionRequest request;
        std::vector<CompressionProperty> properties;
        std::vector<Encode> encodes;
        bool isPrepared = false;
        bool isCompleted = false;
        bool isDestroyed = false;

        // The newest value of a property, or nothing when it was never set.
        template <class Property>
        const Property* last() const
        {
            const Property* found = nullptr;
            for (const auto& property : properties)
                if (const auto* match = std::get_if<Property>(&property)) found = match;
            return found;
        }
    };

    // What createSession answers; success where nothing is said.
    std::map<std::pair<VideoCodec, EncoderMode>, CompressionStatus> statuses;
    std::map<std::string, CompressionStatus> propertyStatuses; // by the property's name
    CompressionStatus encodeStatus = compressionStatus::success;
    bool givesNoSession = false; // says success without one
    // Whether encode emits within itself; else the test calls emit, and completeFrames emits what is left.
    bool emitsAtOnce = true;

    std::vector<CompressionRequest> requests;
    std::vector<std::shared_ptr<Session>> sessions;
    Session& lastSession() { return *sessions.back(); }

    Created createSession(const CompressionRequest& request) override;

    // The sample of one picture: a keyframe when forced, with three recognisable parameter sets for HEVC and
    // two for H.264.
    static CompressedSample sampleFor(const Session& session, const Encode& encode);
    static void emit(Session& session, std::size_t index);
    static void emit(Session& session, std::size_t index, CompressionStatus status, CompressedSample sample);
};

} // namespace pelorin
