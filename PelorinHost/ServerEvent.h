#pragma once

#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace pelorin {

// What the server reports upward, in the order it happens.
namespace serverEvent {

struct Listening {
    std::optional<std::string> address; // absent: not listening
    bool operator==(const Listening&) const = default;
};
struct AllowedLogins {
    std::vector<std::string> names;
    bool operator==(const AllowedLogins&) const = default;
};
struct SessionStarted {
    std::string label; // the phone's name or peer label
    bool operator==(const SessionStarted&) const = default;
};
struct SessionEnded {
    std::string label;
    std::optional<std::string> reason;
    bool operator==(const SessionEnded&) const = default;
};
struct Rejected {
    std::string text; // peer and reason
    bool operator==(const Rejected&) const = default;
};
struct Stats {
    std::string line; // the running session's statistics
    bool operator==(const Stats&) const = default;
};
struct Rendezvous {
    std::optional<std::string> status; // absent: not registered
    bool operator==(const Rendezvous&) const = default;
};

} // namespace serverEvent

using ServerEvent
    = std::variant<serverEvent::Listening, serverEvent::AllowedLogins, serverEvent::SessionStarted,
        serverEvent::SessionEnded, serverEvent::Rejected, serverEvent::Stats, serverEvent::Rendezvous>;

} // namespace pelorin
