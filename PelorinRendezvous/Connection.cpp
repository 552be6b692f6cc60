#include "PelorinRendezvous/Connection.h"

#include "PelorinRendezvous/ServerTls.h"

namespace pelorin {
namespace {
using WebSocket::CloseCode;
using WebSocket::Opcode;

constexpr std::size_t maxHead = 8 * 1024; // a browser's, with the fields of a proxy

ByteView bytesOf(std::string_view text)
{
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

} // namespace

Connection::Connection(ConnectionID newID, Service& newService, std::unique_ptr<TlsSession> newTls)
    : id(newID),
      service(newService),
      tls(std::move(newTls))
{
}

Connection::~Connection() = default;

void Connection::receive(ByteView bytes)
{
    if (!tls) return read(bytes);
    Bytes plaintext;
    const bool goesOn = tls->receive(bytes, plaintext);
    read(plaintext);
    if (!goesOn && stage != Stage::over) {
        leave();
        end();
    }
    const Bytes owed = tls->takeOutput(); // of the handshake, or an alert
    output.insert(output.end(), owed.begin(), owed.end());
}

void Connection::leave()
{
    if (std::exchange(isKnown, false)) service.gone(id);
}

void Connection::read(ByteView plaintext)
{
    if (plaintext.empty() || isDeaf) return;
    switch (stage) {
    case Stage::request:
        return readRequest(plaintext);
    case Stage::messages:
    case Stage::farewell:
        return readMessages(plaintext);
    case Stage::over:
        return;
    }
}

void Connection::readRequest(ByteView plaintext)
{
    head.append(reinterpret_cast<const char*>(plaintext.data()), plaintext.size());
    const auto size = httpHeadSize(std::string_view(head).substr(0, maxHead));
    if (!size) {
        if (head.size() >= maxHead) service.requestFailed(id, "431 Request Header Fields Too Large");
        return;
    }
    const std::string received = std::exchange(head, {});
    const auto request = HttpRequest::parse(std::string_view(received).substr(0, *size));
    if (!request) return service.requestFailed(id, "400 Bad Request");
    service.requested(id, *request);
    read(bytesOf(received).subspan(*size)); // an eager client's first messages
}

void Connection::readMessages(ByteView plaintext)
{
    decoder.append(plaintext);
    while (stage == Stage::messages || stage == Stage::farewell) {
        const auto event = decoder.next();
        if (!event) {
            isDeaf = true;
            if (stage == Stage::messages) service.failed(id, event.error());
            return;
        }
        if (!*event) return;
        hear(**event);
    }
}

void Connection::hear(const WebSocketDecoder::Event& event)
{
    using Kind = WebSocketDecoder::Event::Kind;
    if (event.kind == Kind::close) return peerClosed(event);
    if (stage == Stage::farewell) return;
    if (event.kind == Kind::text) return service.received(id, event.payload);
    if (event.kind == Kind::ping) write(WebSocket::frame(Opcode::pong, event.payload));
    service.heard(id);
}

void Connection::peerClosed(const WebSocketDecoder::Event& event)
{
    if (stage == Stage::messages) write(WebSocket::closeFrame(event.code, {}));
    leave();
    end();
}

void Connection::answer(std::string_view response)
{
    if (stage != Stage::request) return;
    write(bytesOf(response));
    end();
}

void Connection::upgrade(std::string_view response)
{
    if (stage != Stage::request) return;
    write(bytesOf(response));
    stage = Stage::messages;
}

void Connection::send(std::string_view text)
{
    if (stage == Stage::messages) write(WebSocket::frame(Opcode::text, text));
}

void Connection::close(CloseCode code, std::string_view reason)
{
    if (stage != Stage::messages) return;
    write(WebSocket::closeFrame(code, reason));
    if (isDeaf) return end(); // their goodbye could not be heard
    stage = Stage::farewell;
}

void Connection::write(ByteView plaintext)
{
    Bytes encrypted;
    if (tls) {
        tls->send(plaintext);
        encrypted = tls->takeOutput();
        plaintext = encrypted;
    }
    output.insert(output.end(), plaintext.begin(), plaintext.end());
}

void Connection::end()
{
    stage = Stage::over;
    head = {};
    if (!tls) return;
    tls->end();
    const Bytes owed = tls->takeOutput();
    output.insert(output.end(), owed.begin(), owed.end());
}

void Connection::takeSent(std::size_t count)
{
    sent += count;
    if (sent < output.size()) return;
    output = {}; // with its memory: most connections are idle most of the time
    sent = 0;
}

} // namespace pelorin
