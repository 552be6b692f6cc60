#include "PelorinNet/Path/TurnClient.h"

#include "PelorinCore/Label.h"
#include "PelorinNet/Channel/CallOut.h"

#include <algorithm>
#include <fmt/format.h>
#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using AttributeType = StunMessage::AttributeType;

constexpr Retransmission::Delays delays{500ms, 1000ms, 2000ms, 4000ms};
constexpr int maxAttempts = 3; // a first one without credentials, one with them, one with a fresh nonce
constexpr std::uint32_t lifetimeSeconds = 600; // what relays give anyhow (RFC 8656, 3.2)
constexpr std::size_t maxCandidates = 8;
// RFC 8489, 14.3 and 14.9, 14.10. What a relay or the rendezvous service sends must fit in a request.
constexpr std::size_t maxUsernameSize = 512;
constexpr std::size_t maxRealmSize = 763;
constexpr std::size_t maxNonceSize = 763;
constexpr std::uint8_t udp = 17; // IANA's protocol number
constexpr std::array<std::uint8_t, 3> zeros{};

constexpr int unauthorized = 401;
constexpr int staleNonce = 438;

const char* nameOf(StunMessage::Method method)
{
    using enum StunMessage::Method;
    switch (method) {
    case binding:
        return "binding";
    case allocate:
        return "allocate";
    case refresh:
        return "refresh";
    case send:
        return "send";
    case data:
        return "data";
    case createPermission:
        return "createPermission";
    case channelBind:
        return "channelBind";
    }
    return "";
}

StunMessage::Attribute lifetimeAttribute(std::uint32_t seconds)
{
    return {AttributeType::lifetime,
        Bytes{std::uint8_t(seconds >> 24), std::uint8_t(seconds >> 16), std::uint8_t(seconds >> 8),
            std::uint8_t(seconds)}};
}

std::vector<SocketAddress> firstOf(std::vector<SocketAddress> addresses)
{
    require(!addresses.empty(), "a TURN client needs a relay's address");
    addresses.resize(std::min(addresses.size(), maxCandidates));
    return addresses;
}

// Says only whether it went well.
auto outcomeFor(TurnClient::Done done)
{
    return [done = std::move(done)](const Result<StunMessage, NetError>& response) {
        if (response)
            done({});
        else
            done(std::unexpected(response.error()));
    };
}

} // namespace

TurnClient::TurnClient(std::unique_ptr<UDPSocket> newSocket, std::vector<SocketAddress> newCandidates,
    TurnCredentials newCredentials, QueueRef newQueue)
    : queue(std::move(newQueue)),
      socket(std::move(newSocket)),
      candidates(firstOf(std::move(newCandidates))),
      relay(candidates.front()),
      isRelayChosen(candidates.size() == 1),
      credentials(std::move(newCredentials))
{
    socket->onReceive = [this](ByteView datagram, const SocketAddress& source) { handle(datagram, source); };
    socket->onBatchEnd = [this] { callOut(onBatchEnd, lifetime.watch()); };
    socket->onUnreachable = [this](const SocketAddress& peer, int errorNumber) {
        if (isRelayChosen && peer == relay) callOut(onUnreachable, lifetime.watch(), errorNumber);
    };
}

TurnClient::~TurnClient()
{
    queue->assertCurrent();
    // Also while allocating: the answer may be on its way.
    if (!key && !relayedAddress) return;
    const Request request{Method::refresh, {lifetimeAttribute(0)}, {}, {}};
    sendToRelay(signedRequest(request, StunMessage::newTransactionID()));
}

// Requests

void TurnClient::allocate(Allocated done)
{
    queue->assertCurrent();
    const StunMessage::Attribute transport(AttributeType::requestedTransport, Bytes{udp, 0, 0, 0});
    transact({Method::allocate, {transport, lifetimeAttribute(lifetimeSeconds)}, {},
        [this, done = std::move(done)](const Result<StunMessage, NetError>& response) {
            if (response)
                allocated(*response, done);
            else
                done(std::unexpected(response.error()));
        }});
}

void TurnClient::allocated(const StunMessage& response, const Allocated& done)
{
    const auto address = response.xorAddress(AttributeType::xorRelayedAddress);
    if (!address) return done(std::unexpected(NetError{"Allocate succeeded without a relayed address"}));
    relayedAddress = address;
    noteLifetime(response);
    mappedAddress = response.xorAddress(AttributeType::xorMappedAddress);
    done(*address);
}

void TurnClient::createPermission(const SocketAddress& peer, Done done)
{
    queue->assertCurrent();
    transact({Method::createPermission, {}, peer, outcomeFor(std::move(done))});
}

void TurnClient::channelBind(const SocketAddress& peer, std::uint16_t channel, Done done)
{
    queue->assertCurrent();
    const StunMessage::Attribute number(
        AttributeType::channelNumber, Bytes{std::uint8_t(channel >> 8), std::uint8_t(channel), 0, 0});
    transact({Method::channelBind, {number}, peer, outcomeFor(std::move(done))});
}

void TurnClient::refresh(Done done)
{
    queue->assertCurrent();
    transact({Method::refresh, {lifetimeAttribute(lifetimeSeconds)}, {},
        [this, outcome = outcomeFor(std::move(done))](const Result<StunMessage, NetError>& response) {
            if (response) noteLifetime(*response);
            outcome(response);
        }});
}

// A relay may grant less than was asked, or more (RFC 8656, 7.2).
void TurnClient::noteLifetime(const StunMessage& response)
{
    const auto value = response.attribute(AttributeType::lifetime);
    lifetimeGranted = std::chrono::seconds(lifetimeSeconds);
    if (!value || value->size() != 4) return;
    std::uint32_t seconds = 0;
    for (const std::uint8_t byte : *value) seconds = seconds << 8 | byte;
    lifetimeGranted = std::chrono::seconds(seconds);
}

