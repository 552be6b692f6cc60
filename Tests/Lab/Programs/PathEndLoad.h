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

// The load of a real session, of the host or of a phone: each program has one of the two.
// display: the host's; support: a folder of its own.
std::unique_ptr<PathEndLoad> makeSessionLoad(const std::string& display, const std::string& support);
bool isHostProgram();

} // namespace pelorin::lab
