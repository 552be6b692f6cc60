#include "PelorinNet/Channel/QuicTls.h"

#include "PelorinNet/Identity/KeyFingerprint.h"

#include <gnutls/x509.h>
#include <ngtcp2/ngtcp2_crypto_gnutls.h>

namespace pelorin {
namespace {

constexpr std::size_t coordinateSize = 32; // of P-256

using Certificate = GnutlsHandle<gnutls_x509_crt_t, gnutls_x509_crt_deinit>;
using PublicKey = GnutlsHandle<gnutls_pubkey_t, gnutls_pubkey_deinit>;

struct Coordinate {
    gnutls_datum_t bytes{nullptr, 0};
    ~Coordinate() { gnutls_free(bytes.data); }
};

// A number without its leading zeros, as coordinateSize bytes at the end of key.
bool appendCoordinate(Bytes& key, const gnutls_datum_t& number)
{
    if (number.size > coordinateSize) return false;
    key.insert(key.end(), coordinateSize - number.size, 0);
    key.insert(key.end(), number.data, number.data + number.size);
    return true;
}

ngtcp2_conn* connectionOf(ngtcp2_crypto_conn_ref* reference)
{
    return static_cast<QuicTls*>(reference->user_data)->connection();
}

} // namespace

std::optional<Bytes> leafFingerprint(std::span<const gnutls_datum_t> chain)
{
    if (chain.empty()) return std::nullopt;
    gnutls_x509_crt_t madeCertificate = nullptr;
    if (gnutls_x509_crt_init(&madeCertificate) != GNUTLS_E_SUCCESS) return std::nullopt;
    const Certificate certificate(madeCertificate);
    if (gnutls_x509_crt_import(certificate.get(), &chain.front(), GNUTLS_X509_FMT_DER) != GNUTLS_E_SUCCESS)
        return std::nullopt;

    gnutls_pubkey_t madeKey = nullptr;
    if (gnutls_pubkey_init(&madeKey) != GNUTLS_E_SUCCESS) return std::nullopt;
    const PublicKey publicKey(madeKey);
    if (gnutls_pubkey_import_x509(publicKey.get(), certificate.get(), 0) != GNUTLS_E_SUCCESS)
        return std::nullopt;
    // Asked first: an export from a key of another kind is no question to put to a library.
    if (gnutls_pubkey_get_pk_algorithm(publicKey.get(), nullptr) != GNUTLS_PK_ECDSA) return std::nullopt;

    gnutls_ecc_curve_t curve = GNUTLS_ECC_CURVE_INVALID;
    Coordinate x, y;
    if (gnutls_pubkey_export_ecc_raw2(publicKey.get(), &curve, &x.bytes, &y.bytes, GNUTLS_EXPORT_FLAG_NO_LZ)
        != GNUTLS_E_SUCCESS)
        return std::nullopt;
    if (curve != GNUTLS_ECC_CURVE_SECP256R1) return std::nullopt;
    Bytes key{0x04};
    if (!appendCoordinate(key, x.bytes) || !appendCoordinate(key, y.bytes)) return std::nullopt;
    return KeyFingerprint::of(key);
}

QuicTls::QuicTls(std::shared_ptr<const QuicParameters> newParameters) : parameters(std::move(newParameters))
{
    reference.get_conn = connectionOf;
    reference.user_data = this;

    // No tickets: every session is a full handshake, so that a peer that was removed opens nothing any more.
    constexpr unsigned always = GNUTLS_NO_AUTO_SEND_TICKET | GNUTLS_NO_END_OF_EARLY_DATA | GNUTLS_NO_TICKETS;
    gnutls_session_t made = nullptr;
    require(gnutls_init(&made, (parameters->isServer ? GNUTLS_SERVER : GNUTLS_CLIENT) | always)
            == GNUTLS_E_SUCCESS,
        "out of memory");
    session.reset(made);
    const std::string& protocol = parameters->applicationProtocol;
    const gnutls_datum_t offered{
        reinterpret_cast<unsigned char*>(const_cast<char*>(protocol.data())), unsigned(protocol.size())};
    require(gnutls_priority_set(made, parameters->priority()) == GNUTLS_E_SUCCESS
            && gnutls_credentials_set(made, GNUTLS_CRD_CERTIFICATE, parameters->certificates())
                == GNUTLS_E_SUCCESS
            && (protocol.empty()
                || gnutls_alpn_set_protocols(made, &offered, 1, GNUTLS_ALPN_MANDATORY) == GNUTLS_E_SUCCESS)
            && (parameters->isServer ? ngtcp2_crypto_gnutls_configure_server_session(made)
                                     : ngtcp2_crypto_gnutls_configure_client_session(made))
                == 0,
        "GnuTLS can't do QUIC");
    if (parameters->isServer) gnutls_certificate_server_set_request(made, GNUTLS_CERT_REQUIRE);
    gnutls_session_set_ptr(made, &reference);
}

void QuicTls::secure(ngtcp2_conn* newConnection)
{
    secured = newConnection;
    ngtcp2_conn_set_tls_native_handle(secured, session.get());
}

// Anything but an acceptance that was given refuses. To suspend, the library is told that it would block.
int QuicTls::judge()
{
    switch (verdict) {
    case Verdict::accepted:
        return 0;
    case Verdict::pending:
        return GNUTLS_E_AGAIN;
    case Verdict::refused:
        return GNUTLS_E_CERTIFICATE_ERROR;
    case Verdict::none:
        break;
    }
    unsigned count = 0;
    const gnutls_datum_t* const chain = gnutls_certificate_get_peers(session.get(), &count);
    peer = leafFingerprint({chain, chain ? count : 0});
    verdict = peer ? Verdict::pending : Verdict::refused;
    return peer ? GNUTLS_E_AGAIN : GNUTLS_E_CERTIFICATE_ERROR;
}

std::optional<Bytes> QuicTls::takeQuestion()
{
    if (verdict != Verdict::pending || std::exchange(isAsked, true)) return std::nullopt;
    return peer;
}

bool QuicTls::resume()
{
    return ngtcp2_crypto_read_write_crypto_data(secured, NGTCP2_CRYPTO_LEVEL_HANDSHAKE, nullptr, 0) == 0;
}

bool QuicTls::hasProvenPeer() const
{
    if (verdict != Verdict::accepted) return false;
    gnutls_datum_t chosen{};
    if (gnutls_alpn_get_selected_protocol(session.get(), &chosen) != GNUTLS_E_SUCCESS) return false;
    return std::string_view(reinterpret_cast<const char*>(chosen.data), chosen.size) == PelorinQUIC::alpn;
}

} // namespace pelorin
