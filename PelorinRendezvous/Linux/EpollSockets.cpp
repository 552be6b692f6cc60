#include "PelorinRendezvous/Linux/EpollSockets.h"

#include "PelorinNet/Log.h"

#include <algorithm>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>

namespace pelorin {
namespace {

constexpr std::size_t bufferSize = 64 * 1024;
constexpr int eventsAtOnce = 256; // then timers and posted work have their turn
constexpr int acceptsAtOnce = 64;
// After a refusal of the system, most often for want of descriptors; the connection waits in the backlog.
constexpr std::chrono::milliseconds acceptRetryDelay{100};
constexpr std::chrono::seconds tickPeriod{1};
constexpr ConnectionID listenerID = 0;

NetError systemError()
{
    return {std::strerror(errno)};
}

socklen_t systemAddress(const SocketAddress& address, sockaddr_storage& storage)
{
    if (address.isIPv4()) {
        auto& ipv4 = reinterpret_cast<sockaddr_in&>(storage);
        ipv4.sin_family = AF_INET;
        ipv4.sin_port = htons(address.port);
        std::memcpy(&ipv4.sin_addr, address.host().data(), address.host().size());
        return sizeof ipv4;
    }
    auto& ipv6 = reinterpret_cast<sockaddr_in6&>(storage);
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_port = htons(address.port);
    std::memcpy(&ipv6.sin6_addr, address.host().data(), address.host().size());
    return sizeof ipv6;
}

std::uint16_t boundPort(int descriptor)
{
    sockaddr_storage storage{};
    socklen_t size = sizeof storage;
    ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&storage), &size);
    return ntohs(storage.ss_family == AF_INET ? reinterpret_cast<sockaddr_in&>(storage).sin_port
                                              : reinterpret_cast<sockaddr_in6&>(storage).sin6_port);
}

IPAddress addressOf(const sockaddr_storage& storage)
{
    std::array<std::uint8_t, 16> bytes{};
    if (storage.ss_family == AF_INET6) {
        std::memcpy(bytes.data(), &reinterpret_cast<const sockaddr_in6&>(storage).sin6_addr, bytes.size());
    } else {
        bytes[10] = bytes[11] = 0xFF;
        std::memcpy(bytes.data() + 12, &reinterpret_cast<const sockaddr_in&>(storage).sin_addr, 4);
    }
    return IPAddress::fromIPv6(bytes);
}

// These say that one connection was lost while it waited; the next call gets another.
bool concernsOneConnection(int error)
{
    return error == ECONNABORTED || error == EINTR || error == EPROTO || error == EPERM;
}

} // namespace

Result<std::unique_ptr<EpollSockets>, NetError> EpollSockets::listen(
    QueueRef queue, const SocketAddress& address, std::shared_ptr<const ServerTls> tls)
{
    queue->assertCurrent();
    std::unique_ptr<EpollSockets> sockets(new EpollSockets(std::move(queue), std::move(tls)));
    if (auto error = sockets->open(address)) return std::unexpected(std::move(*error));
    return sockets;
}

EpollSockets::EpollSockets(QueueRef newQueue, std::shared_ptr<const ServerTls> newTls)
    : queue(std::move(newQueue)),
      tls(std::move(newTls)),
      buffer(std::make_unique_for_overwrite<std::uint8_t[]>(bufferSize))
{
}

EpollSockets::~EpollSockets() = default;

