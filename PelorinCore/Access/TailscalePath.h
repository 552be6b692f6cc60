#pragma once

#include <functional>
#include <optional>
#include <string>

namespace pelorin {

// Where the Tailscale command-line tool is. Its own well-known places only: what is found here decides who
// comes in, so $PATH is not asked.
class TailscalePath {
public:
    static std::optional<std::string> find(const std::function<bool(const std::string&)>& isExecutableFile);
};

} // namespace pelorin
