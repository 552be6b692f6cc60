#include "PelorinRendezvous/Cluster/NatsBroker.h"

#include "PelorinNet/Log.h"
#include "PelorinRendezvous/Cluster/BrokerPoll.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <fmt/format.h>
#include <map>
#include <mutex>
#include <nats/nats.h>
#include <unordered_map>
#include <utility>

namespace pelorin {
namespace {

// In milliseconds, as the library takes them.
constexpr int connectTimeout = 2'000; // for each address
constexpr int reconnectWait = 500;
constexpr int reconnectJitter = 500;
constexpr int pingInterval = 5'000; // two unanswered: lost
constexpr int writeDeadline = 2'000;
constexpr std::chrono::milliseconds retryWait{5'000}; // after a refusal, which the library does not try again
constexpr std::size_t entrySize = 128; // what a message costs beside its text

struct SubscriptionDeleter {
    void operator()(natsSubscription* subscription) const { natsSubscription_Destroy(subscription); }
};
struct MessageDeleter {
    void operator()(natsMsg* message) const { natsMsg_Destroy(message); }
};

std::string textOf(const char* text)
{
    return text ? std::string(text) : std::string();
}

std::size_t costOf(const Broker::Message& message)
{
    return entrySize + message.subject.size() + message.replyTo.size() + message.text.size();
}

} // namespace

// The library's options, made once.
class NatsBroker::Settings {
public:
    static Result<std::unique_ptr<Settings>, NetError> from(const NatsBroker::Options& options)
    {
        auto settings = std::make_unique<Settings>();
        const natsStatus status = settings->apply(options);
        if (status != NATS_OK)
            return std::unexpected(
                NetError{fmt::format("the broker's settings: {}", natsStatus_GetText(status))});
        return settings;
    }

    Settings() = default;
    Settings(const Settings&) = delete;
    Settings& operator=(const Settings&) = delete;
    ~Settings() { natsOptions_Destroy(handle); }
    natsOptions* get() const { return handle; }

private:
    natsStatus apply(const NatsBroker::Options& options)
    {
        std::vector<const char*> urls;
        urls.reserve(options.urls.size());
        for (const std::string& url : options.urls) urls.push_back(url.c_str());
        const bool isSecure = std::ranges::any_of(
            options.urls, [](const std::string& url) { return url.starts_with("tls://"); });
        natsStatus status = natsOptions_Create(&handle);
        const auto then = [&status](auto call) {
            if (status == NATS_OK) status = call();
        };
        then([&] { return natsOptions_SetServers(handle, urls.data(), static_cast<int>(urls.size())); });
        then([&] { return natsOptions_SetName(handle, "pelorin-rendezvous"); });
        then([&] { return natsOptions_SetTimeout(handle, connectTimeout); });
        then([&] { return natsOptions_SetPingInterval(handle, pingInterval); });
        then([&] { return natsOptions_SetWriteDeadline(handle, writeDeadline); });
        then([&] { return natsOptions_SetMaxReconnect(handle, -1); });
        then([&] { return natsOptions_SetReconnectWait(handle, reconnectWait); });
        then([&] { return natsOptions_SetReconnectJitter(handle, reconnectJitter, reconnectJitter); });
        // What waited for a broker that was lost would come too late.
        then([&] { return natsOptions_SetReconnectBufSize(handle, 1); });
        then([&] { return natsOptions_SetNoEcho(handle, true); });
        // A thread for each subscription, as otherwise, would be one for each host.
        then([&] { return natsOptions_UseGlobalMessageDelivery(handle, true); });
        // Our thread sends what has gathered; the library would wait a millisecond for more.
        then([&] { return natsOptions_SetSendAsap(handle, true); });
        if (isSecure) then([&] { return natsOptions_SetSecure(handle, true); });
        if (!options.trustFile.empty())
            then([&] { return natsOptions_LoadCATrustedCertificates(handle, options.trustFile.c_str()); });
        if (!options.credentialsFile.empty())
            then([&] {
                return natsOptions_SetUserCredentialsFromFiles(
                    handle, options.credentialsFile.c_str(), nullptr);
            });
        return status;
    }

