#include "PelorinNet/Channel/TcpChannel.h"
#include "PelorinNet/Log.h"
#include "Tests/PelorinNet/QueueHarness.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace pelorin;
using namespace std::chrono_literals;
using testing::EndsWith;
using testing::HasSubstr;

namespace {

// A peer with nothing of ours in it: a blocking socket of the system.
class RawSocket {
public:
    RawSocket() : fd(::socket(AF_INET, SOCK_STREAM, 0)) { EXPECT_GE(fd, 0); }
    ~RawSocket() { close(); }
    RawSocket(const RawSocket&) = delete;
    RawSocket& operator=(const RawSocket&) = delete;

    void bindLoopback()
    {
        const sockaddr_in address = loopback(0);
        EXPECT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    void connect(std::uint16_t port)
    {
        const sockaddr_in address = loopback(port);
        EXPECT_EQ(::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    std::uint16_t port() const
    {
        sockaddr_in address{};
        socklen_t size = sizeof address;
        EXPECT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size), 0);
        return ntohs(address.sin_port);
    }
    void setReceiveBuffer(int bytes)
    {
        EXPECT_EQ(::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes), 0);
    }
    void write(std::string_view text)
    {
        EXPECT_EQ(::write(fd, text.data(), text.size()), ssize_t(text.size()));
    }
    Bytes read(std::size_t size)
    {
        Bytes bytes(size);
        std::size_t got = 0;
        while (got < size) {
            const ssize_t count = ::read(fd, bytes.data() + got, size - got);
            if (count <= 0) break;
            got += count;
        }
        bytes.resize(got);
        return bytes;
    }
    void reset() // closes so that the peer sees a reset
    {
        const linger now{1, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &now, sizeof now);
        close();
    }
    void close()
    {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }

    int fd;

private:
    static sockaddr_in loopback(std::uint16_t port)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }
};

class TcpChannels : public testing::Test {
protected:
    TcpChannels() { listen("127.0.0.1"); }
    void TearDown() override
    {
        runOn([&] {
            channel.reset();
            listener.reset();
            connecting.cancel();
        });
    }

    void runOn(Task task) { harness.runOn(queue, std::move(task)); }
    bool waitUntil(const std::function<bool()>& condition) { return harness.waitUntil(queue, condition); }
    void listen(const std::string& address)
    {
        runOn([&] {
            listener = TcpListener::listen(harness.pool, queue, address, 0).value();
            listener->onConnection = [&](auto accepted) {
                channel = std::move(accepted);
                channel->onBytes = [&](ByteView bytes) { received.append(bytes.begin(), bytes.end()); };
                channel->onClosed = [&](auto error) { closed = error ? error->description : "in order"; };
                channel->start(queue);
            };
            port = listener->port();
        });
    }
    void connect(RawSocket& raw)
    {
        raw.connect(port);
        ASSERT_TRUE(waitUntil([&] { return channel != nullptr; }));
    }
    // What connectTcp answers: the error's text, or the path of the connection.
    std::string tryConnect(const std::string& host, std::uint16_t toPort, Duration timeout = 10s)
    {
        std::optional<std::string> answer;
        runOn([&] {
            connecting = connectTcp(harness.pool, queue, host, toPort, timeout, [&](auto result) {
                answer = result ? (*result)->pathDescription() : result.error().description;
            });
        });
        EXPECT_TRUE(waitUntil([&] { return answer.has_value(); }));
        return answer.value_or("");
    }

    PoolHarness harness;
    const QueueRef queue = harness.makeQueue();
    std::unique_ptr<TcpListener> listener;
    std::uint16_t port = 0;
    std::unique_ptr<Channel> channel; // the one accepted last
    std::string received;
    std::optional<std::string> closed;
    Subscription connecting;
};

} // namespace

