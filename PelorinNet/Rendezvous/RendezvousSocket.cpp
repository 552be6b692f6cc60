#include "PelorinNet/Rendezvous/RendezvousSocket.h"

#include "PelorinCore/Label.h"
#include "PelorinNet/Path/NameLookup.h"
#include "PelorinNet/Queue/PoolEngine.h"
#include "PelorinNet/Rendezvous/ServiceMessage.h"

#include <algorithm>
#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/host_name_verification.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/stream_traits.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <charconv>
#include <deque>
#include <fmt/format.h>
#include <list>
#include <netdb.h>
#include <nlohmann/json.hpp>
#include <utility>

namespace pelorin {
namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using boost::system::error_code;
using nlohmann::json;

namespace {

using namespace std::chrono_literals;

constexpr Duration openTimeout = 10s, closeTimeout = 2s;
constexpr std::size_t maxOutgoing = 256; // messages that wait; the service takes none any more then
constexpr std::size_t maxUnclaimed = 64; // objects that nobody asked for; the service has to wait then

// On the queue's strand through and through, since the library's own steps run where its socket does.
using Tcp = asio::basic_stream_socket<asio::ip::tcp, Strand>;
using Endpoints = std::vector<asio::ip::tcp::endpoint>;
using Plain = websocket::stream<Tcp>;
using Secure = websocket::stream<asio::ssl::stream<Tcp>>;

// The parts of a URL that a connection needs.
struct Target {
    bool isSecure = false;
    std::string authority; // as the URL has it
    std::string host; // a name or an address literal, without brackets
    std::uint16_t port = 0;
    std::string path; // "/v1/host"

