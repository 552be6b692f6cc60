#include "PelorinRendezvous/ServerTls.h"

#include <array>
#include <openssl/err.h>
#include <openssl/ssl.h>

namespace pelorin {
namespace {

// Connections are long and sessions are not resumed: what a ticket would save, a mass of reconnecting hosts
// would pay for in our memory.
constexpr std::uint64_t options
    = SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION | SSL_OP_CIPHER_SERVER_PREFERENCE;
constexpr std::size_t recordSize = SSL3_RT_MAX_PLAIN_LENGTH;

} // namespace

ServerTls::ServerTls() : context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free)
{
    SSL_CTX* const made = context.get();
    require(made && SSL_CTX_set_min_proto_version(made, TLS1_2_VERSION) && SSL_CTX_set_num_tickets(made, 0)
            && SSL_CTX_set1_groups_list(made, "X25519:P-256"),
        "OpenSSL lacks TLS 1.2");
    SSL_CTX_set_options(made, options);
    SSL_CTX_set_session_cache_mode(made, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_mode(made, SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_read_ahead(made, 0);
}

Result<std::shared_ptr<const ServerTls>, NetError> ServerTls::load(
    const std::string& certificateFile, const std::string& keyFile)
{
    std::shared_ptr<ServerTls> made(new ServerTls);
    SSL_CTX* const context = made->context.get();
    ERR_clear_error();
    if (SSL_CTX_use_certificate_chain_file(context, certificateFile.c_str()) != 1)
        return std::unexpected(
            NetError{"cannot use the certificate " + certificateFile + ": " + openssl::takeErrorText()});
    if (SSL_CTX_use_PrivateKey_file(context, keyFile.c_str(), SSL_FILETYPE_PEM) != 1
        || SSL_CTX_check_private_key(context) != 1)
        return std::unexpected(NetError{"cannot use the key " + keyFile + ": " + openssl::takeErrorText()});
    return made;
}

TlsSession::TlsSession(std::shared_ptr<const ServerTls> newServer)
    : server(std::move(newServer)),
      connection(SSL_new(server->context.get()), SSL_free)
{
    require(connection != nullptr, "out of memory");
    BIO* const bio = streams.makeBio(server->method.get());
    SSL_set_bio(connection.get(), bio, bio);
    SSL_set_accept_state(connection.get());
}

bool TlsSession::receive(ByteView bytes, Bytes& plaintext)
{
    streams.incoming = bytes;
    ERR_clear_error(); // what others left there would be taken for ours
    if (!SSL_is_init_finished(connection.get())) {
        const int result = SSL_do_handshake(connection.get());
        if (result != 1) return goesOnAfter(result);
    }
    std::array<std::uint8_t, recordSize> record;
    while (true) {
        const int count = SSL_read(connection.get(), record.data(), static_cast<int>(record.size()));
        if (count <= 0) return goesOnAfter(count);
        plaintext.insert(plaintext.end(), record.begin(), record.begin() + count);
    }
}

// The library allows no writing after a failure; after the peer's own end it does.
bool TlsSession::goesOnAfter(int result)
{
    const int reason = SSL_get_error(connection.get(), result);
    if (reason == SSL_ERROR_WANT_READ) return true;
    if (reason != SSL_ERROR_ZERO_RETURN) hasEnded = true;
    return false;
}

void TlsSession::send(ByteView plaintext)
{
    if (!mayWrite()) return;
    ERR_clear_error();
    const int written = SSL_write(connection.get(), plaintext.data(), static_cast<int>(plaintext.size()));
    // Output is never refused, and nothing that the peer does stops us from writing but a failed step.
    require(written == static_cast<int>(plaintext.size()), "TLS could not encrypt");
}

void TlsSession::end()
{
    if (!mayWrite()) return;
    hasEnded = true;
    ERR_clear_error();
    SSL_shutdown(connection.get());
}

bool TlsSession::mayWrite() const
{
    return !hasEnded && SSL_is_init_finished(connection.get());
}

} // namespace pelorin
