#pragma once

#include "PelorinHost/Linux/X11DisplayNote.h"
#include "PelorinHost/Platform/Displays.h"
#include "PelorinNet/Log.h"

#include <mutex>

namespace pelorin {

// The displays of an X server, through RandR. A phone's display is an output with nothing plugged in that
// takes a mode of its size, or else a monitor drawn over a part of the screen. A physical output mirrors it
// by showing the same part of the screen where it has such a mode; otherwise it is off meanwhile. Any queue,
// each call in one piece. A point is a pixel here. Owned by the platform.
class X11Displays final : public Displays {
public:
    explicit X11Displays(std::string display); // as in $DISPLAY; empty takes that variable
    ~X11Displays() override;

    void keepNotesIn(const std::filesystem::path& directory) override;
    std::vector<std::uint32_t> onlineDisplays() override;
    std::vector<std::uint32_t> activeDisplays() override;
    std::unique_ptr<VirtualDisplay> createVirtualDisplay(const VirtualDisplayDescriptor& descriptor) override;
    int mirror(const std::vector<std::uint32_t>& displays, std::uint32_t source) override;
    void restoreArrangement() override;
    void setGamma(std::uint32_t displayID, const GammaTable& table) override;
    void restoreGamma() override;

private:
    class PhoneDisplay;

    // The display that we made.
    struct Made {
        std::uint32_t id = 0;
        std::uint32_t output = 0; // 0: it is a monitor over a part of the screen
        PointSize size;
        bool isMirrored = false;
    };

    // Each asks for the lock to be held.
    const X11Connection* connected();
    bool reconnect();
    bool lackServer(const std::string& reason);
    void checkNote();
    bool keepNote();
    bool noteArrangement();
    void noteRamp(std::uint32_t crtc);

    Result<void, PlatformError> shape(PointSize size);
    std::vector<std::uint32_t> spareOutputs() const;
    int light(std::uint32_t output, PointSize size);
    int cover(PointSize size);
    int mirrorOutputs(const std::vector<std::uint32_t>& displays);
    int change(const X11Arrangement& now, const X11Arrangement& target);
    std::uint32_t modeOf(PointSize size, std::uint32_t output, const X11Outputs& outputs);
    void dropModes(std::optional<PointSize> but);
    void putBackArrangement();
    int undo();
    X11Arrangement asNoted(const X11Arrangement& now, const X11Outputs& outputs) const;
    void putBackRamps();
    void showGamma(std::uint32_t crtc);

    const std::string displayName;
    Log log{"display"};
    std::mutex lock; // guards what follows
    std::optional<X11Connection> connection;
    bool isLackReported = false; // of a server, since there was one
    std::filesystem::path noteFile; // empty: nothing is noted, and so nothing changed
    bool isNoteRead = false;
    X11DisplayNote note;
    std::optional<GammaTable> gamma; // that the panels show now
    std::optional<Made> made;
};

} // namespace pelorin
