#include "PelorinNet/Channel/TcpChannel.h"

#include "PelorinNet/Channel/LinkedChannel.h"
#include "PelorinNet/Channel/SendQueue.h"
#include "PelorinNet/Channel/TcpSocket.h"

#include <boost/asio/bind_executor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <fmt/format.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <utility>

namespace pelorin {
namespace asio = boost::asio;
using boost::system::error_code;

namespace {

// A frame of 100 KB in one read; untouched pages of an idle connection's buffer cost nothing.
constexpr std::size_t receiveBufferSize = 128 * 1024;

// Bytes that the kernel may hold beyond those in flight. It reports the socket writable, which completes our
// sends, below this (after a wait: below half). At 5 Mbit/s 32 KiB are some 50 ms of picture that could no
// longer be dropped; at 1 Gbit/s half of it still bridges 130 µs, the worst wake-up of a busy thread. The
// send buffer itself stays the kernel's to tune: it then holds little more than what is in flight, and a
// fixed size would cap fast long paths.
constexpr int unsentInKernel = 32 * 1024;

constexpr std::size_t maxGathered = 64; // buffers in one write; more are rare, Asio passes no more
constexpr auto finishTimeout = std::chrono::seconds(1);

// An IPv4 peer of an IPv6 socket is shown, and judged, as the IPv4 address it is.
std::string hostText(const asio::ip::address& address)
{
    const bool isMapped = address.is_v6() && address.to_v6().is_v4_mapped();
    return isMapped ? asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6()).to_string()
                    : address.to_string();
}

std::string endpointText(const asio::ip::tcp::endpoint& endpoint)
{
    const std::string host = hostText(endpoint.address());
    const bool isV6 = host.contains(':');
    return fmt::format("{}{}{}:{}", isV6 ? "[" : "", host, isV6 ? "]" : "", endpoint.port());
}

class TcpLink;
using TcpChannel = LinkedChannel<TcpLink>;

// The socket and what goes through it. Queue: the one given to start. Owned by the channel and by the
// handlers that wait for the socket, which keep it while it finishes without its channel.
class TcpLink : public std::enable_shared_from_this<TcpLink> {
public:
    TcpLink(EngineRef newEngine, TcpSocket newSocket);

    void start(QueueRef newQueue, TcpChannel* newChannel);
    void send(std::vector<Bytes> parts, Task onSent);
    void finish();
    void close();

    std::size_t unsentBytes() const { return sends.byteCount(); }
    std::string remoteAddress() const { return hostText(remote.address()); }
    std::string pathDescription() const { return "tcp " + endpointText(remote); }

private:
    void receive();
    void received(error_code error, std::size_t count);
    void peerEnded();
    void write();
    void writeFailed(error_code error);
    void awaitWritable();
    bool isWritable();
    void writable();
    void endSending();
    void closeAndReport(std::optional<NetError> error);
    void assertMayTouch() const;
    template <class Handler>
    auto onQueue(Handler handler) const
    {
        return asio::bind_executor(strandOf(*queue), std::move(handler));
    }

