#pragma once

#include "PelorinNet/Channel/PathChannel.h"
#include "PelorinNet/Channel/PelorinQUIC.h"
#include "PelorinNet/Path/PathSetup.h"
#include "Tests/Lab/SignalLine.h"

namespace pelorin::lab {

// One end of a remote session: finds a path to the other end, carries QUIC over it, and opens one stream, as
// the host and a phone do with the rendezvous service between them. What happens is reported as JSON objects
// with an "event". Queue: the one given, of the path. Owned by the program.
class PathEnd {
public:
    enum class Role { host, phone };
    struct Settings {
        Role role = Role::host;
        PathServers servers;
        std::optional<TurnCredentials> credentials;
        PathSetup::Switches switches;
    };
    PathEnd(Settings newSettings, QueueMaker& queues, QueueRef newQueue, std::unique_ptr<SignalLine> line);

    std::function<void(nlohmann::json)> onReport;
    std::function<void(std::unique_ptr<Channel>)> onChannel; // the stream, not started

    void start(); // the phone calls; the host waits for its call

private:
    void open();
    void call();
    void answer(const nlohmann::json& call);
    void handle(const nlohmann::json& message);
    nlohmann::json introduction();
    void setUp(const nlohmann::json& peer);
    void settled(const Result<std::string, NetError>& label);
    void listen();
    void connect();
    void adopt(std::unique_ptr<PelorinQUIC::Connection> newConnection);
    void gotStream(std::unique_ptr<Channel> stream);
    double msSince(SteadyTime began) const;

    const Settings settings;
    const QueueRef queue;
    const std::unique_ptr<SignalLine> line;
    std::unique_ptr<DeviceIdentity> identity;
    std::shared_ptr<Bytes> peerKey = std::make_shared<Bytes>(); // fingerprint; set before QUIC begins
    std::shared_ptr<const PelorinQUIC::Parameters> parameters;
    std::unique_ptr<PathSetup> path;
    std::shared_ptr<SignalInbox> inbox = std::make_shared<SignalInbox>();
    std::shared_ptr<PathLabel> label = std::make_shared<PathLabel>("");
    std::unique_ptr<PelorinQUIC::Listener> listener;
    std::unique_ptr<PelorinQUIC::Connection> connection;
    SteadyTime calledAt; // when this end knew that a session is wanted
    SteadyTime setUpAt; // when it knew of the other
};

} // namespace pelorin::lab
