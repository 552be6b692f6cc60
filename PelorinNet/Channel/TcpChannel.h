#pragma once

#include "PelorinNet/Channel/Channel.h"
#include "PelorinNet/Queue/QueuePool.h"

namespace pelorin {

// Accepts TCP connections on one address. Queue: the one given; owned by the HostServer.
class TcpListener {
public:
    // Port 0 lets the system choose. Local-endpoint reuse is on; accepted sockets have no-delay on.
    static Result<std::unique_ptr<TcpListener>, NetError> listen(
        QueuePool& pool, QueueRef queue, const std::string& address, std::uint16_t port);
    virtual ~TcpListener() = default; // stops listening; accepted channels live on

    std::function<void(std::unique_ptr<Channel>)> onConnection; // on the queue; the channel is not started
    std::function<void(NetError)> onFailure; // on the queue, at most once; listening has ended

    virtual std::uint16_t port() const = 0;
};

// Connects to host (name or address) and port and calls done on queue with a channel that is not started, or
// why not. Cancelled with the subscription.
[[nodiscard]] Subscription connectTcp(QueuePool& pool, QueueRef queue, std::string host, std::uint16_t port,
    Duration timeout, std::function<void(Result<std::unique_ptr<Channel>, NetError>)> done);

} // namespace pelorin
