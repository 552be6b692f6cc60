#pragma once

#include "PelorinHost/Shell/LocalSocket.h"
#include "PelorinNet/Log.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <map>

namespace pelorin {

// Where programs of the same user talk to the running host: control.sock in the support directory. A
// connection carries one line of request and gets the reply as text until the end of the stream. Holding the
// directory's lock, it also keeps a second host out. Queue: the controller's, which owns it.
class ControlSocket {
public:
    static constexpr const char* fileName = "control.sock";

    // Makes the directory and takes the place of a dead host's socket. The error is a text for people.
    static Result<std::unique_ptr<ControlSocket>, std::string> open(
        const std::filesystem::path& directory, QueueRef queue);
    ~ControlSocket(); // removes the file and hangs up on everybody

    using Reply = std::function<void(std::string text)>;
    // One request, without its line end. reply is called on the queue, now or later, or never; it is void
    // once we are gone.
    std::function<void(std::string request, Reply reply)> onRequest;

private:
    using ClientID = std::uint64_t;
    struct Client {
        OwnedDescriptor socket;
        std::string received;
        Subscription readable;
        Subscription patience;
    };

    ControlSocket(
        std::filesystem::path path, OwnedDescriptor directoryLock, OwnedDescriptor listening, QueueRef queue);

    void acceptClient();
    void readFrom(ClientID id);
    void answer(ClientID id, const std::string& text);

    QueueRef queue;
    Log log{"control"};
    std::filesystem::path path;
    OwnedDescriptor directoryLock;
    OwnedDescriptor listening;
    Subscription connectable;
    std::map<ClientID, Client> clients;
    ClientID lastID = 0;
    Lifetime lifetime;
};

} // namespace pelorin