    natsOptions* handle = nullptr;
};

// What the queue, our thread and the library's share. The library's last word on a connection or subscription
// releases what its callbacks hold of this, so that none finds it gone.
struct NatsBroker::Link : std::enable_shared_from_this<Link> {
    using Kept = std::shared_ptr<Link>; // on the heap, one for each connection and subscription
    using Handle = std::unique_ptr<natsSubscription, SubscriptionDeleter>;

    // Set before the thread starts.
    QueueRef queue;
    std::unique_ptr<Settings> settings;
    std::function<void(bool)> tellState; // to be run on the queue; safe there at any time
    std::function<void(const Message&)> tellMessage;
    std::function<void(const std::string&)> tellNobody;

    BrokerPoll poll; // where the worker waits
    std::mutex mutex; // guards the next five
    std::map<std::string, bool> wishes; // subjects to be heard from here on, or no longer
    std::deque<Message> outgoing;
    std::size_t outgoingSize = 0;
    bool isOver = false;
    bool isRefused = false; // the library has given the connection up

    struct Arrival {
        Message message;
        bool isNobody = false;
    };
    std::mutex arrivalMutex; // guards the next two
    std::vector<Arrival> arrivals; // a task that takes them is posted while there are any
    std::size_t arrivalSize = 0;
    std::atomic<bool> isOverrun = false; // and told, but not yet heard
    std::atomic<bool> hasComplained = false; // since the broker was last reached

    // The worker's own.
    natsConnection* connection = nullptr;
    std::unordered_map<std::string, Handle> subscriptions;

    static Link& of(void* closure) { return **static_cast<Kept*>(closure); }
    static void release(void* closure) { delete static_cast<Kept*>(closure); }

    // The library's threads.
    static void onUp(natsConnection*, void* closure) { of(closure).report(true); }
    static void onDown(natsConnection*, void* closure) { of(closure).report(false); }
    static void onClosed(natsConnection*, void* closure)
    {
        of(closure).refused();
        release(closure);
    }
    static void onError(natsConnection*, natsSubscription*, natsStatus status, void* closure)
    {
        if (status == NATS_SLOW_CONSUMER) return of(closure).overrun();
        of(closure).complain(status);
    }
    static natsStatus onAttach(void** link, void* loop, natsConnection*, natsSock socket)
    {
        *link = loop;
        static_cast<Link*>(loop)->poll.watch(socket);
        return NATS_OK;
    }
    static natsStatus onReadWish(void* link, bool isWanted)
    {
        static_cast<Link*>(link)->poll.wantRead(isWanted);
        return NATS_OK;
    }
    static natsStatus onWriteWish(void* link, bool isWanted)
    {
        static_cast<Link*>(link)->poll.wantWrite(isWanted);
        return NATS_OK;
    }
    static natsStatus onDetach(void* link)
    {
        static_cast<Link*>(link)->poll.unwatch();
        return NATS_OK;
    }
    static void onMessage(natsConnection*, natsSubscription*, natsMsg* message, void* closure)
    {
        const std::unique_ptr<natsMsg, MessageDeleter> owned(message);
        of(closure).arrived(message);
    }

    void report(bool isUp)
    {
        if (isUp) hasComplained = false;
        queue->post([self = shared_from_this(), isUp] { self->tellState(isUp); });
    }

    // Once a spell: what the broker does not allow it does not allow for a hundred thousand hosts.
    void complain(natsStatus status)
    {
        if (hasComplained.exchange(true)) return;
        Log("cluster").warning("The broker: {}; trying on", natsStatus_GetText(status));
    }

