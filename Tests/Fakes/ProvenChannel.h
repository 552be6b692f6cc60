#pragma once

#include "PelorinNet/Channel/Channel.h"

#include <utility>

namespace pelorin::fakes {

// A channel as it comes out of a handshake, in which the peer proved identity or failed to.
class ProvenChannel final : public Channel {
public:
    ProvenChannel(std::unique_ptr<Channel> newInner, std::string newIdentity)
        : inner(std::move(newInner)),
          identity(std::move(newIdentity))
    {
    }

    void start(QueueRef queue) override
    {
        inner->onBytes = [this](ByteView bytes) { onBytes(bytes); };
        inner->onClosed = [this](std::optional<NetError> error) { onClosed(std::move(error)); };
        inner->start(std::move(queue));
    }
    using Channel::send;
    void send(std::vector<Bytes> parts, Task onSent) override
    {
        inner->send(std::move(parts), std::move(onSent));
    }
    std::size_t unsentBytes() const override { return inner->unsentBytes(); }
    void finish() override { inner->finish(); }
    std::string remoteAddress() const override { return inner->remoteAddress(); }
    std::string pathDescription() const override { return inner->pathDescription(); }
    std::string peerIdentity() const override { return identity; }

private:
    std::unique_ptr<Channel> inner;
    std::string identity;
};

} // namespace pelorin::fakes
