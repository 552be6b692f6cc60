#include "PelorinHost/Linux/DBusConnection.h"

#include <cerrno>
#include <cstring>
#include <sys/epoll.h>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include <utility>

namespace pelorin {
namespace {

std::unexpected<PlatformError> failure(int result)
{
    return std::unexpected(PlatformError{std::strerror(-result)});
}

std::optional<bool> truthIn(sd_bus_message* message)
{
    int value = 0;
    if (sd_bus_message_read(message, "b", &value) > 0) return value != 0;
    if (sd_bus_message_read(message, "v", "b", &value) > 0) return value != 0;
    return std::nullopt;
}

struct Unreference {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};

} // namespace

struct DBusConnection::Call {
    Call(SerialQueue& newQueue, std::function<void(Reply)> newDone)
        : queue(newQueue),
          done(std::move(newDone))
    {
    }

    // Comes from inside the bus's own work, which must not be taken apart meanwhile: told in a task of its
    // own.
    static int answered(sd_bus_message* message, void* self, sd_bus_error*)
    {
        auto& call = *static_cast<Call*>(self);
        if (call.keepsAnswer) call.answer.reset(sd_bus_message_ref(message));
        const auto* error = sd_bus_message_get_error(message);
        if (error)
            call.tellSoon(std::unexpected(PlatformError{error->message ? error->message : error->name}));
        else
            call.tellSoon(truthIn(message));
        return 1;
    }

    void tellSoon(Reply reply)
    {
        if (hasReply) return;
        hasReply = true;
        soon = queue.after(Duration::zero(), [this, reply = std::move(reply)] {
            auto callback = std::exchange(done, nullptr);
            callback(reply); // we may be gone after it
        });
    }

    SerialQueue& queue;
    std::function<void(Reply)> done;
    std::unique_ptr<sd_bus_slot, Unreference> slot;
    bool keepsAnswer = false;
    std::unique_ptr<sd_bus_message, Unreference> answer;
    bool hasReply = false;
    Subscription soon;
};

// Without sending what still waits, which could hang.
void DBusConnection::Close::operator()(sd_bus* bus) const
{
    sd_bus_close_unref(bus);
}

Result<std::unique_ptr<DBusConnection>, PlatformError> DBusConnection::open(
    Bus which, const std::string& address, QueueRef queue)
{
    queue->assertCurrent();
    std::unique_ptr<DBusConnection> connection(new DBusConnection(std::move(queue)));
    sd_bus* fresh = nullptr;
    int result = 0;
    if (address.empty()) {
        result = which == Bus::system ? sd_bus_open_system(&fresh) : sd_bus_open_user(&fresh);
        connection->bus.reset(fresh);
    } else {
        result = sd_bus_new(&fresh);
        connection->bus.reset(fresh);
        if (result >= 0) result = sd_bus_set_address(fresh, address.c_str());
        if (result >= 0) result = sd_bus_set_bus_client(fresh, 1);
        if (result >= 0) result = sd_bus_start(fresh);
    }
    if (result < 0) return failure(result);
    connection->readiness = epoll_create1(EPOLL_CLOEXEC);
    epoll_event events{};
    if (connection->readiness < 0
        || epoll_ctl(connection->readiness, EPOLL_CTL_ADD, sd_bus_get_fd(fresh), &events) != 0)
        return failure(-errno);
    connection->ready = connection->queue->whenReadable(
        connection->readiness, [raw = connection.get()] { raw->process(); });
    connection->watch();
    return connection;
}

DBusConnection::DBusConnection(QueueRef newQueue) : queue(std::move(newQueue)) {}

DBusConnection::~DBusConnection()
{
    ready.cancel();
    calls.clear();
    if (readiness >= 0) close(readiness);
}

bool DBusConnection::isReady() const
{
    return sd_bus_is_ready(bus.get()) > 0;
}

void DBusConnection::call(const DBusMethod& method, std::function<void(Reply)> done)
{
    begin(method, std::move(done));
}

void DBusConnection::hold(const DBusMethod& method, std::function<void(const std::string& reason)> refused)
{
    begin(method,
        [refused = std::move(refused)](const Reply& reply) {
            if (!reply) refused(reply.error().description);
        })
        .keepsAnswer
        = true;
}

DBusConnection::Call& DBusConnection::begin(const DBusMethod& method, std::function<void(Reply)> done)
{
    queue->assertCurrent();
    std::erase_if(calls, [](const auto& call) { return !call->done && !call->keepsAnswer; });
    auto& call = *calls.emplace_back(std::make_unique<Call>(*queue, std::move(done)));
    sd_bus_message* fresh = nullptr;
    int result = sd_bus_message_new_method_call(
        bus.get(), &fresh, method.destination, method.path, method.interface, method.member);
    const std::unique_ptr<sd_bus_message, Unreference> message(fresh);
    for (const char* argument : method.arguments)
        if (result >= 0) result = sd_bus_message_append(fresh, "s", argument);
    sd_bus_slot* slot = nullptr;
    constexpr std::uint64_t never = UINT64_MAX;
    if (result >= 0) result = sd_bus_call_async(bus.get(), &slot, fresh, Call::answered, &call, never);
    call.slot.reset(slot);
    if (result < 0)
        call.tellSoon(failure(result));
    else
        watch();
    return call;
}

void DBusConnection::process()
{
    int result = 0;
    while ((result = sd_bus_process(bus.get(), nullptr)) > 0) {}
    if (result < 0) return fail(std::strerror(-result));
    watch();
}

// What the bus waits for changes as it connects and as its output drains.
void DBusConnection::watch()
{
    const int wanted = sd_bus_get_events(bus.get());
    if (wanted < 0) return fail(std::strerror(-wanted));
    epoll_event events{};
    events.events = static_cast<std::uint32_t>(wanted); // poll's bits are epoll's
    epoll_ctl(readiness, EPOLL_CTL_MOD, sd_bus_get_fd(bus.get()), &events);
}

void DBusConnection::fail(const std::string& reason)
{
    ready.cancel();
    for (const auto& call : calls)
        if (call->done) call->tellSoon(std::unexpected(PlatformError{reason}));
}

} // namespace pelorin
