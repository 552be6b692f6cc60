#pragma once

#include "PelorinHost/Platform/Permissions.h"

namespace pelorin {

// X11 grants everything to whoever may connect; what can be missing is the server, or an extension that the
// backends need. Each question opens a connection of its own, so the answer is today's, and one for both
// answers: many a server starts anew when its last client leaves, and lets nobody in meanwhile.
class X11Permissions final : public Permissions {
public:
    explicit X11Permissions(std::string newDisplay) : display(std::move(newDisplay)) {}

    Answers ask() override;

private:
    const std::string display;
};

} // namespace pelorin
