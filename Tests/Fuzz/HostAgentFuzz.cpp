// Messages of a hostile rendezvous service to a host with one paired phone, one JSON object a line. A request
// with the member "sign" is signed by the phone with what else it has, so that others than malformed ones get
// anywhere; no other is ever granted, and nothing piles up.

#include "PelorinCore/Pairing/Base64URL.h"
#include "PelorinNet/Identity/SigningKey.h"
#include "PelorinNet/Identity/SoftwareIdentity.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "PelorinNet/Rendezvous/HostAgent.h"
#include "Tests/Peers/ScriptedService.h"

#include <set>

namespace {

using namespace pelorin;
using namespace std::chrono_literals;
using nlohmann::json;

std::unique_ptr<SoftwareIdentity> identityOf(std::uint8_t number)
{
    Bytes scalar(32, 0x11);
    scalar.back() = number;
    auto key = SigningKey::fromScalar(SecretBytes(std::move(scalar)));
    return SoftwareIdentity::create(std::move(*key), "fuzz", WallTime(std::chrono::years(54))).value();
}

const SoftwareIdentity& host()
{
    static const auto identity = identityOf(1);
    return *identity;
}

const SoftwareIdentity& phone()
{
    static const auto identity = identityOf(2);
    return *identity;
}

class Scene {
public:
    Scene()
    {
        agent.phone = [](const Bytes& keyHash) -> std::optional<HostAgent::Phone> {
            if (keyHash != phone().fingerprint()) return std::nullopt;
            return HostAgent::Phone{"dev-0", "phone", phone().publicKey()};
        };
        agent.pair = [](const HostAgent::PairingAttempt& attempt) -> std::optional<HostAgent::Phone> {
            require(attempt.publicKey.size() == 65, "a pairing has a key");
            return std::nullopt;
        };
        agent.start();
        queues.runReady();
        for (const char* type : {"challenge", "registered"}) say({{"type", type}, {"nonce", "n"}});
    }

    void play(std::string_view line)
    {
        auto message = ServiceMessage::parse(line);
        if (!message) return;
        sign(*message);
        say(std::move(*message));
        queues.advance(100ms);
        require(agent.sessionCount() <= HostAgent::maxSessions, "sessions are bounded");
        for (const json& answer : service.line().takeReceived()) {
            if (answer["type"] != "accept") continue;
            require(signedSessions.contains(answer["session"]), "nobody is let in without a signature");
        }
    }

private:
    void say(json message)
    {
        service.line().say(std::move(message));
        queues.runReady();
    }

    void sign(json& message)
    {
        if (!message.contains("request") || !message["request"].is_object()) return;
        json& request = message["request"];
        if (request.erase("sign") == 0) return;
        request["clientKeyHash"] = base64EncodedString(phone().fingerprint());
        request["timestamp"]
            = std::chrono::floor<std::chrono::seconds>(queue->wallNow().time_since_epoch()).count();
        request["nonce"] = "nonce-" + std::to_string(++nonces);
        request["signature"] = "AA==";
        const auto parsed = ConnectRequest::parse(request);
        if (!parsed) return;
        const std::string text = parsed->signedText(agent.hostID);
        const auto signature
            = phone().sign({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}).value();
        request["signature"] = base64EncodedString(signature);
        const std::string id = ServiceMessage::text(message, "session");
        signedSessions.insert(id);
    }

    static std::unique_ptr<PathSetup> makePath(QueueRef queue, PathServers)
    {
        const auto lookUpNothing = [](const auto&, const auto&, const auto& done) { done({}); };
        return std::make_unique<PathSetup>(std::move(queue), PathServers{}, lookUpNothing,
            PathSetup::Switches{.forceTurn = true, .breakAfter = {}}); // and so sends nothing anywhere
    }

    ScriptedService service;
    ManualQueues queues;
    const QueueRef queue = queues.makeQueue("dev.pelorin.host-agent");
    HostAgent agent{
        queue, {"host", {"wss://one.example/v1/host"}}, {queues, host(), service.maker(), makePath}};
    std::set<std::string> signedSessions;
    int nonces = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Log::setLevel(LogLevel::error);
    std::string_view lines(reinterpret_cast<const char*>(data), size);
    Scene scene;
    for (int i = 0; i < 64 && !lines.empty(); ++i) {
        const auto end = std::min(lines.find('\n'), lines.size());
        scene.play(lines.substr(0, end));
        lines.remove_prefix(std::min(end + 1, lines.size()));
    }
    return 0;
}
