#pragma once

#include "PelorinNet/Channel/QuicLink.h"

namespace pelorin {

// For the sources of this folder.
std::unique_ptr<PelorinQUIC::Connection> makeQuicConnection(std::shared_ptr<QuicLink> link);
std::unique_ptr<PelorinQUIC::Listener> makeQuicListener(
    std::shared_ptr<QuicEndpoint> endpoint, std::shared_ptr<const QuicParameters> parameters);

} // namespace pelorin