    static std::optional<Target> parse(std::string_view url);
};

std::optional<std::uint16_t> portIn(std::string_view digits)
{
    std::uint16_t port = 0;
    const auto [end, error] = std::from_chars(digits.begin(), digits.end(), port);
    if (error != std::errc() || end != digits.end() || port == 0) return std::nullopt;
    return port;
}

std::optional<Target> Target::parse(std::string_view url)
{
    Target target;
    target.isSecure = url.starts_with("wss://");
    if (!target.isSecure && !url.starts_with("ws://")) return std::nullopt;
    url.remove_prefix(url.find("//") + 2);
    target.authority = url.substr(0, url.find('/'));
    target.path = url.substr(target.authority.size());

    const bool isV6 = target.authority.starts_with('[');
    const auto hostEnd = target.authority.find(isV6 ? ']' : ':');
    if (isV6 && hostEnd == std::string::npos) return std::nullopt;
    target.host = isV6 ? target.authority.substr(1, hostEnd - 1) : target.authority.substr(0, hostEnd);
    std::string_view rest = target.authority;
    rest.remove_prefix(std::min(rest.size(), isV6 ? hostEnd + 1 : hostEnd));
    std::optional<std::uint16_t> port = target.isSecure ? 443 : 80;
    if (!rest.empty()) port = rest.starts_with(':') ? portIn(rest.substr(1)) : std::nullopt;
    if (target.host.empty() || target.path.empty() || !port) return std::nullopt;
    target.port = *port;
    return target;
}

// The service may be reached over IPv6 alone, unlike a path.
std::vector<SocketAddress> resolveEither(const std::string& name)
{
    addrinfo wanted{};
    wanted.ai_family = AF_UNSPEC;
    wanted.ai_socktype = SOCK_STREAM;
    wanted.ai_flags = AI_ADDRCONFIG;
    addrinfo* found = nullptr;
    if (::getaddrinfo(name.c_str(), nullptr, &wanted, &found) != 0) return {};
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(found, &::freeaddrinfo);
    std::vector<SocketAddress> addresses;
    for (const addrinfo* each = found; each; each = each->ai_next) {
        char text[NI_MAXHOST];
        const int error
            = ::getnameinfo(each->ai_addr, each->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
        const auto address = error ? std::nullopt : SocketAddress::parse(text, 0);
        if (address) addresses.push_back(*address);
    }
    return addresses;
}

asio::ssl::context trustOfTheSystem()
{
    asio::ssl::context context(asio::ssl::context::tls_client);
    SSL_CTX_set_min_proto_version(context.native_handle(), TLS1_2_VERSION);
    error_code ignored; // without a store nobody is trusted, which the handshake reports
    context.set_default_verify_paths(ignored);
    context.set_verify_mode(asio::ssl::verify_peer, ignored);
    return context;
}

// Those who wait for a message, and the messages that wait for somebody. Nobody is called from within a call.
class Inbox {
public:
    explicit Inbox(QueueRef newQueue) : queue(std::move(newQueue)) {}

    void deliver(json message)
    {
        const auto waiter
            = std::ranges::find_if(waiters, [&](const Waiter& each) { return message.contains(each.key); });
        if (waiter == waiters.end()) return unclaimed.push_back(std::move(message));
        complete(waiter, std::move(message));
    }

    void next(std::string key, std::optional<Duration> timeout, RendezvousSocket::Received done)
    {
        const auto waiter
            = waiters.insert(waiters.end(), Waiter{std::move(key), std::move(done), Subscription()});
        const auto found
            = std::ranges::find_if(unclaimed, [&](const json& each) { return each.contains(waiter->key); });
        if (found != unclaimed.end()) {
            complete(waiter, std::move(*found));
            unclaimed.erase(found);
        } else if (failure) {
            complete(waiter, std::unexpected(*failure));
        } else if (timeout) {
            waiter->timer = queue->after(
                *timeout, [this, waiter] { complete(waiter, std::unexpected(NetError{"timed out"})); });
        }
    }

    void fail(const NetError& error)
    {
        failure = error;
        while (!waiters.empty()) complete(waiters.begin(), std::unexpected(error));
    }

    bool isFull() const { return unclaimed.size() >= maxUnclaimed; }

private:
    struct Waiter {
        std::string key;
        RendezvousSocket::Received done;
        Subscription timer;
    };

    void complete(std::list<Waiter>::iterator waiter, Result<json, NetError> result)
    {
        queue->post(
            [done = std::move(waiter->done), result = std::move(result), alive = lifetime.watch()]() mutable {
                if (alive) done(std::move(result));
            });
        waiters.erase(waiter);
    }

    const QueueRef queue;
    std::list<Waiter> waiters; // the one that has waited longest first
    std::deque<json> unclaimed; // in order of arrival
    std::optional<NetError> failure;
    Lifetime lifetime;
};

// What a connection tells the socket that it serves; on the queue, never from within a call.
struct Reports {
    RendezvousSocket::Opened opened;
    std::function<void(json)> message;
    std::function<void(const NetError&)> ended; // at most once
};

// The connection, from resolving to its end. Owned by the socket and by the handlers that wait for the
// network, which keep it while it closes without its socket.
class Conversation {
public:
    virtual ~Conversation() = default;
    virtual void start(Reports reports) = 0;
    virtual void send(std::string text) = 0;
    virtual void readOn(bool mayRead) = 0; // at first it may not
    virtual void close() = 0; // reports nothing from here on
    virtual SteadyTime lastReceived() const = 0;
};

template <class Stream>
class StreamConversation final : public Conversation,
                                 public std::enable_shared_from_this<StreamConversation<Stream>> {
public:
    static constexpr bool isSecure = std::is_same_v<Stream, Secure>;

    StreamConversation(EngineRef newEngine, QueueRef newQueue, Target newTarget)
        : engine(std::move(newEngine)),
          queue(std::move(newQueue)),
          target(std::move(newTarget)),
          trust(isSecure ? trustOfTheSystem() : asio::ssl::context(asio::ssl::context::tls_client)),
          stream(makeStream(strandOf(*queue), trust)),
          received(queue->now())
    {
    }

    void start(Reports newReports) override
    {
        reports = std::move(newReports);
        deadline = queue->after(openTimeout, [this] { fail("timed out"); });
        error_code notLiteral;
        const auto address = asio::ip::make_address(target.host, notLiteral);
        if (!notLiteral) return connect({{address, target.port}});
        const auto resolved = [watch = this->weak_from_this()](const std::vector<SocketAddress>& found) {
            const auto self = watch.lock();
            if (self && !self->isOver) self->resolved(found);
        };
        lookUpName({target.host, target.port}, queue, resolved, resolveEither);
    }

    void send(std::string text) override
    {
        if (!isOpen || isClosing) return;
        if (outgoing.size() == maxOutgoing) return fail("the service takes no more messages");
        outgoing.push_back(std::move(text));
        write();
    }

    void readOn(bool newMayRead) override
    {
        mayRead = newMayRead;
        read();
    }

    void close() override
    {
        if (std::exchange(isClosing, true) || isOver) return;
        reports = {};
        if (!isOpen || engine->isStopped()) return end();
        deadline = queue->after(closeTimeout, [this] { end(); });
        write();
        read(); // the service's own close ends it sooner
    }

    SteadyTime lastReceived() const override { return received; }

private:
    static Stream makeStream(const Strand& strand, asio::ssl::context& trust)
    {
        if constexpr (isSecure)
            return Stream(strand, trust);
        else
            return Stream(strand);
    }
    Tcp& socket() { return beast::get_lowest_layer(stream); }

    // A step of the network's; nothing happens after the end.
    template <class Work>
    auto then(Work work)
    {
        return [self = this->shared_from_this(), work = std::move(work)](
                   error_code error, const auto&... values) {
            if (!self->isOver) work(*self, error, values...);
        };
    }

    // Opening

    void resolved(const std::vector<SocketAddress>& found)
    {
        Endpoints endpoints;
        for (const SocketAddress& each : found) {
            error_code error;
            const auto address = asio::ip::make_address(each.hostText(), error);
            if (!error) endpoints.emplace_back(address, target.port);
        }
        if (endpoints.empty()) return fail("no address known of " + target.host);
        connect(endpoints);
    }

    void connect(const Endpoints& endpoints)
    {
        asio::async_connect(
            socket(), endpoints, then([](StreamConversation& self, error_code error, const auto&) {
                if (error) return self.fail(error.message());
                error_code ignored;
                self.socket().set_option(asio::ip::tcp::no_delay(true), ignored);
                self.secure();
            }));
    }

    void secure()
    {
        if constexpr (isSecure) {
            auto& tls = stream.next_layer();
            error_code error;
            asio::ip::make_address(target.host, error);
            if (error) SSL_set_tlsext_host_name(tls.native_handle(), target.host.c_str());
            tls.set_verify_callback(asio::ssl::host_name_verification(target.host), error);
            if (error) return fail(error.message());
            tls.async_handshake(
                asio::ssl::stream_base::client, then([](StreamConversation& self, error_code failure) {
                    if (failure) return self.fail(failure.message());
                    self.shakeHands();
                }));
        } else {
            shakeHands();
        }
    }

    void shakeHands()
    {
        stream.read_message_max(ServiceMessage::largest);
        stream.control_callback(
            [this](websocket::frame_type, beast::string_view) { received = queue->now(); });
        stream.async_handshake(
            target.authority, target.path, then([](StreamConversation& self, error_code error) {
                if (error) return self.fail(error.message());
                self.opened();
            }));
    }

    void opened()
    {
        isOpen = true;
        deadline.cancel();
        received = queue->now();
        const auto self = this->shared_from_this();
        std::exchange(reports.opened, nullptr)({});
        read();
    }

    // Receiving

    void read()
    {
        if (!isOpen || isReading || (!mayRead && !isClosing)) return;
        isReading = true;
        stream.async_read(buffer, then([](StreamConversation& self, error_code error, std::size_t) {
            self.isReading = false;
            if (error) return self.fail(self.readFailure(error));
            self.wasRead();
        }));
    }

    void wasRead()
    {
        received = queue->now();
        const auto bytes = std::exchange(buffer, {});
        if (!stream.got_text()) return fail("rendezvous sent binary data");
        const std::string_view text(static_cast<const char*>(bytes.data().data()), bytes.size());
        if (text == "ping") send("pong");
        if (!isClosing && text != "ping" && text != "pong") {
            auto message = ServiceMessage::parse(text);
            if (!message) return fail(message.error().description);
            reports.message(std::move(*message));
        }
        read();
    }

    std::string readFailure(error_code error) const
    {
        if (error != websocket::error::closed) return error.message();
        const auto& reason = stream.reason();
        const std::string words = asLabel({reason.reason.data(), reason.reason.size()});
        return fmt::format(
            "the service closed the connection ({}{}{})", reason.code, words.empty() ? "" : " ", words);
    }

    // Sending

    void write()
    {
        if (!isOpen || isWriting || isCloseSent) return;
        if (outgoing.empty()) {
            if (isClosing) sendClose();
            return;
        }
        isWriting = true;
        stream.text(true);
        stream.async_write(
            asio::buffer(outgoing.front()), then([](StreamConversation& self, error_code error, std::size_t) {
                self.isWriting = false;
                if (error) return self.fail(error.message());
                self.outgoing.pop_front();
                self.write();
            }));
    }

    // Ending

    void sendClose()
    {
        isCloseSent = true;
        stream.async_close(
            websocket::close_code::normal, then([](StreamConversation& self, error_code) { self.end(); }));
    }

    void fail(std::string why)
    {
        if (isOver) return;
        const NetError reason{std::move(why)};
        const bool wasOpen = isOpen;
        end();
        auto [opened, message, ended] = std::exchange(reports, {});
        if (!wasOpen && opened) return opened(std::unexpected(reason));
        if (ended) ended(reason);
    }

    void end()
    {
        const auto self = this->shared_from_this(); // until the deadline's own task is through
        isOver = true;
        isOpen = false;
        deadline.cancel();
        error_code ignored;
        socket().close(ignored);
    }

    const EngineRef engine;
    const QueueRef queue;
    const Target target;
    asio::ssl::context trust; // of a secure one
    Stream stream;
    Reports reports;
    beast::flat_buffer buffer;
    std::deque<std::string> outgoing; // the first one is on its way while isWriting
    SteadyTime received;
    bool mayRead = false;
    bool isOpen = false, isReading = false, isWriting = false;
    bool isClosing = false, isCloseSent = false; // the socket is gone
    bool isOver = false;
    Subscription deadline; // of opening, later of closing
};

class WebSocket final : public RendezvousSocket {
public:
    WebSocket(EngineRef newEngine, QueueRef newQueue, std::string newURL)
        : engine(std::move(newEngine)),
          queue(std::move(newQueue)),
          url(std::move(newURL)),
          inbox(std::make_unique<Inbox>(queue)),
          opening(queue->now())
    {
    }
    ~WebSocket() override { close(); }

    void open(Opened opened) override
    {
        queue->assertCurrent();
        require(!conversation, "a socket is opened once");
        auto parsed = Target::parse(url);
        if (!parsed) {
            const NetError error{"no address of a service: " + url};
            inbox->fail(error);
            return queue->post([opened = std::move(opened), error, alive = lifetime.watch()] {
                if (alive) opened(std::unexpected(error));
            });
        }
        conversation = makeConversation(std::move(*parsed));
        conversation->start({[this, opened = std::move(opened)](const Result<void, NetError>& result) {
                                 if (!result) inbox->fail(result.error());
                                 opened(result);
                             },
            [this](json message) {
                inbox->deliver(std::move(message));
                conversation->readOn(!inbox->isFull());
            },
            [this](const NetError& reason) { ended(reason); }});
        conversation->readOn(true);
    }

    void send(const json& object) override
    {
        sendText(object.dump(-1, ' ', false, json::error_handler_t::replace));
    }
    void ping() override { sendText("ping"); }

    void next(std::string key, std::optional<Duration> timeout, Received done) override
    {
        queue->assertCurrent();
        require(inbox != nullptr, "nobody waits at a closed socket");
        inbox->next(std::move(key), timeout, std::move(done));
        if (conversation) conversation->readOn(!inbox->isFull());
    }

    SteadyTime lastReceived() const override { return conversation ? conversation->lastReceived() : opening; }

    void close() override
    {
        queue->assertCurrent();
        inbox.reset();
        if (conversation) conversation->close();
    }

private:
    std::shared_ptr<Conversation> makeConversation(Target target)
    {
        if (target.isSecure)
            return std::make_shared<StreamConversation<Secure>>(engine, queue, std::move(target));
        return std::make_shared<StreamConversation<Plain>>(engine, queue, std::move(target));
    }

    void sendText(std::string text)
    {
        queue->assertCurrent();
        if (conversation) conversation->send(std::move(text));
    }

    void ended(const NetError& reason)
    {
        inbox->fail(reason);
        queue->post([this, reason, alive = lifetime.watch()] {
            if (alive && inbox && onEnd) onEnd(reason);
        });
    }

    const EngineRef engine;
    const QueueRef queue;
    const std::string url;
    std::unique_ptr<Inbox> inbox; // none once closed
    const SteadyTime opening;
    std::shared_ptr<Conversation> conversation; // from open on
    Lifetime lifetime;
};

} // namespace

RendezvousSocketMaker rendezvousSockets(QueuePool& pool)
{
    return [engine = pool.engine().shared_from_this()](QueueRef queue, std::string url) {
        return std::make_unique<WebSocket>(engine, std::move(queue), std::move(url));
    };
}

} // namespace pelorin
