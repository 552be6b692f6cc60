#pragma once

#include "PelorinHost/Platform/Permissions.h"

namespace pelorin::fakes {

class FakePermissions final : public Permissions {
public:
    Answer capture{true, {}};
    Answer postEvents{true, {}};

    Answers ask() override { return {capture, postEvents}; }
};

} // namespace pelorin::fakes
