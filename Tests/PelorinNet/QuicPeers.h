#pragma once

#include "PelorinNet/Channel/PelorinQUIC.h"
#include "PelorinNet/Identity/SigningKey.h"
#include "PelorinNet/Identity/SoftwareIdentity.h"

#include <gtest/gtest.h>

namespace pelorin {

inline std::unique_ptr<SoftwareIdentity> makeQuicIdentity(const std::string& name)
{
    return SoftwareIdentity::create(SigningKey::generate().value(), name, WallTime(std::chrono::years(54)))
        .value();
}

inline SocketAddress loopbackAddress(std::uint16_t port)
{
    return SocketAddress::ipv4({127, 0, 0, 1}, port);
}

} // namespace pelorin
