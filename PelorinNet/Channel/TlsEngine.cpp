#include "PelorinNet/Channel/TlsEngine.h"

#include "PelorinNet/Channel/TlsContext.h"

#include <algorithm>
#include <array>
#include <openssl/err.h>
#include <openssl/ssl.h>

namespace pelorin {
namespace {
using PelorinTLS::HandshakeFailure;

constexpr std::size_t recordSize = SSL3_RT_MAX_PLAIN_LENGTH; // 16 KiB of plaintext
constexpr std::size_t recordOverhead = SSL3_RT_HEADER_LENGTH + EVP_CHACHAPOLY_TLS_TAG_LEN;

bool beginsLikeTLS(std::uint8_t firstByte)
{
    return firstByte == SSL3_RT_HANDSHAKE || firstByte == SSL3_RT_ALERT;
}

// A server finds the wrong secret by the client's last message of the handshake, which it can't decrypt; a
// client is told by an alert.
HandshakeFailure meaningOf(unsigned long error)
{
    constexpr auto alert = [](int description) { return SSL_AD_REASON_OFFSET + description; };
    switch (ERR_GET_LIB(error) == ERR_LIB_SSL ? ERR_GET_REASON(error) : 0) {
    case SSL_R_PSK_IDENTITY_NOT_FOUND:
    case SSL_R_DECRYPTION_FAILED_OR_BAD_RECORD_MAC:
    case alert(SSL_AD_UNKNOWN_PSK_IDENTITY):
    case alert(SSL_AD_BAD_RECORD_MAC):
    case alert(SSL_AD_DECRYPT_ERROR):
        return HandshakeFailure::keyRefused;
    default:
        return HandshakeFailure::incompatible;
    }
}

} // namespace

TlsEngine::TlsEngine(std::shared_ptr<const TlsContext> newContext)
    : context(std::move(newContext)),
      connection(SSL_new(context->handle()), SSL_free)
{
    require(connection != nullptr, "out of memory");
    BIO* const bio = streams.makeBio(context->streamsMethod());
    SSL_set_bio(connection.get(), bio, bio);
    if (context->role == TlsContext::Role::server)
        SSL_set_accept_state(connection.get());
    else
        SSL_set_connect_state(connection.get());
}

void TlsEngine::offer(ByteView bytes)
{
    if (!firstByte && !bytes.empty()) firstByte = bytes.front();
    streams.incoming = bytes;
}

TlsEngine::Step TlsEngine::handshake()
{
    if (firstByte && !beginsLikeTLS(*firstByte))
        return fail(HandshakeFailure::notTLS, "the peer does not speak TLS");
    ERR_clear_error(); // what others left there would be taken for ours
    return stepAfter(SSL_do_handshake(connection.get()));
}

TlsEngine::Piece TlsEngine::read(std::span<std::uint8_t> buffer)
{
    ERR_clear_error();
    const int result = SSL_read(connection.get(), buffer.data(), static_cast<int>(buffer.size()));
    const Step step = stepAfter(result);
    return {step, step == Step::done ? buffer.first(static_cast<std::size_t>(result)) : buffer.first(0)};
}

void TlsEngine::write(const std::vector<Bytes>& parts)
{
    std::size_t total = 0;
    for (const auto& part : parts) total += part.size();
    streams.outgoing.reserve(streams.outgoing.size() + total + (total / recordSize + 1) * recordOverhead);

    // Only where a record spans parts are they copied together.
    std::array<std::uint8_t, recordSize> joined;
    std::size_t joinedSize = 0;
    for (ByteView part : parts) {
        while (!part.empty()) {
            if (joinedSize == 0 && part.size() >= recordSize) {
                const std::size_t whole = part.size() - part.size() % recordSize;
                encrypt(part.first(whole));
                part = part.subspan(whole);
                continue;
            }
            const ByteView piece = part.first(std::min(part.size(), recordSize - joinedSize));
            std::ranges::copy(piece, joined.begin() + static_cast<std::ptrdiff_t>(joinedSize));
            joinedSize += piece.size();
            part = part.subspan(piece.size());
            if (joinedSize == recordSize) {
                encrypt(joined);
                joinedSize = 0;
            }
        }
    }
    if (joinedSize > 0) encrypt(ByteView(joined).first(joinedSize));
}

void TlsEngine::encrypt(ByteView plaintext)
{
    ERR_clear_error();
    const int written = SSL_write(connection.get(), plaintext.data(), static_cast<int>(plaintext.size()));
    // Output is never refused, and nothing that the peer does stops us from writing but a failed step.
    require(written == static_cast<int>(plaintext.size()), "TLS could not encrypt");
}

void TlsEngine::writeEnd()
{
    ERR_clear_error();
    SSL_shutdown(connection.get());
}

std::string TlsEngine::peerIdentity() const
{
    const char* const identity = SSL_get_psk_identity(connection.get());
    return identity ? identity : "";
}

TlsEngine::Step TlsEngine::stepAfter(int result)
{
    if (result > 0) return Step::done;
    switch (SSL_get_error(connection.get(), result)) {
    case SSL_ERROR_WANT_READ:
        return Step::wantsMore;
    case SSL_ERROR_ZERO_RETURN:
        return Step::ended;
    default:
        break;
    }
    const HandshakeFailure kind = meaningOf(ERR_peek_last_error());
    return fail(kind, openssl::takeErrorText());
}

TlsEngine::Step TlsEngine::fail(HandshakeFailure kind, std::string text)
{
    lastFailure = {kind, std::move(text)};
    return Step::failed;
}

} // namespace pelorin