TEST_F(TcpChannels, deliversWhatWasSentBeforeAHalfCloseAndThenClosesInOrder)
{
    RawSocket raw;
    connect(raw);
    raw.write("last words");
    ::shutdown(raw.fd, SHUT_WR);
    ASSERT_TRUE(waitUntil([&] { return closed.has_value(); }));
    EXPECT_EQ(received, "last words");
    EXPECT_EQ(closed, "in order");
}

TEST_F(TcpChannels, reportsAResetInTheSystemsWords)
{
    RawSocket raw;
    connect(raw);
    raw.write("x");
    ASSERT_TRUE(waitUntil([&] { return received == "x"; }));
    raw.reset();
    ASSERT_TRUE(waitUntil([&] { return closed.has_value(); }));
    EXPECT_EQ(closed, "Connection reset by peer");
}

TEST_F(TcpChannels, reportsAResetMetWhileWriting)
{
    RawSocket raw;
    connect(raw);
    runOn([&] { channel->send(Bytes(30'000'000)); });
    raw.reset();
    ASSERT_TRUE(waitUntil([&] { return closed.has_value(); }));
    EXPECT_NE(closed, "in order");
    runOn([&] { EXPECT_EQ(channel->unsentBytes(), 0u); });
}

TEST_F(TcpChannels, letsLittleWaitInTheKernelWhenThePeerStopsReadingAndGoesOnInOrder)
{
    constexpr std::size_t frame = 10'000;
    constexpr int receiveBuffer = 16 * 1024;
    RawSocket raw;
    raw.setReceiveBuffer(receiveBuffer);
    connect(raw);
    int completed = 0, begun = 0;
    std::function<void()> sendNext = [&] {
        channel->send(Bytes(frame, std::uint8_t(begun++)), [&] {
            ++completed;
            sendNext();
        });
    };
    runOn([&] {
        sendNext();
        sendNext();
    });
    // Nothing but a reader moves the count again; what follows holds whether or not it has stopped already.
    int stoppedAt = 0, unmoved = 0;
    ASSERT_TRUE(waitUntil([&] {
        unmoved = std::exchange(stoppedAt, completed) == completed ? unmoved + 1 : 0;
        return completed > 0 && unmoved > 1000;
    }));
    runOn([&] {
        EXPECT_LE(channel->unsentBytes(), 2 * frame);
        EXPECT_LE(completed * frame, 2u * receiveBuffer + 128u * 1024) << "frames pile up in the kernel";
    });

    const Bytes bytes = raw.read(200 * frame);
    ASSERT_EQ(bytes.size(), 200 * frame);
    for (std::size_t i = 0; i < bytes.size(); ++i) ASSERT_EQ(bytes[i], std::uint8_t(i / frame));
    runOn([&] { channel.reset(); });
}

TEST_F(TcpChannels, gathersSmallSendsOfOneTask)
{
    RawSocket raw;
    connect(raw);
    int completed = 0;
    runOn([&] {
        for (int i = 0; i < 50; ++i) channel->send({Bytes(2), Bytes(3)}, [&] { ++completed; });
    });
    EXPECT_EQ(raw.read(250).size(), 250u);
    EXPECT_TRUE(waitUntil([&] { return completed == 50; }));
    tcp_info info{};
    socklen_t size = sizeof info;
    ASSERT_EQ(::getsockopt(raw.fd, IPPROTO_TCP, TCP_INFO, &info, &size), 0);
    EXPECT_LE(info.tcpi_data_segs_in, 4u); // the first at once, the rest as many buffers as one write takes
}

