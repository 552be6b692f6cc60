#include "PelorinNet/Channel/LoopbackPair.h"

#include "PelorinNet/Channel/CallOut.h"
#include "PelorinNet/Channel/SendQueue.h"

#include <algorithm>
#include <mutex>

namespace pelorin {
namespace {

class LoopbackEnd;

// How the other end's queue reaches an end; void once that has closed.
struct EndRef {
    QueueRef queue;
    Lifetime::Watch open;
    LoopbackEnd* end;
};

// The stream one way. Owned by both ends, which may live on different queues.
class Direction {
public:
    struct Chunk {
        Bytes bytes;
        std::vector<Task> finishedSends; // for completeSends once the bytes were given
        bool isEnd = false; // no bytes, and nothing follows
    };

    void setWriter(EndRef newWriter);
    void setReader(std::optional<EndRef> newReader);
    void setPaused(bool paused);

    void send(std::vector<Bytes> parts, Task onSent);
    // What the reader gets now, with the next one already asked for; nothing while it is paused.
    std::optional<Chunk> next(std::size_t maxSize);
    void completeSends(std::vector<Task> finishedSends);
    // Nothing more is sent; what waits goes with the end or before it. Returns the tasks that will not run,
    // for the writer to destroy.
    enum class Waiting { delivered, dropped };
    [[nodiscard]] std::vector<Task> end(Waiting fate);

    std::size_t byteCount() const;

private:
    void scheduleLocked();

    mutable std::mutex lock; // guards all below
    SendQueue waiting;
    std::optional<EndRef> writer;
    std::optional<EndRef> reader;
    bool isScheduled = false;
    bool isPaused = false;
    bool isEnded = false;
};

// Queue: the one given to start. Shares the directions with the other end. Owned by the session at its end.
class LoopbackEnd final : public Channel {
public:
    using DirectionRef = std::shared_ptr<Direction>;

    LoopbackEnd(LoopbackPair::Options newOptions, DirectionRef newIncoming, DirectionRef newOutgoing)
        : options(std::move(newOptions)),
          incoming(std::move(newIncoming)),
          outgoing(std::move(newOutgoing))
    {
    }
    ~LoopbackEnd() override { const auto dropped = close(Direction::Waiting::dropped); }

    void start(QueueRef newQueue) override;
    using Channel::send;
    void send(std::vector<Bytes> parts, Task onSent) override;
    std::size_t unsentBytes() const override { return outgoing->byteCount(); }
    void finish() override { const auto dropped = close(Direction::Waiting::delivered); }
    std::string remoteAddress() const override { return options.remoteAddress; }
    std::string pathDescription() const override { return options.pathDescription; }

    void deliverNext();

private:
    std::vector<Task> close(Direction::Waiting fate);

    const LoopbackPair::Options options;
    const DirectionRef incoming;
    const DirectionRef outgoing;
    QueueRef queue; // set by start
    bool isClosed = false;
    Lifetime openSpan; // ends with close
};

void Direction::setWriter(EndRef newWriter)
{
    const std::lock_guard guard(lock);
    writer = std::move(newWriter);
}

void Direction::setReader(std::optional<EndRef> newReader)
{
    const std::lock_guard guard(lock);
    reader = std::move(newReader);
    scheduleLocked();
}

void Direction::setPaused(bool paused)
{
    const std::lock_guard guard(lock);
    isPaused = paused;
    scheduleLocked();
}

void Direction::send(std::vector<Bytes> parts, Task onSent)
{
    const std::lock_guard guard(lock);
    waiting.append(std::move(parts), std::move(onSent));
    scheduleLocked();
}

std::optional<Direction::Chunk> Direction::next(std::size_t maxSize)
{
    const std::lock_guard guard(lock);
    isScheduled = false;
    if (isPaused || !reader) return std::nullopt;
    if (waiting.isEmpty()) return Chunk{.bytes = {}, .finishedSends = {}, .isEnd = isEnded};
    Chunk chunk;
    for (const ByteView view : waiting.front(1)) {
        const ByteView piece = view.first(std::min(maxSize, view.size()));
        chunk.bytes.assign(piece.begin(), piece.end());
    }
    chunk.finishedSends = waiting.take(chunk.bytes.size());
    scheduleLocked();
    return chunk;
}

void Direction::completeSends(std::vector<Task> finishedSends)
{
    if (finishedSends.empty()) return;
    const EndRef receiver = [this] {
        const std::lock_guard guard(lock);
        return *writer;
    }();
    receiver.queue->post([open = receiver.open, finished = std::move(finishedSends)]() mutable {
        for (auto& onSent : finished)
            if (open) onSent();
    });
}

std::vector<Task> Direction::end(Waiting fate)
{
    const std::lock_guard guard(lock);
    isEnded = true;
    auto tasks = waiting.takeTasks();
    if (fate == Waiting::dropped) waiting = {};
    scheduleLocked();
    return tasks;
}

std::size_t Direction::byteCount() const
{
    const std::lock_guard guard(lock);
    return waiting.byteCount();
}

void Direction::scheduleLocked()
{
    if (isScheduled || isPaused || !reader || (waiting.isEmpty() && !isEnded)) return;
    isScheduled = true;
    reader->queue->post([open = reader->open, end = reader->end] {
        if (open) end->deliverNext();
    });
}

void LoopbackEnd::start(QueueRef newQueue)
{
    require(!queue, "a channel is started once");
    queue = std::move(newQueue);
    queue->assertCurrent();
    const EndRef self{queue, openSpan.watch(), this};
    outgoing->setWriter(self);
    incoming->setReader(self);
}

void LoopbackEnd::send(std::vector<Bytes> parts, Task onSent)
{
    require(queue != nullptr, "a channel sends only after its start");
    queue->assertCurrent();
    if (!isClosed) outgoing->send(std::move(parts), std::move(onSent));
}

void LoopbackEnd::deliverNext()
{
    auto chunk = incoming->next(options.chunkSize);
    if (!chunk) return;
    if (chunk->isEnd) {
        const auto dropped = close(Direction::Waiting::dropped); // at the end: a task may own this channel
        if (onClosed) std::exchange(onClosed, nullptr)(std::nullopt);
        return;
    }
    const auto source = incoming; // the callback may destroy us
    if (!chunk->bytes.empty()) callOut(onBytes, openSpan.watch(), ByteView(chunk->bytes));
    source->completeSends(std::move(chunk->finishedSends));
}

std::vector<Task> LoopbackEnd::close(Direction::Waiting fate)
{
    if (std::exchange(isClosed, true)) return {};
    openSpan.end();
    incoming->setReader(std::nullopt);
    return outgoing->end(fate);
}

} // namespace

LoopbackPair LoopbackPair::make(Options options)
{
    const auto toSecond = std::make_shared<Direction>();
    const auto toFirst = std::make_shared<Direction>();
    LoopbackPair pair;
    pair.first = std::make_unique<LoopbackEnd>(options, toFirst, toSecond);
    pair.second = std::make_unique<LoopbackEnd>(std::move(options), toSecond, toFirst);
    pair.pauseSecond = [toSecond](bool paused) { toSecond->setPaused(paused); };
    return pair;
}

} // namespace pelorin
