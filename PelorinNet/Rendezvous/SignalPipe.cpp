#include "PelorinNet/Rendezvous/SignalPipe.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

namespace pelorin {
namespace {

constexpr std::size_t maxItems = 64;

} // namespace

struct SignalInbox::Waiter {
    std::string key;
    QueueRef queue;
    Done done;

    void complete(Result<nlohmann::json, NetError> result)
    {
        queue->post(
            [done = std::move(done), result = std::move(result)]() mutable { done(std::move(result)); });
    }
};

SignalInbox::SignalInbox() = default;

SignalInbox::~SignalInbox() = default;

void SignalInbox::deliver(nlohmann::json message)
{
    std::optional<Waiter> waiter;
    {
        const std::lock_guard guard(lock);
        if (failure || !message.is_object()) return;
        const auto found
            = std::ranges::find_if(waiters, [&](const Waiter& each) { return message.contains(each.key); });
        if (found == waiters.end()) {
            if (items.size() < maxItems) items.push_back(std::move(message));
            return;
        }
        waiter = std::move(*found);
        waiters.erase(found);
    }
    waiter->complete(std::move(message));
}

void SignalInbox::fail(NetError error)
{
    std::vector<Waiter> ended;
    {
        const std::lock_guard guard(lock);
        if (failure) return;
        failure = error;
        items.clear();
        ended = std::exchange(waiters, {});
    }
    for (Waiter& waiter : ended) waiter.complete(std::unexpected(error));
}

void SignalInbox::next(std::string key, QueueRef queue, Done done)
{
    Waiter waiter{std::move(key), std::move(queue), std::move(done)};
    std::optional<Result<nlohmann::json, NetError>> result;
    {
        const std::lock_guard guard(lock);
        const auto found = std::ranges::find_if(
            items, [&](const nlohmann::json& each) { return each.contains(waiter.key); });
        if (failure) {
            result = std::unexpected(*failure);
        } else if (found != items.end()) {
            result = std::move(*found);
            items.erase(found);
        } else {
            waiters.push_back(std::move(waiter));
            return;
        }
    }
    waiter.complete(std::move(*result));
}

} // namespace pelorin
