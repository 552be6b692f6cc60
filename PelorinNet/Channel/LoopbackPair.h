#pragma once

#include "PelorinNet/Channel/Channel.h"

namespace pelorin {

// Two channels joined in memory; what one sends, the other receives in posted chunks. Sends complete once the
// other end has been given the bytes; while the other end's reading is paused they wait, as with a phone that
// stops reading. Works on any kind of queue, each end on its own. An end that is destroyed takes back what
// was not yet given; after finish it waits for the other end without a deadline, as in a kernel's buffer.
struct LoopbackPair {
    struct Options {
        std::string remoteAddress = "127.0.0.1";
        std::string pathDescription = "loopback";
        std::size_t chunkSize = 65536; // largest piece handed to onBytes at once
    };
    static LoopbackPair make(Options options);

    std::unique_ptr<Channel> first;
    std::unique_ptr<Channel> second;
    std::function<void(bool)> pauseSecond; // the second end stops (true) or resumes reading; any thread
};

} // namespace pelorin
