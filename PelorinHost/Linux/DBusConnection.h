#pragma once

#include "PelorinCore/Result.h"
#include "PelorinHost/Platform/PlatformError.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

struct sd_bus;

namespace pelorin {

// One method of one object on a bus, with the texts that it takes.
struct DBusMethod {
    const char* destination;
    const char* path;
    const char* interface;
    const char* member;
    std::vector<const char*> arguments = {};
};

// Where the two buses listen; empty takes the environment's or the usual place.
struct DBusAddresses {
    std::string system;
    std::string session;
};

// A connection to a message bus that never waits: connecting, greeting and calling all go on as the bus gets
// round to them, so that one that hangs holds up nobody. Timeouts are the caller's. Queue: its owner's.
class DBusConnection {
public:
    enum class Bus { system, session };

    // address: where the bus listens; empty takes the environment's or the usual place.
    static Result<std::unique_ptr<DBusConnection>, PlatformError> open(
        Bus bus, const std::string& address, QueueRef queue);
    ~DBusConnection(); // calls under way end there, unreported
    DBusConnection(const DBusConnection&) = delete;
    DBusConnection& operator=(const DBusConnection&) = delete;

    // What came back: the truth value, plain or in a variant, that the answer holds, or nothing where it
    // holds something else. On the queue, never within the call.
    using Reply = Result<std::optional<bool>, PlatformError>;
    bool isReady() const; // the bus has answered our greeting
    void call(const DBusMethod& method, std::function<void(Reply)> done);
    // Keeps what the answer brings, such as a descriptor, for as long as the connection lives.
    void hold(const DBusMethod& method, std::function<void(const std::string& reason)> refused);

private:
    struct Call;
    Call& begin(const DBusMethod& method, std::function<void(Reply)> done);
    struct Close {
        void operator()(sd_bus* bus) const;
    };

    explicit DBusConnection(QueueRef queue);
    void process();
    void watch();
    void fail(const std::string& reason);

    const QueueRef queue;
    int readiness = -1; // an epoll descriptor: readable when the bus wants what we wait for, writing included
    std::unique_ptr<sd_bus, Close> bus;
    std::vector<std::unique_ptr<Call>> calls; // under way; after the bus, which they are slots of
    Subscription ready;
};

} // namespace pelorin
