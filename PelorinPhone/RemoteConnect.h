#pragma once

#include "PelorinNet/Rendezvous/PhoneConnector.h"
#include "PelorinPhone/Pairing/SecureConnect.h"

namespace pelorin {

// What is told of a remote connection besides its channel; on the queue, from without any call of ours.
struct RemoteReports {
    // Before the result.
    std::function<void(const PhoneConnector::Steps&, const std::string& path)> reached;
    std::function<void(const PhoneConnector::Failure&)> failed;
    // After it.
    std::function<void(const std::string& path)> pathChanged;
};

// Connects to place through its rendezvous service. The channel owns its path and QUIC connection, and looks
// after them by itself when the machine's network changes.
Connect connectRemotely(
    QueueRef queue, PhoneConnector::Means means, RemotePlace place, RemoteReports reports = {});

// Both ways at once. The tailnet's is taken if it is proved within its head start, after that whichever is
// proved first; the other is dropped. Fails when both have.
Connect connectEitherWay(QueueRef queue, Connect tailnet, Connect remote);
inline constexpr std::chrono::milliseconds tailnetHeadStart{300};

} // namespace pelorin
