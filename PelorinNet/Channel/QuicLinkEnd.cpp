// How a link ends, and what is said about it.
#include "PelorinNet/Channel/QuicLink.h"

#include <fmt/format.h>
#include <utility>

namespace pelorin {
namespace {

constexpr std::uint64_t orderly = 0; // application error code of an end in order
constexpr std::uint8_t noApplicationProtocol = 120, badCertificate = 42; // alerts of TLS

bool isTLSAlert(std::uint64_t code)
{
    return code >= NGTCP2_CRYPTO_ERROR && code < NGTCP2_CRYPTO_ERROR + 0x100;
}

} // namespace

void QuicLink::close()
{
    Farewell farewell;
    ngtcp2_connection_close_error_set_application_error(&farewell.lastWord, orderly, nullptr, 0);
    farewell.error = NetError{"QUIC: the connection was closed"};
    owner.reset();
    onHandshakeEnd = nullptr;
    stop(farewell);
}

void QuicLink::stopBecause(int code)
{
    if (!connection) return;
    Farewell farewell;
    const auto failed = [&](std::string_view text, Goodbye goodbye) {
        farewell.error = NetError{fmt::format("QUIC {}failed: {}", ready ? "" : "handshake ", text)};
        farewell.goodbye = goodbye;
    };
    const auto alerted = [&](std::uint8_t alert, std::string_view text) {
        failed(text, Goodbye::lastWord);
        ngtcp2_connection_close_error_set_transport_error_tls_alert(&farewell.lastWord, alert, nullptr, 0);
    };
    ngtcp2_connection_close_error_set_transport_error_liberr(&farewell.lastWord, code, nullptr, 0);
    const std::uint8_t alert = ngtcp2_conn_get_tls_alert(connection.get());
    switch (code) {
    case NGTCP2_ERR_DRAINING:
        farewell.error = peersWord();
        farewell.goodbye = Goodbye::silence;
        break;
    case NGTCP2_ERR_IDLE_CLOSE:
        failed("the peer was silent for 15 s", Goodbye::none);
        break;
    case NGTCP2_ERR_HANDSHAKE_TIMEOUT:
        failed("it took longer than 10 s", Goodbye::lastWord); // a peer may think it is done
        break;
    case NGTCP2_ERR_NO_VIABLE_PATH:
        failed("nobody listens there", Goodbye::none);
        break;
    case NGTCP2_ERR_RETRY:
    case NGTCP2_ERR_DROP_CONN:
        failed("the peer does not speak QUIC", Goodbye::none);
        break;
    case NGTCP2_ERR_CALLBACK_FAILURE: // our own verdict on a handshake that TLS is content with
        alerted(noApplicationProtocol, "the peer speaks another protocol");
        break;
    case NGTCP2_ERR_CRYPTO:
        if (tls.hasRefusedPeer())
            alerted(alert ? alert : badCertificate, "the peer is not who was expected");
        else
            alerted(alert, fmt::format("TLS alert {}", alert));
        break;
    default:
        failed(ngtcp2_strerror(code), Goodbye::lastWord);
    }
    stop(farewell);
}

// Why the peer ended the connection; nothing when it did so in order.
std::optional<NetError> QuicLink::peersWord() const
{
    if (isLostByPeer) return NetError{"QUIC failed: the peer has lost the connection"};
    ngtcp2_connection_close_error word{};
    ngtcp2_conn_get_connection_close_error(connection.get(), &word);
    const bool isApplication = word.type == NGTCP2_CONNECTION_CLOSE_ERROR_CODE_TYPE_APPLICATION;
    if (word.error_code == (isApplication ? orderly : std::uint64_t(NGTCP2_NO_ERROR)) && ready)
        return std::nullopt;
    const std::string_view stage = ready ? "" : "handshake ";
    if (!isApplication && isTLSAlert(word.error_code))
        return NetError{
            fmt::format("QUIC {}failed: the peer says TLS alert {}", stage, word.error_code & 0xFF)};
    return NetError{fmt::format("QUIC {}failed: the peer says {} error {:#x}", stage,
        isApplication ? "application" : "transport", word.error_code)};
}

// All of the library's goes. What is left is the word that it is over, for whoever still asks.
void QuicLink::stop(const Farewell& farewell)
{
    if (!connection) return;
    timer.cancel();
    ended = QuicEnd{farewell.error, !ready};
    for (const auto& [id, stream] : streams) endStream(stream);
    for (const auto& stream : waiting) endStream(stream);
    if (farewell.goodbye != Goodbye::none) {
        const Duration time = 3 * std::chrono::nanoseconds(ngtcp2_conn_get_pto(connection.get()));
        endpoint->sayFarewell(ids, sayLastWord(farewell), remote, time);
    } else {
        for (const auto& id : ids) endpoint->remove(id);
    }
    ids.clear();
    streams.clear();
    waiting.clear();
    unclaimed.clear();
    suspended.reset();
    connection.reset();
    // Channels keep us on other queues, and the socket is this one's; it may just be calling us, too.
    home->post([released = std::exchange(endpoint, nullptr)] {});
}

Bytes QuicLink::sayLastWord(const Farewell& farewell)
{
    if (farewell.goodbye == Goodbye::silence) return {};
    Bytes word(PelorinQUIC::largestDatagram);
    ngtcp2_pkt_info info{};
    const ngtcp2_ssize size = ngtcp2_conn_write_connection_close(
        connection.get(), nullptr, &info, word.data(), word.size(), &farewell.lastWord, now());
    word.resize(std::size_t(std::max<ngtcp2_ssize>(size, 0)));
    if (!word.empty()) endpoint->send(word, remote);
    return word;
}

void QuicLink::endStream(const StreamRef& stream)
{
    if (!stream->end) stream->end = ended;
    stream->isShut = true;
    stream->isOver = true;
    stream->finishDeadline = {};
    report(stream);
}

} // namespace pelorin