    const EngineRef engine;
    TcpSocket socket;
    asio::steady_timer finishTimer;
    asio::ip::tcp::endpoint remote;
    QueueRef queue; // set by start
    TcpChannel* channel = nullptr; // while it wants to be told
    std::unique_ptr<std::uint8_t[]> receiveBuffer;
    SendQueue sends;
    std::vector<Task> taken; // of sends whose last byte the kernel has, until it is ready for more
    bool isAwaitingWritable = false;
    bool isFinishing = false;
    bool hasPeerEnded = false;
    error_code writeError; // reported after all that was received before it
};

TcpLink::TcpLink(EngineRef newEngine, TcpSocket newSocket)
    : engine(std::move(newEngine)),
      socket(std::move(newSocket)),
      finishTimer(engine->context)
{
    // Each of these fails only when the peer is gone already, which the first read reports.
    error_code ignored;
    remote = socket.remote_endpoint(ignored);
    socket.non_blocking(true, ignored);
    socket.set_option(asio::ip::tcp::no_delay(true), ignored);
    ::setsockopt(
        socket.native_handle(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, &unsentInKernel, sizeof unsentInKernel);
}

void TcpLink::start(QueueRef newQueue, TcpChannel* newChannel)
{
    require(!queue, "a channel is started once");
    queue = std::move(newQueue);
    queue->assertCurrent();
    channel = newChannel;
    receiveBuffer = std::make_unique_for_overwrite<std::uint8_t[]>(receiveBufferSize);
    receive();
}

void TcpLink::receive()
{
    socket.async_read_some(asio::buffer(receiveBuffer.get(), receiveBufferSize),
        onQueue([self = shared_from_this()](
                    error_code error, std::size_t count) { self->received(error, count); }));
}

void TcpLink::received(error_code error, std::size_t count)
{
    if (!socket.is_open()) return;
    if (error == asio::error::eof) return peerEnded();
    if (error) return closeAndReport(NetError{error.message()});
    if (channel) channel->reportBytes(ByteView(receiveBuffer.get(), count));
    if (socket.is_open()) receive();
}

void TcpLink::peerEnded()
{
    hasPeerEnded = true;
    if (isFinishing && !sends.isEmpty()) return; // it may have only finished too, and still read
    closeAndReport(writeError ? std::optional(NetError{writeError.message()}) : std::nullopt);
}

void TcpLink::send(std::vector<Bytes> parts, Task onSent)
{
    require(queue != nullptr, "a channel sends only after its start");
    queue->assertCurrent();
    if (!channel || writeError) return;
    sends.append(std::move(parts), std::move(onSent));
    if (!isAwaitingWritable) write();
}

void TcpLink::write()
{
    std::vector<asio::const_buffer> buffers;
    for (const ByteView view : sends.front(maxGathered)) buffers.emplace_back(view.data(), view.size());
    error_code error;
    const std::size_t count = socket.write_some(buffers, error);
    if (error && error != asio::error::would_block) return writeFailed(error);
    for (auto& onSent : sends.take(count)) taken.push_back(std::move(onSent));
    if (!sends.isEmpty() || !taken.empty())
        awaitWritable();
    else if (isFinishing)
        endSending();
}

// What the peer sent before it went is still to be read; the end of that closes and reports.
void TcpLink::writeFailed(error_code error)
{
    if (isFinishing) return close();
    writeError = error;
    const auto dropped = std::exchange(sends, {});
    error_code ignored;
    socket.shutdown(TcpSocket::shutdown_both, ignored);
}

// Sends made until then go out together. The socket is asked first, as nearly always the answer is yes and
// the way through the reactor costs a wake-up; and asked again after a wait, as the reactor's answer may be
// outdated.
void TcpLink::awaitWritable()
{
    isAwaitingWritable = true;
    if (!socket.is_open() || isWritable())
        return asio::post(strandOf(*queue), [self = shared_from_this()] { self->writable(); });
    socket.async_wait(
        TcpSocket::wait_write, onQueue([self = shared_from_this()](error_code) { self->awaitWritable(); }));
}

bool TcpLink::isWritable()
{
    pollfd polled{socket.native_handle(), POLLOUT, 0};
    return ::poll(&polled, 1, 0) > 0;
}

void TcpLink::writable()
{
    for (auto& onSent : std::exchange(taken, {}))
        if (channel) onSent();
    isAwaitingWritable = false;
    if (!socket.is_open()) return;
    if (!sends.isEmpty())
        write();
    else if (isFinishing)
        endSending();
}

// Lets the peer's words go by until it closes too: closing over unread bytes would reset the connection and
// take from the peer what it has not read yet.
void TcpLink::finish()
{
    assertMayTouch();
    if (!queue || !socket.is_open()) return close();
    channel = nullptr;
    isFinishing = true;
    const auto waitingTasks = sends.takeTasks();
    const auto takenTasks = std::exchange(taken, {});
    finishTimer.expires_after(finishTimeout);
    finishTimer.async_wait(onQueue([self = shared_from_this()](error_code) { self->close(); }));
    if (!isAwaitingWritable) endSending();
}

void TcpLink::endSending()
{
    error_code ignored;
    socket.shutdown(TcpSocket::shutdown_send, ignored);
    if (hasPeerEnded) close();
}

void TcpLink::closeAndReport(std::optional<NetError> error)
{
    // Kept to the end: a dropped task may own the channel that is told.
    const auto keptSends = std::exchange(sends, {});
    const auto keptTaken = std::exchange(taken, {});
    TcpChannel* const told = channel;
    close();
    if (told) told->reportClosed(std::move(error));
}

void TcpLink::close()
{
    assertMayTouch();
    channel = nullptr;
    finishTimer.cancel();
    error_code ignored;
    socket.close(ignored);
    const auto droppedSends = std::exchange(sends, {});
    const auto droppedTaken = std::exchange(taken, {});
}

void TcpLink::assertMayTouch() const
{
    if (queue && !engine->isStopped()) queue->assertCurrent();
}

} // namespace

std::unique_ptr<Channel> makeTcpChannel(EngineRef engine, TcpSocket socket)
{
    return std::make_unique<TcpChannel>(std::make_shared<TcpLink>(std::move(engine), std::move(socket)));
}

} // namespace pelorin
