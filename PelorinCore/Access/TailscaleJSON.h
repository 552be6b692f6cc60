#pragma once

#include "PelorinCore/Access/TailscaleWhois.h"

#include <nlohmann/json_fwd.hpp>

namespace pelorin {

// Reads known keys out of the Tailscale tool's JSON. The first thing that is not as it must be stays as the
// problem; what is read after it means nothing.
class TailscaleJSON {
public:
    // The object that text is; what lies deeper than any key of ours is not even kept.
    nlohmann::json parse(std::string_view text, std::size_t maxSize);

    const nlohmann::json& requiredObject(const nlohmann::json& parent, const char* key);
    // Absent and null are an empty object or nothing; so is an empty string, which the tool writes for a name
    // that is not known.
    const nlohmann::json& optionalObject(const nlohmann::json& parent, const char* key);
    std::optional<std::string> optionalString(const nlohmann::json& parent, const char* key);

    void fail(std::string description);
    const std::optional<TailscaleJSONError>& problem() const { return firstProblem; }

    static std::string withoutTrailingDot(std::string name); // of a DNS name

private:
    std::optional<TailscaleJSONError> firstProblem;
};

} // namespace pelorin
