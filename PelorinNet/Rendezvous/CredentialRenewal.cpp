#include "PelorinNet/Rendezvous/CredentialRenewal.h"

#include "PelorinNet/Rendezvous/ServiceMessage.h"

#include <nlohmann/json.hpp>
#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

constexpr Duration period = 4h; // loans last twelve hours: two in a row may fail
constexpr Duration retryPause = 10min;
constexpr Duration greetingTimeout = 10s;

} // namespace

CredentialRenewal::CredentialRenewal(
    QueueRef newQueue, RendezvousSocketMaker newMakeSocket, std::string newURL)
    : queue(std::move(newQueue)),
      makeSocket(std::move(newMakeSocket)),
      url(std::move(newURL))
{
    askAfter(period);
}

void CredentialRenewal::askAfter(Duration pause)
{
    socket.reset();
    timer = queue->after(pause, [this] { ask(); });
}

void CredentialRenewal::ask()
{
    socket = makeSocket(queue, url);
    socket->open([this](const Result<void, NetError>& opened) {
        if (!opened) return failed(opened.error().description);
        socket->next("type", greetingTimeout,
            [this](const Result<nlohmann::json, NetError>& greeting) { greeted(greeting); });
    });
}

void CredentialRenewal::greeted(const Result<nlohmann::json, NetError>& greeting)
{
    if (!greeting) return failed(greeting.error().description);
    const auto credentials = ServiceMessage::servers(*greeting).credentials;
    if (!credentials) return failed("the service lends none now");
    askAfter(period);
    if (onFresh) onFresh(*credentials);
}

void CredentialRenewal::failed(const std::string& why)
{
    log.info("no new credentials for relays: {}; asking again in 10 min", why);
    askAfter(retryPause);
}

} // namespace pelorin
