#pragma once

#include "PelorinNet/Channel/Channel.h"
#include "PelorinNet/Queue/PoolEngine.h"

#include <boost/asio/ip/tcp.hpp>

namespace pelorin {

using TcpSocket
    = boost::asio::basic_stream_socket<boost::asio::ip::tcp, boost::asio::io_context::executor_type>;

// A channel, not yet started, on a socket that was just connected or accepted.
std::unique_ptr<Channel> makeTcpChannel(EngineRef engine, TcpSocket socket);

} // namespace pelorin
