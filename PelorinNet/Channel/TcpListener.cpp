#include "PelorinNet/Channel/CallOut.h"
#include "PelorinNet/Channel/TcpChannel.h"
#include "PelorinNet/Channel/TcpSocket.h"
#include "PelorinNet/Log.h"

#include <boost/asio/bind_executor.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <fmt/format.h>

namespace pelorin {
namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

// After a refusal of the system, most often for want of descriptors: long enough not to spin, short enough
// for a person not to notice. The connection waits in the backlog meanwhile.
constexpr auto acceptRetryDelay = std::chrono::milliseconds(100);

class AsioTcpListener final : public TcpListener {
public:
    AsioTcpListener(EngineRef newEngine, QueueRef newQueue)
        : engine(std::move(newEngine)),
          queue(std::move(newQueue)),
          acceptor(engine->context)
    {
    }

    error_code open(const std::string& address, std::uint16_t wantedPort);
    void accept();
    std::uint16_t port() const override { return boundPort; }

private:
    void accepted(error_code error, TcpSocket socket);
    void acceptFailed(error_code error);

    const EngineRef engine;
    const QueueRef queue;
    asio::basic_socket_acceptor<tcp, asio::io_context::executor_type> acceptor;
    std::uint16_t boundPort = 0;
    bool isFailing = false; // logged once a spell
    Subscription retry;
    Lifetime lifetime;
};

error_code AsioTcpListener::open(const std::string& address, std::uint16_t wantedPort)
{
    error_code error;
    const auto host = asio::ip::make_address(address, error);
    if (error) return error;
    const tcp::endpoint endpoint(host, wantedPort);
    acceptor.open(endpoint.protocol(), error);
    if (error) return error;
    acceptor.set_option(tcp::acceptor::reuse_address(true), error);
    // "::" stands for every address of the machine, whatever the system's default.
    if (host.is_v6()) acceptor.set_option(asio::ip::v6_only(false), error);
    acceptor.bind(endpoint, error);
    if (error) return error;
    acceptor.listen(tcp::acceptor::max_listen_connections, error);
    if (error) return error;
    boundPort = acceptor.local_endpoint(error).port();
    return error;
}

void AsioTcpListener::accept()
{
    acceptor.async_accept(engine->context,
        asio::bind_executor(
            strandOf(*queue), [this, alive = lifetime.watch()](error_code error, TcpSocket socket) {
                if (alive) accepted(error, std::move(socket));
            }));
}

void AsioTcpListener::accepted(error_code error, TcpSocket socket)
{
    if (error) return acceptFailed(error);
    isFailing = false;
    const auto alive = lifetime.watch();
    callOut(onConnection, alive, makeTcpChannel(engine, std::move(socket)));
    if (alive) accept();
}

void AsioTcpListener::acceptFailed(error_code error)
{
    using namespace boost::system::errc;
    // Only these say that the listening socket itself is lost. The rest concerns one connection or the
    // system's resources, and passes.
    if (error == bad_file_descriptor || error == invalid_argument || error == not_a_socket) {
        acceptor.close(error);
        if (onFailure) std::exchange(onFailure, nullptr)(NetError{error.message()});
        return;
    }
    if (!std::exchange(isFailing, true))
        Log("tcp").warning("Cannot accept on port {}: {}; trying on every {} ms", boundPort, error.message(),
            acceptRetryDelay.count());
    retry = queue->after(acceptRetryDelay, [this] { accept(); });
}

} // namespace

Result<std::unique_ptr<TcpListener>, NetError> TcpListener::listen(
    QueuePool& pool, QueueRef queue, const std::string& address, std::uint16_t port)
{
    queue->assertCurrent();
    auto listener = std::make_unique<AsioTcpListener>(pool.engine().shared_from_this(), std::move(queue));
    if (const error_code error = listener->open(address, port))
        return std::unexpected(NetError{error.message()}); // the caller knows where it wanted to listen
    listener->accept();
    return listener;
}

} // namespace pelorin
