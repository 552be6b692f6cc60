#include "PelorinNet/Rendezvous/HostRegistration.h"

#include "PelorinCore/Pairing/Base64URL.h"
#include "PelorinNet/Channel/PelorinTLS.h"
#include "PelorinNet/Identity/KeyFingerprint.h"
#include "PelorinNet/Rendezvous/ServiceMessage.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

constexpr Duration answerTimeout = 10s;
constexpr Duration watchPeriod = 15s;
constexpr Duration longestSilence = 40s;
constexpr Duration probeTimeout = 5s;
constexpr Duration shortestPause = 1s, longestPause = 60s;
constexpr Duration provenAfter = 30s; // a service that drops us sooner is not pressed at once

// Between the shortest pause and one that doubles with each failure, drawn evenly: the hosts that a service
// loses at the same time must not come back at the same time.
Duration pauseAfter(std::size_t failures)
{
    const Duration ceiling
        = std::min(longestPause, shortestPause * (1 << std::clamp<std::size_t>(failures, 1, 6)));
    const Bytes random = PelorinTLS::randomBytes(2);
    const double share = (random[0] * 256 + random[1]) / 65'535.0;
    return shortestPause + std::chrono::duration_cast<Duration>((ceiling - shortestPause) * share);
}

} // namespace

HostRegistration::HostRegistration(QueueRef newQueue, const DeviceIdentity& newIdentity, Settings newSettings,
    RendezvousSocketMaker newMakeSocket)
    : queue(std::move(newQueue)),
      identity(newIdentity),
      hostID(KeyFingerprint::hostID(identity.publicKey())),
      settings(std::move(newSettings)),
      makeSocket(std::move(newMakeSocket))
{
    require(!settings.urls.empty(), "a registration is with some service");
}

void HostRegistration::start()
{
    queue->assertCurrent();
    if (!socket && !retry) connect();
}

void HostRegistration::stop()
{
    queue->assertCurrent();
    retry.cancel();
    attempt = 0;
    dropSocket();
}

// Registering

void HostRegistration::connect()
{
    retry.cancel();
    ++socketNumber;
    socket = makeSocket(queue, url());
    socket->open([this](const Result<void, NetError>& opened) {
        if (!opened) return lost(opened.error().description);
        await(&HostRegistration::challenged);
    });
}

void HostRegistration::await(void (HostRegistration::*step)(const json&))
{
    socket->next("type", answerTimeout, [this, step](const Result<json, NetError>& message) {
        if (!message) return lost(message.error().description);
        (this->*step)(*message);
    });
}

void HostRegistration::challenged(const json& message)
{
    const std::string nonce = ServiceMessage::text(message, "nonce");
    if (ServiceMessage::text(message, "type") != "challenge" || nonce.empty())
        return lost("no challenge from the rendezvous service");
    const std::string text = "pelorin-host-v1|" + hostID + "|" + nonce;
    const auto signature
        = identity.signRaw({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
    if (!signature) return lost(signature.error().description);
    socket->send({{"type", "register"}, {"publicKey", base64EncodedString(identity.publicKey())},
        {"signature", base64EncodedString(*signature)}, {"name", settings.name}});
    await(&HostRegistration::answered);
}

void HostRegistration::answered(const json& message)
{
    if (ServiceMessage::text(message, "type") != "registered")
        return lost("the rendezvous service refused this Mac's key");
    registered();
}

void HostRegistration::registered()
{
    log.info("registered with the rendezvous service as {}", hostID);
    reported.clear();
    registeredAt = queue->now();
    watchdog = queue->every(watchPeriod, [this] { checkSilence(); });
    listen();
    if (onRegistered) onRegistered(true);
}

void HostRegistration::listen()
{
    socket->next("type", std::nullopt, [this, number = socketNumber](const Result<json, NetError>& message) {
        if (!message) return lost(message.error().description);
        const auto alive = lifetime.watch();
        if (onMessage) onMessage(*message);
        if (alive && socket && number == socketNumber) listen();
    });
}

void HostRegistration::send(const json& message)
{
    queue->assertCurrent();
    if (isRegistered()) socket->send(message);
}

// Staying registered

void HostRegistration::checkSilence()
{
    const Duration silence = queue->now() - socket->lastReceived();
    if (silence <= longestSilence) return socket->ping();
    log.warning("rendezvous: no answer for {} s, reconnecting",
        std::chrono::floor<std::chrono::seconds>(silence).count());
    reconnect();
}

void HostRegistration::networkChanged()
{
    queue->assertCurrent();
    if (!isRegistered()) {
        if (!socket && !retry) return; // stopped
        dropSocket();
        attempt = 0;
        return connect();
    }
    socket->ping();
    probe = queue->after(probeTimeout, [this, asked = queue->now()] {
        if (socket->lastReceived() >= asked) return;
        log.info("the rendezvous service is out of reach after a change of the network, reconnecting");
        reconnect();
    });
}

// At once: there was nothing wrong with the service.
void HostRegistration::reconnect()
{
    const auto alive = lifetime.watch();
    attempt = 0;
    dropSocket();
    if (alive && !socket && !retry) connect();
}

void HostRegistration::lost(const std::string& why)
{
    const auto alive = lifetime.watch();
    const bool hadProved = isRegistered() && queue->now() - registeredAt >= provenAfter;
    attempt = hadProved ? 0 : attempt + 1;
    retryLater(why);
    const bool wasRegistered = isRegistered();
    dropSocket();
    if (alive && !wasRegistered && onRegistered) onRegistered(false);
}

void HostRegistration::retryLater(const std::string& why)
{
    const Duration pause = pauseAfter(attempt);
    retry = queue->after(pause, [this] { connect(); });
    const auto seconds = std::chrono::ceil<std::chrono::seconds>(pause).count();
    // A service that stays away fills no log.
    if (std::exchange(reported, why) == why)
        log.debug("rendezvous: {}; trying again in {} s", why, seconds);
    else
        log.warning("rendezvous: {}; trying again in {} s", why, seconds);
}

void HostRegistration::dropSocket()
{
    const auto alive = lifetime.watch();
    const bool wasRegistered = isRegistered();
    watchdog = {};
    probe = {};
    socket.reset();
    if (!wasRegistered) return;
    if (onLinkEnd) onLinkEnd();
    if (alive && onRegistered) onRegistered(false);
}

} // namespace pelorin
