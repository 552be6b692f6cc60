#include "PelorinNet/Log.h"
#include "PelorinNet/Path/UDPSocket.h"
#include "Tests/PelorinNet/QueueHarness.h"
#include "Tests/PelorinNet/RawUDP.h"

#include <atomic>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <netinet/udp.h>
#include <sys/resource.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

Bytes pattern(std::size_t size, std::size_t seed)
{
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = std::uint8_t(seed * 31 + i);
    return bytes;
}

class UDPSockets : public testing::Test {
protected:
    std::unique_ptr<UDPSocket> open(UDPMechanisms allowed = {})
    {
        return UDPSocket::open("127.0.0.1", 0, queue, allowed).value();
    }

    ManualQueues queues;
    const QueueRef queue = queues.makeQueue("dev.pelorin.path");
    RawUDP peer;
};

TEST_F(UDPSockets, carryTheSameDatagramsByEveryMechanism)
{
    std::vector<Bytes> sent;
    const std::size_t sizes[] = {1350, 1350, 1350, 700, 1350, 0, 0, 1, 1, 65'507, 65'507, 9'000, 1350};
    for (const std::size_t size : sizes) sent.push_back(pattern(size, sent.size()));
    for (int i = 0; i < 150; ++i) sent.push_back(pattern(1350, sent.size())); // more than one run
    for (int i = 0; i < 100; ++i) sent.push_back(pattern(8, sent.size())); // more than may be merged

    const UDPMechanisms mechanisms[] = {{true, true}, {true, false}, {false, true}, {false, false}};
    for (const auto& sending : mechanisms) {
        for (const auto& receiving : mechanisms) {
            const auto from = open(sending), to = open(receiving);
            std::vector<Bytes> received;
            int batches = 0;
            to->onReceive = [&](ByteView bytes, const SocketAddress& source) {
                EXPECT_EQ(source, from->localAddress());
                received.emplace_back(bytes.begin(), bytes.end());
            };
            to->onBatchEnd = [&] { ++batches; };
            for (const auto& bytes : sent) { // cut in three wherever it falls
                const ByteView view(bytes);
                const std::size_t head = std::min<std::size_t>(4, view.size() / 2), tail = view.size() / 3;
                from->enqueue(view.first(head), view.subspan(head, view.size() - head - tail),
                    view.last(tail), to->localAddress());
            }
            from->flush();
            from->flush(); // with nothing left
            queues.runReady();
            EXPECT_TRUE(received == sent);
            EXPECT_EQ(from->lostSends(), 0);
            EXPECT_GT(batches, 0);
            EXPECT_LT(batches, int(sent.size()));
        }
    }
}

TEST_F(UDPSockets, mergeRunsOfEqualSizeAndPeerOnly)
{
    const int on = 1;
    if (::setsockopt(peer.fd, IPPROTO_UDP, UDP_GRO, &on, sizeof on) != 0) GTEST_SKIP() << "no GRO here";
    const auto socket = open();
    RawUDP other;
    const struct {
        std::size_t size;
        bool isToOther;
    } datagrams[] = {{100, false}, {100, false}, {40, false}, {40, false}, {40, true}, {40, false},
        {60, false}, {60, false}, {61, false}};
    std::vector<Bytes> bytes;
    for (const auto& row : datagrams) bytes.push_back(pattern(row.size, bytes.size()));
    for (std::size_t i = 0; i < bytes.size(); ++i)
        socket->enqueue({}, bytes[i], {}, datagrams[i].isToOther ? other.address : peer.address);
    socket->flush();
    std::vector<std::size_t> arrived; // each read is what travelled as one
    for (const auto& run : peer.receive()) arrived.push_back(run.bytes.size());
    EXPECT_THAT(arrived, ElementsAre(240, 40, 40, 120, 61));
    EXPECT_EQ(other.receive().size(), 1);
}

TEST_F(UDPSockets, sendOneByOneOnceTheKernelRefusesARun)
{
    std::vector<std::string> lines;
    Log::observe([&](LogLevel, std::string_view, std::string_view text) { lines.emplace_back(text); });
    const auto socket = open();
    lines.clear();
    const int on = 1; // without checksums there is no cutting
    const int fd = RawUDP::descriptorOf(socket->localAddress());
    ASSERT_EQ(::setsockopt(fd, SOL_SOCKET, SO_NO_CHECK, &on, sizeof on), 0);

    std::vector<Bytes> sent;
    for (int i = 0; i < 120; ++i) sent.push_back(pattern(i == 119 ? 200 : 1350, sent.size())); // three runs
    for (int round = 0; round < 2; ++round) {
        for (const auto& bytes : sent) socket->enqueue({}, bytes, {}, peer.address);
        socket->flush();
        std::vector<Bytes> arrived;
        for (auto& datagram : peer.receive()) arrived.push_back(std::move(datagram.bytes));
        EXPECT_TRUE(arrived == sent);
    }
    EXPECT_EQ(socket->lostSends(), 0);
    EXPECT_THAT(lines, ElementsAre(HasSubstr("errno 22; they go one by one from now on")));
    Log::observe({});
}

TEST_F(UDPSockets, nameThePeerThatRefusedAndGoOn)
{
    const auto socket = open();
    std::vector<std::pair<SocketAddress, int>> unreachable;
    int received = 0;
    socket->onUnreachable
        = [&](const SocketAddress& who, int error) { unreachable.emplace_back(who, error); };
    socket->onReceive = [&](ByteView, const SocketAddress&) { ++received; };
    RawUDP gone, alsoGone;
    gone.close();
    alsoGone.close();
    for (int i = 0; i < 3; ++i) {
        socket->send(pattern(10, 0), gone.address); // each leaves an error that the next call meets
        socket->send(pattern(10, 0), alsoGone.address);
        socket->send(pattern(10, 0), peer.address);
    }
    peer.send(pattern(10, 0), socket->localAddress());
    queues.runReady(); // would not return if the error kept the socket readable
    EXPECT_THAT(
        unreachable, ElementsAre(Pair(gone.address, ECONNREFUSED), Pair(alsoGone.address, ECONNREFUSED)));
    EXPECT_EQ(peer.receive().size(), 3);
    EXPECT_EQ(received, 1);

    socket->send(pattern(10, 0), gone.address); // it is told again, and an arriving datagram is not held up
    peer.send(pattern(10, 0), socket->localAddress());
    queues.runReady();
    EXPECT_EQ(unreachable.size(), 3);
    EXPECT_EQ(received, 2);
}

TEST_F(UDPSockets, countWhatTheKernelDoesNotTake)
{
    const auto broadcast = SocketAddress::ipv4({255, 255, 255, 255}, 9);
    const struct {
        SocketAddress to;
        std::size_t size;
        bool isUnreachable;
    } rows[] = {
        {broadcast, 10, true}, // not permitted
        {SocketAddress::ipv4({127, 0, 0, 1}, 0), 10, false},
        {*SocketAddress::parse("::1", 9), 10, false},
        {peer.address, 65'508, false},
    };
    for (const auto& row : rows) {
        const auto socket = open();
        std::vector<SocketAddress> unreachable;
        socket->onUnreachable = [&](const SocketAddress& who, int) { unreachable.push_back(who); };
        const Bytes bytes(row.size);
        socket->send(bytes, row.to);
        for (int i = 0; i < 3; ++i) socket->enqueue({}, bytes, {}, row.to);
        socket->enqueue({}, ByteView(bytes).first(5), {}, peer.address);
        socket->flush();
        EXPECT_TRUE(unreachable.empty()) << "called from within";
        queues.runReady();
        EXPECT_EQ(socket->lostSends(), 4) << row.to.text();
        EXPECT_EQ(unreachable, std::vector<SocketAddress>(row.isUnreachable ? 1 : 0, row.to));
        EXPECT_EQ(peer.receive().size(), 1);
    }
}

TEST_F(UDPSockets, sayWhyTheyCannotBeOpened)
{
    const auto first = open();
    const std::uint16_t port = first->localAddress().port;
    const auto error = [&](const std::string& host, std::uint16_t wanted) {
        return UDPSocket::open(host, wanted, queue).error().description;
    };
    EXPECT_EQ(error("127.0.0.1", port), fmt::format("bind 127.0.0.1:{}: errno {}", port, EADDRINUSE));
    EXPECT_EQ(error("localhost", 0), fmt::format("bind localhost:0: errno {}", EINVAL));
    EXPECT_EQ(error("::1", 0), fmt::format("bind ::1:0: errno {}", EINVAL));
    EXPECT_EQ(error("203.0.113.1", 5), fmt::format("bind 203.0.113.1:5: errno {}", EADDRNOTAVAIL));
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(error("127.0.0.1", 0), fmt::format("socket: errno {}", EMFILE));
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

TEST_F(UDPSockets, haveTheBuffersTheyAskForOrSaySo)
{
    std::vector<std::string> lines;
    Log::observe([&](LogLevel, std::string_view, std::string_view text) { lines.emplace_back(text); });
    const auto socket = open();
    Log::observe({});
    const int fd = RawUDP::descriptorOf(socket->localAddress());
    bool isAsAsked = true;
    for (const int option : {SO_RCVBUF, SO_SNDBUF}) {
        int bytes = 0;
        socklen_t size = sizeof bytes;
        ASSERT_EQ(::getsockopt(fd, SOL_SOCKET, option, &bytes, &size), 0);
        isAsAsked = isAsAsked && bytes >= 2 * 4'194'304; // the kernel tells twice what holds payload
    }
    EXPECT_EQ(lines.size(), isAsAsked ? 0 : 1);
}

TEST_F(UDPSockets, leaveTheQueueToOthersDuringAFlood)
{
    const auto socket = open();
    int received = 0;
    std::optional<int> atOthersTurn;
    socket->onReceive = [&](ByteView, const SocketAddress&) {
        if (++received == 1) queue->post([&] { atOthersTurn = received; });
    };
    for (int i = 0; i < 1'000; ++i) peer.send(pattern(10, 0), socket->localAddress());
    queues.runReady();
    EXPECT_EQ(received, 1'000);
    EXPECT_LE(atOthersTurn.value(), 200);
}

TEST_F(UDPSockets, mayBeDestroyedOrClosedInAnyCallback)
{
    for (const bool isDestroyed : {true, false}) {
        for (const std::string where : {"onReceive", "onBatchEnd", "onUnreachable"}) {
            SCOPED_TRACE(where);
            auto socket = open();
            const SocketAddress address = socket->localAddress();
            Bytes seen;
            const auto end = [&, expected = pattern(500, 7)](ByteView bytes) {
                if (isDestroyed)
                    socket.reset();
                else
                    socket->close();
                seen.assign(bytes.begin(), bytes.end()); // still valid
            };
            socket->onReceive = [&](ByteView bytes, const SocketAddress&) {
                if (where == "onReceive") end(bytes);
            };
            socket->onBatchEnd = [&] {
                if (where == "onBatchEnd") end(pattern(500, 7));
            };
            socket->onUnreachable = [&](const SocketAddress&, int) {
                if (where == "onUnreachable") end(pattern(500, 7));
            };
            RawUDP gone, other;
            gone.close();
            other.close();
            for (const RawUDP* refusing : {&gone, &other}) socket->send(Bytes(5), refusing->address);
            for (int i = 0; i < 100; ++i) peer.send(pattern(500, 7), address);
            queues.runReady();
            EXPECT_EQ(seen, pattern(500, 7));
            if (isDestroyed) continue;
            socket->send(Bytes(5), peer.address);
            socket->enqueue({}, Bytes(5), {}, peer.address);
            socket->flush();
            socket->close();
            EXPECT_TRUE(peer.receive().empty());
            EXPECT_EQ(RawUDP::descriptorOf(address), -1);
        }
    }
}

TEST(UDPSocketOnAPool, isSilentOnceAnotherThreadHasClosedIt)
{
    for (int round = 0; round < 20; ++round) {
        PoolHarness harness;
        const QueueRef queue = harness.makeQueue();
        std::unique_ptr<UDPSocket> socket;
        std::atomic<int> received = 0;
        RawUDP peer;
        harness.runOn(queue, [&] {
            socket = UDPSocket::open("127.0.0.1", 0, queue).value();
            socket->onReceive = [&](ByteView, const SocketAddress& source) {
                ++received;
                socket->send(Bytes(1), source);
            };
        });
        const SocketAddress address = socket->localAddress();
        std::atomic<bool> isDone = false;
        std::thread flood([&] {
            while (!isDone) peer.send(Bytes(20), address);
        });
        while (received < 50) std::this_thread::yield();
        socket->close();
        const auto answered = [&] {
            std::size_t count = 0;
            for (auto more = peer.receive(); !more.empty(); more = peer.receive()) count += more.size();
            return count;
        };
        answered();
        EXPECT_EQ(answered(), 0); // nothing is sent after close has returned
        harness.runOn(queue, [] {});
        const int last = received;
        harness.runOn(queue, [] {});
        EXPECT_EQ(received, last);
        isDone = true;
        flood.join();
        harness.runOn(queue, [&] { socket.reset(); });
    }
}

} // namespace
} // namespace pelorin
