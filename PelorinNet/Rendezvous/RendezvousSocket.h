#pragma once

#include "PelorinCore/Result.h"
#include "PelorinNet/NetError.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

namespace pelorin {

// A WebSocket (RFC 6455) to the rendezvous service that carries JSON objects as text frames. Queue: the one
// given when it was made, for calls and callbacks alike. Owned by the agent or the connector; destroying it
// closes the link without waiting, and nothing is called back from there on.
class RendezvousSocket {
public:
    using Received = std::function<void(Result<nlohmann::json, NetError>)>;
    using Opened = std::function<void(Result<void, NetError>)>;

    virtual ~RendezvousSocket() = default;

    virtual void open(Opened opened) = 0; // once; fails after 10 s at the latest
    virtual void send(const nlohmann::json& object) = 0; // without effect while not open
    virtual void ping() = 0; // the bare text frame "ping", which the service answers with "pong"
    // The next object that has that key, of those that nobody has taken. Fails after timeout with "timed
    // out", and once the link has ended with the reason for that. Without a timeout it waits on.
    virtual void next(std::string key, std::optional<Duration> timeout, Received done) = 0;
    virtual SteadyTime lastReceived() const = 0; // of any frame; of the opening before the first
    virtual void close() = 0; // with code 1000

    // Of a link that was open: at most once, and not after close.
    std::function<void(const NetError& reason)> onEnd;
};

// Makes one for a URL with the scheme ws or wss; it is not open yet.
using RendezvousSocketMaker = std::function<std::unique_ptr<RendezvousSocket>(QueueRef, std::string url)>;

class QueuePool;
// Real ones, for queues of that pool, which outlives the maker. With wss the service must show a certificate
// for its name that the system trusts.
RendezvousSocketMaker rendezvousSockets(QueuePool& pool);

// The WebSocket URL of that path, "v1/host", at a service: https becomes wss, and http ws; a path that the
// service's own URL has goes before. Nothing for what is no such URL.
std::optional<std::string> rendezvousURL(std::string_view service, std::string_view path);

} // namespace pelorin
