#pragma once

#include "PelorinRendezvous/WebSocket/WebSocketFrames.h"

namespace pelorin {

using ConnectionID = std::uint64_t; // of one connection, never used again

// What the rules ask of the sockets. Nothing here calls back; each connection, whoever ends it, is told gone
// once and later. A connection that is gone already is passed over.
class Links {
public:
    virtual ~Links() = default;

    // To the HTTP request of the connection: the last word, or the change to WebSocket.
    virtual void answer(ConnectionID connection, std::string response) = 0;
    virtual void upgrade(ConnectionID connection, std::string response) = 0;

    virtual void send(ConnectionID connection, std::string_view text) = 0; // one message
    // What waits for the peer to read; beyond Limits::unsent it is cut off.
    virtual std::size_t unsentBytes(ConnectionID connection) const = 0;
    // In order, after all that was sent; what the peer still says is not heard any more.
    virtual void close(ConnectionID connection, WebSocket::CloseCode code, std::string_view reason) = 0;
};

} // namespace pelorin
