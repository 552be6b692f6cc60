#pragma once

#include "PelorinNet/Channel/TlsStreams.h"
#include "PelorinNet/NetError.h"

#include <memory>
#include <utility>

struct ssl_st;
struct ssl_ctx_st;

namespace pelorin {

// The service's certificate and its private key, with the rules of its TLS: 1.2 and 1.3, no client
// certificates, no tickets. Never changes; connections share it.
class ServerTls {
public:
    // PEM files: the certificate with those between it and the root, and its key.
    static Result<std::shared_ptr<const ServerTls>, NetError> load(
        const std::string& certificateFile, const std::string& keyFile);

private:
    friend class TlsSession;
    ServerTls();

    const TlsStreams::Method method = TlsStreams::makeMethod();
    const std::unique_ptr<ssl_ctx_st, void (*)(ssl_ctx_st*)> context;
};

// The TLS of one connection, between buffers; holds no buffers of its own while nothing is under way. Owned
// by its connection.
class TlsSession {
public:
    explicit TlsSession(std::shared_ptr<const ServerTls> newServer);
    TlsSession(const TlsSession&) = delete;
    TlsSession& operator=(const TlsSession&) = delete;

    // Takes what came from the peer and appends to plaintext what it said. False: the connection is to end,
    // after what takeOutput gives.
    bool receive(ByteView bytes, Bytes& plaintext);
    // Without effect before the handshake is done, after end, and after a failure.
    void send(ByteView plaintext);
    void end(); // nothing more will be sent
    Bytes takeOutput() { return std::exchange(streams.outgoing, {}); } // for the peer

private:
    bool goesOnAfter(int result);
    bool mayWrite() const;

    const std::shared_ptr<const ServerTls> server;
    TlsStreams streams;
    const std::unique_ptr<ssl_st, void (*)(ssl_st*)> connection;
    bool hasEnded = false;
};

} // namespace pelorin
