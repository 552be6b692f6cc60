#pragma once

#include "PelorinCore/Result.h"
#include "PelorinNet/NetError.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <deque>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <vector>

namespace pelorin {

// The messages of one session that came through the rendezvous service and that nobody has asked for yet, and
// those who wait for one. Any thread; shared by the agent and the session's PathSetup.
class SignalInbox {
public:
    using Done = std::function<void(Result<nlohmann::json, NetError>)>;

    SignalInbox();
    ~SignalInbox();

    // To the first waiter whose key the object has, else kept for a later one. Beyond 64 kept ones it is
    // dropped: a peer must not fill our memory.
    void deliver(nlohmann::json message);
    void fail(NetError error); // ends every wait, now and from now on
    // The first message with that key, or the failure; done runs on queue, once.
    void next(std::string key, QueueRef queue, Done done);

private:
    struct Waiter;

    std::mutex lock;
    std::deque<nlohmann::json> items; // in order of arrival
    std::vector<Waiter> waiters;
    std::optional<NetError> failure;
};

// The way by which the two ends of a session talk while there is no path between them.
struct SignalPipe {
    std::function<void(nlohmann::json)> send; // an object; lost when the service is gone
    std::shared_ptr<SignalInbox> inbox;
};

} // namespace pelorin
