#pragma once

#include "PelorinHost/Platform/Displays.h"

#include <functional>
#include <map>

namespace pelorin::fakes {

// Displays by script: one physical to begin with. What was asked stays readable.
class FakeDisplays final : public Displays {
public:
    std::vector<std::uint32_t> physical{7};
    std::uint32_t virtualID = 0; // while there is one
    int refusedCreations = 0; // the first so many
    bool refusesSettings = false;
    std::vector<int> mirroringCodes; // of the next attempts; then 0
    bool listsVirtual = true;

    int creations = 0;
    std::vector<PointSize> sizes; // applied
    std::vector<std::vector<std::uint32_t>> mirrorings;
    int restorations = 0;
    std::map<std::uint32_t, GammaTable> gamma; // where it is not the user's own
    int gammaCalls = 0;
    int gammaRestorations = 0;
    std::filesystem::path notes;
    std::function<void()> onChange; // of the displays there are

    void keepNotesIn(const std::filesystem::path& directory) override { notes = directory; }
    std::vector<std::uint32_t> onlineDisplays() override
    {
        auto ids = physical;
        if (virtualID != 0 && listsVirtual) ids.push_back(virtualID);
        return ids;
    }
    std::vector<std::uint32_t> activeDisplays() override { return onlineDisplays(); }
    std::unique_ptr<VirtualDisplay> createVirtualDisplay(const VirtualDisplayDescriptor&) override
    {
        ++creations;
        if (creations <= refusedCreations) return nullptr;
        return std::make_unique<Made>(*this);
    }
    int mirror(const std::vector<std::uint32_t>& displays, std::uint32_t) override
    {
        mirrorings.push_back(displays);
        if (mirroringCodes.empty()) return 0;
        const int code = mirroringCodes.front();
        mirroringCodes.erase(mirroringCodes.begin());
        return code;
    }
    void restoreArrangement() override { ++restorations; }
    void setGamma(std::uint32_t displayID, const GammaTable& table) override
    {
        ++gammaCalls;
        gamma[displayID] = table;
    }
    void restoreGamma() override
    {
        ++gammaRestorations;
        gamma.clear();
    }

private:
    struct Made final : VirtualDisplay {
        explicit Made(FakeDisplays& newDisplays) : displays(newDisplays), id(100 + displays.creations) {}
        ~Made() override
        {
            displays.virtualID = 0;
            if (displays.onChange) displays.onChange();
        }
        std::uint32_t displayID() const override { return id; }
        Result<void, PlatformError> applySettings(const VirtualDisplaySettings& settings) override
        {
            if (displays.refusesSettings) return std::unexpected(PlatformError{"refused"});
            displays.sizes.push_back(settings.size);
            displays.virtualID = id;
            if (displays.onChange) displays.onChange();
            return {};
        }
        FakeDisplays& displays;
        const std::uint32_t id;
    };
};

} // namespace pelorin::fakes
