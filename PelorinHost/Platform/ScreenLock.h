#pragma once

#include <functional>

namespace pelorin {

// What locked the desktop.
enum class LockedBy { system, shortcut };

// The line for the connection log.
constexpr const char* lockedText(LockedBy by)
{
    return by == LockedBy::system ? "locked the Mac" : "locked the Mac with ⌃⌘Q";
}

// Locks the desktop: asks the system to, and presses the lock-screen shortcut where nobody says that it is
// locked. Lives on the queue it was made with, which should be one of its own: a display server that does not
// answer holds the shortcut up for some seconds.
class ScreenLock {
public:
    virtual ~ScreenLock() = default; // an attempt under way ends there, unreported

    // done comes on the queue, never within the call, within some seconds, and may destroy us.
    virtual void lock(std::function<void(LockedBy)> done) = 0;
};

} // namespace pelorin
