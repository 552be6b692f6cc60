#include "Tests/Peers/RawPhone.h"

#include <arpa/inet.h>
#include <array>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace pelorin::peers {

RawPhone::RawPhone(std::uint16_t port) : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return;
    close(fd);
    fd = -1;
}

RawPhone::~RawPhone()
{
    if (fd >= 0) close(fd);
}

void RawPhone::vanish()
{
    const linger abort{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    close(fd);
    fd = -1;
}

bool RawPhone::send(ByteView bytes)
{
    while (!bytes.empty()) {
        const auto sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0) return false;
        bytes = bytes.subspan(static_cast<std::size_t>(sent));
    }
    return true;
}

bool RawPhone::sayHello(std::uint16_t version, ClientCapabilities capabilities)
{
    return send(
        message::Hello{version, "raw phone", Viewport{1280, 720, 1}, DisplaySettings{}, capabilities});
}

bool RawPhone::waitForClose(std::chrono::milliseconds within)
{
    const auto deadline = std::chrono::steady_clock::now() + within;
    while (next(deadline)) {}
    return isClosed;
}

std::optional<Message> RawPhone::next(std::chrono::steady_clock::time_point deadline)
{
    while (received.empty() && !isClosed) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd waiting{fd, POLLIN, 0};
        if (left.count() <= 0 || poll(&waiting, 1, static_cast<int>(left.count())) <= 0) return std::nullopt;
        std::array<std::uint8_t, 65536> chunk;
        const auto count = recv(fd, chunk.data(), chunk.size(), 0);
        if (count <= 0) {
            isClosed = true;
            break;
        }
        auto messages = decoder.feed(ByteView(chunk.data(), static_cast<std::size_t>(count)));
        if (!messages) {
            isClosed = true;
            break;
        }
        for (auto& message : *messages) received.push_back(std::move(message));
    }
    if (received.empty()) return std::nullopt;
    auto message = std::move(received.front());
    received.pop_front();
    return message;
}

} // namespace pelorin::peers
