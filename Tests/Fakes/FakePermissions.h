#pragma once

#include "PelorinHost/Platform/Permissions.h"

namespace pelorin::fakes {

class FakePermissions final : public Permissions {
public:
    Answer capture{true, {}};
    Answer postEvents{true, {}};
    int questions = 0;

    Answer mayCapture() override
    {
        ++questions;
        return capture;
    }
    Answer mayPostEvents() override
    {
        ++questions;
        return postEvents;
    }
};

} // namespace pelorin::fakes
