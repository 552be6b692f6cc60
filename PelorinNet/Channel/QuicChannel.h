#pragma once

#include "PelorinNet/Channel/QuicLink.h"

#include <deque>

namespace pelorin {

// A stream as a channel, on a queue of its own. What it sends waits in the link; who wants to know when it
// has gone waits here. Queue: the one given to start. Owned by the session at its end.
class QuicChannel final : public Channel {
public:
    QuicChannel(std::shared_ptr<QuicLink> newLink, std::shared_ptr<QuicStream> newStream,
        const SocketAddress& newRemote, std::optional<Bytes> newPeer);
    ~QuicChannel() override;

    void start(QueueRef newQueue) override;
    using Channel::send;
    void send(std::vector<Bytes> parts, Task onSent) override;
    std::size_t unsentBytes() const override { return std::size_t(total - taken); }
    void finish() override;
    std::string remoteAddress() const override { return remote.hostText(); }
    std::string pathDescription() const override { return "quic " + remote.text(); }
    bool hasFailedHandshake() const override { return handshakeFailed; }
    const std::optional<Bytes>& peerFingerprint() const { return peer; }

    // What the link reports, on our queue.
    void provePeer(Bytes fingerprint) { peer = std::move(fingerprint); }
    void received(ByteView bytes);
    void sent(std::uint64_t upTo); // a place in the stream
    void closed(QuicEnd end);

private:
    struct Pending {
        std::uint64_t end = 0; // place in the stream after which it is due
        Task onSent;
    };
    void tell(std::move_only_function<void(QuicLink&, const std::shared_ptr<QuicStream>&)> work);

    const std::shared_ptr<QuicLink> link;
    const std::shared_ptr<QuicStream> stream; // touched on the link's queue only
    const SocketAddress remote;
    QueueRef queue;
    std::optional<Bytes> peer;
    std::deque<Pending> pending;
    std::uint64_t total = 0, taken = 0;
    bool isOpen = false; // callbacks may come
    bool isReleased = false; // the link was told that we want nothing more
    bool handshakeFailed = false;
    Lifetime lifetime;
};

} // namespace pelorin
