#pragma once

#include "PelorinHost/Platform/Pasteboard.h"

#include <utility>
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
        ++changes;
        return true;
    }

    // What an application copied; its text is handed out when answer is called.
    void copy(std::optional<std::string> text, Types newTypes = {"UTF8_STRING"})
    {
        copied = std::move(text);
        types = std::move(newTypes);
        ++changes;
    }
    int changeCount() override { return changes; }
    void readText(std::size_t mostBytes, std::function<bool(const Types&)> wants,
        std::function<void(std::optional<std::string>)> done) override
    {
        ++questions;
        const bool isGiven = wants(types) && copied && copied->size() <= mostBytes;
        answer = [done = std::move(done), text = isGiven ? copied : std::nullopt] { done(text); };
        if (answersAtOnce) std::exchange(answer, nullptr)();
    }

    int changes = 0;
    std::optional<std::string> copied;
    Types types;
    int questions = 0;
    bool answersAtOnce = true;
    std::function<void()> answer;
};

} // namespace pelorin::fakes
