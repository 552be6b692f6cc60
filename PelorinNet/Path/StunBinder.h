#pragma once

#include "PelorinNet/NetError.h"
#include "PelorinNet/Path/UDPSocket.h"
#include "PelorinNet/Stun/StunMessage.h"

#include <unordered_map>

namespace pelorin {

// Asks a STUN server how the network sees our socket. Path queue; owned by PathSetup.
class StunBinder {
public:
    using Done = std::function<void(Result<SocketAddress, NetError>)>;

    explicit StunBinder(QueueRef queue);

    // Four requests half a second apart; done by three seconds. The caller hands every STUN datagram of that
    // socket to handle. done may destroy the binder.
    void binding(UDPSocket& from, const SocketAddress& server, Done done);
    bool handle(ByteView datagram); // whether it answered a request that is pending here
};

} // namespace pelorin
