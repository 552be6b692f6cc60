#pragma once

#include "PelorinNet/Identity/SoftwareIdentity.h"
#include "PelorinNet/Path/PathSetup.h"
#include "Tests/Peers/SignedRequest.h"
#include "Tests/PelorinNet/QuicPeers.h"

namespace pelorin {

// No server of the test's has a name.
inline void lookUpNothing(
    const PathServers::Server&, const QueueRef&, const std::function<void(std::vector<SocketAddress>)>& done)
{
    done({});
}

inline std::unique_ptr<PathSetup> makePathWithoutServers(QueueRef queue, PathServers servers)
{
    return std::make_unique<PathSetup>(
        std::move(queue), std::move(servers), lookUpNothing, PathSetup::Switches{});
}

// A phone's own end of a remote session: its path and its QUIC connection. Single thread.
class RemotePhone {
public:
    RemotePhone(ManualQueues& newQueues, const SoftwareIdentity& newIdentity, Bytes newHostFingerprint)
        : queues(newQueues),
          identity(newIdentity),
          hostFingerprint(std::move(newHostFingerprint)),
          setup(makePathWithoutServers(queues.makeQueue("phone path"), {}))
    {
        require(setup->open().has_value(), "the phone's sockets");
    }

    // signal: the phone's words to the host.
    void start(const nlohmann::json& accepted, std::function<void(nlohmann::json)> signal)
    {
        PathDescription remote{accepted["ufrag"], accepted["password"], {}};
        for (const auto& each : accepted["candidates"]) remote.candidates.push_back(*Candidate::parse(each));
        setup->start(std::move(remote), {}, {std::move(signal), inbox},
            [this](auto result) { outcome = std::move(result); });
    }
    void connect() { connect(identity); }
    void connect(const SoftwareIdentity& as)
    {
        const auto isHost = [this](const Bytes& shown) { return shown == hostFingerprint; };
        quic.take(PelorinQUIC::connect(queue, loopbackAddress(setup->localPort()),
                      PelorinQUIC::parameters(queues, as, false, isHost))
                      .value(),
            queue);
    }

    ManualQueues& queues;
    const SoftwareIdentity& identity;
    const Bytes hostFingerprint;
    const QueueRef queue = queues.makeQueue("phone");
    const std::shared_ptr<SignalInbox> inbox = std::make_shared<SignalInbox>();
    std::unique_ptr<PathSetup> setup;
    std::optional<Result<std::string, NetError>> outcome;
    QuicEndOfConnection quic;
};

} // namespace pelorin
