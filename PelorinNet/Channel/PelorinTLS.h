#pragma once

#include "PelorinCore/Pairing/Key.h"
#include "PelorinNet/Channel/Channel.h"

#include <optional>
#include <vector>

namespace pelorin::PelorinTLS {

// From the system's secure generator. The program stops when that fails: no key is ever made of less.
Bytes randomBytes(std::size_t count);
std::string randomIdentity(std::string_view prefix); // and 16 lowercase hexadecimal digits
Key randomKey(std::string identity); // with 32 random bytes

// What a listener accepts: exactly these keys, TLS 1.2 and TLS_ECDHE_PSK_WITH_CHACHA20_POLY1305_SHA256
// (0xCCAC, RFC 7905) alone. A snapshot; channels share it and keep it alive. Any thread.
class ServerParameters {
public:
    virtual ~ServerParameters() = default;
};
std::shared_ptr<const ServerParameters> parameters(const std::vector<Key>& keys);

// TLS over another channel, which is not started yet. The handshake begins with start and has 10 s; onBytes
// and the first onSent come after it. A handshake that fails closes the channel with an error and
// hasFailedHandshake; the peer is sent the alert. What is sent before the handshake is done waits for it,
// also when the channel is told to finish meanwhile. A connection that ends without close_notify counts as
// closed in order: frames tell their own length, so a cut one shows, and whoever can cut a connection can end
// it.
std::unique_ptr<Channel> serverChannel(
    std::unique_ptr<Channel> transport, std::shared_ptr<const ServerParameters> parameters);
std::unique_ptr<Channel> clientChannel(std::unique_ptr<Channel> transport, Key key);

// What a failed handshake means to a person; its error says the rest.
enum class HandshakeFailure {
    keyRefused, // wrong secret, or an identity that the server does not know: not paired, or no longer
    notTLS, // the peer speaks something else
    incompatible, // TLS without a version or suite in common, or broken
    timedOut,
    closed, // the peer or the network ended the connection
};
// Of a channel made here; nothing for any other. Known when onClosed arrives.
std::optional<HandshakeFailure> handshakeFailure(const Channel& channel);

} // namespace pelorin::PelorinTLS
