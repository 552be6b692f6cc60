#include "PelorinPhone/Pairing/PairingExchange.h"

#include "PelorinCore/Label.h"
#include "PelorinNet/Channel/PelorinTLS.h"

#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using PelorinTLS::HandshakeFailure;

constexpr auto answerTimeout = 20s; // from the connection on, handshake included
constexpr std::size_t keyBytes = 32;

constexpr const char* unknownLink = "the host does not know this pairing link: it was used, is older than 5 "
                                    "minutes, or a newer one took its place. Run `pelorin-host pair` there "
                                    "for a new one";

} // namespace

PairingExchange::PairingExchange(
    QueueRef newQueue, ConnectTo connectTo, PairingLink newLink, std::string newDeviceName)
    : queue(std::move(newQueue)),
      link(std::move(newLink)),
      deviceName(std::move(newDeviceName)),
      connect(connectSecurely(
          std::move(connectTo), {link.address, link.dnsName, link.port}, {link.pairingID, link.key}))
{
}

PairingExchange::~PairingExchange() = default;

void PairingExchange::start()
{
    queue->assertCurrent();
    patientUntil = queue->now() + keyPatience;
    attempt();
}

void PairingExchange::attempt()
{
    decoder = {};
    connecting = connect([this](auto made) { connected(std::move(made)); });
}

void PairingExchange::connected(Result<std::unique_ptr<Channel>, NetError> made)
{
    if (!made) {
        if (!triesAgain()) fail(Failure::Kind::cannotConnect, made.error().description);
        return;
    }
    channel = std::move(*made);
    channel->onBytes = [this](ByteView bytes) { received(bytes); };
    channel->onClosed = [this](const std::optional<NetError>& error) { closed(error); };
    timer = queue->after(
        answerTimeout, [this] { fail(Failure::Kind::lost, "the host did not answer the request to pair"); });
    channel->start(queue);
    channel->send(encodeFrame(message::PairRequest{link.pairingID, deviceName}));
}

void PairingExchange::received(ByteView bytes)
{
    const auto messages = decoder.feed(bytes);
    if (!messages) return fail(Failure::Kind::lost, messages.error().description());
    for (const Message& message : *messages) {
        if (const auto* error = std::get_if<message::Error>(&message))
            return fail(Failure::Kind::refused, error->message);
        if (const auto* result = std::get_if<message::PairResult>(&message)) return answered(*result);
    }
}

void PairingExchange::closed(const std::optional<NetError>& error)
{
    const auto failure = PelorinTLS::handshakeFailure(*channel);
    wasKeyRefused |= failure == HandshakeFailure::keyRefused;
    if (failure && triesAgain()) return;
    if (failure == HandshakeFailure::keyRefused) return fail(Failure::Kind::refused, unknownLink);
    if (failure == HandshakeFailure::notTLS)
        return fail(Failure::Kind::lost,
            "what listens there does not speak TLS: the host asks nobody to be paired now, or is another "
            "program");
    fail(Failure::Kind::lost, error ? error->description : "the host closed the connection");
}

void PairingExchange::answered(const message::PairResult& result)
{
    if (!PelorinTLS::isIdentity(result.deviceID, PelorinTLS::devicePrefix) || result.key.size() != keyBytes)
        return fail(Failure::Kind::lost, "the host's answer makes no sense");
    const std::string name = asLabel(result.hostName.empty() ? link.hostName : result.hostName);
    finish(PairedHost{
        name, {link.address, link.dnsName, link.port}, {result.deviceID, SecretBytes(ByteView(result.key))}});
}

bool PairingExchange::triesAgain()
{
    if (!wasKeyRefused || queue->now() >= patientUntil) return false;
    timer = queue->after(retryPause, [this] { attempt(); });
    return true;
}

void PairingExchange::fail(Failure::Kind kind, std::string text)
{
    finish(std::unexpected(Failure{kind, std::move(text)}));
}

void PairingExchange::finish(Result<PairedHost, Failure> result)
{
    timer.cancel();
    connecting.cancel();
    if (channel) channel->finish();
    if (const auto done = std::exchange(onDone, {})) done(std::move(result));
}

} // namespace pelorin
