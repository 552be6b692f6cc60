#pragma once

#include "PelorinHost/Platform/Pasteboard.h"

#include <vector>

namespace pelorin::fakes {

class FakePasteboard final : public Pasteboard {
public:
    std::vector<std::string> texts; // every one ever set
    bool refuses = false;

    bool setText(const std::string& text) override
    {
        if (refuses) return false;
        texts.push_back(text);
        return true;
    }
};

} // namespace pelorin::fakes
