#include "PelorinNet/Channel/TcpChannel.h"
#include "PelorinNet/Channel/TcpSocket.h"

#include <boost/asio/bind_executor.hpp>
#include <boost/asio/connect.hpp>
#include <fmt/format.h>
#include <utility>

namespace pelorin {
namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

using Done = std::function<void(Result<std::unique_ptr<Channel>, NetError>)>;

// One attempt: resolves a name, then tries its addresses in the system's order until one answers or time is
// up. Queue: the caller's. Owned by its Subscription and by the handlers it waits for.
class TcpConnecting final : public Subscription::State, public std::enable_shared_from_this<TcpConnecting> {
public:
    TcpConnecting(
        EngineRef newEngine, QueueRef newQueue, std::string newHost, std::uint16_t newPort, Done newDone)
        : engine(std::move(newEngine)),
          queue(std::move(newQueue)),
          host(std::move(newHost)),
          port(newPort),
          done(std::move(newDone)),
          resolver(engine->context),
          socket(engine->context)
    {
    }

    void start(Duration timeout);
    void cancel() override;

private:
    void resolve();
    template <class Endpoints>
    void connect(const Endpoints& endpoints);
    void connected(error_code error);
    void finish(error_code error);
    void stopWaiting();

    const EngineRef engine;
    const QueueRef queue;
    const std::string host;
    const std::uint16_t port;
    Done done; // empty once called or cancelled
    Subscription timer;
    asio::ip::basic_resolver<tcp, asio::io_context::executor_type> resolver;
    TcpSocket socket;
};

void TcpConnecting::start(Duration timeout)
{
    timer = queue->after(timeout, [watch = weak_from_this()] {
        if (const auto self = watch.lock()) self->finish(asio::error::timed_out);
    });
    error_code error;
    const auto address = asio::ip::make_address(host, error);
    if (error)
        resolve();
    else
        connect(std::array{tcp::endpoint(address, port)});
}

void TcpConnecting::resolve()
{
    resolver.async_resolve(host, std::to_string(port), tcp::resolver::numeric_service,
        asio::bind_executor(strandOf(*queue),
            [self = shared_from_this()](error_code error, const tcp::resolver::results_type& found) {
                if (!self->done) return;
                if (error)
                    self->finish(error);
                else
                    self->connect(found);
            }));
}

template <class Endpoints>
void TcpConnecting::connect(const Endpoints& endpoints)
{
    asio::async_connect(socket, endpoints,
        asio::bind_executor(strandOf(*queue),
            [self = shared_from_this()](error_code error, const auto&) { self->finish(error); }));
}

void TcpConnecting::finish(error_code error)
{
    if (!done) return;
    const auto callback = std::exchange(done, nullptr);
    if (!error) {
        timer.cancel();
        return callback(makeTcpChannel(engine, std::move(socket)));
    }
    stopWaiting();
    callback(std::unexpected(
        NetError{fmt::format("Cannot connect to {} port {}: {}", host, port, error.message())}));
}

void TcpConnecting::stopWaiting()
{
    timer.cancel();
    resolver.cancel();
    error_code ignored;
    socket.close(ignored);
}

void TcpConnecting::cancel()
{
    if (!engine->isStopped()) queue->assertCurrent();
    stopWaiting();
    done = nullptr;
}

} // namespace

Subscription connectTcp(QueuePool& pool, QueueRef queue, std::string host, std::uint16_t port,
    Duration timeout, std::function<void(Result<std::unique_ptr<Channel>, NetError>)> done)
{
    queue->assertCurrent();
    auto connecting = std::make_shared<TcpConnecting>(
        pool.engine().shared_from_this(), std::move(queue), std::move(host), port, std::move(done));
    connecting->start(timeout);
    return Subscription(std::move(connecting));
}

} // namespace pelorin