    // What arrives while the queue is busy waits for its one turn there.
    void arrived(natsMsg* source)
    {
        Arrival arrival{{textOf(natsMsg_GetSubject(source)), textOf(natsMsg_GetReply(source)),
                            std::string(natsMsg_GetData(source),
                                static_cast<std::size_t>(natsMsg_GetDataLength(source)))},
            natsMsg_IsNoResponders(source)};
        const std::size_t size = costOf(arrival.message);
        bool isFirst = false;
        {
            const std::lock_guard lock(arrivalMutex);
            if (arrivalSize + size <= maxWaiting) {
                isFirst = arrivals.empty();
                arrivalSize += size;
                arrivals.push_back(std::move(arrival));
            } else {
                return overrun();
            }
        }
        if (isFirst) queue->post([self = shared_from_this()] { self->tellArrivals(); });
    }

    void tellArrivals()
    {
        std::vector<Arrival> taken;
        {
            const std::lock_guard lock(arrivalMutex);
            taken.swap(arrivals);
            arrivalSize = 0;
        }
        for (const auto& [message, isNobody] : taken)
            isNobody ? tellNobody(message.subject) : tellMessage(message);
    }

    // Messages were dropped: the same to our owner as if the connection had been.
    void overrun()
    {
        if (isOverrun.exchange(true)) return;
        queue->post([self = shared_from_this()] {
            self->isOverrun = false;
            self->tellState(true);
        });
    }

    void refused()
    {
        report(false);
        const std::lock_guard lock(mutex);
        isRefused = true;
        poll.wake();
    }

    // The worker.
    void work()
    {
        while (connect()) {
            serve();
            disconnect();
        }
    }

    bool connect()
    {
        while (!isEnding()) {
            if (tryToConnect()) return true;
            rest();
        }
        return false;
    }

    bool isEnding()
    {
        const std::lock_guard lock(mutex);
        isRefused = false;
        return isOver;
    }

    bool tryToConnect()
    {
        auto kept = std::make_unique<Kept>(shared_from_this());
        natsOptions* const options = settings->get();
        natsOptions_SetRetryOnFailedConnect(options, true, onUp, kept.get());
        natsOptions_SetDisconnectedCB(options, onDown, kept.get());
        natsOptions_SetReconnectedCB(options, onUp, kept.get());
        natsOptions_SetErrorHandler(options, onError, kept.get());
        natsOptions_SetClosedCB(options, onClosed, kept.get());
        natsOptions_SetEventLoop(options, this, onAttach, onReadWish, onWriteWish, onDetach);
        const natsStatus status = natsConnection_Connect(&connection, options);
        if (status != NATS_OK) complain(status);
        if (status != NATS_OK && status != NATS_NOT_YET_CONNECTED) return false;
        [[maybe_unused]] auto* const given = kept.release(); // to onClosed
        for (auto& [subject, handle] : subscriptions) listen(subject, handle);
        if (status == NATS_OK) report(true);
        return true;
    }

    // All that goes over the connection goes in here once it stands: what secures it bears one thread alone.
    void serve()
    {
        while (true) {
            std::unique_lock lock(mutex);
            if (isOver || isRefused) return;
            const auto newWishes = std::exchange(wishes, {});
            const auto messages = std::exchange(outgoing, {});
            outgoingSize = 0;
            lock.unlock();
            for (const auto& [subject, isWanted] : newWishes) grant(subject, isWanted);
            for (const Message& message : messages) send(message);
            if (poll.wantsWrite()) natsConnection_ProcessWriteEvent(connection); // there is room, mostly
            const auto ready = poll.wait();
            if (ready.canRead) natsConnection_ProcessReadEvent(connection);
            if (ready.canWrite) natsConnection_ProcessWriteEvent(connection);
        }
    }

    void grant(const std::string& subject, bool isWanted)
    {
        if (!isWanted) {
            const auto found = subscriptions.find(subject);
            if (found == subscriptions.end()) return;
            natsSubscription_Unsubscribe(found->second.get());
            subscriptions.erase(found);
            return;
        }
        const auto [entry, isNew] = subscriptions.try_emplace(subject);
        if (isNew) listen(subject, entry->second);
    }

