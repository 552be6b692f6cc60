#pragma once

#include "PelorinRendezvous/Service.h"
#include "PelorinRendezvous/WebSocket/WebSocketDecoder.h"

namespace pelorin {

class TlsSession;

// What one peer says and hears, between its bytes and the service: TLS where it is wanted, an HTTP request,
// then WebSocket. Knows no socket. Queue: the service's. Owned by its socket.
class Connection {
public:
    Connection(ConnectionID newID, Service& newService, std::unique_ptr<TlsSession> newTls);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection();

    void receive(ByteView bytes); // may call the service, which may call us
    void leave(); // tells the service that the peer is gone, unless it was told

    // As in Links.
    void answer(std::string_view response);
    void upgrade(std::string_view response);
    void send(std::string_view text);
    void close(WebSocket::CloseCode code, std::string_view reason);

    // For the peer, in order.
    ByteView unsent() const { return ByteView(output).subspan(sent); }
    void takeSent(std::size_t count);

    bool isEnding() const { return stage == Stage::farewell || stage == Stage::over; }
    bool isOver() const { return stage == Stage::over; } // all is said, and nothing is heard any more

private:
    enum class Stage {
        request, // until its head is whole and answered
        messages,
        farewell, // our close frame is on its way; theirs is awaited
        over,
    };

    void read(ByteView plaintext);
    void readRequest(ByteView plaintext);
    void readMessages(ByteView plaintext);
    void hear(const WebSocketDecoder::Event& event);
    void peerClosed(const WebSocketDecoder::Event& event);
    void write(ByteView plaintext);
    void end();

    const ConnectionID id;
    Service& service;
    std::unique_ptr<TlsSession> tls; // none: plain
    Stage stage = Stage::request;
    bool isKnown = true; // to the service
    bool isDeaf = false; // what came cannot be read on
    std::string head; // of the request, while it is not whole
    WebSocketDecoder decoder;
    Bytes output;
    std::size_t sent = 0; // of output
};

} // namespace pelorin
