#pragma once

#include "PelorinHost/Platform/Power.h"

#include <vector>

namespace pelorin::fakes {

// Remembers what was declared and counts the assertions alive. Assertions may outlive us.
class FakePower final : public Power {
public:
    std::vector<std::string> activities;
    std::vector<std::string> assertionNames; // every one ever taken
    bool refuses = false;

    int heldAssertions() const { return *held; }

    void declareUserActivity(const std::string& name) override { activities.push_back(name); }
    std::unique_ptr<PowerAssertion> preventDisplaySleep(const std::string& name, QueueRef) override
    {
        if (refuses) return nullptr;
        assertionNames.push_back(name);
        return std::make_unique<Held>(held);
    }

private:
    struct Held final : PowerAssertion {
        explicit Held(std::shared_ptr<int> newCount) : count(std::move(newCount)) { ++*count; }
        ~Held() override { --*count; }
        Held(const Held&) = delete;
        Held& operator=(const Held&) = delete;
        std::shared_ptr<int> count;
    };
    std::shared_ptr<int> held = std::make_shared<int>(0);
};

} // namespace pelorin::fakes
