#include "PelorinNet/Path/UDPSocket.h"

#include "PelorinNet/Channel/CallOut.h"
#include "PelorinNet/Log.h"
#include "PelorinNet/Path/DatagramRuns.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <unistd.h>

namespace pelorin {
namespace {

constexpr int bufferBytes = 4 * 1024 * 1024; // some 50 ms of the most that a proxy carries
constexpr std::size_t messagesPerBatch = 64;
constexpr std::size_t messageRoom = 65'536; // bytes; untouched pages of it cost nothing
// Batches read before others on the queue have their turn: under a flood, that many are read at a stretch.
constexpr int batchesPerTurn = 2;
constexpr int errorsPerTurn = 64;
constexpr std::size_t mostUnreachable = 64; // peers that wait to be reported
constexpr int sendAttempts = 4; // each takes away an older error that had waited

SocketAddress addressOf(const sockaddr_in& address)
{
    std::array<std::uint8_t, 4> host;
    std::memcpy(host.data(), &address.sin_addr, host.size());
    return SocketAddress::ipv4(host, ntohs(address.sin_port));
}

sockaddr_in systemAddress(const SocketAddress& address)
{
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(address.port);
    std::memcpy(&result.sin_addr, address.host().data(), sizeof result.sin_addr);
    return result;
}

// Of a send: the machine itself has no way to that peer. What an ICMP error said comes with its peer instead.
bool isNoRoute(int error)
{
    return error == ENETUNREACH || error == EHOSTUNREACH || error == ENETDOWN || error == EHOSTDOWN
        || error == EACCES || error == EPERM || error == EADDRNOTAVAIL;
}

// A run that the kernel or the device won't cut; the datagrams of it may still go one by one.
bool isRefusedMerging(int error)
{
    return error == EIO || error == EINVAL || error == EMSGSIZE;
}

struct ReceiveBuffers {
    ReceiveBuffers() : bytes(std::make_unique_for_overwrite<std::uint8_t[]>(messagesPerBatch * messageRoom))
    {
        for (std::size_t i = 0; i < messagesPerBatch; ++i)
            vectors[i] = {bytes.get() + i * messageRoom, messageRoom};
    }

    // What the kernel wrote into the ones used last is set anew.
    std::span<datagramCalls::Message> readied()
    {
        for (std::size_t i = 0; i < used; ++i) {
            msghdr& header = messages[i].msg_hdr;
            header = {};
            header.msg_name = &sources[i];
            header.msg_namelen = sizeof sources[i];
            header.msg_iov = &vectors[i];
            header.msg_iovlen = 1;
            header.msg_control = controls[i].bytes.data();
            header.msg_controllen = controls[i].bytes.size();
        }
        used = 0;
        return messages;
    }

    struct alignas(cmsghdr) Control {
        std::array<std::uint8_t, datagramCalls::controlSize> bytes;
    };
    std::unique_ptr<std::uint8_t[]> bytes;
    std::array<iovec, messagesPerBatch> vectors;
    std::array<sockaddr_in, messagesPerBatch> sources;
    std::array<Control, messagesPerBatch> controls;
    std::array<datagramCalls::Message, messagesPerBatch> messages;
    std::size_t used = messagesPerBatch;
};

// Queue: the one given; close from any thread. Owns the descriptor.
class SystemUDPSocket final : public UDPSocket {
public:
    SystemUDPSocket(QueueRef newQueue, int newFd) : queue(std::move(newQueue)), fd(newFd) {}
    ~SystemUDPSocket() override
    {
        isClosed = true;
        release();
    }

    std::optional<NetError> bind(const std::string& host, std::uint16_t port);
    void start(UDPMechanisms allowed);

    void send(ByteView datagram, const SocketAddress& to) override;
    void enqueue(ByteView head, ByteView body, ByteView tail, const SocketAddress& to) override;
    void flush() override;
    std::uint64_t lostSends() const override { return lost; }
    const SocketAddress& localAddress() const override { return local; }
    void close() override;

private:
    void setBuffers();
    void readable();
    int receive(ReceiveBuffers& into);
    void deliver(ReceiveBuffers& batch, std::size_t count, const Lifetime::Watch& alive);
    void sendAll(DatagramRuns& runs);
    int trySend(std::span<datagramCalls::Message> messages);
    void sendFailed(DatagramRuns& runs, std::size_t index);
    bool takeErrors();
    void noteUnreachable(const SocketAddress& peer, int error);
    void reportUnreachable();
    void release();

