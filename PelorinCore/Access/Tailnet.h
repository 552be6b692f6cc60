#pragma once

#include "PelorinCore/Access/IPAddress.h"

namespace pelorin {

// The address ranges that Tailscale assigns from: 100.64.0.0/10 and fd7a:115c:a1e0::/48. The first one is
// shared with carriers, so an address in it proves nothing; it is only worth asking Tailscale about.
class Tailnet {
public:
    static bool contains(const IPAddress& address);
    static bool isTailnetAddress(std::string_view address); // false for any spelling that IPAddress refuses
};

} // namespace pelorin
