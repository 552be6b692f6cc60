#include "PelorinHost/Shell/ControlClient.h"
#include "PelorinHost/Shell/Doctor.h"
#include "PelorinHost/Trust/OwnTailnetAddress.h"
#include "PelorinHost/Trust/TailscaleCLI.h"
#include "PelorinNet/Files/AtomicFile.h"
#include "PelorinNet/Identity/KeyFingerprint.h"
#include "PelorinNet/Identity/SigningKey.h"
#include "PelorinNet/Identity/SoftwareIdentity.h"
#include "PelorinNet/OwnedDescriptor.h"
#include "PelorinNet/Path/NameLookup.h"
#include "PelorinNet/Queue/Confined.h"
#include "PelorinNet/Queue/QueuePool.h"
#include "PelorinNet/Rendezvous/RendezvousSocket.h"
#include "PelorinNet/Rendezvous/ServiceMessage.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <fmt/format.h>
#include <future>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace pelorin::Doctor {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t largestFile = 1 << 20;
constexpr auto hostPatience = 2s;
constexpr auto toolPatience = 4s;
constexpr auto servicePatience = 4s; // a good one far away needs one
constexpr auto networkPatience = 4s; // a second more than a server is given to answer

// What start tells by calling what it is given, once; nothing when that takes too long.
template <class T>
std::optional<T> waitFor(
    std::chrono::seconds patience, std::move_only_function<void(std::function<void(T)>)> start)
{
    const auto promise = std::make_shared<std::promise<T>>();
    auto future = promise->get_future();
    start([promise](T value) { promise->set_value(std::move(value)); });
    if (future.wait_for(patience) != std::future_status::ready) return std::nullopt;
    return future.get();
}

// What links lead to, too: a key is no safer for being elsewhere.
std::vector<File> filesIn(const std::filesystem::path& directory)
{
    std::vector<File> files;
    struct stat found{};
    if (::stat(directory.c_str(), &found) == 0)
        files.push_back({"", found.st_uid == ::geteuid(), (found.st_mode & (S_IWGRP | S_IWOTH)) != 0});
    std::error_code error;
    for (auto entry = std::filesystem::directory_iterator(directory, error);
        !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        if (::stat(entry->path().c_str(), &found) != 0) continue;
        files.push_back(
            {entry->path().filename().string(), found.st_uid == ::geteuid(), (found.st_mode & 077) != 0});
    }
    return files;
}

bool canEncode(Compression& compression, VideoCodec codec)
{
    return compression.createSession({codec, 1920, 1080, EncoderMode::lowLatency, 60}).status
        == compressionStatus::success;
}

bool isPortFree(const std::string& address, std::uint16_t port)
{
    const OwnedDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int yes = 1; // what a connection that ended left behind is in nobody's way
    ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in place{};
    place.sin_family = AF_INET;
    place.sin_port = htons(port);
    if (::inet_pton(AF_INET, address.c_str(), &place.sin_addr) != 1) return true; // to be had on IPv6 alone
    return ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&place), sizeof place) == 0
        && ::listen(socket.get(), 1) == 0;
}

using TailnetName = Result<std::optional<std::string>, std::string>;

// On its queue, as what it asks must be.
struct TailnetQuestion {
    TailnetQuestion(System& system, const QueueRef& queue, const std::function<void(TailnetName)>& tell)
        : tool(system, queue)
    {
        asking = tool.ownDNSName([tell](Result<std::optional<std::string>, TailscaleCLIError> name) {
            tell(name ? TailnetName(*name) : std::unexpected(name.error().description()));
        });
    }
    TailscaleCLI tool;
    Subscription asking;
};

// As a phone would come: so it is known whether one would find us.
struct ServiceQuestion {
    struct Answer {
        std::optional<std::string> error;
        bool isHostOnline = false;
        std::vector<PathServers::Server> servers;
    };
    using Tell = std::function<void(Answer)>;

    ServiceQuestion(std::unique_ptr<RendezvousSocket> newSocket, Tell newTell)
        : socket(std::move(newSocket)),
          tell(std::move(newTell))
    {
        socket->open([this](const Result<void, NetError>& opened) {
            if (!opened) return tell({opened.error().description, false, {}});
            socket->next("type", servicePatience, [this](const Result<nlohmann::json, NetError>& message) {
                if (!message) return tell({message.error().description, false, {}});
                const auto online = message->find("online");
                tell({std::nullopt, online != message->end() && online->is_boolean() && online->get<bool>(),
                    ServiceMessage::servers(*message).path.stun});
            });
        });
    }
    std::unique_ptr<RendezvousSocket> socket;
    Tell tell;
};

