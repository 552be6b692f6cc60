#pragma once

#include "PelorinRendezvous/PeerMessage.h"

namespace pelorin {

// The id of the host that has signed our nonce with that key, or nothing: an id belongs to a key alone, so
// nobody can register under that of another.
std::optional<std::string> provenHostID(const PeerMessage::Register& message, std::string_view nonce);

} // namespace pelorin
