#include "PelorinNet/Path/ConnectivityCheck.h"

#include "PelorinNet/Channel/PelorinTLS.h"

#include <algorithm>

namespace pelorin {
namespace {

constexpr std::string_view alphabet = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
constexpr std::size_t ufragSize = 8;
constexpr std::size_t passwordSize = 24;

ByteView bytesOf(std::string_view text)
{
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::string randomText(std::size_t size)
{
    // Bytes beyond the last whole alphabet are drawn anew: a remainder of them would favour its beginning.
    constexpr std::size_t fairBytes = 256 / alphabet.size() * alphabet.size();
    std::string text;
    while (text.size() < size)
        for (const std::uint8_t byte : PelorinTLS::randomBytes(size - text.size()))
            if (byte < fairBytes) text += alphabet[byte % alphabet.size()];
    return text;
}

std::string username(const PathCredentials& receiver, const PathCredentials& sender)
{
    return receiver.ufrag + ":" + sender.ufrag;
}

} // namespace

PathCredentials PathCredentials::random()
{
    return {randomText(ufragSize), randomText(passwordSize)};
}

Bytes ConnectivityCheck::request(
    const PathCredentials& local, const PathCredentials& remote, const StunMessage::TransactionID& id)
{
    StunMessage request;
    request.transactionID = id;
    request.attributes.emplace_back(StunMessage::AttributeType::username, username(remote, local));
    return request.serialize(bytesOf(remote.password));
}

std::optional<Bytes> ConnectivityCheck::answer(ByteView datagram, const SocketAddress& source,
    const PathCredentials& local, const PathCredentials& remote)
{
    const auto request = StunMessage::parse(datagram);
    if (!request || request->method != StunMessage::Method::binding
        || request->messageClass != StunMessage::Class::request)
        return std::nullopt;
    const auto name = request->attribute(StunMessage::AttributeType::username);
    if (!name || !std::ranges::equal(*name, bytesOf(username(local, remote)))) return std::nullopt;
    if (!StunMessage::verifyIntegrity(datagram, bytesOf(local.password))) return std::nullopt;

    StunMessage answer;
    answer.messageClass = StunMessage::Class::success;
    answer.transactionID = request->transactionID;
    answer.attributes.push_back(StunMessage::xorAddressAttribute(
        StunMessage::AttributeType::xorMappedAddress, source, answer.transactionID));
    return answer.serialize(bytesOf(local.password));
}

bool ConnectivityCheck::isAnswer(ByteView datagram, const PathCredentials& remote)
{
    const auto message = StunMessage::parse(datagram);
    return message && message->method == StunMessage::Method::binding
        && message->messageClass == StunMessage::Class::success
        && StunMessage::verifyIntegrity(datagram, bytesOf(remote.password));
}

} // namespace pelorin
