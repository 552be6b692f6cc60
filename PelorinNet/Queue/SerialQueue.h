#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace pelorin {

using Task = std::move_only_function<void()>;
using Duration = std::chrono::steady_clock::duration;
using SteadyTime = std::chrono::steady_clock::time_point;
using WallTime = std::chrono::system_clock::time_point;

// Something that goes on until its handle goes: a timer, a watch on a file descriptor. Cancelled or destroyed
// on its queue, it never fires again and what its callback captured is released; the callback may destroy it.
// Moving into a handle cancels what that one held.
class Subscription {
public:
    struct State {
        virtual ~State() = default;
        virtual void cancel() = 0;
    };

    Subscription() = default;
    explicit Subscription(std::shared_ptr<State> newState) : state(std::move(newState)) {}
    Subscription(Subscription&& other) noexcept : state(std::move(other.state)) { other.state.reset(); }
    Subscription& operator=(Subscription&& other) noexcept;
    ~Subscription() { cancel(); }

    void cancel();
    explicit operator bool() const { return state != nullptr; } // set, whether or not it fired already

private:
    std::shared_ptr<State> state;
};

// Runs tasks one after another, in the order of their posting. Stateful objects are confined to one queue
// each and open their operations with assertCurrent(). post may be called from any thread; after, postAfter,
// every and whenReadable only on the queue itself.
class SerialQueue : public std::enable_shared_from_this<SerialQueue> {
public:
    virtual ~SerialQueue() = default;

    virtual void post(Task task) = 0;
    // Never earlier than delay from now; once.
    [[nodiscard]] virtual Subscription after(Duration delay, Task task) = 0;
    // The same for a task that nobody calls off. Until then the queues own what it captured, as with post:
    // for what outlives its owner a little, such as a connection that still says goodbye.
    virtual void postAfter(Duration delay, Task task) = 0;
    // First after one period, then at fixed distance from the time each was due; a late queue skips what it
    // missed.
    [[nodiscard]] Subscription every(Duration period, std::function<void()> task);
    // Runs task whenever fd has something to read or was closed by its peer, until cancelled. The descriptor
    // stays the caller's and must outlive the watch.
    [[nodiscard]] virtual Subscription whenReadable(int fd, std::function<void()> task) = 0;

    virtual SteadyTime now() const = 0; // for durations
    virtual WallTime wallNow() const = 0; // only where a text or a file carries a date
    virtual bool isCurrent() const = 0;
    virtual const std::string& label() const = 0;

    // Stops the program when the caller is not on this queue.
    void assertCurrent() const;
};

using QueueRef = std::shared_ptr<SerialQueue>;

// Makes queues: the pool of a running program, or the hand-driven kind of a test.
class QueueMaker {
public:
    virtual ~QueueMaker() = default;
    virtual QueueRef makeQueue(std::string label) = 0;
};

// Answers, inside a task that was posted with it, whether the object that posted still lives. The last member
// of its owner, so that posted work is void before the rest goes. Watches are asked on the owner's queue
// only.
class Lifetime {
public:
    class Watch {
    public:
        explicit operator bool() const { return !token.expired(); }

    private:
        friend class Lifetime;
        explicit Watch(std::weak_ptr<char> newToken) : token(std::move(newToken)) {}
        std::weak_ptr<char> token;
    };

    Lifetime() : token(std::make_shared<char>()) {}
    Lifetime(const Lifetime&) = delete;
    Lifetime& operator=(const Lifetime&) = delete;
    Watch watch() const { return Watch(token); }
    void end() { token.reset(); } // every watch answers no from here on

private:
    std::shared_ptr<char> token;
};

} // namespace pelorin
