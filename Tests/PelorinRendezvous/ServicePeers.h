#pragma once

#include "PelorinCore/Pairing/Base64URL.h"
#include "PelorinNet/Channel/PelorinTLS.h"
#include "PelorinNet/Identity/KeyFingerprint.h"
#include "PelorinNet/Identity/SigningKey.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "PelorinRendezvous/Connection.h"
#include "PelorinRendezvous/ServerTls.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace pelorin {

// The service and its peers without sockets: what a peer types goes in as bytes, and what it would read comes
// out cut into answers and messages.
class ServicePeers final : public Links {
public:
    explicit ServicePeers(Service::Options options = {}, std::vector<std::string> relays = {})
        : ServicePeers(std::make_shared<ManualQueues>(), nullptr, std::move(options), std::move(relays))
    {
    }
    // One node of several, on their common time.
    ServicePeers(std::shared_ptr<ManualQueues> time, Broker* broker, Service::Options options = {},
        std::vector<std::string> relays = {})
        : sharedQueues(std::move(time)),
          service(queue, *this, std::move(options), RelayCredentials(std::move(relays), secret()),
              PelorinTLS::randomBytes, broker)
    {
    }

    static SecretBytes secret() { return SecretBytes(Bytes{'l', 'a', 'b'}); }

    // 0 when the service does not let it in.
    ConnectionID connect(const char* address = "192.0.2.1")
    {
        const ConnectionID id = ++lastID;
        if (!service.opened(id, *IPAddress::parse(address))) return 0;
        open.emplace(id, std::make_unique<Connection>(id, service, nullptr));
        return id;
    }
    void type(ConnectionID id, std::string_view bytes)
    {
        open.at(id)->receive({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
    }
    void hangUp(ConnectionID id)
    {
        open.at(id)->leave();
        open.erase(id);
    }

    static std::string head(std::string_view target, std::string_view more = {})
    {
        return fmt::format("GET {} HTTP/1.1\r\nHost: rendezvous.example.org\r\n{}\r\n", target, more);
    }
    static constexpr std::string_view upgradeFields
        = "Connection: keep-alive, Upgrade\r\nUpgrade: WebSocket\r\nSec-WebSocket-Version: 13\r\n"
          "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"; // as in RFC 6455
    // A client's frame.
    static std::string frame(std::string_view payload, int firstByte = 0x81)
    {
        std::string bytes{static_cast<char>(firstByte)};
        const auto size = payload.size();
        if (size < 126) {
            bytes += static_cast<char>(0x80 | size);
        } else if (size < 65'536) {
            bytes += {'\xFE', static_cast<char>(size >> 8), static_cast<char>(size & 0xFF)};
        } else {
            bytes += '\xFF';
            for (int shift = 56; shift >= 0; shift -= 8) bytes += static_cast<char>(size >> shift & 0xFF);
        }
        const std::string mask = "\x12\x34\x56\x78";
        bytes += mask;
        for (std::size_t i = 0; i < size; ++i) bytes += static_cast<char>(payload[i] ^ mask[i % 4]);
        return bytes;
    }
    void say(ConnectionID id, const nlohmann::json& message) { type(id, frame(message.dump())); }

    // What it reads since the last time: "101", "200 body" of answers, texts as they are, "close 1008".
    std::vector<std::string> read(ConnectionID id)
    {
        Connection& connection = *open.at(id);
        const ByteView unsent = connection.unsent();
        std::string bytes(unsent.begin(), unsent.end());
        connection.takeSent(unsent.size());
        std::vector<std::string> all;
        while (!bytes.empty())
            all.push_back(bytes.starts_with("HTTP/") ? takeAnswer(bytes) : takeFrame(bytes));
        return all;
    }
    nlohmann::json readOne(ConnectionID id)
    {
        const auto all = read(id);
        EXPECT_EQ(all.size(), 1) << fmt::format("{}", fmt::join(all, "\n"));
        return all.empty() ? nlohmann::json() : nlohmann::json::parse(all.back());
    }
    bool isOver(ConnectionID id) const { return open.at(id)->isEnding(); }

    // A host that has registered, and a phone that was greeted.
    struct Host {
        ConnectionID connection = 0;
        SigningKey key = SigningKey::generate().value();
        std::string id = KeyFingerprint::hostID(key.publicKey());
    };
    static nlohmann::json registration(const Host& host, const std::string& nonce)
    {
        const std::string text = "pelorin-host-v1|" + host.id + "|" + nonce;
        return {{"type", "register"}, {"publicKey", base64EncodedString(host.key.publicKey())},
            {"signature", base64EncodedString(host.key.signRaw(Bytes(text.begin(), text.end())).value())},
            {"name", "Studio"}};
    }
    std::string challenge(ConnectionID id) // the nonce
    {
        type(id, head("/v1/host", upgradeFields));
        const auto all = read(id);
        EXPECT_THAT(all, testing::ElementsAre("101", testing::HasSubstr("challenge")));
        return nlohmann::json::parse(all.back())["nonce"];
    }
    void enter(Host& host, const char* address = "198.51.100.1")
    {
        host.connection = connect(address);
        say(host.connection, registration(host, challenge(host.connection)));
        EXPECT_THAT(read(host.connection), testing::ElementsAre(R"({"type":"registered"})"));
    }
    ConnectionID phoneFor(const std::string& hostID, const char* address = "192.0.2.1")
    {
        const ConnectionID id = connect(address);
        type(id, head("/v1/connect/" + hostID, upgradeFields));
        const auto all = read(id);
        EXPECT_THAT(all, testing::ElementsAre("101", testing::HasSubstr("\"online\":true")));
        return id;
    }
    std::string ask(ConnectionID phone, const Host& host) // the session that the host hears of
    {
        say(phone, {{"type", "connect"}, {"request", {{"nonce", 7}}}});
        return readOne(host.connection)["session"];
    }

    void answer(ConnectionID id, std::string response) override
    {
        if (open.contains(id)) open[id]->answer(response);
    }
    void upgrade(ConnectionID id, std::string response) override { open[id]->upgrade(response); }
    void send(ConnectionID id, std::string_view text) override
    {
        if (open.contains(id)) open[id]->send(text);
    }
    std::size_t unsentBytes(ConnectionID id) const override
    {
        return open.contains(id) ? open.at(id)->unsent().size() : 0;
    }
    void close(ConnectionID id, WebSocket::CloseCode code, std::string_view reason) override
    {
        if (open.contains(id)) open[id]->close(code, reason);
    }

    const std::shared_ptr<ManualQueues> sharedQueues;
    ManualQueues& queues = *sharedQueues;
    const QueueRef queue = queues.makeQueue("dev.pelorin.rendezvous");
    Service service;

private:
    static std::string takeAnswer(std::string& bytes)
    {
        const auto end = bytes.find("\r\n\r\n") + 4;
        std::string status = bytes.substr(9, 3);
        if (status == "101") {
            bytes.erase(0, end);
            return status;
        }
        status += " " + bytes.substr(end);
        bytes.clear();
        return status;
    }
    static std::string takeFrame(std::string& bytes)
    {
        const auto byteAt = [&](std::size_t i) { return static_cast<std::uint8_t>(bytes.at(i)); };
        std::size_t start = 2;
        std::size_t size = byteAt(1);
        if (size == 126) {
            size = byteAt(2) << 8 | byteAt(3);
            start = 4;
        }
        const int opcode = byteAt(0) & 0x0F;
        std::string payload = bytes.substr(start, size);
        bytes.erase(0, start + size);
        if (opcode == 8)
            return fmt::format("close {}",
                static_cast<std::uint8_t>(payload.at(0)) << 8 | static_cast<std::uint8_t>(payload.at(1)));
        return opcode == 10 ? "pong frame " + payload : payload;
    }

    ConnectionID lastID = 0;
    std::map<ConnectionID, std::unique_ptr<Connection>> open;
};

} // namespace pelorin
