#include "PelorinHost/Shell/ControlSocket.h"

#include "PelorinHost/Platform/PeerCredentials.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <unistd.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t maxRequestBytes = 4096; // requests are a command and a name or two
constexpr std::size_t maxClients = 16;
constexpr auto patience = 5s; // for a whole request and the taking of its reply

bool isOurs(int socket)
{
    const auto user = peerUser(socket);
    return user && (*user == 0 || *user == ::geteuid());
}

} // namespace

Result<std::unique_ptr<ControlSocket>, std::string> ControlSocket::open(
    const std::filesystem::path& directory, QueueRef queue)
{
    std::error_code ignored; // opening it says what is wrong
    std::filesystem::create_directories(directory, ignored);
    OwnedDescriptor lock(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock) return std::unexpected(fmt::format("cannot open {}", directory.string()));
    // The lock goes with its process, however that ends; a socket file stays and says nothing about its host.
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0)
        return std::unexpected(fmt::format("another host runs in {}", directory.string()));
    const auto path = directory / fileName;
    ::unlink(path.c_str());
    auto listening = listenLocally(path);
    if (!listening) return std::unexpected(listening.error());
    return std::unique_ptr<ControlSocket>(
        new ControlSocket(path, std::move(lock), std::move(*listening), std::move(queue)));
}

ControlSocket::ControlSocket(
    std::filesystem::path newPath, OwnedDescriptor newLock, OwnedDescriptor newListening, QueueRef newQueue)
    : queue(std::move(newQueue)),
      path(std::move(newPath)),
      directoryLock(std::move(newLock)),
      listening(std::move(newListening)),
      connectable(queue->whenReadable(listening.get(), [this] { acceptClient(); }))
{
}

ControlSocket::~ControlSocket()
{
    ::unlink(path.c_str());
}

void ControlSocket::acceptClient()
{
    OwnedDescriptor socket(::accept(listening.get(), nullptr, nullptr));
    if (!socket) return;
    if (!isOurs(socket.get())) return log.warning("control connection of another user refused");
    if (clients.size() >= maxClients) return log.warning("too many control connections");
    ::fcntl(socket.get(), F_SETFD, FD_CLOEXEC);
    ::fcntl(socket.get(), F_SETFL, O_NONBLOCK);
    const ClientID id = ++lastID;
    Client& client = clients[id];
    client.socket = std::move(socket);
    client.readable = queue->whenReadable(client.socket.get(), [this, id] { readFrom(id); });
    client.patience = queue->after(patience, [this, id] { clients.erase(id); });
}

void ControlSocket::readFrom(ClientID id)
{
    Client& client = clients.at(id);
    char chunk[1024];
    const ssize_t count = ::recv(client.socket.get(), chunk, sizeof chunk, 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count <= 0) {
        clients.erase(id);
        return;
    }
    client.received.append(chunk, static_cast<std::size_t>(count));
    const auto end = client.received.find('\n');
    if (end == std::string::npos && client.received.size() < maxRequestBytes) return;
    if (end > maxRequestBytes) { // there is none, too
        clients.erase(id);
        return log.warning("control request too long");
    }
    client.readable.cancel(); // one request is all we take
    if (!onRequest) return;
    onRequest(client.received.substr(0, end), [this, id, alive = lifetime.watch()](const std::string& text) {
        if (alive) answer(id, text);
    });
}

// Replies are a few hundred bytes, a list of very many phones some ten thousands, which a socket takes at
// once; who let its buffer fill up gets a torn one.
void ControlSocket::answer(ClientID id, const std::string& text)
{
    const auto client = clients.find(id);
    if (client == clients.end()) return;
    const ssize_t sent = ::send(client->second.socket.get(), text.data(), text.size(), MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(text.size())) log.warning("control reply not taken");
    clients.erase(client);
}

} // namespace pelorin
