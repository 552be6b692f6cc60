#include "PelorinNet/Channel/QuicCallbacks.h"

#include "PelorinNet/Channel/QuicLink.h"

#include <gnutls/crypto.h>

namespace pelorin {
namespace {

QuicLink& linkOf(void* userData)
{
    return *static_cast<QuicLink*>(userData);
}

int handshakeCompleted(ngtcp2_conn*, void* userData)
{
    return linkOf(userData).handshakeCompleted();
}

int handshakeConfirmed(ngtcp2_conn*, void* userData)
{
    linkOf(userData).handshakeConfirmed();
    return 0;
}

int streamOpened(ngtcp2_conn*, std::int64_t id, void* userData)
{
    linkOf(userData).streamOpened(id);
    return 0;
}

int streamReceived(ngtcp2_conn*, std::uint32_t flags, std::int64_t id, std::uint64_t,
    const std::uint8_t* data, std::size_t size, void* userData, void*)
{
    linkOf(userData).streamReceived(id, {data, size}, flags & NGTCP2_STREAM_DATA_FLAG_FIN);
    return 0;
}

int streamAcknowledged(
    ngtcp2_conn*, std::int64_t id, std::uint64_t offset, std::uint64_t size, void* userData, void*)
{
    linkOf(userData).streamAcknowledged(id, offset + size);
    return 0;
}

int streamReset(ngtcp2_conn*, std::int64_t id, std::uint64_t, std::uint64_t, void* userData, void*)
{
    linkOf(userData).streamReset(id);
    return 0;
}

int streamClosed(ngtcp2_conn*, std::uint32_t, std::int64_t id, std::uint64_t, void* userData, void*)
{
    linkOf(userData).streamClosed(id);
    return 0;
}

int mayOpenMoreStreams(ngtcp2_conn*, std::uint64_t, void* userData)
{
    linkOf(userData).mayOpenMoreStreams();
    return 0;
}

int connectionLost(ngtcp2_conn*, const ngtcp2_pkt_stateless_reset*, void* userData)
{
    linkOf(userData).connectionLost();
    return 0;
}

int makeConnectionID(ngtcp2_conn*, ngtcp2_cid* id, std::uint8_t* resetToken, std::size_t, void* userData)
{
    linkOf(userData).makeConnectionID(*id, resetToken);
    return 0;
}

int retireConnectionID(ngtcp2_conn*, const ngtcp2_cid* id, void* userData)
{
    linkOf(userData).retireConnectionID(*id);
    return 0;
}

void fillRandom(std::uint8_t* to, std::size_t size, const ngtcp2_rand_ctx*)
{
    require(gnutls_rnd(GNUTLS_RND_NONCE, to, size) == GNUTLS_E_SUCCESS, "no random bytes");
}

ngtcp2_callbacks makeCallbacks()
{
    ngtcp2_callbacks made{};
    // Packet protection and the talk with TLS, as the library's companion does them.
    made.client_initial = ngtcp2_crypto_client_initial_cb;
    made.recv_client_initial = ngtcp2_crypto_recv_client_initial_cb;
    made.recv_crypto_data = ngtcp2_crypto_recv_crypto_data_cb;
    made.encrypt = ngtcp2_crypto_encrypt_cb;
    made.decrypt = ngtcp2_crypto_decrypt_cb;
    made.hp_mask = ngtcp2_crypto_hp_mask_cb;
    made.recv_retry = ngtcp2_crypto_recv_retry_cb;
    made.update_key = ngtcp2_crypto_update_key_cb;
    made.delete_crypto_aead_ctx = ngtcp2_crypto_delete_crypto_aead_ctx_cb;
    made.delete_crypto_cipher_ctx = ngtcp2_crypto_delete_crypto_cipher_ctx_cb;
    made.get_path_challenge_data = ngtcp2_crypto_get_path_challenge_data_cb;
    made.version_negotiation = ngtcp2_crypto_version_negotiation_cb;

    made.handshake_completed = handshakeCompleted;
    made.handshake_confirmed = handshakeConfirmed;
    made.stream_open = streamOpened;
    made.recv_stream_data = streamReceived;
    made.acked_stream_data_offset = streamAcknowledged;
    made.stream_reset = streamReset;
    made.stream_close = streamClosed;
    made.extend_max_local_streams_bidi = mayOpenMoreStreams;
    made.recv_stateless_reset = connectionLost;
    made.get_new_connection_id = makeConnectionID;
    made.remove_connection_id = retireConnectionID;
    made.rand = fillRandom;
    return made;
}

} // namespace

const ngtcp2_callbacks& quicCallbacks()
{
    static const ngtcp2_callbacks made = makeCallbacks();
    return made;
}

} // namespace pelorin
