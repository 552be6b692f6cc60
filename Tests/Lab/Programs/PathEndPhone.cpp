#include "PelorinPhone/PhoneSession.h"
#include "Tests/Lab/Programs/PathEndLoad.h"

namespace pelorin::lab {
namespace {

using namespace std::chrono_literals;

constexpr Duration typingPace = 100ms; // a line; each shows on the screen
constexpr std::uint16_t returnKey = 36;

double inMs(Duration duration)
{
    return std::chrono::duration<double, std::milli>(duration).count();
}

// A phone that types the numbers 1, 2, 3, …, a line each, and watches the pictures that this changes.
class Hand final : public PathEndLoad {
public:
    void begin(QueuePool& pool, const QueueRef& newQueue) override
    {
        queue = newQueue;
        decodeQueue = pool.makeQueue("dev.pelorin.phone.decode");
    }
    void use(std::unique_ptr<Channel> channel) override
    {
        const PhoneSession::Settings settings{
            .clientName = "lab", .viewport = {1280, 720, 1}, .display = {}, .capabilities = {}};
        session = std::make_unique<PhoneSession>(std::move(channel), queue, decodeQueue, settings);
        session->onPicture = [this](const ReceivedPicture&) { pictureArrived(); };
        session->onPathInfo
            = [this](const std::string& text) { onReport({{"event", "path"}, {"text", text}}); };
        session->onEnd = [this](const PhoneSession::End& how) {
            typing.cancel();
            onReport({{"event", "closed"}, {"error", how.text}});
        };
        session->start();
    }
    nlohmann::json figures() override
    {
        auto gap = std::exchange(longestGap, {});
        if (lastPicture) gap = std::max(gap, queue->now() - *lastPicture);
        return {{"received", pictures}, {"sent", line}, {"longestGapMs", inMs(gap)}};
    }
    void end() override
    {
        typing.cancel();
        session.reset();
    }

private:
    void pictureArrived()
    {
        const auto now = queue->now();
        if (lastPicture) longestGap = std::max(longestGap, now - *lastPicture);
        lastPicture = now;
        if (pictures++ == 0) typing = queue->every(typingPace, [this] { typeLine(); });
    }
    void typeLine()
    {
        session->send(message::Text{std::to_string(++line)});
        for (const bool isDown : {true, false}) session->send(message::Key{returnKey, isDown, {}});
    }

    QueueRef queue;
    QueueRef decodeQueue;
    std::unique_ptr<PhoneSession> session;
    Subscription typing;
    int line = 0;
    std::uint64_t pictures = 0;
    std::optional<SteadyTime> lastPicture;
    Duration longestGap{};
};

} // namespace

std::unique_ptr<PathEndLoad> makeLoad(const LoadOptions&)
{
    return std::make_unique<Hand>();
}

} // namespace pelorin::lab
