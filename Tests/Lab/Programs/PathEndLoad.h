#pragma once

#include "PelorinNet/Channel/Channel.h"
#include "PelorinNet/Queue/QueuePool.h"

#include <nlohmann/json.hpp>

namespace pelorin::lab {

// What the stream of a path end is used for. Made before the pool and destroyed after it; between begin and
// end on the path's queue. Owned by the program.
class PathEndLoad {
public:
    virtual ~PathEndLoad() = default;

    std::function<void(nlohmann::json)> onReport;

    virtual void begin(QueuePool& pool, const QueueRef& queue) = 0;
    virtual void use(std::unique_ptr<Channel> channel) = 0;
    virtual nlohmann::json figures() = 0; // since the last call, where it counts gaps; null: there are none
    virtual void end() = 0;
};

struct LoadOptions {
    std::size_t frameBytes = 1000;
    std::string display; // of a host, which lets the phone see and control it
    std::string support; // the host's folder
};
std::unique_ptr<PathEndLoad> makeLoad(const LoadOptions& options); // each program has another

} // namespace pelorin::lab
