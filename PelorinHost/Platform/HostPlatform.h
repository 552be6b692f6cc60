#pragma once

#include "PelorinHost/Platform/Compression.h"
#include "PelorinHost/Platform/CursorSource.h"
#include "PelorinHost/Platform/DisplayCapture.h"
#include "PelorinHost/Platform/Displays.h"
#include "PelorinHost/Platform/EventPosting.h"
#include "PelorinHost/Platform/Pasteboard.h"
#include "PelorinHost/Platform/Permissions.h"
#include "PelorinHost/Platform/Power.h"
#include "PelorinHost/Platform/ScreenLock.h"
#include "PelorinHost/Platform/System.h"

#include <memory>

namespace pelorin {

// Every port with the backend that the factory picked. The app makes one and passes it on; ports that hold
// state of one session are made anew for each. All members live as long as the program.
class HostPlatform {
public:
    virtual ~HostPlatform() = default;

    virtual DisplayCapture& displayCapture() = 0;
    virtual DisplayBounds& displayBounds() = 0;
    virtual Displays& displays() = 0;
    virtual Compression& compression() = 0;
    virtual Power& power() = 0;
    virtual Permissions& permissions() = 0;
    virtual System& system() = 0;
    // For a host that is the only one here: lets go of keys and buttons that one before it died with.
    virtual void letGoAfterEarlierHost() = 0;
    virtual std::unique_ptr<EventPosting> makeEventPosting(QueueRef sessionQueue) = 0;
    virtual std::unique_ptr<Pasteboard> makePasteboard(QueueRef sessionQueue) = 0;
    virtual std::unique_ptr<CursorSource> makeCursorSource() = 0;
    virtual std::unique_ptr<ScreenLock> makeScreenLock(QueueRef lockQueue) = 0;
};

} // namespace pelorin
