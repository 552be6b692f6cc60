#include "PelorinNet/Stun/StunMessage.h"

#include "PelorinNet/Stun/HmacSHA1.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>
#include <set>

namespace pelorin {
namespace {

using Type = StunMessage::AttributeType;

Bytes bytesOf(std::string_view text)
{
    return Bytes(text.begin(), text.end());
}

Bytes fromHex(std::string_view digits)
{
    Bytes bytes;
    std::string pair;
    for (const char digit : digits) {
        if (digit == ' ') continue;
        pair += digit;
        if (pair.size() < 2) continue;
        bytes.push_back(std::uint8_t(std::stoi(pair, nullptr, 16)));
        pair.clear();
    }
    return bytes;
}

std::string hex(ByteView bytes)
{
    return fmt::format("{:02x}", fmt::join(bytes, ""));
}

constexpr StunMessage::TransactionID someID{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};

StunMessage bindingRequest()
{
    StunMessage message;
    message.transactionID = someID;
    return message;
}

// A message of each kind there is, as full of attributes as any that travels.
std::vector<StunMessage> everyKind()
{
    using enum StunMessage::Method;
    using enum StunMessage::Class;
    std::vector<StunMessage> kinds;
    for (const auto method : {binding, allocate, refresh, send, data, createPermission, channelBind}) {
        for (const auto messageClass : {request, indication, success, error}) {
            StunMessage message{method, messageClass, someID, {}};
            message.attributes.emplace_back(Type::username, "evtj:h6vY"); // padded
            message.attributes.push_back(StunMessage::xorAddressAttribute(
                Type::xorPeerAddress, SocketAddress::ipv4({192, 0, 2, 1}, 3478), someID));
            message.attributes.emplace_back(Type::errorCode, Bytes{0, 0, 4, 38, 's', 't', 'a', 'l', 'e'});
            message.attributes.emplace_back(Type::data, Bytes{});
            message.attributes.emplace_back(0x7FFF, Bytes{9});
            kinds.push_back(std::move(message));
        }
    }
    return kinds;
}

const std::string requestVector = "000100582112a442b7e7a701bc34d686fa87dfae"
                                  "802200105354554e207465737420636c69656e74"
                                  "002400046e0001ff80290008932ff9b151263b36"
                                  "000600096576746a3a68367659202020"
                                  "000800149aeaa70cbfd8cb56781ef2b5b2d3f249c1b571a2"
                                  "80280004e57a3bcf";
const std::string ipv4Vector = "0101003c2112a442b7e7a701bc34d686fa87dfae"
                               "8022000b7465737420766563746f7220002000080001a147e112a643"
                               "000800142b91f599fd9e90c38c7489f92af9ba53f06be7d780280004c07d4c96";
const std::string ipv6Vector = "010100482112a442b7e7a701bc34d686fa87dfae"
                               "8022000b7465737420766563746f7220"
                               "002000140002a1470113a9faa5d3f179bc25f4b5bed2b9d9"
                               "00080014a382954e4be67bf11784c97c8292c275bfe3ed4180280004c8fb0b4c";
const std::string longTermVector = "000100602112a44278ad3433c6ad72c029da412e"
                                   "00060012e3839ee38388e383aae38383e382afe382b90000"
                                   "0015001c662f2f3439396b393534643"
                                   "64f4c33346f4c39465354767936347341"
                                   "0014000b6578616d706c652e6f726700"
                                   "00080014f67024656dd64a3e02b8e0712e85c9a28ca89666";

TEST(StunMessage, agreesWithThePublishedVectors) // RFC 5769
{
    const Bytes password = bytesOf("VOkJxbRl1RmTxUk/WvJxBt");
    const auto longTerm = StunMessage::longTermKey("マトリックス", "example.org", "TheMatrIX");
    const struct {
        std::string vector;
        ByteView key;
        StunMessage::Class messageClass;
        std::string username;
        std::string address;
    } rows[] = {
        {requestVector, password, StunMessage::Class::request, "evtj:h6vY", ""},
        {ipv4Vector, password, StunMessage::Class::success, "", "192.0.2.1:32853"},
        {ipv6Vector, password, StunMessage::Class::success, "",
            "[2001:db8:1234:5678:11:2233:4455:6677]:32853"},
        {longTermVector, longTerm, StunMessage::Class::request, "マトリックス", ""},
    };
    for (const auto& row : rows) {
        const Bytes datagram = fromHex(row.vector);
        const auto message = StunMessage::parse(datagram);
        ASSERT_TRUE(message);
        EXPECT_EQ(message->method, StunMessage::Method::binding);
        EXPECT_EQ(message->messageClass, row.messageClass);
        const auto username = message->attribute(Type::username).value_or(ByteView());
        EXPECT_EQ(std::string(username.begin(), username.end()), row.username);
        const auto address = message->xorAddress(Type::xorMappedAddress);
        EXPECT_EQ(address ? address->text() : "", row.address);
        if (address) {
            const auto written
                = StunMessage::xorAddressAttribute(Type::xorMappedAddress, *address, message->transactionID);
            EXPECT_EQ(hex(written.value), hex(*message->attribute(Type::xorMappedAddress)));
        }
        EXPECT_TRUE(StunMessage::verifyIntegrity(datagram, row.key));
        EXPECT_FALSE(StunMessage::verifyIntegrity(datagram, bytesOf("another password")));
    }
}

TEST(StunMessage, isWrittenAsOthersReadIt)
{
    const std::string header = "2112a4420102030405060708090a0b0c";
    EXPECT_EQ(hex(bindingRequest().serialize()), "00010000" + header);
    EXPECT_EQ(
        hex(bindingRequest().serialize(bytesOf("key"))).substr(0, 48), "00010018" + header + "00080014");
    EXPECT_EQ(bindingRequest().serialize(bytesOf("key")).size(), 44);

    StunMessage named = bindingRequest();
    named.attributes.emplace_back(Type::username, "a:b:c");
    const Bytes datagram = named.serialize();
    EXPECT_EQ(hex(datagram), "0001000c" + header + "00060005" + "613a623a63000000");
    EXPECT_EQ(StunMessage::parse(datagram), named);

    StunMessage channel = bindingRequest();
    channel.method = StunMessage::Method::channelBind;
    channel.messageClass = StunMessage::Class::error;
    EXPECT_EQ(hex(channel.serialize()).substr(0, 4), "0119");
}

TEST(StunMessage, ofEveryKindComesThroughWhole)
{
    for (const StunMessage& message : everyKind()) {
        const Bytes datagram = message.serialize();
        EXPECT_EQ(StunMessage::parse(datagram), message);
        EXPECT_FALSE(StunMessage::verifyIntegrity(datagram, bytesOf("key"))); // nothing vouches for it
        Bytes longer = message.serialize(bytesOf("key"));
        EXPECT_TRUE(StunMessage::verifyIntegrity(longer, bytesOf("key")));
        longer.push_back(1); // behind the message
        EXPECT_TRUE(StunMessage::verifyIntegrity(longer, bytesOf("key")));
        EXPECT_EQ(StunMessage::parse(longer)->attributes.size(), message.attributes.size() + 1);
    }
}

TEST(StunMessage, ofEveryKindIsNotTrustedWithAnyBitFlippedOrAnyByteMissing)
{
    const Bytes key = bytesOf("key");
    for (const StunMessage& message : everyKind()) {
        Bytes datagram = message.serialize(key);
        for (std::size_t bit = 0; bit < datagram.size() * 8; ++bit) {
            datagram[bit / 8] ^= std::uint8_t(1 << bit % 8);
            EXPECT_FALSE(StunMessage::verifyIntegrity(datagram, key)) << "bit " << bit;
            if (const auto other = StunMessage::parse(datagram)) { // well-formed still, so it is readable
                EXPECT_EQ(StunMessage::parse(other->serialize()), other);
                other->errorCode();
                other->xorAddress(Type::xorPeerAddress);
            }
            datagram[bit / 8] ^= std::uint8_t(1 << bit % 8);
        }
        for (std::size_t size = 0; size < datagram.size(); ++size) {
            EXPECT_FALSE(StunMessage::parse(ByteView(datagram).first(size))) << size;
            EXPECT_FALSE(StunMessage::verifyIntegrity(ByteView(datagram).first(size), key)) << size;
        }
    }
}

TEST(StunMessage, isReadByTheLettersOfItsHeader)
{
    const std::string rest = "2112a442" + std::string(24, '0');
    const struct {
        std::string datagram;
        bool looksLikeStun, parses;
    } rows[] = {
        {"00010000" + rest, true, true}, {"00010000" + rest.substr(2), false, false}, // 19 bytes
        {"", false, false}, {"40010000" + rest, false, false}, // the two top bits
        {"c3010000" + rest, false, false}, // a packet of QUIC
        {"80010000" + rest, false, false}, {"00010000" + ("2112a443" + rest.substr(8)), false, false},
        {"00020000" + rest, true, false}, // no such method any more
        {"00050000" + rest, true, false}, {"00000000" + rest, true, false}, {"000a0000" + rest, true, false},
        {"20010000" + rest, true, false}, // method 0x801: all bits of it count
        {"00210000" + rest, true, false}, // method 0x011
        {"00110000" + rest, true, true}, // an indication
        {"01190000" + rest, true, true}, // an error of ChannelBind
        {"3eef0000" + rest, true, false},
        {"00010006" + rest + "000000000000", true, false}, // not a multiple of four
        {"00010008" + rest + "00000000", true, false}, // longer than what there is
        {"00010004" + rest + "00060000", true, true}, // an empty attribute
        {"00010004" + rest + "00060001", true, false}, // cut off
        {"00010008" + rest + "0006000561626364", true, false},
        {"00010008" + rest + "00060003616263ff", true, true}, // padding may be anything
        {"00010008" + rest + "0006ffff61626364", true, false},
        {"00010000" + rest + "0006ffff", true, true}, // what follows is not of the message
    };
    for (const auto& row : rows) {
        const Bytes datagram = fromHex(row.datagram);
        EXPECT_EQ(StunMessage::looksLikeStun(datagram), row.looksLikeStun) << row.datagram;
        EXPECT_EQ(StunMessage::parse(datagram).has_value(), row.parses) << row.datagram;
    }
}

TEST(StunMessage, isCoveredUpToTheFirstIntegrityAttributeOnly)
{
    const Bytes key = bytesOf("key");
    const auto extended = [](Bytes datagram, const std::string& more) {
        const Bytes tail = fromHex(more);
        datagram.insert(datagram.end(), tail.begin(), tail.end());
        const std::size_t length = datagram.size() - StunMessage::headerSize;
        datagram[2] = std::uint8_t(length >> 8);
        datagram[3] = std::uint8_t(length);
        return datagram;
    };
    const Bytes signedAlone = bindingRequest().serialize(key);
    EXPECT_TRUE(StunMessage::verifyIntegrity(extended(signedAlone, "80280004aabbccdd"), key));
    EXPECT_TRUE(StunMessage::verifyIntegrity(extended(signedAlone, "00080004aabbccdd"), key)); // a second one
    EXPECT_FALSE(StunMessage::verifyIntegrity(extended(signedAlone, "80280005aabbccdd"), key)); // cut off

    Bytes shorter = signedAlone;
    shorter[23] = 16; // of 20 bytes of HMAC; the rest reads as an attribute
    shorter[40] = shorter[41] = shorter[42] = shorter[43] = 0;
    ASSERT_TRUE(StunMessage::parse(shorter));
    EXPECT_FALSE(StunMessage::verifyIntegrity(shorter, key));

    StunMessage twice = bindingRequest();
    twice.attributes.emplace_back(Type::messageIntegrity, Bytes(20));
    EXPECT_FALSE(StunMessage::verifyIntegrity(twice.serialize(key), key)); // the first one counts
}

TEST(StunMessage, keepsDuplicatesAndShowsTheFirst)
{
    StunMessage message = bindingRequest();
    message.attributes.emplace_back(Type::realm, "first");
    message.attributes.emplace_back(Type::realm, "second");
    const auto parsed = StunMessage::parse(message.serialize());
    EXPECT_EQ(parsed, message);
    const auto realm = parsed->attribute(Type::realm).value();
    EXPECT_EQ(std::string(realm.begin(), realm.end()), "first");
    EXPECT_FALSE(parsed->attribute(Type::nonce));
}

TEST(StunMessage, readsAddressesAsLenientlyAsAgreed)
{
    const struct {
        std::string value;
        std::string address;
    } rows[] = {
        {"00010d842112a44b", "0.0.0.9:11414"},
        {"ff010d842112a44b", "0.0.0.9:11414"}, // the reserved byte is nobody's business
        {"00010d842112a44baabb", "0.0.0.9:11414"},
        {"00010d842112a4", ""},
        {"00020d842112a44b", ""}, // too short for its family
        {"00020d842112a442" + hex(someID), "[0:0:0:0:0:0:0:0]:11414"},
        {"00070d842112a442" + hex(someID), "[0:0:0:0:0:0:0:0]:11414"}, // no family is refused
        {"00020d842112a442" + hex(someID).substr(2), ""},
        {"", ""},
    };
    for (const auto& row : rows) {
        StunMessage message = bindingRequest();
        message.attributes.emplace_back(Type::xorRelayedAddress, fromHex(row.value));
        const auto address = message.xorAddress(Type::xorRelayedAddress);
        EXPECT_EQ(address ? address->text() : "", row.address) << row.value;
    }
    EXPECT_FALSE(bindingRequest().xorAddress(Type::xorRelayedAddress));
}

TEST(StunMessage, tellsErrorsWithTheirReasonRepaired)
{
    const struct {
        Bytes value;
        int code;
        std::string reason;
    } rows[] = {
        {{0, 0, 4, 1, 'N', 'o'}, 401, "No"},
        {{0xFF, 0xFF, 0xFC, 38}, 438, ""}, // only three bits of the class count
        {{0, 0, 7, 255}, 955, ""},
        {{0, 0, 4, 0, 'a', 0xFF, 'b'}, 400, "a\uFFFDb"},
        {{0, 0, 4, 0, 0xE2, 0x82}, 400, "\uFFFD\uFFFD"},
        {{0, 0, 4, 0, 0xE2, 0x82, 0xAC}, 400, "€"},
    };
    for (const auto& row : rows) {
        StunMessage message = bindingRequest();
        message.attributes.emplace_back(Type::errorCode, row.value);
        EXPECT_EQ(message.errorCode().value().code, row.code);
        EXPECT_EQ(message.errorCode().value().reason, row.reason);
    }
    StunMessage message = bindingRequest();
    EXPECT_FALSE(message.errorCode());
    message.attributes.emplace_back(Type::errorCode, Bytes(3));
    EXPECT_FALSE(message.errorCode());
}

TEST(StunMessage, drawsEachByteOfATransactionIDAnew)
{
    std::array<std::set<std::uint8_t>, 12> seen;
    for (int i = 0; i < 64; ++i) {
        const auto id = StunMessage::newTransactionID();
        for (std::size_t place = 0; place < id.size(); ++place) seen[place].insert(id[place]);
    }
    for (const auto& values : seen) EXPECT_GT(values.size(), 32);
}

TEST(StunMessageDeathTest, isNeverCutShort)
{
    StunMessage message = bindingRequest();
    message.attributes.emplace_back(Type::data, Bytes(65'536));
    EXPECT_DEATH(message.serialize(), "65,536");
    message.attributes.assign(2, {Type::data, Bytes(40'000)});
    EXPECT_DEATH(message.serialize(), "65,535");
    message.attributes.assign(1, {Type::data, Bytes(65'528)}); // fits, but not with the integrity
    EXPECT_TRUE(StunMessage::parse(message.serialize()));
    EXPECT_DEATH(message.serialize(bytesOf("key")), "65,535");
}

TEST(HmacSHA1, agreesWithThePublishedVectors) // RFC 2202
{
    const struct {
        Bytes key, data;
        std::string code;
    } rows[] = {
        {Bytes(20, 0x0B), bytesOf("Hi There"), "b617318655057264e28bc0b6fb378c8ef146be00"},
        {bytesOf("Jefe"), bytesOf("what do ya want for nothing?"),
            "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
        {Bytes(80, 0xAA), bytesOf("Test Using Larger Than Block-Size Key - Hash Key First"),
            "aa4ae5e15272d00e95705637ce8a3b55ed402112"},
        {{}, {}, "fbdb1d1b18aa6c08324b7d64b71fb76370690e1d"},
    };
    for (const auto& [key, data, code] : rows) {
        const ByteView view(data);
        const std::size_t half = view.size() / 2;
        EXPECT_EQ(hex(hmacSHA1(key, {view.first(half), view.subspan(half)})), code);
    }
}

} // namespace
} // namespace pelorin
