#include "PelorinHost/Shell/LocalSocket.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace pelorin {
namespace {

constexpr int backlog = 8;

std::unexpected<std::string> failure(const char* step, const std::filesystem::path& path)
{
    return std::unexpected(fmt::format("{} {}: {}", step, path.string(), std::strerror(errno)));
}

Result<sockaddr_un, std::string> addressOf(const std::filesystem::path& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string& text = path.native();
    if (text.size() >= sizeof address.sun_path)
        return std::unexpected(fmt::format("{} is too long for a socket's path", text));
    text.copy(address.sun_path, text.size());
    return address;
}

} // namespace

Result<OwnedDescriptor, std::string> listenLocally(const std::filesystem::path& path)
{
    const auto address = addressOf(path);
    if (!address) return std::unexpected(address.error());
    OwnedDescriptor socket(::socket(AF_UNIX, SOCK_STREAM, 0));
    if (!socket) return failure("socket for", path);
    ::fcntl(socket.get(), F_SETFD, FD_CLOEXEC);
    ::fcntl(socket.get(), F_SETFL, O_NONBLOCK);
    if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address) != 0)
        return failure("bind", path);
    // Nobody can connect before listen, so the mode is in force in time.
    if (::chmod(path.c_str(), 0600) != 0) return failure("chmod", path);
    if (::listen(socket.get(), backlog) != 0) return failure("listen on", path);
    return socket;
}

Result<OwnedDescriptor, std::string> connectLocally(const std::filesystem::path& path)
{
    const auto address = addressOf(path);
    if (!address) return std::unexpected(address.error());
    OwnedDescriptor socket(::socket(AF_UNIX, SOCK_STREAM, 0));
    if (!socket) return failure("socket for", path);
    ::fcntl(socket.get(), F_SETFD, FD_CLOEXEC);
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address) != 0)
        return failure("connect to", path);
    return socket;
}

} // namespace pelorin
