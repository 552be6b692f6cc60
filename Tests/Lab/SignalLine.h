#pragma once

#include "PelorinNet/Queue/SerialQueue.h"

#include <filesystem>
#include <nlohmann/json_fwd.hpp>

namespace pelorin::lab {

// Stands in for the rendezvous service between two ends of a session that is being set up: JSON objects, one
// a line, each as late as it would be by way of a server. Queue: the one given, after connect.
class SignalLine {
public:
    // Wait for the other end at a socket of the file system, which all networks of the lab share. Blocking.
    static int listen(const std::filesystem::path& at);
    static int connect(const std::filesystem::path& to);

    SignalLine(int newSocket, Duration newDelay, QueueRef newQueue);
    ~SignalLine();

    std::function<void(const nlohmann::json&)> onMessage;
    std::function<void()> onEnd; // the other end is gone
    void send(const nlohmann::json& message);

private:
    void read();

    const int socket;
    const Duration delay;
    const QueueRef queue;
    std::string partial;
    Subscription watch;
    Lifetime lifetime;
};

} // namespace pelorin::lab
