#include "PelorinNet/Channel/PathChannel.h"

namespace pelorin {
namespace {

class PathChannel final : public Channel {
public:
    PathChannel(
        std::unique_ptr<Channel> newInner, std::shared_ptr<const PathLabel> newLabel, std::string newIdentity)
        : inner(std::move(newInner)),
          label(std::move(newLabel)),
          identity(std::move(newIdentity))
    {
    }

    void start(QueueRef queue) override
    {
        inner->onBytes = std::move(onBytes);
        inner->onClosed = std::move(onClosed);
        inner->start(std::move(queue));
    }
    void send(std::vector<Bytes> parts, Task onSent) override
    {
        inner->send(std::move(parts), std::move(onSent));
    }
    std::size_t unsentBytes() const override { return inner->unsentBytes(); }
    void finish() override { inner->finish(); }
    std::string remoteAddress() const override { return inner->remoteAddress(); }
    std::string pathDescription() const override { return label->get(); }
    std::string peerIdentity() const override { return identity; }
    const Channel& carrier() const override { return inner->carrier(); }
    bool hasFailedHandshake() const override { return inner->hasFailedHandshake(); }

private:
    const std::unique_ptr<Channel> inner;
    const std::shared_ptr<const PathLabel> label;
    const std::string identity;
};

} // namespace

std::unique_ptr<Channel> onPath(
    std::unique_ptr<Channel> channel, std::shared_ptr<const PathLabel> label, std::string identity)
{
    return std::make_unique<PathChannel>(std::move(channel), std::move(label), std::move(identity));
}

} // namespace pelorin
