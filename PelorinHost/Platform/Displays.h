#pragma once

#include "PelorinCore/Result.h"
#include "PelorinHost/Platform/PlatformError.h"

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace pelorin {

struct PointSize {
    int width = 0;
    int height = 0;
    bool operator==(const PointSize&) const = default;
};

// What a virtual display says of itself.
struct VirtualDisplayDescriptor {
    std::string name;
    int maxPixelsWide = 0;
    int maxPixelsHigh = 0;
    int millimetersWide = 0;
    int millimetersHigh = 0;
    std::uint32_t vendorID = 0;
    std::uint32_t productID = 0;
    std::uint32_t serialNum = 0;
};

struct VirtualDisplaySettings {
    bool hiDPI = false; // several pixels to a point, where the platform knows the difference
    PointSize size;
    int refreshRate = 60;
};

// A display without a panel. Goes before the Displays that made it.
class VirtualDisplay {
public:
    virtual ~VirtualDisplay() = default; // takes the display away

    virtual std::uint32_t displayID() const = 0; // once settings are applied; new ones may keep it
    // From here on part of the desktop at this size, also in place of another. Refused, all is as before.
    virtual Result<void, PlatformError> applySettings(const VirtualDisplaySettings& settings) = 0;
};

// A transfer table: what each colour becomes on the panel, 0 to 1, from dark to bright.
struct GammaTable {
    std::vector<float> red;
    std::vector<float> green;
    std::vector<float> blue;
};

// The arrangement of the desktop's displays and what their panels show of it. Any queue; each call waits for
// the display server. Ids are those of DisplayCapture. How things were before the first change is noted in a
// file, so that a host that died is tidied up after by the next one.
class Displays {
public:
    virtual ~Displays() = default; // puts back what is still changed

    // Where the note lies. What an earlier host left behind is put back now, or as soon as the server is
    // there.
    virtual void keepNotesIn(const std::filesystem::path& directory) = 0;

    virtual std::vector<std::uint32_t> onlineDisplays() = 0; // the mirroring ones too
    virtual std::vector<std::uint32_t> activeDisplays() = 0; // those whose panels show something

    virtual std::unique_ptr<VirtualDisplay> createVirtualDisplay(const VirtualDisplayDescriptor& descriptor)
        = 0; // nothing when the platform refuses, which is logged
    // Lets all these show the source in place of a part of the desktop that is their own, in one step or not
    // at all. 0, or the platform's code of what failed.
    virtual int mirror(const std::vector<std::uint32_t>& displays, std::uint32_t source) = 0;
    virtual void restoreArrangement() = 0; // as the user had it

    virtual void setGamma(std::uint32_t displayID, const GammaTable& table) = 0;
    virtual void restoreGamma() = 0; // of every display, exactly
};

} // namespace pelorin