TEST_F(TcpChannels, finishGivesUpAfterASecondOnAPeerThatNeverReads)
{
    RawSocket raw;
    connect(raw);
    const auto start = std::chrono::steady_clock::now();
    runOn([&] {
        channel->send(Bytes(30'000'000));
        channel->finish();
        channel.reset();
    });
    // A socket that is gone answers what we write with a reset.
    const auto isAlive = [&] { return ::send(raw.fd, "x", 1, MSG_NOSIGNAL) == 1; };
    EXPECT_TRUE(isAlive()) << "it still tries";
    ASSERT_TRUE(waitUntil([&] { return !isAlive(); }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1s);
}

TEST_F(TcpChannels, servesAThousandConnectionsAtOnce)
{
    constexpr int count = 1000;
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < 2 * count + 100) GTEST_SKIP() << "too few descriptors allowed";

    std::vector<std::unique_ptr<Channel>> servers, clients;
    std::vector<Subscription> attempts;
    int answered = 0;
    runOn([&] {
        listener->onConnection = [&](auto accepted) {
            Channel& server = *servers.emplace_back(std::move(accepted));
            server.onBytes = [&server](ByteView bytes) { server.send(Bytes(bytes.begin(), bytes.end())); };
            server.start(queue);
        };
        for (int i = 0; i < count; ++i)
            attempts.push_back(connectTcp(harness.pool, queue, "127.0.0.1", port, 20s, [&](auto result) {
                ASSERT_TRUE(result) << result.error().description;
                Channel& client = *clients.emplace_back(std::move(*result));
                client.onBytes = [&](ByteView bytes) { answered += int(bytes.size()); };
                client.start(queue);
                client.send(Bytes(1));
            }));
    });
    EXPECT_TRUE(waitUntil([&] { return answered == count; }));
    runOn([&] {
        clients.clear();
        servers.clear();
        attempts.clear();
    });
}

TEST_F(TcpChannels, connectsByNameAndAddressOfBothFamilies)
{
    listen("::");
    EXPECT_EQ(tryConnect("::1", port), "tcp [::1]:" + std::to_string(port));
    EXPECT_EQ(tryConnect("127.0.0.1", port), "tcp 127.0.0.1:" + std::to_string(port));
    EXPECT_THAT(tryConnect("localhost", port), testing::StartsWith("tcp "));

    RawSocket raw;
    runOn([&] { channel.reset(); });
    connect(raw);
    EXPECT_EQ(channel->remoteAddress(), "127.0.0.1") << "an IPv4 peer of an IPv6 socket";
    EXPECT_EQ(channel->pathDescription(), "tcp 127.0.0.1:" + std::to_string(raw.port()));
}

TEST_F(TcpChannels, saysWhyAConnectionFailed)
{
    RawSocket closedPort;
    closedPort.bindLoopback();
    EXPECT_THAT(tryConnect("127.0.0.1", closedPort.port()), EndsWith("Connection refused"));
    EXPECT_THAT(tryConnect(std::string(300, 'a'), port), HasSubstr("Cannot connect to aaa"));

    // A full backlog leaves the next attempts without an answer.
    RawSocket full, first, second;
    full.bindLoopback();
    ::listen(full.fd, 0);
    first.connect(full.port());
    EXPECT_THAT(tryConnect("127.0.0.1", full.port(), 50ms), EndsWith("Connection timed out"));
}

TEST_F(TcpChannels, neverAnswersACancelledAttempt)
{
    const auto captured = std::make_shared<int>();
    bool answered = false;
    for (const char* host : {"127.0.0.1", "localhost"})
        runOn([&] {
            connecting = connectTcp(
                harness.pool, queue, host, port, 5s, [&answered, captured](auto) { answered = true; });
            connecting = {};
        });
    EXPECT_EQ(captured.use_count(), 1);
    EXPECT_EQ(tryConnect("localhost", port),
        "tcp 127.0.0.1:" + std::to_string(port)); // what came before is through
    EXPECT_FALSE(answered);
}

TEST_F(TcpChannels, letsAConnectionsOwnerDropTheAttemptThatMadeIt)
{
    std::unique_ptr<Channel> made;
    const auto captured = std::make_shared<std::string>("captured");
    runOn([&] {
        connecting = connectTcp(harness.pool, queue, "127.0.0.1", port, 5s, [&, captured](auto result) {
            connecting = {};
            EXPECT_EQ(*captured, "captured");
            made = std::move(result).value();
        });
    });
    EXPECT_TRUE(waitUntil([&] { return made != nullptr; }));
    runOn([&] { made.reset(); });
}