    void listen(const std::string& subject, Handle& handle)
    {
        auto kept = std::make_unique<Kept>(shared_from_this());
        natsSubscription* made = nullptr;
        natsStatus status
            = natsConnection_Subscribe(&made, connection, subject.c_str(), onMessage, kept.get());
        if (status != NATS_OK) return complain(status);
        handle.reset(made);
        status = natsSubscription_SetOnCompleteCB(made, release, kept.get());
        // Where that failed it leaks rather than being used after its end.
        [[maybe_unused]] auto* const given = kept.release();
        if (status != NATS_OK) complain(status);
    }

    void send(const Message& message)
    {
        const auto size = static_cast<int>(message.text.size());
        const natsStatus status = message.replyTo.empty()
            ? natsConnection_Publish(connection, message.subject.c_str(), message.text.data(), size)
            : natsConnection_PublishRequest(
                  connection, message.subject.c_str(), message.replyTo.c_str(), message.text.data(), size);
        // While the broker is away the queue is about to hear so.
        if (status != NATS_OK && status != NATS_INSUFFICIENT_BUFFER) complain(status);
    }

    void disconnect()
    {
        for (auto& [subject, handle] : subscriptions) handle.reset();
        natsConnection_Close(connection);
        natsConnection_Destroy(connection);
        connection = nullptr;
        rest();
    }

    // Before the next attempt, unless there is to be none.
    void rest()
    {
        for (auto until = std::chrono::steady_clock::now() + retryWait;;) {
            const auto left = until - std::chrono::steady_clock::now();
            {
                const std::lock_guard lock(mutex);
                if (isOver || left <= Duration::zero()) return;
            }
            poll.wait(std::chrono::ceil<std::chrono::milliseconds>(left));
        }
    }
};

Result<std::unique_ptr<NatsBroker>, NetError> NatsBroker::create(QueueRef queue, const Options& options)
{
    auto settings = Settings::from(options);
    if (!settings) return std::unexpected(std::move(settings.error()));
    return std::unique_ptr<NatsBroker>(new NatsBroker(std::move(queue), std::move(*settings)));
}

NatsBroker::NatsBroker(QueueRef newQueue, std::unique_ptr<Settings> settings)
    : queue(std::move(newQueue)),
      link(std::make_shared<Link>())
{
    link->queue = queue;
    link->settings = std::move(settings);
    const auto alive = lifetime.watch();
    link->tellState = [this, alive](bool nowInReach) {
        if (alive) stateChanged(nowInReach);
    };
    link->tellMessage = [this, alive](const Message& message) {
        if (alive && onMessage) onMessage(message);
    };
    link->tellNobody = [this, alive](const std::string& replyTo) {
        if (alive && onNobody) onNobody(replyTo);
    };
    worker = std::jthread([link = link] { link->work(); });
}

NatsBroker::~NatsBroker()
{
    const std::lock_guard lock(link->mutex);
    link->isOver = true;
    link->poll.wake();
}

void NatsBroker::stateChanged(bool nowInReach)
{
    {
        const std::lock_guard lock(link->mutex);
        link->outgoing.clear();
        link->outgoingSize = 0;
    }
    if (!nowInReach && !isInReach) return;
    isInReach = nowInReach;
    if (onState) onState(nowInReach);
}

void NatsBroker::subscribe(const std::string& subject)
{
    const std::lock_guard lock(link->mutex);
    link->wishes[subject] = true;
    link->poll.wake();
}

void NatsBroker::unsubscribe(const std::string& subject)
{
    const std::lock_guard lock(link->mutex);
    link->wishes[subject] = false;
    link->poll.wake();
}

bool NatsBroker::publish(const std::string& subject, std::string text, const std::string& replyTo)
{
    if (!isInReach) return false;
    Message message{subject, replyTo, std::move(text)};
    const std::size_t size = costOf(message);
    const std::lock_guard lock(link->mutex);
    if (link->outgoingSize + size > maxWaiting) return false;
    link->outgoingSize += size;
    link->outgoing.push_back(std::move(message));
    link->poll.wake();
    return true;
}

} // namespace pelorin
