#include "PelorinPhone/RemoteConnect.h"

#include "PelorinNet/Channel/CallOut.h"
#include "PelorinNet/Path/NetworkWatch.h"

#include <utility>

namespace pelorin {
namespace {

// A connector with the watch that tells it of changes.
struct RemoteLine {
    RemoteLine(const QueueRef& queue, PhoneConnector::Means means, RemotePlace place)
        : connector(queue, std::move(means), std::move(place), std::nullopt),
          watch(queue)
    {
        watch.onChange = [this] { connector.networkChanged(); };
    }

    PhoneConnector connector;
    NetworkWatch watch;
};

// The stream of a connector's, which it keeps alive.
class RemoteChannel final : public Channel {
public:
    RemoteChannel(std::unique_ptr<Channel> newStream, std::shared_ptr<RemoteLine> newLine)
        : line(std::move(newLine)),
          stream(std::move(newStream))
    {
    }

    void start(QueueRef queue) override
    {
        stream->onBytes = std::move(onBytes);
        stream->onClosed = std::move(onClosed);
        stream->start(std::move(queue));
    }
    void send(std::vector<Bytes> parts, Task onSent) override
    {
        stream->send(std::move(parts), std::move(onSent));
    }
    std::size_t unsentBytes() const override { return stream->unsentBytes(); }
    void finish() override { stream->finish(); }
    std::string remoteAddress() const override { return stream->remoteAddress(); }
    std::string pathDescription() const override { return stream->pathDescription(); }

private:
    const std::shared_ptr<RemoteLine> line; // outlives the stream
    const std::unique_ptr<Channel> stream;
};

// Owned by its subscription, which the line outlives only inside a channel.
class RemoteAttempt final : public Subscription::State, public std::enable_shared_from_this<RemoteAttempt> {
public:
    RemoteAttempt(std::shared_ptr<RemoteLine> newLine, Connected newDone)
        : line(std::move(newLine)),
          done(std::move(newDone))
    {
    }

    void start(const RemoteReports& reports)
    {
        line->connector.onDone = [this, watch = weak_from_this(), reports](auto result) {
            if (const auto self = watch.lock()) finish(std::move(result), reports);
        };
        line->connector.onPathChange = reports.pathChanged;
        line->connector.start();
    }

    void cancel() override
    {
        done = {};
        line.reset();
    }

private:
    void finish(Result<PhoneConnector::Reached, PhoneConnector::Failure> result, const RemoteReports& reports)
    {
        const auto running = std::exchange(line, nullptr);
        // Either report may have us cancelled.
        if (!result && reports.failed) reports.failed(result.error());
        if (result && reports.reached)
            reports.reached(running->connector.steps(), result->channel->pathDescription());
        const auto report = std::exchange(done, {});
        if (!report) return;
        if (result)
            report(std::make_unique<RemoteChannel>(std::move(result->channel), running));
        else
            report(std::unexpected(NetError{result.error().text}));
    }

    std::shared_ptr<RemoteLine> line;
    Connected done;
};

// A channel that was started before its owner had it; what comes meanwhile waits.
class HeldChannel final : public Channel {
public:
    HeldChannel(std::unique_ptr<Channel> newInner, QueueRef newQueue)
        : inner(std::move(newInner)),
          queue(std::move(newQueue))
    {
    }

    // Starts it; told has either proved, once a first send goes out, or an error.
    void prove(std::function<void(std::optional<NetError>)> told)
    {
        inner->onBytes = [this](ByteView bytes) {
            if (isOwned && waiting.empty()) return callOut(onBytes, lifetime.watch(), bytes);
            waiting.insert(waiting.end(), bytes.begin(), bytes.end());
        };
        inner->onClosed = [this, told](const std::optional<NetError>& error) {
            const bool wasProved = isProved;
            closed = error;
            if (!wasProved) return told(error ? error : NetError{"the host closed the connection"});
            if (isOwned && waiting.empty()) report();
        };
        inner->start(queue);
        inner->send(Bytes{}, [this, told, alive = lifetime.watch()] {
            if (!alive) return;
            isProved = true;
            told(std::nullopt);
        });
    }

