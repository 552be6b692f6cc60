#include "Tests/Fakes/FakeCompression.h"

namespace pelorin {
namespace {

class FakeSession final : public CompressionSession {
public:
    FakeSession(FakeCompression& script, std::shared_ptr<FakeCompression::Session> into)
        : compression(script),
          record(std::move(into))
    {
    }
    ~FakeSession() override { record->isDestroyed = true; }

    CompressionStatus setProperty(const CompressionProperty& property) override
    {
        const auto scripted = compression.propertyStatuses.find(nameOf(property));
        if (scripted != compression.propertyStatuses.end()) return scripted->second;
        record->properties.push_back(property);
        return compressionStatus::success;
    }

    CompressionStatus prepareToEncodeFrames() override
    {
        record->isPrepared = true;
        return compressionStatus::success;
    }

    CompressionStatus encode(
        const PixelBuffer& picture, SteadyTime presentationTime, bool forceKeyframe, Output output) override
    {
        if (compression.encodeStatus != compressionStatus::success) return compression.encodeStatus;
        record->encodes.push_back({picture.widthPx, picture.heightPx, picture.sequence, presentationTime,
            picture.times, forceKeyframe, std::move(output)});
        // Kept here: an output may make its owner destroy us.
        if (compression.emitsAtOnce) {
            const auto kept = record;
            FakeCompression::emit(*kept, kept->encodes.size() - 1);
        }
        return compressionStatus::success;
    }

    void completeFrames() override
    {
        record->isCompleted = true;
        for (std::size_t i = 0; i < record->encodes.size(); ++i)
            if (!record->encodes[i].isEmitted) FakeCompression::emit(*record, i);
    }

private:
    FakeCompression& compression;
    std::shared_ptr<FakeCompression::Session> record;
};

} // namespace

Compression::Created FakeCompression::createSession(const CompressionRequest& request)
{
    requests.push_back(request);
    const auto scripted = statuses.find({request.codec, request.mode});
    if (scripted != statuses.end() && scripted->second != compressionStatus::success)
        return {scripted->second, nullptr};
    if (givesNoSession) return {compressionStatus::success, nullptr};
    sessions.push_back(std::make_shared<Session>());
    sessions.back()->request = request;
    return {compressionStatus::success, std::make_unique<FakeSession>(*this, sessions.back())};
}

CompressedSample FakeCompression::sampleFor(const Session& session, const Encode& encode)
{
    CompressedSample sample;
    sample.isDataReady = true;
    sample.isNotSync = !encode.forceKeyframe;
    if (encode.forceKeyframe && session.request.codec == VideoCodec::hevc)
        sample.parameterSets = {{0x40, 1}, {0x42, 1}, {0x44, 1}};
    else if (encode.forceKeyframe)
        sample.parameterSets = {{0x67, 100}, {0x68, 0xCE}};
    const auto type = static_cast<std::uint8_t>(encode.forceKeyframe ? 0x65 : 0x41);
    sample.data = {0, 0, 0, 2, type, static_cast<std::uint8_t>(encode.sequence)};
    sample.presentationTime = encode.presentationTime;
    sample.captureTimes = encode.captureTimes;
    sample.encodedAt = encode.presentationTime;
    return sample;
}

void FakeCompression::emit(Session& session, std::size_t index)
{
    emit(session, index, compressionStatus::success, sampleFor(session, session.encodes.at(index)));
}

void FakeCompression::emit(
    Session& session, std::size_t index, CompressionStatus status, CompressedSample sample)
{
    session.encodes.at(index).isEmitted = true;
    const auto output = session.encodes.at(index).output; // a copy: the call may encode more
    output(status, std::move(sample));
}

} // namespace pelorin
