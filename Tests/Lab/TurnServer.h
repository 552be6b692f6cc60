#pragma once

#include "PelorinNet/Path/TurnClient.h"
#include "Tests/Lab/Files.h"
#include "Tests/Lab/Process.h"

namespace pelorin::lab {

// A real relay and STUN server, coturn, for UDP on one address.
class TurnServer {
public:
    struct Options {
        std::string host = "127.0.0.1";
        std::uint16_t port = 0; // 0: a free one
        std::optional<TurnCredentials> user = {}; // the only one, instead of those of the shared secret
        std::string configuration = {}; // a file; then all but addresses is as it says
        std::vector<std::string> more = {}; // further options of turnserver
        std::vector<std::string> prefix = {}; // what runs it, such as nsenter with its arguments
    };

    static constexpr std::string_view secret = "lab-secret"; // shared with who hands out credentials

    TurnServer() : TurnServer(Options{}) {}
    explicit TurnServer(const Options& options); // returns once its socket is there

    const SocketAddress& address() const { return listening; }
    Process& process() { return *running; }
    std::string log() const { return contentOf(folder.path() / "turn.log"); }

    // Of a user of the shared secret, as the rendezvous service hands them out.
    static TurnCredentials credentials(
        const std::string& name = "lab", std::chrono::seconds validity = std::chrono::hours(1));

private:
    void start(const Options& options);
    bool waitUntilListening();
    bool isListening() const;

    TemporaryFolder folder;
    SocketAddress listening;
    std::unique_ptr<Process> running;
};

} // namespace pelorin::lab
