#pragma once

#include "PelorinCore/Result.h"
#include "PelorinNet/NetError.h"
#include "PelorinNet/Path/PathServers.h"
#include "PelorinNet/Path/TurnClient.h"

#include <nlohmann/json_fwd.hpp>

// How both ends of a session read what the rendezvous service sends them. Whatever comes in, nothing throws.
namespace pelorin::ServiceMessage {

inline constexpr std::size_t largest = 64 * 1024; // bytes of one message, as a text frame
// One JSON object. What is nested deeper than any message of ours is left out: copying it would use up our
// stack.
Result<nlohmann::json, NetError> parse(std::string_view text);

// The text under that key; empty when message is no object or has no text there.
std::string text(const nlohmann::json& message, const char* key);

// The servers that the service lends to one session: message's "turn", {"username", "credential", "uris"}.
struct Servers {
    PathServers path; // every relay answers STUN requests, too
    std::optional<TurnCredentials> credentials; // none: there are no relays
};
// URIs as RFC 7064 and 7065 write them, over UDP; others are passed over, as is what goes beyond 8 of them.
Servers servers(const nlohmann::json& message);

} // namespace pelorin::ServiceMessage