    const QueueRef queue;
    SocketAddress local;
    UDPMechanisms mechanisms;
    std::shared_ptr<ReceiveBuffers> buffers = std::make_shared<ReceiveBuffers>();
    DatagramRuns enqueued, immediate;
    std::uint64_t lost = 0;
    std::vector<std::pair<SocketAddress, int>> unreachable; // not yet reported

    std::mutex lock; // held during every call on fd, so that none happens after close
    std::atomic<bool> isClosed = false; // written under lock
    int fd; // released on the queue only, as the watch looks at it
    Subscription watch;
    Lifetime lifetime;
};

std::optional<NetError> SystemUDPSocket::bind(const std::string& host, std::uint16_t port)
{
    sockaddr_in wanted{};
    wanted.sin_family = AF_INET;
    wanted.sin_port = htons(port);
    int error = EINVAL;
    if (::inet_pton(AF_INET, host.c_str(), &wanted.sin_addr) == 1)
        error = ::bind(fd, reinterpret_cast<const sockaddr*>(&wanted), sizeof wanted) == 0 ? 0 : errno;
    if (error) return NetError{fmt::format("bind {}:{}: errno {}", host, port, error)};
    sockaddr_in bound{};
    socklen_t size = sizeof bound;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &size);
    local = addressOf(bound);
    return std::nullopt;
}

void SystemUDPSocket::start(UDPMechanisms allowed)
{
    mechanisms = datagramCalls::enable(fd, allowed);
    setBuffers();
    watch = queue->whenReadable(fd, [this] { readable(); });
}

void SystemUDPSocket::setBuffers()
{
    for (const int option : {SO_RCVBUF, SO_SNDBUF}) datagramCalls::setBufferSize(fd, option, bufferBytes);
    const int receiveBytes = datagramCalls::bufferSize(fd, SO_RCVBUF);
    const int sendBytes = datagramCalls::bufferSize(fd, SO_SNDBUF);
    if (receiveBytes >= bufferBytes && sendBytes >= bufferBytes) return;
    Log("path").info("UDP buffers of {} are {} bytes to receive and {} to send; {} were asked for",
        local.text(), receiveBytes, sendBytes, bufferBytes);
}

void SystemUDPSocket::readable()
{
    const auto alive = lifetime.watch();
    const auto batch = buffers; // what was received outlives us, should a callback destroy us
    for (int turn = 0; turn < batchesPerTurn; ++turn) {
        const int count = receive(*batch);
        if (count <= 0) return;
        deliver(*batch, std::size_t(count), alive);
        if (!alive || isClosed) return;
        callOut(onBatchEnd, alive);
        if (!alive || count < int(messagesPerBatch)) return;
    }
}

int SystemUDPSocket::receive(ReceiveBuffers& into)
{
    const std::lock_guard guard(lock);
    if (isClosed) return 0;
    int count = datagramCalls::receive(fd, into.readied(), mechanisms);
    // An error of an earlier send stands before what has arrived.
    if (count <= 0 && takeErrors()) count = datagramCalls::receive(fd, into.readied(), mechanisms);
    into.used = std::size_t(std::max(count, 0)); // a failed call writes nothing
    return count;
}

void SystemUDPSocket::deliver(ReceiveBuffers& batch, std::size_t count, const Lifetime::Watch& alive)
{
    for (std::size_t i = 0; i < count; ++i) {
        ByteView bytes{
            static_cast<const std::uint8_t*>(batch.vectors[i].iov_base), batch.messages[i].msg_len};
        const SocketAddress source = addressOf(batch.sources[i]);
        const std::size_t segment
            = datagramCalls::segmentSize(batch.messages[i].msg_hdr).value_or(bytes.size());
        do {
            const std::size_t size = std::min(segment, bytes.size());
            callOut(onReceive, alive, bytes.first(size), source);
            if (!alive || isClosed) return;
            bytes = bytes.subspan(size);
        } while (!bytes.empty());
    }
}

void SystemUDPSocket::send(ByteView datagram, const SocketAddress& to)
{
    queue->assertCurrent();
    if (!to.isIPv4()) return void(++lost);
    immediate.add({datagram}, systemAddress(to), false);
    sendAll(immediate);
}

void SystemUDPSocket::enqueue(ByteView head, ByteView body, ByteView tail, const SocketAddress& to)
{
    queue->assertCurrent();
    if (!to.isIPv4()) return void(++lost);
    enqueued.add({head, body, tail}, systemAddress(to), mechanisms.merging);
}

void SystemUDPSocket::flush()
{
    queue->assertCurrent();
    if (!enqueued.isEmpty()) sendAll(enqueued);
}

void SystemUDPSocket::sendAll(DatagramRuns& runs)
{
    const auto messages = runs.messages();
    {
        const std::lock_guard guard(lock);
        for (std::size_t next = 0; next < messages.size() && !isClosed;) {
            const int count = trySend(messages.subspan(next));
            if (count > 0) {
                next += std::size_t(count);
                continue;
            }
            sendFailed(runs, next++);
        }
    }
    runs.clear();
}

// Fails with an error that concerns the first message alone.
int SystemUDPSocket::trySend(std::span<datagramCalls::Message> messages)
{
    int count = -1;
    for (int attempt = 0; attempt < sendAttempts && count < 0; ++attempt) {
        count = datagramCalls::send(fd, messages, mechanisms);
        if (count >= 0 || errno == EAGAIN || errno == ENOBUFS) break;
        const int error = errno;
        // Most often not about this message: an ICMP error that came back for an earlier one.
        takeErrors();
        errno = error;
    }
    return count;
}

void SystemUDPSocket::sendFailed(DatagramRuns& runs, std::size_t index)
{
    const int error = errno;
    if (runs.datagrams(index) > 1 && isRefusedMerging(error)) {
        DatagramRuns single = runs.cut(index);
        const auto messages = single.messages();
        bool isAnySent = false;
        for (std::size_t i = 0; i < messages.size(); ++i) {
            if (trySend(messages.subspan(i, 1)) > 0)
                isAnySent = true;
            else
                sendFailed(single, i);
        }
        // Should none have gone, it may have been the peer. More runs of this batch may fail the same way.
        if (!isAnySent || !std::exchange(mechanisms.merging, false)) return;
        Log("path").info("Sending merged datagrams from {} failed: errno {}; they go one by one from now on",
            local.text(), error);
        return;
    }
    lost += std::uint64_t(runs.datagrams(index));
    if (isNoRoute(error)) noteUnreachable(addressOf(runs.peer(index)), error);
}

// Under lock. Whether there were any.
bool SystemUDPSocket::takeErrors()
{
    int count = 0;
    while (count < errorsPerTurn) {
        const auto error = datagramCalls::takePeerError(fd);
        if (!error) break;
        ++count;
        // Too large for the path: the kernel cuts what follows to fit.
        if (error->errorNumber != EMSGSIZE) noteUnreachable(addressOf(error->peer), error->errorNumber);
    }
    return count > 0;
}

void SystemUDPSocket::noteUnreachable(const SocketAddress& peer, int error)
{
    const auto isSame = [&](const auto& noted) { return noted.first == peer; };
    if (unreachable.size() >= mostUnreachable || std::ranges::any_of(unreachable, isSame)) return;
    unreachable.emplace_back(peer, error);
    if (unreachable.size() > 1) return;
    queue->post([this, alive = lifetime.watch()] {
        if (alive) reportUnreachable();
    });
}

void SystemUDPSocket::reportUnreachable()
{
    const auto alive = lifetime.watch();
    for (const auto& [peer, error] : std::exchange(unreachable, {})) {
        if (isClosed) return;
        callOut(onUnreachable, alive, peer, error);
        if (!alive) return;
    }
}

void SystemUDPSocket::close()
{
    {
        const std::lock_guard guard(lock);
        isClosed = true;
    }
    if (queue->isCurrent()) return release();
    queue->post([this, alive = lifetime.watch()] {
        if (alive) release();
    });
}

void SystemUDPSocket::release()
{
    watch.cancel();
    if (fd >= 0) ::close(std::exchange(fd, -1));
}

} // namespace

Result<std::unique_ptr<UDPSocket>, NetError> UDPSocket::open(
    const std::string& host, std::uint16_t port, QueueRef queue, UDPMechanisms allowed)
{
    queue->assertCurrent();
    const int fd = datagramCalls::open();
    if (fd < 0) return std::unexpected(NetError{fmt::format("socket: errno {}", errno)});
    auto opened = std::make_unique<SystemUDPSocket>(std::move(queue), fd);
    if (auto error = opened->bind(host, port)) return std::unexpected(std::move(*error));
    opened->start(allowed);
    return opened;
}

} // namespace pelorin
