#include "PelorinHost/Shell/ControlClient.h"

#include "PelorinHost/Shell/ControlSocket.h"

#include <fmt/format.h>
#include <sys/socket.h>

namespace pelorin {
namespace {

constexpr std::size_t maxReplyBytes = 1 << 20;

} // namespace

Result<std::string, std::string> askHost(
    const std::filesystem::path& directory, const std::string& request, std::chrono::seconds patience)
{
    const auto socket = connectLocally(directory / ControlSocket::fileName);
    if (!socket)
        return std::unexpected(fmt::format("no host runs in {} ({})", directory.string(), socket.error()));
    const timeval limit{patience.count(), 0};
    ::setsockopt(socket->get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    const std::string line = request + "\n";
    if (::send(socket->get(), line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size()))
        return std::unexpected("the host does not take requests");
    std::string reply;
    char chunk[4096];
    ssize_t count = 0;
    while ((count = ::recv(socket->get(), chunk, sizeof chunk, 0)) > 0 && reply.size() < maxReplyBytes)
        reply.append(chunk, static_cast<std::size_t>(count));
    if (count < 0 || reply.empty()) return std::unexpected("the host did not answer");
    return reply;
}

} // namespace pelorin
