#include "PelorinNet/Rendezvous/ConnectRequest.h"

#include "PelorinCore/Pairing/Base64URL.h"
#include "PelorinNet/Identity/KeyFingerprint.h"
#include "PelorinNet/Identity/VerifyingKey.h"
#include "PelorinNet/Rendezvous/ServiceMessage.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

constexpr auto clockWindow = 120s;
constexpr std::size_t maxTokenSize = 128;
constexpr std::size_t maxCandidates = 64;
constexpr std::size_t maxNameSize = 1024; // the store makes a label of it
constexpr std::size_t fingerprintSize = 32, publicKeySize = 65;

ByteView bytesOf(const std::string& text)
{
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::optional<std::string> tokenIn(const json& object, const char* key)
{
    std::string token = ServiceMessage::text(object, key);
    const bool isToken = !token.empty() && token.size() <= maxTokenSize
        && std::ranges::all_of(token, [](char c) { return c > ' ' && c < 0x7F && c != '|'; });
    return isToken ? std::optional(std::move(token)) : std::nullopt;
}

std::optional<Bytes> bytesIn(const json& object, const char* key)
{
    const std::string text = ServiceMessage::text(object, key);
    auto bytes = bytesFromBase64(text);
    return bytes && !bytes->empty() ? bytes : std::nullopt;
}

std::optional<std::int64_t> secondsIn(const json& value)
{
    if (!value.is_number_integer()) return std::nullopt;
    if (value.is_number_unsigned() && value.get<std::uint64_t>() > INT64_MAX) return std::nullopt;
    return value.get<std::int64_t>();
}

std::optional<std::vector<Candidate>> candidatesIn(const json& list)
{
    if (!list.is_array() || list.size() > maxCandidates) return std::nullopt;
    std::vector<Candidate> candidates;
    for (const json& each : list) {
        auto candidate = Candidate::parse(each);
        if (!candidate) return std::nullopt; // the signed text would lack it
        candidates.push_back(std::move(*candidate));
    }
    return candidates;
}

std::optional<ConnectRequest::Pairing> pairingIn(const json& request)
{
    const auto key = bytesIn(request, "clientKey"), proof = bytesIn(request, "proof");
    std::string name = ServiceMessage::text(request, "deviceName");
    if (!key || key->size() != publicKeySize || !proof) return std::nullopt;
    if (name.empty() || name.size() > maxNameSize) return std::nullopt;
    return ConnectRequest::Pairing{std::move(name), *key, *proof};
}

} // namespace

std::optional<ConnectRequest> ConnectRequest::parse(const json& request)
{
    if (!request.is_object() || !request.contains("timestamp") || !request.contains("candidates"))
        return std::nullopt;
    const auto timestamp = secondsIn(request["timestamp"]);
    auto nonce = tokenIn(request, "nonce"), ufrag = tokenIn(request, "ufrag"),
         password = tokenIn(request, "password");
    auto signature = bytesIn(request, "signature");
    auto candidates = candidatesIn(request["candidates"]);
    if (!timestamp || !nonce || !ufrag || !password || !signature || !candidates) return std::nullopt;

    ConnectRequest parsed;
    parsed.timestamp = *timestamp;
    parsed.nonce = std::move(*nonce);
    parsed.remote = {std::move(*ufrag), std::move(*password), std::move(*candidates)};
    parsed.signature = std::move(*signature);
    if (!request.contains("purpose")) {
        const auto hash = bytesIn(request, "clientKeyHash");
        if (!hash || hash->size() != fingerprintSize) return std::nullopt;
        parsed.clientKeyHash = *hash;
        return parsed;
    }
    if (ServiceMessage::text(request, "purpose") != "pair") return std::nullopt;
    parsed.pairing = pairingIn(request);
    if (!parsed.pairing) return std::nullopt;
    parsed.clientKeyHash = KeyFingerprint::of(parsed.pairing->clientKey);
    return parsed;
}

json ConnectRequest::toJSON() const
{
    json candidates = json::array();
    for (const Candidate& candidate : remote.candidates) candidates.push_back(candidate.json());
    json request{{"timestamp", timestamp}, {"nonce", nonce}, {"ufrag", remote.ufrag},
        {"password", remote.password}, {"candidates", std::move(candidates)},
        {"signature", base64EncodedString(signature)}};
    if (!pairing) {
        request["clientKeyHash"] = base64EncodedString(clientKeyHash);
        return request;
    }
    request["purpose"] = "pair";
    request["deviceName"] = pairing->deviceName;
    request["clientKey"] = base64EncodedString(pairing->clientKey);
    request["proof"] = base64EncodedString(pairing->proof);
    return request;
}

Result<void, NetError> ConnectRequest::sign(const DeviceIdentity& phone, const std::string& hostID)
{
    clientKeyHash = phone.fingerprint();
    auto made = phone.sign(bytesOf(signedText(hostID)));
    if (!made) return std::unexpected(made.error());
    signature = std::move(*made);
    return {};
}

std::string ConnectRequest::signedText(const std::string& hostID) const
{
    std::string text = fmt::format(
        "pelorin-connect-v1|{}|{}|{}|{}|{}|", hostID, timestamp, nonce, remote.ufrag, remote.password);
    for (const Candidate& candidate : remote.candidates)
        text += (&candidate == &remote.candidates.front() ? "" : ",") + candidate.signedText();
    return text;
}

bool ConnectRequest::isSignedBy(ByteView publicKey, const std::string& hostID) const
{
    const auto key = VerifyingKey::fromX963(publicKey);
    return key && key->hasSigned(bytesOf(signedText(hostID)), signature);
}

bool ConnectRequest::isTimely(WallTime now) const
{
    const auto seconds = std::chrono::floor<std::chrono::seconds>(now.time_since_epoch());
    return timestamp >= (seconds - clockWindow).count() && timestamp <= (seconds + clockWindow).count();
}

std::string ConnectRequest::pairingContext(const std::string& hostID) const
{
    return fmt::format("{}|{}|{}|{}", hostID, timestamp, nonce, remote.ufrag);
}

bool NonceMemory::isNew(const std::string& nonce, const std::string& phoneID, SteadyTime now)
{
    while (!seen.empty() && now - seen.front().at > kept) seen.pop_front();
    return std::ranges::find(seen, nonce, &Seen::nonce) == seen.end()
        && std::size_t(std::ranges::count(seen, phoneID, &Seen::phoneID)) < maxPerPhone;
}

void NonceMemory::remember(std::string nonce, std::string phoneID, SteadyTime now)
{
    seen.push_back({std::move(nonce), std::move(phoneID), now});
}

} // namespace pelorin
