#include "PelorinHost/RemoteEntrance.h"

#include "PelorinNet/Identity/KeyFingerprint.h"
#include "PelorinNet/Path/NetworkWatch.h"

#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

constexpr auto refusalPause = 10s;

using Phone = HostAgent::Phone;

std::optional<Phone> phoneOf(const std::optional<PairingStore::Device>& device)
{
    if (!device || !device->publicKey) return std::nullopt;
    return Phone{device->id, device->name, *device->publicKey};
}

// The code stands in the settings as text; its bytes are the text's.
std::optional<SecretBytes> reviewCodeIn(const HostConfig& config)
{
    const std::string& text = config.reviewPairingCode;
    if (text.empty()) return std::nullopt;
    return SecretBytes(ByteView{reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

std::optional<Phone> pairWith(PairingStore& store, const HostAgent::PairingAttempt& attempt,
    const std::optional<SecretBytes>& reviewCode)
{
    const auto pair = [&](const std::optional<SecretBytes>& code) {
        return store.pairRemote(attempt.publicKey, attempt.deviceName, attempt.proof, attempt.context, code);
    };
    if (const auto device = pair(std::nullopt)) return phoneOf(device);
    const auto device = reviewCode ? pair(reviewCode) : std::nullopt;
    if (device)
        Log("rendezvous").warning("{} was paired with the review code, which never expires", device->name);
    return phoneOf(device);
}

} // namespace

// What lives on the agent's queue.
struct RemoteEntrance::Home {
    Home(Means means, QueueMaker& queues, const QueueRef& queue, std::string hostName)
        : identity(std::move(means.identity)),
          agent(queue, {std::move(hostName), {std::move(means.url)}},
              {queues, *identity, std::move(means.makeSocket), std::move(means.makePath)}),
          network(queue)
    {
        network.onChange = [this] { agent.networkChanged(); };
    }

    const std::shared_ptr<const DeviceIdentity> identity;
    HostAgent agent;
    NetworkWatch network;
};

Result<std::string, std::string> RemoteEntrance::serviceIn(const HostConfig& config)
{
    if (!config.rendezvous) return std::unexpected("turned off in host.json");
    if (config.rendezvousURL.empty()) return std::unexpected("host.json names no service (rendezvousURL)");
    auto url = rendezvousURL(config.rendezvousURL, "v1/host");
    if (!url) return std::unexpected("rendezvousURL in host.json is no https URL: " + config.rendezvousURL);
    return *url;
}

RemoteEntrance::RemoteEntrance(
    const SessionSurroundings& surroundings, const HostConfig& config, Means means, QueueRef newQueue)
    : queue(std::move(newQueue)),
      hostID(KeyFingerprint::hostID(means.identity->publicKey()))
{
    const QueueRef agentQueue = surroundings.queues.makeQueue("dev.pelorin.host-agent");
    home = Confined<Home>(agentQueue,
        [agentQueue, &queues = surroundings.queues, means = std::move(means),
            name = surroundings.platform.system().hostName()]() mutable {
            return std::make_unique<Home>(std::move(means), queues, agentQueue, std::move(name));
        });
    if (!config.reviewPairingCode.empty())
        Log("rendezvous")
            .warning(
                "a review code is set (host.json's reviewPairingCode): whoever has it may pair, any time");
    start(surroundings.pairing, reviewCodeIn(config));
}

RemoteEntrance::~RemoteEntrance() = default;

void RemoteEntrance::start(PairingStore& store, std::optional<SecretBytes> reviewCode)
{
    // Brings what the agent reports to our queue.
    const auto here = [this](auto work) {
        return [queue = queue, alive = lifetime.watch(), work](auto&&... values) {
            queue->post([alive, work, ... values = std::forward<decltype(values)>(values)]() mutable {
                if (alive) work(std::move(values)...);
            });
        };
    };
    const auto streamCame = here([this](std::unique_ptr<Channel> channel, const Phone& phone) {
        if (onStream) onStream(std::move(channel), phone.name);
    });
    const auto changed = here([this](bool isNowRegistered) { registrationChanged(isNowRegistered); });
    const auto refusedOne = here([this](const std::string& reason) { refused(reason); });
    home.run([streamCame, changed, refusedOne, &store, reviewCode = std::move(reviewCode)](Home& running) {
        HostAgent& agent = running.agent;
        agent.phone = [&store](const Bytes& keyHash) { return phoneOf(store.device(keyHash)); };
        agent.pair = [&store, reviewCode](const HostAgent::PairingAttempt& attempt) {
            return pairWith(store, attempt, reviewCode);
        };
        agent.onStream = streamCame;
        agent.onRegistered = changed;
        agent.onRefused = refusedOne;
        agent.start();
    });
}

void RemoteEntrance::registrationChanged(bool isNowRegistered)
{
    if (std::exchange(isRegistered, isNowRegistered) != isNowRegistered && onRegistration) onRegistration();
}

void RemoteEntrance::refused(const std::string& reason)
{
    const SteadyTime now = queue->now();
    if (lastRefusal && now - *lastRefusal < refusalPause) return;
    lastRefusal = now;
    if (onRefused) onRefused(reason);
}

std::optional<std::string> RemoteEntrance::registeredAs() const
{
    return isRegistered ? std::optional(hostID) : std::nullopt;
}

} // namespace pelorin