    void start(QueueRef) override
    {
        isOwned = true;
        queue->post([this, alive = lifetime.watch()] {
            if (!alive) return;
            const Bytes bytes = std::exchange(waiting, {});
            if (!bytes.empty()) callOut(onBytes, lifetime.watch(), ByteView(bytes));
            if (alive && closed) report();
        });
    }
    void send(std::vector<Bytes> parts, Task onSent) override
    {
        inner->send(std::move(parts), std::move(onSent));
    }
    std::size_t unsentBytes() const override { return inner->unsentBytes(); }
    void finish() override { inner->finish(); }
    std::string remoteAddress() const override { return inner->remoteAddress(); }
    std::string pathDescription() const override { return inner->pathDescription(); }
    std::string peerIdentity() const override { return inner->peerIdentity(); }

private:
    void report()
    {
        if (onClosed) std::exchange(onClosed, nullptr)(*closed);
    }

    const std::unique_ptr<Channel> inner;
    const QueueRef queue;
    bool isProved = false;
    bool isOwned = false;
    Bytes waiting;
    std::optional<std::optional<NetError>> closed;
    Lifetime lifetime;
};

// Owned by its subscription.
class EitherWay final : public Subscription::State, public std::enable_shared_from_this<EitherWay> {
public:
    EitherWay(QueueRef newQueue, Connected newDone) : queue(std::move(newQueue)), done(std::move(newDone)) {}

    void start(const Connect& tailnet, const Connect& remote)
    {
        const auto watch = weak_from_this();
        headStart = queue->after(tailnetHeadStart, [this] {
            isHeadStartOver = true;
            decide();
        });
        tailnetAttempt = tailnet([watch](auto made) {
            if (const auto self = watch.lock()) self->tailnetMade(std::move(made));
        });
        remoteAttempt = remote([watch](auto made) {
            if (const auto self = watch.lock()) self->remoteMade(std::move(made));
        });
    }

    void cancel() override
    {
        done = {};
        drop();
    }

private:
    void tailnetMade(Result<std::unique_ptr<Channel>, NetError> made)
    {
        if (!made) return tailnetFailed(made.error());
        tailnet = std::make_unique<HeldChannel>(std::move(*made), queue);
        tailnet->prove([watch = weak_from_this()](const std::optional<NetError>& error) {
            // Later, since it is the channel that calls.
            const auto self = watch.lock();
            if (!self) return;
            self->queue->post([watch, error] {
                const auto later = watch.lock();
                if (!later || !later->done) return;
                if (error) return later->tailnetFailed(*error);
                later->isTailnetProved = true;
                later->decide();
            });
        });
    }

    void tailnetFailed(const NetError& error)
    {
        tailnet.reset();
        tailnetError = error;
        decide();
    }

    void remoteMade(Result<std::unique_ptr<Channel>, NetError> made)
    {
        if (made)
            remote = std::move(*made);
        else
            remoteError = made.error();
        decide();
    }

    void decide()
    {
        if (isTailnetProved) return finish(std::move(tailnet));
        if (remote && (isHeadStartOver || tailnetError)) return finish(std::move(remote));
        if (tailnetError && remoteError)
            finish(std::unexpected(NetError{
                "over the tailnet: " + tailnetError->description + "; " + remoteError->description}));
    }

    void finish(Result<std::unique_ptr<Channel>, NetError> result)
    {
        const auto report = std::exchange(done, {});
        drop();
        if (report) report(std::move(result));
    }

    void drop()
    {
        headStart.cancel();
        tailnetAttempt.cancel();
        remoteAttempt.cancel();
        tailnet.reset();
        remote.reset();
    }

    const QueueRef queue;
    Connected done;
    Subscription headStart, tailnetAttempt, remoteAttempt;
    bool isHeadStartOver = false;
    bool isTailnetProved = false;
    std::unique_ptr<HeldChannel> tailnet;
    std::unique_ptr<Channel> remote;
    std::optional<NetError> tailnetError, remoteError;
};

} // namespace

Connect connectRemotely(QueueRef queue, PhoneConnector::Means means, RemotePlace place, RemoteReports reports)
{
    return [queue = std::move(queue), means = std::move(means), place = std::move(place),
               reports = std::move(reports)](Connected done) {
        const auto attempt = std::make_shared<RemoteAttempt>(
            std::make_shared<RemoteLine>(queue, means, place), std::move(done));
        attempt->start(reports);
        return Subscription(attempt);
    };
}

Connect connectEitherWay(QueueRef queue, Connect tailnet, Connect remote)
{
    return
        [queue = std::move(queue), tailnet = std::move(tailnet), remote = std::move(remote)](Connected done) {
            const auto both = std::make_shared<EitherWay>(queue, std::move(done));
            both->start(tailnet, remote);
            return Subscription(both);
        };
}

} // namespace pelorin