std::optional<std::string> hostIDIn(const std::filesystem::path& directory)
{
    const auto text = readWholeFile(directory / SoftwareIdentity::fileName, largestFile);
    auto stored = text ? SoftwareIdentity::Stored::parse(*text) : std::nullopt;
    if (!stored) return std::nullopt;
    const auto key = SigningKey::fromScalar(std::move(stored->privateKey));
    return key ? std::optional(KeyFingerprint::hostID(key->publicKey())) : std::nullopt;
}

Service examineService(const std::filesystem::path& supportDirectory, const HostConfig& settings,
    QueuePool& pool, const std::vector<std::string>& own)
{
    const auto hostID = hostIDIn(supportDirectory);
    const auto url = rendezvousURL(settings.rendezvousURL, hostID ? "v1/connect/" + *hostID : "v1/host");
    if (!url) return {settings.rendezvousURL + " is no rendezvous service's URL", false, std::nullopt};

    const QueueRef queue = pool.makeQueue("doctor");
    Confined<ServiceQuestion> question;
    const auto answer
        = waitFor<ServiceQuestion::Answer>(servicePatience, [&](const ServiceQuestion::Tell& tell) {
              question = Confined<ServiceQuestion>(queue, [&pool, queue, url = *url, tell] {
                  return std::make_unique<ServiceQuestion>(rendezvousSockets(pool)(queue, url), tell);
              });
          });
    if (!answer) return {settings.rendezvousURL + " does not answer", false, std::nullopt};
    if (answer->error)
        return {fmt::format("{}: {}", settings.rendezvousURL, *answer->error), false, std::nullopt};
    Service service{std::nullopt, answer->isHostOnline, std::nullopt};
    if (answer->servers.empty()) return service;

    Confined<NatProbe> probe(queue, [queue] {
        return std::make_unique<NatProbe>(
            queue, [](const PathServers::Server& server, const QueueRef& home, auto done) {
                lookUpName(server, home, std::move(done));
            });
    });
    service.network
        = waitFor<NatProbe::Answer>(networkPatience, [&](const std::function<void(NatProbe::Answer)>& tell) {
              probe.run(
                  [servers = answer->servers, own, tell](NatProbe& asked) { asked.ask(servers, own, tell); });
          }).value_or(NatProbe::Answer());
    return service;
}

TailnetName examineTailnet(System& system, QueuePool& pool)
{
    Confined<TailnetQuestion> question;
    const QueueRef queue = pool.makeQueue("doctor");
    return waitFor<TailnetName>(toolPatience, [&](const std::function<void(TailnetName)>& tell) {
        // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): it ends on its queue
        question = Confined<TailnetQuestion>(
            queue, [&system, queue, tell] { return std::make_unique<TailnetQuestion>(system, queue, tell); });
    }).value_or(std::unexpected("the Tailscale tool does not answer"));
}

} // namespace

Facts examine(HostPlatform& platform, QueuePool& pool, const std::filesystem::path& supportDirectory)
{
    Facts facts;
    facts.supportDirectory = supportDirectory;
    std::error_code ignored;
    facts.hasSettingsFile
        = std::filesystem::exists(std::filesystem::symlink_status(supportDirectory / "host.json", ignored));
    facts.settingsText = readWholeFile(supportDirectory / "host.json", largestFile);
    facts.settings = HostConfig::decode(facts.settingsText.value_or("{}")).value_or(HostConfig());
    facts.files = filesIn(supportDirectory);

    // Those who may be long in answering are asked at the same time.
    const auto interfaces = platform.system().interfaceAddresses();
    std::vector<std::string> own;
    own.reserve(interfaces.size());
    for (const auto& each : interfaces) own.push_back(each.address);
    std::future<TailnetName> tailnet;
    if (!facts.settings.allowLoopbackForTesting)
        tailnet = std::async(std::launch::async, [&] { return examineTailnet(platform.system(), pool); });
    std::future<Service> service;
    if (facts.settings.rendezvous && !facts.settings.rendezvousURL.empty())
        service = std::async(std::launch::async,
            [&, settings = facts.settings] { return examineService(supportDirectory, settings, pool, own); });

    facts.runningHost = askHost(supportDirectory, R"({"command":"status"})", hostPatience);
    facts.permissions = platform.permissions().ask();
    const char* const wayland = std::getenv("WAYLAND_DISPLAY");
    facts.hasWaylandSession = wayland && *wayland;
    facts.encodesH264 = canEncode(platform.compression(), VideoCodec::h264);
    facts.encodesHEVC = canEncode(platform.compression(), VideoCodec::hevc);

    facts.tailnetAddress = ownTailnetAddress(interfaces);
    const std::string address
        = facts.settings.allowLoopbackForTesting ? "127.0.0.1" : facts.tailnetAddress.value_or("0.0.0.0");
    if (!facts.runningHost && facts.settings.port != 0)
        facts.isPortFree = isPortFree(address, facts.settings.port);

    if (tailnet.valid()) facts.tailnetName = tailnet.get();
    if (service.valid()) facts.service = service.get();
    return facts;
}

} // namespace pelorin::Doctor
