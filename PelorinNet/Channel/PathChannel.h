#pragma once

#include "PelorinNet/Channel/Channel.h"

#include <mutex>

namespace pelorin {

// How people read the path that a remote session takes now. Any thread; the path's owner changes it, the
// channels over the path show it.
class PathLabel {
public:
    explicit PathLabel(std::string first) : text(std::move(first)) {}

    void change(std::string newText)
    {
        const std::lock_guard guard(lock);
        text = std::move(newText);
    }
    std::string get() const
    {
        const std::lock_guard guard(lock);
        return text;
    }

private:
    mutable std::mutex lock;
    std::string text;
};

// A channel over a path that moves: the same bytes, described by the path's label. identity: what the peer
// proved when the path was asked for, "dev-…" of a paired phone.
std::unique_ptr<Channel> onPath(
    std::unique_ptr<Channel> channel, std::shared_ptr<const PathLabel> label, std::string identity);

} // namespace pelorin
