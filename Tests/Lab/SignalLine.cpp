#include "Tests/Lab/SignalLine.h"

#include "PelorinCore/Result.h"
#include "Tests/Lab/Wait.h"

#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace pelorin::lab {
namespace {

sockaddr_un addressOf(const std::filesystem::path& file)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    require(file.string().size() < sizeof address.sun_path, "a socket's path is short");
    file.string().copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

int makeSocket()
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    require(fd >= 0, "a Unix socket");
    return fd;
}

} // namespace

int SignalLine::listen(const std::filesystem::path& at)
{
    const int listening = makeSocket();
    const auto address = addressOf(at);
    require(::bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0
            && ::listen(listening, 1) == 0,
        "a signalling socket");
    const int accepted = ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
    require(accepted >= 0, "the other end");
    ::close(listening);
    return accepted;
}

int SignalLine::connect(const std::filesystem::path& to)
{
    const int fd = makeSocket();
    const auto address = addressOf(to);
    require(eventually([&] {
        return ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }),
        "the other end is not there");
    return fd;
}

SignalLine::SignalLine(int newSocket, Duration newDelay, QueueRef newQueue)
    : socket(newSocket),
      delay(newDelay),
      queue(std::move(newQueue))
{
    watch = queue->whenReadable(socket, [this] { read(); });
}

SignalLine::~SignalLine()
{
    watch.cancel();
    ::close(socket);
}

void SignalLine::send(const nlohmann::json& message)
{
    queue->assertCurrent();
    queue->postAfter(delay, [this, line = message.dump() + "\n", alive = lifetime.watch()] {
        if (alive) ::send(socket, line.data(), line.size(), MSG_NOSIGNAL);
    });
}

void SignalLine::read()
{
    char chunk[4096];
    const ssize_t size = ::recv(socket, chunk, sizeof chunk, MSG_DONTWAIT);
    if (size <= 0) {
        watch.cancel();
        if (onEnd) onEnd();
        return;
    }
    partial.append(chunk, std::size_t(size));
    const auto alive = lifetime.watch();
    for (std::size_t end = 0; alive && (end = partial.find('\n')) != std::string::npos;) {
        const auto message = nlohmann::json::parse(partial.substr(0, end));
        partial.erase(0, end + 1);
        if (onMessage) onMessage(message);
    }
}

} // namespace pelorin::lab
