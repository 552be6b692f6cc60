#pragma once

#include "PelorinNet/Log.h"

#include <set>

namespace pelorin {

// Agents' formats change with their versions. What we meet and don't know is left alone, and said once each;
// so is what can't be read.
class Oddities {
public:
    explicit Oddities(std::string newAgent) : agent(std::move(newAgent)) {}

    void note(const std::string& what)
    {
        if (known.size() < most && known.insert(what).second) log.info("{}: {}", agent, what);
    }

private:
    static constexpr std::size_t most = 32; // a file of nothing but oddities must not fill the log

    Log log{"agents"};
    std::string agent;
    std::set<std::string> known;
};

} // namespace pelorin
