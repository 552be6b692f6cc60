#pragma once

#include "PelorinNet/Channel/QuicParameters.h"

#include <ngtcp2/ngtcp2.h>
#include <ngtcp2/ngtcp2_crypto.h>

namespace pelorin {

// The fingerprint of the first certificate, the leaf, of a chain in DER. Nothing when there is none, when it
// can't be read, or when its key is not one on P-256.
std::optional<Bytes> leafFingerprint(std::span<const gnutls_datum_t> chain);

// The TLS of one connection, and the judgement on its peer. The peer's certificate suspends the handshake
// until decide is called: nobody waits for the verdict. Queue: the connection's. Owned by its link.
class QuicTls {
public:
    explicit QuicTls(std::shared_ptr<const QuicParameters> newParameters);
    QuicTls(const QuicTls&) = delete;
    QuicTls& operator=(const QuicTls&) = delete;

    // Joins the session and the connection that it secures.
    void secure(ngtcp2_conn* newConnection);

    // The fingerprint to be judged, once; then the handshake waits for decide, and goes on when it is
    // resumed.
    std::optional<Bytes> takeQuestion();
    bool awaitsVerdict() const { return verdict == Verdict::pending; }
    void decide(bool isAccepted) { verdict = isAccepted ? Verdict::accepted : Verdict::refused; }
    bool resume(); // false: the handshake has failed

    // Whether the peer was judged and accepted and speaks our protocol. A handshake that is complete in any
    // other way is none.
    bool hasProvenPeer() const;
    const std::optional<Bytes>& fingerprint() const { return peer; }
    bool hasRefusedPeer() const { return verdict == Verdict::refused; }

    int judge(); // by the library, when it has the peer's chain
    ngtcp2_conn* connection() const { return secured; }

private:
    enum class Verdict { none, pending, accepted, refused };

    const std::shared_ptr<const QuicParameters> parameters;
    ngtcp2_crypto_conn_ref reference{};
    ngtcp2_conn* secured = nullptr;
    GnutlsHandle<gnutls_session_t, gnutls_deinit> session;
    std::optional<Bytes> peer;
    bool isAsked = false;
    Verdict verdict = Verdict::none;
};

} // namespace pelorin
