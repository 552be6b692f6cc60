#pragma once

#include "PelorinNet/Stun/StunMessage.h"

namespace pelorin {

// The short-term credentials of one end of a path (RFC 8445, 5.3). Who holds the peer's may check.
struct PathCredentials {
    std::string ufrag; // 8 letters and digits
    std::string password; // 24 letters and digits

    static PathCredentials random(); // unbiased, from the system's secure generator
    bool operator==(const PathCredentials&) const = default;
};

// A check that an address pair works: a Binding request that only the right peer can make, and its answer
// that only the right peer can give. USERNAME is the receiver's ufrag, ":" and the sender's.
namespace ConnectivityCheck {

Bytes request(
    const PathCredentials& local, const PathCredentials& remote, const StunMessage::TransactionID& id);
// The answer to a request that the peer made, as seen from source; nothing when it is not the peer's.
std::optional<Bytes> answer(ByteView datagram, const SocketAddress& source, const PathCredentials& local,
    const PathCredentials& remote);
// Whether it is an answer of the peer's, to any check: the caller knows the transactions it waits for.
bool isAnswer(ByteView datagram, const PathCredentials& remote);

} // namespace ConnectivityCheck

} // namespace pelorin
