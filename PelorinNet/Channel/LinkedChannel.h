#pragma once

#include "PelorinNet/Channel/CallOut.h"
#include "PelorinNet/Channel/Channel.h"

#include <memory>

namespace pelorin {

// A channel that leaves the work to a link, which may go on without it to finish what was sent. The link is
// told of its channel by start, and forgets it in finish and close. Queue: the one given to start. Shares its
// link with whatever finishes it. Owned by the session at its end.
template <class Link>
class LinkedChannel : public Channel {
public:
    explicit LinkedChannel(std::shared_ptr<Link> newLink) : link(std::move(newLink)) {}
    ~LinkedChannel() override
    {
        if (!isFinished) link->close();
    }

    void start(QueueRef queue) override { link->start(std::move(queue), this); }
    using Channel::send;
    void send(std::vector<Bytes> parts, Task onSent) override
    {
        link->send(std::move(parts), std::move(onSent));
    }
    std::size_t unsentBytes() const override { return link->unsentBytes(); }
    void finish() override
    {
        if (!std::exchange(isFinished, true)) link->finish();
    }
    std::string remoteAddress() const override { return link->remoteAddress(); }
    std::string pathDescription() const override { return link->pathDescription(); }

    // What the link has to tell; both may destroy the channel.
    void reportBytes(ByteView bytes) { callOut(onBytes, lifetime.watch(), bytes); }
    void reportClosed(std::optional<NetError> error)
    {
        if (onClosed) std::exchange(onClosed, nullptr)(std::move(error));
    }

protected:
    const std::shared_ptr<Link> link;

private:
    bool isFinished = false;
    Lifetime lifetime;
};

} // namespace pelorin
