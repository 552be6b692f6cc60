#include "PelorinNet/Channel/TlsContext.h"

#include <algorithm>
#include <openssl/crypto.h>
#include <openssl/ssl.h>

namespace pelorin {
namespace {

constexpr const char* cipherSuite = "ECDHE-PSK-CHACHA20-POLY1305"; // 0xCCAC
constexpr const char* groups = "P-256:X25519"; // both quick, one of them known to every peer

// Every session is a full handshake: a key that was removed opens nothing any more, and nothing of a session
// outlives its connection.
constexpr std::uint64_t options
    = SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION | SSL_OP_CIPHER_SERVER_PREFERENCE;

const TlsContext& contextOf(const SSL* connection)
{
    return *static_cast<const TlsContext*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(connection)));
}

// 0 stands for "no such key", which an empty secret is too.
unsigned copySecret(const PelorinTLS::Key& key, unsigned char* to, unsigned size)
{
    const ByteView secret = key.secret.view();
    if (secret.size() > size) return 0;
    std::ranges::copy(secret, to);
    return static_cast<unsigned>(secret.size());
}

unsigned giveServerSecret(SSL* connection, const char* identity, unsigned char* to, unsigned size)
{
    const auto* const key = contextOf(connection).find(identity);
    return key ? copySecret(*key, to, size) : 0;
}

// The identity goes out as text that ends with a zero, for which its size has no room of its own.
unsigned giveClientSecret(
    SSL* connection, const char*, char* identity, unsigned identitySize, unsigned char* to, unsigned size)
{
    const auto& key = contextOf(connection).clientKey();
    if (key.identity.size() > identitySize) return 0;
    *std::ranges::copy(key.identity, identity).out = '\0';
    return copySecret(key, to, size);
}

} // namespace

TlsContext::TlsContext(Role newRole, std::vector<PelorinTLS::Key> newKeys)
    : role(newRole),
      keys(std::move(newKeys)),
      context(SSL_CTX_new(newRole == Role::server ? TLS_server_method() : TLS_client_method()), SSL_CTX_free)
{
    SSL_CTX* const made = context.get();
    require(made && SSL_CTX_set_min_proto_version(made, TLS1_2_VERSION)
            && SSL_CTX_set_max_proto_version(made, TLS1_2_VERSION)
            && SSL_CTX_set_cipher_list(made, cipherSuite) && SSL_CTX_set_ciphersuites(made, "")
            && SSL_CTX_set1_groups_list(made, groups),
        "OpenSSL lacks TLS 1.2 with ECDHE-PSK-CHACHA20-POLY1305");
    SSL_CTX_set_options(made, options);
    SSL_CTX_set_session_cache_mode(made, SSL_SESS_CACHE_OFF);
    // An idle connection holds no record buffers.
    SSL_CTX_set_mode(made, SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_read_ahead(made, 0);
    SSL_CTX_set_app_data(made, this);
    if (role == Role::server)
        SSL_CTX_set_psk_server_callback(made, giveServerSecret);
    else
        SSL_CTX_set_psk_client_callback(made, giveClientSecret);
}

const PelorinTLS::Key* TlsContext::find(std::string_view identity) const
{
    const PelorinTLS::Key* found = nullptr;
    for (const auto& key : keys)
        if (key.identity.size() == identity.size()
            && CRYPTO_memcmp(key.identity.data(), identity.data(), identity.size()) == 0)
            found = &key;
    return found;
}

} // namespace pelorin
