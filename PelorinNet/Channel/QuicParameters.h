#pragma once

#include "PelorinNet/Channel/PelorinQUIC.h"

#include <gnutls/abstract.h>
#include <gnutls/gnutls.h>
#include <type_traits>

namespace pelorin {

template <auto release>
struct GnutlsReleaser {
    template <class T>
    void operator()(T* object) const
    {
        release(object);
    }
};
template <class Pointer, auto release>
using GnutlsHandle = std::unique_ptr<std::remove_pointer_t<Pointer>, GnutlsReleaser<release>>;

using QuicCredentials = GnutlsHandle<gnutls_certificate_credentials_t, gnutls_certificate_free_credentials>;

enum class QuicCongestion { cubic, bbr, bbr2 };

// What the connections of one end have in common. Never changes once it is in use, so connections on any
// queue share it.
class QuicParameters final : public PelorinQUIC::Parameters {
public:
    // resetKey: the secret of the tokens by which a peer knows that we have lost a connection.
    QuicParameters(QueueRef newVerifyQueue, QuicCredentials newCredentials, bool newIsServer,
        SecretBytes newResetKey, PelorinQUIC::Accept newAccept);
    static QuicCredentials credentialsOf(const TLSIdentity& identity);
    static SecretBytes resetKeyOf(const TLSIdentity& identity);

    // Asks accept on its own queue, and tells reply on home. A reply that never comes accepts nobody.
    static void ask(std::shared_ptr<const QuicParameters> parameters, Bytes fingerprint, QueueRef home,
        std::move_only_function<void(bool isAccepted)> reply);

    gnutls_priority_t priority() const { return priorities.get(); }
    gnutls_certificate_credentials_t certificates() const { return credentials.get(); }

    const bool isServer;
    const SecretBytes resetKey;
    std::string applicationProtocol = PelorinQUIC::alpn; // none when empty, which our own ends never are
    // Not CUBIC, which a phone's lossy line brings down to a tenth, and not BBR2, which is slower on loopback
    // and slower to notice a new path that nobody told it of. docs/benchmarks.md has the figures.
    QuicCongestion congestion = QuicCongestion::bbr;

private:
    const QueueRef verifyQueue;
    const QuicCredentials credentials;
    const PelorinQUIC::Accept accept;
    GnutlsHandle<gnutls_priority_t, gnutls_priority_deinit> priorities;
};

} // namespace pelorin
