#include "PelorinNet/Stun/StunMessage.h"

#include "PelorinCore/Utf8.h"
#include "PelorinNet/Stun/HmacSHA1.h"

#include <algorithm>
#include <cstring>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

namespace pelorin {
namespace {

constexpr std::size_t attributeHeaderSize = 4;
constexpr std::size_t integritySize = 20; // of the HMAC alone
constexpr std::size_t longestBlock = 65'535; // what the header's length can say
constexpr std::size_t addressHeadSize = 4; // reserved byte, family, port
constexpr std::uint8_t familyIPv4 = 0x01;
constexpr std::uint8_t familyIPv6 = 0x02;
constexpr std::array<std::uint8_t, 4> cookieBytes{0x21, 0x12, 0xA4, 0x42};
constexpr std::string_view replacement = "\uFFFD";

constexpr std::size_t padded(std::size_t size)
{
    return (size + 3) & ~std::size_t{3};
}

std::uint16_t bigEndian16(ByteView bytes)
{
    return std::uint16_t(bytes[0] << 8 | bytes[1]);
}

void append16(Bytes& bytes, std::size_t value)
{
    bytes.push_back(std::uint8_t(value >> 8));
    bytes.push_back(std::uint8_t(value));
}

std::optional<StunMessage::Method> methodOf(std::uint16_t type)
{
    using enum StunMessage::Method;
    // The method's bits lie around the two bits of the class (RFC 5389, figure 3).
    const auto method = StunMessage::Method((type & 0x000F) | (type >> 1 & 0x0070) | (type >> 2 & 0x0F80));
    for (const auto known : {binding, allocate, refresh, send, data, createPermission, channelBind})
        if (method == known) return method;
    return std::nullopt;
}

struct Header {
    StunMessage::Method method;
    StunMessage::Class messageClass;
    ByteView attributes; // as long as the header says
};

std::optional<Header> parseHeader(ByteView datagram)
{
    if (!StunMessage::looksLikeStun(datagram)) return std::nullopt;
    const std::size_t length = bigEndian16(datagram.subspan(2));
    if (length % 4 != 0) return std::nullopt;
    if (datagram.size() < StunMessage::headerSize + length) return std::nullopt;
    const std::uint16_t type = bigEndian16(datagram);
    const auto method = methodOf(type);
    if (!method) return std::nullopt;
    return Header{
        *method, StunMessage::Class(type & 0x0110), datagram.subspan(StunMessage::headerSize, length)};
}

// Calls visit(type, value) for each attribute of a block in order. False when the last one is cut off; fewer
// bytes than an attribute's header are none.
template <class Visit>
bool eachAttribute(ByteView block, const Visit& visit)
{
    while (block.size() >= attributeHeaderSize) {
        const std::uint16_t type = bigEndian16(block);
        const std::size_t length = bigEndian16(block.subspan(2));
        if (block.size() < attributeHeaderSize + length) return false;
        visit(type, block.subspan(attributeHeaderSize, length));
        block = block.subspan(std::min(attributeHeaderSize + padded(length), block.size()));
    }
    return true;
}

// What an address is combined with: the cookie and the transaction ID.
std::array<std::uint8_t, 16> maskOf(const StunMessage::TransactionID& transactionID)
{
    std::array<std::uint8_t, 16> mask;
    std::ranges::copy(transactionID, std::ranges::copy(cookieBytes, mask.begin()).out);
    return mask;
}

std::string repairedUtf8(std::string_view text)
{
    std::string repaired;
    while (!text.empty()) {
        std::string_view rest = text;
        if (takeScalar(rest)) {
            repaired += text.substr(0, text.size() - rest.size());
            text = rest;
        } else {
            repaired += replacement;
            text.remove_prefix(1);
        }
    }
    return repaired;
}

// Header and attributes; the length in the header counts bytesToFollow more.
Bytes written(const StunMessage& message, std::size_t bytesToFollow)
{
    std::size_t blockSize = 0;
    for (const auto& attribute : message.attributes) {
        require(attribute.value.size() < 65'536, "a STUN attribute has fewer than 65,536 bytes");
        blockSize += attributeHeaderSize + padded(attribute.value.size());
    }
    require(
        blockSize + bytesToFollow <= longestBlock, "a STUN message has at most 65,535 bytes of attributes");

    Bytes bytes;
    bytes.reserve(StunMessage::headerSize + blockSize + bytesToFollow);
    // No interleaving is needed: every method here is below 0x010.
    append16(bytes, std::uint16_t(message.method) | std::uint16_t(message.messageClass));
    append16(bytes, blockSize + bytesToFollow);
    bytes.insert(bytes.end(), cookieBytes.begin(), cookieBytes.end());
    bytes.insert(bytes.end(), message.transactionID.begin(), message.transactionID.end());
    for (const auto& [type, value] : message.attributes) {
        append16(bytes, type);
        append16(bytes, value.size());
        bytes.insert(bytes.end(), value.begin(), value.end());
        bytes.resize(padded(bytes.size()));
    }
    return bytes;
}

} // namespace

StunMessage::TransactionID StunMessage::newTransactionID()
{
    TransactionID id;
    require(::RAND_bytes(id.data(), int(id.size())) == 1, "the system gives random bytes");
    return id;
}

Bytes StunMessage::serialize() const
{
    return written(*this, 0);
}

Bytes StunMessage::serialize(ByteView integrityKey) const
{
    Bytes bytes = written(*this, attributeHeaderSize + integritySize);
    const auto code = hmacSHA1(integrityKey, {bytes});
    append16(bytes, AttributeType::messageIntegrity);
    append16(bytes, code.size());
    bytes.insert(bytes.end(), code.begin(), code.end());
    return bytes;
}

std::optional<StunMessage> StunMessage::parse(ByteView datagram)
{
    const auto header = parseHeader(datagram);
    if (!header) return std::nullopt;
    // Looked through first: a flood of malformed datagrams allocates nothing.
    std::size_t count = 0;
    if (!eachAttribute(header->attributes, [&](std::uint16_t, ByteView) { ++count; })) return std::nullopt;

    StunMessage message;
    message.method = header->method;
    message.messageClass = header->messageClass;
    std::ranges::copy(datagram.subspan(8, message.transactionID.size()), message.transactionID.begin());
    message.attributes.reserve(count);
    eachAttribute(header->attributes, [&](std::uint16_t type, ByteView value) {
        message.attributes.emplace_back(type, Bytes(value.begin(), value.end()));
    });
    return message;
}

bool StunMessage::looksLikeStun(ByteView datagram)
{
    return datagram.size() >= headerSize && datagram[0] <= 63
        && std::memcmp(datagram.data() + 4, cookieBytes.data(), cookieBytes.size()) == 0;
}

bool StunMessage::verifyIntegrity(ByteView datagram, ByteView key)
{
    const auto header = parseHeader(datagram);
    if (!header) return false;
    std::optional<ByteView> code;
    const bool isWhole = eachAttribute(header->attributes, [&](std::uint16_t type, ByteView value) {
        if (type == AttributeType::messageIntegrity && !code) code = value;
    });
    if (!isWhole || !code || code->size() != integritySize) return false;

    // The sender signed a header whose length ended with this attribute.
    const std::size_t covered = std::size_t(code->data() - datagram.data()) - attributeHeaderSize;
    const std::size_t length = covered + attributeHeaderSize + integritySize - headerSize;
    const std::array<std::uint8_t, 4> head{
        datagram[0], datagram[1], std::uint8_t(length >> 8), std::uint8_t(length)};
    const auto expected = hmacSHA1(key, {head, datagram.first(covered).subspan(head.size())});
    return ::CRYPTO_memcmp(expected.data(), code->data(), integritySize) == 0;
}

std::array<std::uint8_t, 16> StunMessage::longTermKey(
    std::string_view username, std::string_view realm, std::string_view password)
{
    std::string text;
    text.append(username).append(":").append(realm).append(":").append(password);
    std::array<std::uint8_t, 16> key;
    require(::EVP_Digest(text.data(), text.size(), key.data(), nullptr, ::EVP_md5(), nullptr) == 1, "MD5");
    return key;
}

std::optional<ByteView> StunMessage::attribute(std::uint16_t type) const
{
    const auto found = std::ranges::find(attributes, type, &Attribute::type);
    if (found == attributes.end()) return std::nullopt;
    return found->value;
}

std::optional<SocketAddress> StunMessage::xorAddress(std::uint16_t type) const
{
    const auto value = attribute(type);
    if (!value || value->size() < addressHeadSize + 4) return std::nullopt;
    const std::size_t length = (*value)[1] == familyIPv4 ? 4 : 16; // no family is refused
    if (value->size() < addressHeadSize + length) return std::nullopt;
    const auto mask = maskOf(transactionID);
    std::array<std::uint8_t, 16> host{};
    for (std::size_t i = 0; i < length; ++i) host[i] = (*value)[addressHeadSize + i] ^ mask[i];
    const auto port = std::uint16_t(bigEndian16(value->subspan(2)) ^ bigEndian16(mask));
    if (length == host.size()) return SocketAddress::ipv6(host, port);
    return SocketAddress::ipv4({host[0], host[1], host[2], host[3]}, port);
}

StunMessage::Attribute StunMessage::xorAddressAttribute(
    std::uint16_t type, const SocketAddress& address, const TransactionID& transactionID)
{
    const auto mask = maskOf(transactionID);
    const ByteView host = address.host();
    Bytes value{0, address.isIPv4() ? familyIPv4 : familyIPv6};
    value.reserve(addressHeadSize + host.size());
    append16(value, address.port ^ bigEndian16(mask));
    for (std::size_t i = 0; i < host.size(); ++i) value.push_back(host[i] ^ mask[i]);
    return {type, std::move(value)};
}

std::optional<StunMessage::ErrorCode> StunMessage::errorCode() const
{
    const auto value = attribute(AttributeType::errorCode);
    if (!value || value->size() < 4) return std::nullopt;
    const auto reason = value->subspan(4);
    return ErrorCode{((*value)[2] & 0x07) * 100 + (*value)[3],
        repairedUtf8({reinterpret_cast<const char*>(reason.data()), reason.size()})};
}

} // namespace pelorin

std::size_t std::hash<pelorin::StunMessage::TransactionID>::operator()(
    const pelorin::StunMessage::TransactionID& id) const noexcept
{
    std::size_t word = 0; // IDs that are looked for are random all over
    std::memcpy(&word, id.data(), sizeof word);
    return word;
}
