#pragma once

#include "PelorinNet/Log.h"
#include "PelorinNet/Path/TurnClient.h"
#include "PelorinNet/Rendezvous/RendezvousSocket.h"

namespace pelorin {

// Borrows the relays of a rendezvous service anew, every few hours, for a session that may outlast the first
// loan. Asks like a phone that then has nothing to ask of the host: the service's greeting holds it all.
// Queue: the one given. Owns its socket while it asks. Owned by the session at its end.
class CredentialRenewal {
public:
    // url: where phones ask for the session's host.
    CredentialRenewal(QueueRef newQueue, RendezvousSocketMaker newMakeSocket, std::string newURL);

    std::function<void(const TurnCredentials&)> onFresh; // may destroy it

private:
    void askAfter(Duration pause);
    void ask();
    void greeted(const Result<nlohmann::json, NetError>& greeting);
    void failed(const std::string& why);

    const QueueRef queue;
    const RendezvousSocketMaker makeSocket;
    const std::string url;
    std::unique_ptr<RendezvousSocket> socket;
    Subscription timer;
    Log log{"rendezvous"};
};

} // namespace pelorin
