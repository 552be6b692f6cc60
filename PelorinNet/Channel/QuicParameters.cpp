#include "PelorinNet/Channel/QuicParameters.h"

#include "PelorinNet/Channel/QuicTls.h"
#include "PelorinNet/Identity/HmacSHA256.h"

namespace pelorin {
namespace {

// AES first, which processors do by themselves. The groups are quick and known to every peer.
constexpr const char* priorityText
    = "NORMAL:-VERS-ALL:+VERS-TLS1.3:-CIPHER-ALL:+AES-128-GCM:+AES-256-GCM:+CHACHA20-POLY1305:"
      "-GROUP-ALL:+GROUP-SECP256R1:+GROUP-X25519:%DISABLE_TLS13_COMPAT_MODE";

constexpr std::size_t coordinateSize = 32; // of P-256

gnutls_datum_t datumOf(ByteView bytes)
{
    return {const_cast<unsigned char*>(bytes.data()), unsigned(bytes.size())}; // the library only reads it
}

int judgePeer(gnutls_session_t session)
{
    auto* const reference = static_cast<ngtcp2_crypto_conn_ref*>(gnutls_session_get_ptr(session));
    return static_cast<QuicTls*>(reference->user_data)->judge();
}

} // namespace

QuicParameters::QuicParameters(QueueRef newVerifyQueue, QuicCredentials newCredentials, bool newIsServer,
    SecretBytes newResetKey, PelorinQUIC::Accept newAccept)
    : isServer(newIsServer),
      resetKey(std::move(newResetKey)),
      verifyQueue(std::move(newVerifyQueue)),
      credentials(std::move(newCredentials)),
      accept(std::move(newAccept))
{
    gnutls_priority_t made = nullptr;
    require(gnutls_priority_init(&made, priorityText, nullptr) == GNUTLS_E_SUCCESS, "GnuTLS lacks TLS 1.3");
    priorities.reset(made);
    gnutls_certificate_set_verify_function(credentials.get(), judgePeer);
}

QuicCredentials QuicParameters::credentialsOf(const TLSIdentity& identity)
{
    const ByteView key = identity.privateKey.view();
    require(key.size() == 1 + 3 * coordinateSize, "a private key in X9.63 form has 97 bytes");
    const gnutls_datum_t x = datumOf(key.subspan(1, coordinateSize)),
                         y = datumOf(key.subspan(1 + coordinateSize, coordinateSize)),
                         scalar = datumOf(key.subspan(1 + 2 * coordinateSize)),
                         certificate = datumOf(identity.certificate);

    gnutls_certificate_credentials_t made = nullptr;
    require(gnutls_certificate_allocate_credentials(&made) == GNUTLS_E_SUCCESS, "out of memory");
    QuicCredentials credentials(made);
    gnutls_privkey_t privateKey = nullptr;
    gnutls_pcert_st leaf{};
    require(gnutls_privkey_init(&privateKey) == GNUTLS_E_SUCCESS
            && gnutls_privkey_import_ecc_raw(privateKey, GNUTLS_ECC_CURVE_SECP256R1, &x, &y, &scalar)
                == GNUTLS_E_SUCCESS
            && gnutls_pcert_import_x509_raw(&leaf, &certificate, GNUTLS_X509_FMT_DER, 0) == GNUTLS_E_SUCCESS
            // Both become the credentials' own.
            && gnutls_certificate_set_key(made, nullptr, 0, &leaf, 1, privateKey) == GNUTLS_E_SUCCESS,
        "an identity holds a key and its certificate");
    return credentials;
}

// From the private key, so that the same device after a restart knows the connections that it has lost.
SecretBytes QuicParameters::resetKeyOf(const TLSIdentity& identity)
{
    constexpr std::string_view purpose = "pelorin quic stateless reset";
    return SecretBytes(hmacSHA256(
        identity.privateKey.view(), {reinterpret_cast<const std::uint8_t*>(purpose.data()), purpose.size()}));
}

void QuicParameters::ask(std::shared_ptr<const QuicParameters> parameters, Bytes fingerprint, QueueRef home,
    std::move_only_function<void(bool isAccepted)> reply)
{
    const QueueRef queue = parameters->verifyQueue;
    queue->post([parameters = std::move(parameters), fingerprint = std::move(fingerprint),
                    home = std::move(home), reply = std::move(reply)]() mutable {
        bool isAccepted = false;
        try {
            isAccepted = parameters->accept && parameters->accept(fingerprint);
        } catch (...) {
            isAccepted = false; // who can't be judged is not let in
        }
        home->post([reply = std::move(reply), isAccepted]() mutable { reply(isAccepted); });
    });
}

} // namespace pelorin
