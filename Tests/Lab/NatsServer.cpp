#include "Tests/Lab/NatsServer.h"

#include "PelorinCore/Result.h"
#include "Tests/Lab/Wait.h"

#include <csignal>
#include <fmt/format.h>

namespace pelorin::lab {
namespace {

constexpr std::string_view listening = "Listening for client connections on 127.0.0.1:";

} // namespace

NatsServer::NatsServer(std::vector<std::string> moreOptions) : more(std::move(moreOptions))
{
    require(start(), ("nats-server does not start:\n" + log()).c_str());
}

bool NatsServer::start()
{
    // -1: one that is free. It goes when its parent does, even when that is killed.
    std::vector<std::string> command{"setpriv", "--pdeathsig", "KILL", "nats-server", "--addr", "127.0.0.1",
        "--port", port == 0 ? "-1" : std::to_string(port)};
    command.insert(command.end(), more.begin(), more.end());
    running = Process::start(command, {}, (folder.path() / "nats.log").string());
    eventually([&] { return log().contains("Server is ready") || !running->isRunning(); });
    const std::string text = log();
    const auto place = text.find(listening);
    if (!running->isRunning() || place == text.npos) return false;
    port = static_cast<std::uint16_t>(std::stoi(text.substr(place + listening.size())));
    return true;
}

std::string NatsServer::url(const std::string& user, const char* scheme) const
{
    return fmt::format("{}://{}127.0.0.1:{}", scheme, user.empty() ? "" : user + "@", port);
}

void NatsServer::kill()
{
    running->signal(SIGKILL);
    running->waitForExit(5'000);
}

// Whoever took the port meanwhile is soon gone: nothing of ours listens for long.
void NatsServer::startAgain()
{
    require(eventually([this] { return start(); }), "nats-server starts again");
}

} // namespace pelorin::lab