std::optional<NetError> EpollSockets::open(const SocketAddress& address)
{
    poller = OwnedDescriptor(::epoll_create1(EPOLL_CLOEXEC));
    const int family = address.isIPv4() ? AF_INET : AF_INET6;
    listener = OwnedDescriptor(::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!poller || !listener) return systemError();
    const int on = 1;
    const int off = 0;
    ::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    ::setsockopt(listener.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on); // its connections inherit it
    // "::" stands for every address of the machine, whatever the system's default.
    if (!address.isIPv4()) ::setsockopt(listener.get(), IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    sockaddr_storage storage{};
    const socklen_t size = systemAddress(address, storage);
    if (::bind(listener.get(), reinterpret_cast<sockaddr*>(&storage), size) != 0
        || ::listen(listener.get(), SOMAXCONN) != 0)
        return systemError();
    bound = address;
    bound.port = boundPort(listener.get());
    return std::nullopt;
}

void EpollSockets::serve(Service& newService)
{
    queue->assertCurrent();
    service = &newService;
    epoll_event interest{EPOLLIN, {.u64 = listenerID}};
    ::epoll_ctl(poller.get(), EPOLL_CTL_ADD, listener.get(), &interest);
    events = queue->whenReadable(poller.get(), [this] { handleEvents(); });
    ticking = queue->every(tickPeriod, [this] { endOverdue(); });
}

void EpollSockets::stop(Task newWhenAllGone)
{
    queue->assertCurrent();
    retry.cancel();
    listener = {};
    whenAllGone = std::move(newWhenAllGone);
    if (sockets.empty()) std::exchange(whenAllGone, nullptr)();
}

void EpollSockets::handleEvents()
{
    epoll_event ready[eventsAtOnce];
    const int count = ::epoll_wait(poller.get(), ready, eventsAtOnce, 0);
    for (int i = 0; i < count; ++i) {
        const ConnectionID id = ready[i].data.u64;
        if (id == listenerID)
            acceptAll();
        else
            receive(id);
    }
    flushAll();
}

void EpollSockets::acceptAll()
{
    for (int i = 0; i < acceptsAtOnce && listener; ++i) {
        sockaddr_storage storage{};
        socklen_t size = sizeof storage;
        OwnedDescriptor descriptor(::accept4(
            listener.get(), reinterpret_cast<sockaddr*>(&storage), &size, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (descriptor) {
            isFailing = false;
            accept(std::move(descriptor), addressOf(storage));
        } else if (errno == EAGAIN) {
            return;
        } else if (!concernsOneConnection(errno)) {
            return pauseAccepting();
        }
    }
}

void EpollSockets::accept(OwnedDescriptor descriptor, const IPAddress& address)
{
    const ConnectionID id = ++lastID;
    if (!service->opened(id, address)) return;
    epoll_event interest{EPOLLIN, {.u64 = id}};
    ::epoll_ctl(poller.get(), EPOLL_CTL_ADD, descriptor.get(), &interest);
    auto session = tls ? std::make_unique<TlsSession>(tls) : nullptr;
    sockets.try_emplace(id, std::move(descriptor), id, *service, std::move(session));
    receive(id); // where many come at once, the request is there by now
}

void EpollSockets::pauseAccepting()
{
    if (!std::exchange(isFailing, true))
        Log("rendezvous").warning("Cannot accept connections: {}; trying on", systemError().description);
    epoll_event none{0, {.u64 = listenerID}};
    ::epoll_ctl(poller.get(), EPOLL_CTL_MOD, listener.get(), &none);
    retry = queue->after(acceptRetryDelay, [this] {
        epoll_event interest{EPOLLIN, {.u64 = listenerID}};
        ::epoll_ctl(poller.get(), EPOLL_CTL_MOD, listener.get(), &interest);
    });
}

// One read a turn: who sends much does not keep the others waiting.
void EpollSockets::receive(ConnectionID id)
{
    Socket* const socket = find(id);
    if (!socket) return;
    const auto count = ::recv(socket->descriptor.get(), buffer.get(), bufferSize, 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return touched(id, *socket); // writable, perhaps
    if (count <= 0) return drop(id);
    socket->connection.receive(ByteView(buffer.get(), static_cast<std::size_t>(count)));
    touched(id, *socket);
}

EpollSockets::Socket* EpollSockets::find(ConnectionID id)
{
    const auto found = sockets.find(id);
    return found == sockets.end() ? nullptr : &found->second;
}

void EpollSockets::answer(ConnectionID id, std::string response)
{
    Socket* const socket = find(id);
    if (!socket) return;
    socket->connection.answer(response);
    touched(id, *socket);
}

void EpollSockets::upgrade(ConnectionID id, std::string response)
{
    Socket* const socket = find(id);
    if (!socket) return;
    socket->connection.upgrade(response);
    touched(id, *socket);
}

void EpollSockets::send(ConnectionID id, std::string_view text)
{
    Socket* const socket = find(id);
    if (!socket) return;
    socket->connection.send(text);
    touched(id, *socket);
}

std::size_t EpollSockets::unsentBytes(ConnectionID id) const
{
    const auto found = sockets.find(id);
    return found == sockets.end() ? 0 : found->second.connection.unsent().size();
}

void EpollSockets::close(ConnectionID id, WebSocket::CloseCode code, std::string_view reason)
{
    Socket* const socket = find(id);
    if (!socket) return;
    socket->connection.close(code, reason);
    touched(id, *socket);
}

// What is said in one turn goes out together.
void EpollSockets::touched(ConnectionID id, Socket& socket)
{
    if (std::exchange(socket.isDirty, true)) return;
    dirty.push_back(id);
    if (std::exchange(isFlushPosted, true)) return;
    queue->post([this, alive = lifetime.watch()] {
        if (alive) flushAll();
    });
}

void EpollSockets::flushAll()
{
    isFlushPosted = false;
    while (!dirty.empty()) // who is dropped may leave a word for others
        for (const ConnectionID id : std::exchange(dirty, {})) flush(id);
    if (whenAllGone && sockets.empty()) std::exchange(whenAllGone, nullptr)();
}

void EpollSockets::flush(ConnectionID id)
{
    Socket* const socket = find(id);
    if (!socket) return;
    socket->isDirty = false;
    if (!sendWhatFits(*socket)) return drop(id);
    const std::size_t unsent = socket->connection.unsent().size();
    if (unsent > Limits::unsent) return cutOff(id);
    watch(id, *socket, unsent > 0);
    if (socket->connection.isEnding()) setDeadline(id, *socket);
    if (socket->connection.isOver() && unsent == 0 && !std::exchange(socket->isShut, true))
        ::shutdown(socket->descriptor.get(), SHUT_WR);
}

bool EpollSockets::sendWhatFits(Socket& socket)
{
    while (true) {
        const ByteView unsent = socket.connection.unsent();
        if (unsent.empty()) return true;
        const auto count = ::send(socket.descriptor.get(), unsent.data(), unsent.size(), MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return errno == EAGAIN;
        socket.connection.takeSent(static_cast<std::size_t>(count));
    }
}

void EpollSockets::watch(ConnectionID id, Socket& socket, bool forWriting)
{
    if (std::exchange(socket.awaitsWritable, forWriting) == forWriting) return;
    epoll_event interest{EPOLLIN | (forWriting ? EPOLLOUT : 0U), {.u64 = id}};
    ::epoll_ctl(poller.get(), EPOLL_CTL_MOD, socket.descriptor.get(), &interest);
}

// The peer has so long to read our last words and to say goodbye.
void EpollSockets::setDeadline(ConnectionID id, Socket& socket)
{
    if (!std::exchange(socket.hasDeadline, true)) farewells.push_back({id, queue->now() + Limits::goodbye});
}

void EpollSockets::endOverdue()
{
    const SteadyTime now = queue->now();
    while (!farewells.empty() && farewells.front().end <= now) {
        const ConnectionID id = farewells.front().connection;
        farewells.pop_front();
        const Socket* const socket = find(id);
        if (!socket) continue;
        if (socket->connection.unsent().empty())
            drop(id);
        else
            cutOff(id);
    }
    flushAll();
}

// Without waiting for what the peer has not read.
void EpollSockets::cutOff(ConnectionID id)
{
    Socket* const socket = find(id);
    if (!socket) return;
    const linger atOnce{1, 0};
    ::setsockopt(socket->descriptor.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    drop(id);
}

void EpollSockets::drop(ConnectionID id)
{
    const auto found = sockets.find(id);
    if (found == sockets.end()) return;
    found->second.connection.leave();
    sockets.erase(id);
}

} // namespace pelorin
