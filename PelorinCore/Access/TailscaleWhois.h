#pragma once

#include "PelorinCore/Result.h"

#include <optional>
#include <string>
#include <string_view>

namespace pelorin {

// Why an answer of the Tailscale tool could not be read, for the log.
struct TailscaleJSONError {
    std::string description;
    bool operator==(const TailscaleJSONError&) const = default;
};

// Who is behind a tailnet address, as the Tailscale tool tells.
struct TailscaleWhois {
    std::string loginName; // never empty
    std::string nodeName; // the device, "phone"; empty when Tailscale names it in no way
    std::optional<std::string> os; // "iOS"

    // The tool's JSON for a whois. Fails when it is no JSON of at most maxSize bytes, when a known key holds
    // another type, and when the login name is missing or empty.
    static Result<TailscaleWhois, TailscaleJSONError> parse(std::string_view json);
    static constexpr std::size_t maxSize = 1 << 20; // a whois takes a few kilobytes

    bool operator==(const TailscaleWhois&) const = default;

private:
    struct Raw;
};

} // namespace pelorin
