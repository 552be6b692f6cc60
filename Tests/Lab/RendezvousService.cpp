#include "Tests/Lab/RendezvousService.h"

#include "PelorinCore/Result.h"
#include "Tests/Lab/BuildFolder.h"
#include "Tests/Lab/TurnServer.h"
#include "Tests/Lab/Wait.h"

#include <fmt/format.h>

namespace pelorin::lab {

RendezvousService::RendezvousService(const Options& options)
    : host(options.host),
      hasTLS(!options.certificate.empty())
{
    std::vector<std::string> command = options.prefix;
    // Goes when its parent does, even when that is killed.
    command.insert(command.end(),
        {"setpriv", "--pdeathsig", "KILL", programPath("pelorin-rendezvous"), "--log-level", options.logLevel,
            "--listen", fmt::format("{}:{}", host, options.port)});
    if (hasTLS)
        command.insert(command.end(), {"--tls-cert", options.certificate, "--tls-key", options.key});
    else
        command.push_back("--insecure");
    for (const std::string& relay : options.relays) command.insert(command.end(), {"--turn", relay});
    if (!options.relays.empty())
        command.insert(command.end(), {"--turn-secret", std::string(TurnServer::secret)});
    command.insert(command.end(), options.more.begin(), options.more.end());
    running = Process::start(std::move(command), {}, (folder.path() / "rendezvous.log").string());

    const std::string start = fmt::format("Listening on {}://{}:", hasTLS ? "wss" : "ws", host);
    const auto said = [&] { return log().find(start) != std::string::npos; };
    eventually([&] { return said() || !running->isRunning(); });
    require(said(), ("the rendezvous service does not start:\n" + log()).c_str());
    const std::string text = log();
    listenPort = static_cast<std::uint16_t>(std::stoi(text.substr(text.find(start) + start.size())));
}

std::string RendezvousService::url() const
{
    return fmt::format("{}://{}:{}", hasTLS ? "https" : "http", host, listenPort);
}

} // namespace pelorin::lab
