#pragma once

#include "PelorinHost/Platform/Permissions.h"

namespace pelorin {

// X11 grants everything to whoever may connect; what can be missing is the server, or an extension that the
// backends need. Each question opens a connection of its own, so the answer is today's.
class X11Permissions final : public Permissions {
public:
    explicit X11Permissions(std::string newDisplay) : display(std::move(newDisplay)) {}

    Answer mayCapture() override;
    Answer mayPostEvents() override;

private:
    const std::string display;
};

} // namespace pelorin
