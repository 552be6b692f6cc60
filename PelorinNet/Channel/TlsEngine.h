#pragma once

#include "PelorinNet/Channel/PelorinTLS.h"
#include "PelorinNet/Channel/TlsStreams.h"
#include "PelorinNet/NetError.h"

#include <optional>

struct ssl_st;

namespace pelorin {

class TlsContext;

// The TLS of one connection: bytes in and out, no transport, no queue, no time. Owned by its link.
class TlsEngine {
public:
    explicit TlsEngine(std::shared_ptr<const TlsContext> newContext);
    TlsEngine(const TlsEngine&) = delete;
    TlsEngine& operator=(const TlsEngine&) = delete;

    enum class Step {
        done,
        wantsMore, // all that was offered is used up
        ended, // the peer said that nothing follows
        failed, // see failure; the alert for the peer is among the output
    };
    // What came from the peer; stays valid until a step wants more.
    void offer(ByteView bytes);
    Step handshake();
    struct Piece {
        Step step;
        ByteView bytes; // when done; in the buffer
    };
    Piece read(std::span<std::uint8_t> buffer); // one record at most

    // After the handshake. Parts are joined and cut into records as large as TLS has them.
    void write(const std::vector<Bytes>& parts);
    void writeEnd(); // close_notify

    Bytes takeOutput() { return std::exchange(streams.outgoing, {}); } // for the peer

    struct Failure {
        PelorinTLS::HandshakeFailure kind; // of a failure during the handshake
        std::string text;
    };
    const Failure& failure() const { return lastFailure; }
    std::string peerIdentity() const; // after the handshake

private:
    Step stepAfter(int result);
    Step fail(PelorinTLS::HandshakeFailure kind, std::string text);
    void encrypt(ByteView plaintext);

    const std::shared_ptr<const TlsContext> context;
    TlsStreams streams;
    const std::unique_ptr<ssl_st, void (*)(ssl_st*)> connection;
    std::optional<std::uint8_t> firstByte; // that the peer sent
    Failure lastFailure{};
};

} // namespace pelorin
