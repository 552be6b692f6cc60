#include "PelorinRendezvous/Service.h"

#include <algorithm>
#include <fmt/format.h>

namespace pelorin {
namespace {

constexpr std::chrono::minutes cleaningPeriod{1};

constexpr std::string_view hostTarget = "/v1/host";
constexpr std::string_view phoneTarget = "/v1/connect/";
constexpr std::string_view statusTarget = "/v1/status/";

constexpr std::string_view plainText = "text/plain; charset=utf-8";
constexpr std::string_view tooMany = "429 Too Many Requests";
constexpr std::string_view notFound = "404 Not Found";
constexpr std::string_view retryFields = "Retry-After: 60\r\n";
constexpr std::string_view upgradeFields = "Upgrade: websocket\r\nSec-WebSocket-Version: 13\r\n";

bool isHostID(std::string_view text)
{
    constexpr std::size_t size = 26; // 16 bytes in base32
    return text.size() == size && std::ranges::all_of(text, [](char letter) {
        return (letter >= 'a' && letter <= 'z') || (letter >= '2' && letter <= '7');
    });
}

std::optional<std::string> hostIDAfter(std::string_view prefix, std::string_view target)
{
    if (!target.starts_with(prefix)) return std::nullopt;
    target.remove_prefix(prefix.size());
    return isHostID(target) ? std::optional(std::string(target)) : std::nullopt;
}

// The last entry is the proxy's own; those before it are whatever the client claimed.
std::optional<IPAddress> forwardedFor(const HttpRequest& request)
{
    const std::string list = request.field("x-forwarded-for");
    const auto start = list.find_last_of(", ");
    return IPAddress::parse(start == list.npos ? list : std::string_view(list).substr(start + 1));
}

} // namespace

Service::Service(QueueRef newQueue, Links& newLinks, Options newOptions, RelayCredentials relays,
    Switchboard::RandomBytes random, Broker* broker)
    : queue(std::move(newQueue)),
      links(newLinks),
      options(std::move(newOptions)),
      started(queue->now()),
      admission(options.limits),
      cluster(broker ? std::make_unique<Cluster>(queue, links, *broker, figures, random) : nullptr),
      switchboard(
          queue, cluster ? *cluster : links, admission, figures, std::move(relays), std::move(random)),
      ticking(queue->every(Deadlines<ConnectionID>::period, [this] { endOverdue(); })),
      cleaning(queue->every(cleaningPeriod, [this] { admission.forgetIdle(queue->now()); }))
{
    if (cluster) cluster->serve(switchboard);
}

bool Service::isProxy(const IPAddress& address) const
{
    return std::ranges::find(options.proxies, address) != options.proxies.end();
}

bool Service::opened(ConnectionID connection, const IPAddress& address)
{
    queue->assertCurrent();
    std::optional<IPAddress> source;
    if (!isProxy(address)) source = Admission::sourceOf(address);
    if (source && !(admission.mayConnect(*source, queue->now()) && admission.open(*source))) {
        ++figures.connectionsRefused;
        return false;
    }
    ++figures.connections;
    visitors.insert({connection, {source}});
    deadlines.add(connection, queue->now() + Limits::opening);
    return true;
}

void Service::requested(ConnectionID connection, const HttpRequest& request)
{
    queue->assertCurrent();
    Visitor& visitor = visitors.at(connection);
    visitor.isWaiting = false;
    if (!findSource(visitor, request)) {
        ++figures.connectionsRefused;
        return refuse(connection, tooMany, retryFields);
    }
    // A host's attempts are counted when it registers.
    if (request.target == hostTarget) return answerHost(connection, visitor, request);
    if (!admission.mayRequest(*visitor.source, queue->now())) {
        ++figures.requestsRefused;
        return refuse(connection, tooMany, retryFields);
    }
    if (const auto hostID = hostIDAfter(phoneTarget, request.target))
        return answerPhone(connection, request, *hostID);
    if (const auto hostID = hostIDAfter(statusTarget, request.target))
        return answerStatus(connection, *hostID);
    const std::string page = options.showsStatus ? figuresFor(request.target) : std::string();
    if (page.empty()) return refuse(connection, notFound);
    links.answer(connection, httpResponse("200 OK", plainText, page));
}

// A connection through a proxy counts as one of whom the proxy speaks for.
bool Service::findSource(Visitor& visitor, const HttpRequest& request)
{
    if (visitor.source) return true;
    const auto address = forwardedFor(request);
    if (!address) return false;
    const IPAddress source = Admission::sourceOf(*address);
    if (!admission.open(source)) return false;
    visitor.source = source;
    return true;
}

std::string Service::figuresFor(std::string_view target) const
{
    const Figures::Now now{queue->now() - started, visitors.size(), switchboard.hostCount(),
        switchboard.sessionCount(), admission.sourceCount(), cluster && cluster->isInReach()};
    if (target == "/") return figures.page(now);
    if (target == "/metrics") return figures.metrics(now);
    return {};
}

void Service::answerHost(ConnectionID connection, const Visitor& visitor, const HttpRequest& request)
{
    auto answer = WebSocket::handshakeAnswer(request);
    if (!answer) return refuse(connection, "426 Upgrade Required", upgradeFields);
    links.upgrade(connection, std::move(*answer));
    switchboard.welcomeHost(connection, *visitor.source);
}

void Service::answerPhone(ConnectionID connection, const HttpRequest& request, const std::string& hostID)
{
    auto answer = WebSocket::handshakeAnswer(request);
    if (!answer) return refuse(connection, "426 Upgrade Required", upgradeFields);
    links.upgrade(connection, std::move(*answer));
    if (cluster && !switchboard.isOnline(hostID)) return cluster->welcomePhone(connection, hostID);
    switchboard.welcomePhone(connection, hostID);
}

void Service::answerStatus(ConnectionID connection, const std::string& hostID)
{
    const auto answer = [this, connection](bool isOnline) {
        const auto body = fmt::format(R"({{"online":{}}})", isOnline);
        links.answer(connection, httpResponse("200 OK", "application/json", body));
    };
    if (cluster && !switchboard.isOnline(hostID)) return cluster->ask(hostID, answer);
    answer(switchboard.isOnline(hostID));
}

void Service::requestFailed(ConnectionID connection, std::string_view status)
{
    queue->assertCurrent();
    visitors.at(connection).isWaiting = false;
    refuse(connection, status);
}

void Service::refuse(ConnectionID connection, std::string_view status, std::string_view moreFields)
{
    links.answer(connection, httpResponse(status, plainText, fmt::format("{}\n", status), moreFields));
}

void Service::received(ConnectionID connection, std::string_view text)
{
    if (isElsewhere(connection)) return cluster->received(connection, text);
    switchboard.received(connection, text);
}

void Service::heard(ConnectionID connection)
{
    if (isElsewhere(connection)) return cluster->heard(connection);
    switchboard.heard(connection);
}

void Service::left(ConnectionID connection)
{
    if (isElsewhere(connection)) return cluster->gone(connection);
    switchboard.gone(connection);
}

void Service::failed(ConnectionID connection, WebSocket::CloseCode code)
{
    queue->assertCurrent();
    ++figures.ruleBreakers;
    left(connection);
    links.close(connection, code, {});
}

void Service::gone(ConnectionID connection)
{
    queue->assertCurrent();
    left(connection);
    const auto found = visitors.find(connection);
    if (found->second.source) admission.close(*found->second.source);
    visitors.erase(found);
}

void Service::endOverdue()
{
    for (const ConnectionID connection : deadlines.takeDue(queue->now())) {
        const auto found = visitors.find(connection);
        if (found == visitors.end() || !std::exchange(found->second.isWaiting, false)) continue;
        ++figures.silent;
        refuse(connection, "408 Request Timeout");
    }
    switchboard.endOverdue();
    if (cluster) cluster->endOverdue();
}

void Service::stop()
{
    queue->assertCurrent();
    ticking.cancel();
    cleaning.cancel();
    for (auto& [connection, visitor] : visitors)
        if (std::exchange(visitor.isWaiting, false)) refuse(connection, "503 Service Unavailable");
    switchboard.closeAll();
    if (cluster) cluster->closeAll();
}

} // namespace pelorin
