#include "Tests/Lab/TurnServer.h"

#include "PelorinCore/Pairing/Base64URL.h"
#include "PelorinNet/Stun/HmacSHA1.h"
#include "Tests/Lab/Wait.h"

#include <arpa/inet.h>
#include <bit>
#include <chrono>
#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

namespace pelorin::lab {
namespace {

constexpr int portAttempts = 5; // others may take the port between the choice and its use

ByteView bytesOf(std::string_view text)
{
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::uint16_t freeUDPPort(const SocketAddress& host)
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in bound{};
    bound.sin_family = AF_INET;
    std::ranges::copy(host.host(), reinterpret_cast<std::uint8_t*>(&bound.sin_addr));
    socklen_t size = sizeof bound;
    require(::bind(fd, reinterpret_cast<sockaddr*>(&bound), size) == 0
            && ::getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &size) == 0,
        "a free UDP port");
    ::close(fd);
    return ntohs(bound.sin_port);
}

} // namespace

TurnServer::TurnServer(const Options& options)
{
    listening = SocketAddress::parse(options.host, options.port).value_or(SocketAddress{});
    require(listening.text().starts_with(options.host), "a TURN server needs an IPv4 literal");
    for (int attempt = 0; attempt < portAttempts; ++attempt) {
        if (options.port == 0) listening.port = freeUDPPort(listening);
        start(options);
        if (waitUntilListening()) return;
    }
    require(false, ("turnserver does not start:\n" + log()).c_str());
}

void TurnServer::start(const Options& options)
{
    const auto in = [&](const char* name) { return (folder.path() / name).string(); };
    std::vector<std::string> command = options.prefix;
    // Goes when its parent does, even when that is killed.
    command.insert(command.end(),
        {"setpriv", "--pdeathsig", "KILL", "turnserver", "--listening-ip=" + options.host,
            "--relay-ip=" + options.host, fmt::format("--listening-port={}", listening.port),
            "--relay-threads=1", "--log-file=stdout", "--verbose", "--pidfile=" + in("pid"),
            "--userdb=" + in("users")});
    if (!options.configuration.empty())
        command.insert(command.end(), {"-c", options.configuration});
    else
        command.insert(command.end(),
            {"-n", "--realm=lab.example", "--no-tcp", "--no-tls", "--no-dtls", "--no-tcp-relay", "--no-cli",
                "--no-rfc5780", "--allow-loopback-peers"});
    if (options.user)
        command.insert(command.end(),
            {"--lt-cred-mech",
                fmt::format("--user={}:{}", options.user->username, options.user->credential)});
    else if (options.configuration.empty())
        command.insert(command.end(), {"--use-auth-secret", fmt::format("--static-auth-secret={}", secret)});
    command.insert(command.end(), options.more.begin(), options.more.end());
    running = Process::start(std::move(command), {}, in("turn.log"));
}

bool TurnServer::waitUntilListening()
{
    eventually([&] { return isListening() || !running->isRunning(); });
    return running->isRunning() && isListening();
}

// As its own network namespace sees it.
bool TurnServer::isListening() const
{
    std::array<std::uint8_t, 4> host;
    std::ranges::copy(listening.host(), host.begin());
    const auto line = fmt::format(" {:08X}:{:04X} ", std::bit_cast<std::uint32_t>(host), listening.port);
    const auto table = contentOf(fmt::format("/proc/{}/net/udp", running->pid()));
    return table.find(line) != table.npos;
}

TurnCredentials TurnServer::credentials(const std::string& name, std::chrono::seconds validity)
{
    const auto expiry = std::chrono::system_clock::now() + validity;
    const auto username = fmt::format(
        "{}:{}", std::chrono::duration_cast<std::chrono::seconds>(expiry.time_since_epoch()).count(), name);
    return {username, base64EncodedString(hmacSHA1(bytesOf(secret), {bytesOf(username)}))};
}

} // namespace pelorin::lab
