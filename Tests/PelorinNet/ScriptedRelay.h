#pragma once

#include "PelorinNet/Path/TurnClient.h"
#include "PelorinNet/Stun/StunMessage.h"
#include "Tests/PelorinNet/RawUDP.h"

namespace pelorin {

// A relay that does exactly what a case tells it, on a socket with nothing of ours in it.
class ScriptedRelay : public RawUDP {
public:
    using Class = StunMessage::Class;
    using Type = StunMessage::AttributeType;
    struct Request {
        StunMessage message;
        Bytes bytes;
        SocketAddress source;
    };

    std::vector<Request> received() const
    {
        std::vector<Request> all;
        for (auto& [bytes, source] : receive()) {
            auto message = StunMessage::parse(bytes);
            EXPECT_TRUE(message);
            if (message) all.push_back({*message, bytes, source});
        }
        return all;
    }

    std::array<std::uint8_t, 16> key() const
    {
        return StunMessage::longTermKey(credentials.username, realm, credentials.credential);
    }

    static StunMessage::Attribute errorAttribute(int code, std::string_view reason)
    {
        Bytes value{0, 0, std::uint8_t(code / 100), std::uint8_t(code % 100)};
        value.insert(value.end(), reason.begin(), reason.end());
        return {Type::errorCode, value};
    }
    void challenge(const Request& request, int code = 401) const
    {
        StunMessage error{request.message.method, Class::error, request.message.transactionID, {}};
        error.attributes = {errorAttribute(code, code == 438 ? "Stale Nonce" : "Unauthorized"),
            {Type::realm, realm}, {Type::nonce, nonce}};
        send(error.serialize(), request.source);
    }
    void refuse(const Request& request, int code, std::string_view reason) const
    {
        StunMessage error{request.message.method, Class::error, request.message.transactionID,
            {errorAttribute(code, reason)}};
        send(error.serialize(key()), request.source);
    }
    Bytes success(const Request& request) const
    {
        StunMessage answer{request.message.method, Class::success, request.message.transactionID, {}};
        if (answer.method == StunMessage::Method::allocate)
            for (const auto& [type, address] :
                {std::pair(Type::xorRelayedAddress, relayed), std::pair(Type::xorMappedAddress, mapped)})
                answer.attributes.push_back(
                    StunMessage::xorAddressAttribute(type, address, answer.transactionID));
        if (lifetime) answer.attributes.emplace_back(Type::lifetime, Bytes{0, 0, 0, *lifetime});
        return answer.serialize(key());
    }
    void accept(const Request& request) const { send(success(request), request.source); }

    TurnCredentials credentials{"1790000000:phone", "c2VjcmV0"};
    const SocketAddress relayed = SocketAddress::ipv4({198, 51, 100, 9}, 50'000);
    const SocketAddress mapped = SocketAddress::ipv4({203, 0, 113, 7}, 40'000);
    std::string realm = "relay.example";
    std::string nonce = "nonce-1";
    std::optional<std::uint8_t> lifetime; // seconds it grants; none: says nothing of it
};

} // namespace pelorin