void TurnClient::transact(Request request)
{
    const auto id = StunMessage::newTransactionID();
    Bytes bytes = signedRequest(request, id);
    Transaction& transaction = pending[id];
    transaction.request = std::move(request);
    transaction.key = key;
    transaction.sending = std::make_unique<Retransmission>(
        queue, delays, [this, bytes = std::move(bytes)] { sendToRelay(bytes); },
        [this, id] { timedOut(id); });
}

Bytes TurnClient::signedRequest(const Request& request, const StunMessage::TransactionID& id) const
{
    StunMessage message{request.method, StunMessage::Class::request, id, request.attributes};
    auto& attributes = message.attributes;
    if (request.peer)
        attributes.push_back(
            StunMessage::xorAddressAttribute(AttributeType::xorPeerAddress, *request.peer, id));
    if (!key) return message.serialize();
    attributes.emplace_back(AttributeType::username, credentials.username);
    attributes.emplace_back(AttributeType::realm, realm);
    attributes.emplace_back(AttributeType::nonce, nonce);
    return message.serialize(*key);
}

// Nothing is allocated before the relay has challenged us, so that asking all of its addresses at once costs
// no more than a datagram each, and one that is dead costs no time.
void TurnClient::sendToRelay(ByteView datagram)
{
    if (isRelayChosen) return socket->send(datagram, relay);
    for (const SocketAddress& candidate : candidates) socket->send(datagram, candidate);
}

void TurnClient::timedOut(const StunMessage::TransactionID& id)
{
    const auto silent = pending.extract(id);
    const Request& request = silent.mapped().request;
    request.done(std::unexpected(NetError{std::string(nameOf(request.method)) + " timed out"}));
}

// Responses

bool TurnClient::handle(ByteView datagram, const SocketAddress& source)
{
    queue->assertCurrent();
    if (!isFromRelay(source)) return false;
    if (const auto data = ChannelData::parse(datagram)) {
        if (relayedAddress) callOut(onChannelData, lifetime.watch(), data->channel, data->payload);
    } else if (const auto message = StunMessage::parse(datagram)) {
        receive(*message, datagram, source);
    }
    return true;
}

bool TurnClient::isFromRelay(const SocketAddress& source) const
{
    if (isRelayChosen) return source == relay;
    return std::ranges::find(candidates, source) != candidates.end();
}

// Who doesn't see our requests can't guess their transactions. Who sees them, but can't sign, may deny us
// service by a challenge or refusal, which relays leave unsigned as they may not know us (RFC 8489, 9.2.4),
// and no more: once we have a key, successes, and whatever is signed, count only if signed with it.
void TurnClient::receive(const StunMessage& response, ByteView datagram, const SocketAddress& source)
{
    const bool isSuccess = response.messageClass == StunMessage::Class::success;
    if (!isSuccess && response.messageClass != StunMessage::Class::error) return;
    const auto found = pending.find(response.transactionID);
    const auto& usedKey = found == pending.end() ? key : found->second.key;
    const bool isVerified = usedKey && StunMessage::verifyIntegrity(datagram, *usedKey);
    if (isVerified) ++verifiedCount;
    if (found == pending.end() || found->second.request.method != response.method) return;

    const bool mustVerify = isSuccess || response.attribute(AttributeType::messageIntegrity);
    if (usedKey && mustVerify && !isVerified) return;
    if (!isSuccess && !response.errorCode()) return;
    relay = source;
    isRelayChosen = true;
    auto answered = pending.extract(found);
    complete(std::move(answered.mapped().request), response);
}

void TurnClient::complete(Request request, const StunMessage& response)
{
    if (response.messageClass == StunMessage::Class::success) return request.done(response);
    const auto error = *response.errorCode();
    const bool isChallenge = error.code == unauthorized || error.code == staleNonce;
    if (isChallenge && ++request.attempt < maxAttempts && takeChallenge(response))
        return transact(std::move(request));
    // A relay's words end in zeros sometimes, and might hold anything.
    request.done(std::unexpected(NetError{
        fmt::format("{} failed: {} {}", nameOf(request.method), error.code, asLabel(error.reason))}));
}

// False when there is no way to meet it; what we knew before then stays.
bool TurnClient::takeChallenge(const StunMessage& response)
{
    const auto given = [&](std::uint16_t type, const std::string& known) {
        const auto value = response.attribute(type);
        return value ? std::string(value->begin(), value->end()) : known;
    };
    auto newRealm = given(AttributeType::realm, realm);
    auto newNonce = given(AttributeType::nonce, nonce);
    const bool isUsable = !newRealm.empty() && newRealm.size() <= maxRealmSize && !newNonce.empty()
        && newNonce.size() <= maxNonceSize && credentials.username.size() <= maxUsernameSize;
    if (!isUsable) return false;
    realm = std::move(newRealm);
    nonce = std::move(newNonce);
    key = StunMessage::longTermKey(credentials.username, realm, credentials.credential);
    return true;
}

// Relayed data

void TurnClient::send(std::uint16_t channel, ByteView payload)
{
    enqueue(channel, payload);
    flush();
}

void TurnClient::enqueue(std::uint16_t channel, ByteView payload)
{
    queue->assertCurrent();
    const auto& header = headers.emplace_back(ChannelData::header(channel, payload.size()));
    socket->enqueue(header, payload, ByteView(zeros).first(ChannelData::padding(payload.size())), relay);
}

void TurnClient::flush()
{
    queue->assertCurrent();
    socket->flush();
    headers.clear();
}

} // namespace pelorin
