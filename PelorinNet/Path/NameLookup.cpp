#include "PelorinNet/Path/NameLookup.h"

#include "PelorinNet/Log.h"

#include <algorithm>
#include <bit>
#include <mutex>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

constexpr Duration patience = 5s;

// Where a resolving thread leaves what it found. It knows nothing else of ours, so it may outlive everything.
class Mailbox {
public:
    Mailbox() : fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    ~Mailbox()
    {
        if (fd >= 0) ::close(fd);
    }
    Mailbox(const Mailbox&) = delete;
    Mailbox& operator=(const Mailbox&) = delete;

    int descriptor() const
    {
        return fd;
    } // readable once there is something; -1 when the system has none left
    void put(std::vector<SocketAddress> addresses)
    {
        {
            const std::lock_guard guard(lock);
            content = std::move(addresses);
        }
        ::eventfd_write(fd, 1);
    }
    std::vector<SocketAddress> take()
    {
        const std::lock_guard guard(lock);
        return std::exchange(content, {});
    }

private:
    const int fd;
    std::mutex lock;
    std::vector<SocketAddress> content; // under lock
};

// One lookup on its way. Queue: the caller's; kept alive by the timer that ends it.
class Lookup final : public std::enable_shared_from_this<Lookup> {
public:
    Lookup(std::uint16_t newPort, std::function<void(std::vector<SocketAddress>)> newDone)
        : port(newPort),
          done(std::move(newDone))
    {
    }

    void start(const QueueRef& queue, const std::string& name, NameResolver resolver)
    {
        queue->postAfter(patience, [self = shared_from_this()] { self->finish({}); });
        if (!resolve(name, std::move(resolver)))
            return queue->post([watch = weak_from_this()] {
                if (const auto self = watch.lock()) self->finish({});
            });
        arrival = queue->whenReadable(mailbox->descriptor(), [watch = weak_from_this()] {
            if (const auto self = watch.lock()) self->finish(self->mailbox->take());
        });
    }

private:
    // False when the system has no descriptor or no thread left.
    bool resolve(const std::string& name, NameResolver resolver)
    {
        if (mailbox->descriptor() < 0) return false;
        try {
            std::thread([mailbox = mailbox, name, resolver = std::move(resolver)] {
                mailbox->put(resolver(name));
            }).detach();
            return true;
        } catch (const std::system_error& error) {
            Log("path").error("Cannot look up {}: {}", name, error.what());
            return false;
        }
    }

    void finish(std::vector<SocketAddress> addresses)
    {
        if (!done) return;
        arrival.cancel();
        for (auto& address : addresses) address.port = port;
        std::exchange(done, nullptr)(std::move(addresses));
    }

    const std::uint16_t port;
    std::function<void(std::vector<SocketAddress>)> done; // empty once called
    const std::shared_ptr<Mailbox> mailbox = std::make_shared<Mailbox>();
    Subscription arrival;
};

} // namespace

std::vector<SocketAddress> resolveBySystem(const std::string& name)
{
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(name.c_str(), nullptr, &wanted, &found) != 0) return {};
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(found, &::freeaddrinfo);
    std::vector<SocketAddress> addresses;
    for (const addrinfo* each = found; each; each = each->ai_next) {
        const auto host = reinterpret_cast<const sockaddr_in*>(each->ai_addr)->sin_addr.s_addr;
        addresses.push_back(SocketAddress::ipv4(std::bit_cast<std::array<std::uint8_t, 4>>(host), 0));
    }
    return addresses;
}

void lookUpName(const PathServers::Server& server, const QueueRef& queue,
    std::function<void(std::vector<SocketAddress>)> done)
{
    lookUpName(server, queue, std::move(done), resolveBySystem);
}

void lookUpName(const PathServers::Server& server, const QueueRef& queue,
    std::function<void(std::vector<SocketAddress>)> done, NameResolver resolver)
{
    queue->assertCurrent();
    if (const auto literal = SocketAddress::parse(server.host, server.port)) {
        std::vector<SocketAddress> addresses;
        if (literal->isIPv4()) addresses.push_back(*literal);
        return queue->post([addresses, done = std::move(done)] { done(addresses); });
    }
    std::make_shared<Lookup>(server.port, std::move(done))->start(queue, server.host, std::move(resolver));
}

} // namespace pelorin
