#pragma once

#include "PelorinNet/Log.h"

#include <string>
#include <vector>

namespace pelorin {

// What is logged while it stands; of one category, where one is named.
class LogLines {
public:
    explicit LogLines(std::string_view category = {})
    {
        Log::observe([this, category](LogLevel, std::string_view of, std::string_view text) {
            if (category.empty() || category == of) lines.emplace_back(text);
        });
    }
    ~LogLines() { Log::observe({}); }
    LogLines(const LogLines&) = delete;
    LogLines& operator=(const LogLines&) = delete;

    std::vector<std::string> lines;
};

} // namespace pelorin
