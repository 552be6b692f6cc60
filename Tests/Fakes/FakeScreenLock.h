#pragma once

#include "PelorinHost/Platform/ScreenLock.h"

#include <utility>
#include <vector>

namespace pelorin::fakes {

// Counts what was asked of it; the test says when the desktop is locked.
class FakeScreenLock final : public ScreenLock {
public:
    int requests = 0;

    void lock(std::function<void(LockedBy)> done) override
    {
        ++requests;
        waiting.push_back(std::move(done));
    }
    void answer(LockedBy by)
    {
        for (const auto& done : std::exchange(waiting, {})) done(by);
    }

private:
    std::vector<std::function<void(LockedBy)>> waiting;
};

} // namespace pelorin::fakes
