#pragma once

#include "PelorinNet/Channel/Channel.h"
#include "PelorinPhone/Pairing/PairedHost.h"

namespace pelorin {

// Makes a connection and calls back, later and once, with a channel that is not started, or with why not;
// unless the subscription goes first.
using Connected = std::function<void(Result<std::unique_ptr<Channel>, NetError>)>;
using Connect = std::function<Subscription(Connected)>;
using ConnectTo = std::function<Subscription(std::string host, std::uint16_t port, Connected)>;

// Connects to place, its address first and then its name, and puts TLS with key on top.
Connect connectSecurely(ConnectTo connectTo, HostPlace place, PelorinTLS::Key key);

} // namespace pelorin
