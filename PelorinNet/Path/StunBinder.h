#pragma once

#include "PelorinNet/NetError.h"
#include "PelorinNet/Path/Retransmission.h"
#include "PelorinNet/Path/UDPSocket.h"
#include "PelorinNet/Stun/StunMessage.h"

#include <unordered_map>

namespace pelorin {

// Asks a STUN server how the network sees our socket. Path queue; owned by PathSetup.
class StunBinder {
public:
    using Done = std::function<void(Result<SocketAddress, NetError>)>;

    explicit StunBinder(QueueRef newQueue) : queue(std::move(newQueue)) {}

    // Four requests half a second apart; done by three seconds, with the address or one of the errors
    // "STUN Binding to <server> timed out" and "Binding response without XOR-MAPPED-ADDRESS". The caller
    // hands every STUN datagram of that socket to handle. done may destroy the binder; a binder destroyed
    // before never calls it.
    void binding(UDPSocket& from, const SocketAddress& server, Done done);
    bool handle(ByteView datagram); // whether it belongs to a request that is pending here

private:
    struct Pending {
        Done done;
        std::unique_ptr<Retransmission> request;
    };
    void finish(const StunMessage::TransactionID& id, Result<SocketAddress, NetError> result);

    const QueueRef queue;
    std::unordered_map<StunMessage::TransactionID, Pending> pending;
};

} // namespace pelorin