TEST_F(TcpChannels, saysWhyItCannotListen)
{
    const auto tryListen = [&](const std::string& address, std::uint16_t wanted) {
        std::string text;
        runOn([&] {
            const auto result = TcpListener::listen(harness.pool, queue, address, wanted);
            text = result ? "listening" : result.error().description;
        });
        return text;
    };
    EXPECT_THAT(tryListen("127.0.0.1", port), EndsWith("Address already in use"));
    EXPECT_THAT(tryListen("192.0.2.1", 0), EndsWith("Cannot assign requested address"));
    EXPECT_THAT(tryListen("nowhere", 0), EndsWith("Invalid argument"));
}

TEST_F(TcpChannels, listensAgainAtOnceOnAPortWithOldConnections)
{
    RawSocket raw;
    connect(raw);
    runOn([&] {
        channel.reset(); // our side closes first and keeps the port in TIME_WAIT
        listener.reset();
        auto again = TcpListener::listen(harness.pool, queue, "127.0.0.1", port);
        EXPECT_TRUE(again) << again.error().description;
    });
}

TEST_F(TcpChannels, acceptsAgainAfterTheDescriptorsRanOut)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's own checks need descriptors";
#endif
    std::atomic<int> warnings = 0;
    Log::observe([&](LogLevel, std::string_view category, std::string_view text) {
        warnings += category == "tcp" && text.contains("Too many open files");
    });
    RawSocket raw;
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    const rlimit tight{64, before.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &tight);
    std::vector<int> hoard;
    for (int fd = 0; (fd = ::open("/dev/null", O_RDONLY)) >= 0;) hoard.push_back(fd);

    raw.connect(port);
    EXPECT_TRUE(waitUntil([&] { return warnings > 0; }));
    runOn([&] { EXPECT_EQ(channel, nullptr); });

    for (const int fd : hoard) ::close(fd);
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_TRUE(waitUntil([&] { return channel != nullptr; }));
    EXPECT_EQ(warnings, 1) << "one line a spell";
    Log::observe({});
}

TEST_F(TcpChannels, letsTheListenerGoInItsOwnCallbackAndThePoolWithEverythingOpen)
{
    RawSocket raw;
    const auto captured = std::make_shared<std::string>("captured");
    bool gone = false;
    runOn([&] {
        listener->onConnection = [&, captured](auto accepted) {
            channel = std::move(accepted);
            channel->start(queue);
            channel->send(Bytes(30'000'000), [captured] {});
            listener.reset();
            gone = *captured == "captured";
        };
    });
    raw.connect(port);
    ASSERT_TRUE(waitUntil([&] { return gone; }));

    auto other = std::make_unique<PoolHarness>();
    const QueueRef otherQueue = other->makeQueue();
    std::unique_ptr<Channel> orphan;
    std::unique_ptr<TcpListener> orphanListener;
    Subscription attempt;
    RawSocket peer;
    std::atomic<bool> accepted = false;
    other->runOn(otherQueue, [&] {
        orphanListener = TcpListener::listen(other->pool, otherQueue, "127.0.0.1", 0).value();
        orphanListener->onConnection = [&](auto made) {
            orphan = std::move(made);
            orphan->start(otherQueue);
            orphan->send(Bytes(30'000'000), [otherQueue] {});
            accepted = true;
        };
        attempt = connectTcp(other->pool, otherQueue, "localhost", 1, 5s, [otherQueue](auto) {});
        peer.connect(orphanListener->port());
    });
    ASSERT_TRUE(other->waitUntil(otherQueue, [&] { return accepted.load(); }));
    other.reset(); // before everything that lives on it
}
