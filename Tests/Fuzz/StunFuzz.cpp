// Datagrams from anywhere: what reads as a message is written as the same one, and only what was signed with
// the key is believed.

#include "PelorinCore/Utf8.h"
#include "PelorinNet/Stun/StunMessage.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace pelorin;
    using Type = StunMessage::AttributeType;
    const ByteView datagram{data, size};
    const Bytes key{'k', 'e', 'y'};
    const auto message = StunMessage::parse(datagram);
    const bool isSigned = StunMessage::verifyIntegrity(datagram, key);
    if (!message) {
        require(!isSigned, "only a message can be signed");
        return 0;
    }
    require(StunMessage::looksLikeStun(datagram), "what reads as STUN looks like STUN");
    require(StunMessage::parse(message->serialize()) == message, "a message is written as it was read");
    const bool carriesCode = message->attribute(Type::messageIntegrity).has_value();
    require(!isSigned || carriesCode, "a signature is carried along");
    if (!carriesCode && size < 60'000)
        require(StunMessage::verifyIntegrity(message->serialize(key), key), "our own signature is believed");

    for (const auto type : {Type::xorMappedAddress, Type::xorRelayedAddress, Type::xorPeerAddress}) {
        const auto address = message->xorAddress(type);
        if (!address) continue;
        StunMessage other;
        other.transactionID = message->transactionID;
        other.attributes.push_back(StunMessage::xorAddressAttribute(type, *address, other.transactionID));
        require(other.xorAddress(type) == address, "an address is written as it was read");
        require(
            SocketAddress::parse(address->hostText(), address->port) == address, "its text tells it whole");
    }
    if (const auto error = message->errorCode())
        require(isUtf8(error->reason) && error->code <= 955, "a reason is text, whatever came");
    return 0;
}
