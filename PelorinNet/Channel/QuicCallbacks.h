#pragma once

#include <ngtcp2/ngtcp2.h>

namespace pelorin {

// How the library calls a QuicLink, which is its user data.
const ngtcp2_callbacks& quicCallbacks();

} // namespace pelorin
