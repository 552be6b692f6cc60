#include "Tests/Lab/FrameTraffic.h"
#include "Tests/Lab/Programs/PathEndLoad.h"

namespace pelorin::lab {
namespace {

using nlohmann::json;

double inMs(Duration duration)
{
    return std::chrono::duration<double, std::milli>(duration).count();
}

class FrameLoad final : public PathEndLoad {
public:
    explicit FrameLoad(const FrameTraffic::Settings& newSettings) : settings(newSettings) {}

    void begin(QueuePool&, const QueueRef& newQueue) override { queue = newQueue; }
    void use(std::unique_ptr<Channel> channel) override
    {
        traffic = std::make_unique<FrameTraffic>(std::move(channel), queue, settings);
    }
    json figures() override
    {
        if (!traffic) return nullptr;
        const auto now = traffic->figures();
        traffic->restartGap();
        return {{"sent", now.sent}, {"leftOut", now.leftOut}, {"received", now.received},
            {"longestGapMs", inMs(now.longestGap)}, {"latencyMs", inMs(now.latency)},
            {"latencyP95Ms", inMs(now.latencyP95)}, {"isBroken", now.isBroken}};
    }
    void end() override { traffic.reset(); }

private:
    const FrameTraffic::Settings settings;
    QueueRef queue;
    std::unique_ptr<FrameTraffic> traffic;
};

} // namespace

std::unique_ptr<PathEndLoad> makeLoad(const LoadOptions& options)
{
    return std::make_unique<FrameLoad>(FrameTraffic::Settings{.frameBytes = options.frameBytes});
}

} // namespace pelorin::lab
