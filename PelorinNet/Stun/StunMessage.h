#pragma once

#include "PelorinNet/Stun/SocketAddress.h"

#include <vector>

namespace pelorin {

// One message of STUN (RFC 5389) or of TURN's methods (RFC 8656). A value; any thread. Bad input yields
// nothing. FINGERPRINT is neither written nor looked at.
struct StunMessage {
    enum class Method : std::uint16_t {
        binding = 0x001,
        allocate = 0x003,
        refresh = 0x004,
        send = 0x006,
        data = 0x007,
        createPermission = 0x008,
        channelBind = 0x009,
    };
    enum class Class : std::uint16_t {
        request = 0x0000,
        indication = 0x0010,
        success = 0x0100,
        error = 0x0110
    };
    using TransactionID = std::array<std::uint8_t, 12>;

    struct AttributeType {
        static constexpr std::uint16_t username = 0x0006;
        static constexpr std::uint16_t messageIntegrity = 0x0008;
        static constexpr std::uint16_t errorCode = 0x0009;
        static constexpr std::uint16_t channelNumber = 0x000C;
        static constexpr std::uint16_t lifetime = 0x000D;
        static constexpr std::uint16_t xorPeerAddress = 0x0012;
        static constexpr std::uint16_t data = 0x0013;
        static constexpr std::uint16_t realm = 0x0014;
        static constexpr std::uint16_t nonce = 0x0015;
        static constexpr std::uint16_t xorRelayedAddress = 0x0016;
        static constexpr std::uint16_t requestedTransport = 0x0019;
        static constexpr std::uint16_t xorMappedAddress = 0x0020;
        static constexpr std::uint16_t software = 0x8022;
        static constexpr std::uint16_t fingerprint = 0x8028;
    };
    struct Attribute {
        std::uint16_t type = 0;
        Bytes value; // without padding, under 65,536 bytes

        Attribute() = default;
        Attribute(std::uint16_t newType, Bytes newValue) : type(newType), value(std::move(newValue)) {}
        Attribute(std::uint16_t newType, std::string_view text)
            : type(newType),
              value(text.begin(), text.end())
        {
        }
        bool operator==(const Attribute&) const = default;
    };
    struct ErrorCode {
        int code = 0; // 0...955 as it is coded, 300...699 of a peer in its right mind
        std::string reason; // UTF-8, repaired where it was not
    };

    static constexpr std::uint32_t magicCookie = 0x2112A442;
    static constexpr std::size_t headerSize = 20;

    Method method = Method::binding;
    Class messageClass = Class::request;
    TransactionID transactionID{};
    std::vector<Attribute> attributes; // in wire order, duplicates kept

    bool operator==(const StunMessage&) const = default;

    static TransactionID newTransactionID(); // from the system's secure generator

    Bytes serialize() const;
    Bytes serialize(ByteView integrityKey) const; // ends with MESSAGE-INTEGRITY
    static std::optional<StunMessage> parse(ByteView datagram);
    // Whether a datagram is worth parsing; QUIC and ChannelData never are.
    static bool looksLikeStun(ByteView datagram);
    // Over the bytes as received; what follows MESSAGE-INTEGRITY is neither covered nor refused.
    static bool verifyIntegrity(ByteView datagram, ByteView key);
    static std::array<std::uint8_t, 16> longTermKey(
        std::string_view username, std::string_view realm, std::string_view password); // RFC 5389, 15.4

    std::optional<ByteView> attribute(std::uint16_t type) const; // the first one's value
    std::optional<SocketAddress> xorAddress(
        std::uint16_t type) const; // XOR-MAPPED-, -RELAYED-, -PEER-ADDRESS
    static Attribute xorAddressAttribute(
        std::uint16_t type, const SocketAddress& address, const TransactionID& transactionID);
    std::optional<ErrorCode> errorCode() const;
};

} // namespace pelorin

template <>
struct std::hash<pelorin::StunMessage::TransactionID> {
    std::size_t operator()(const pelorin::StunMessage::TransactionID& id) const noexcept;
};
