#pragma once

#include "PelorinCore/Wire/Message.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace pelorin {

// Input to play and what to expect of the picture; docs/viewer-script.md describes the language.
namespace scriptStep {
struct Send {
    std::vector<Message> messages;
    bool operator==(const Send&) const = default;
};
struct Wait {
    Duration time;
    bool operator==(const Wait&) const = default;
};
struct ExpectChange {
    Duration within; // since the last input, a different picture has come or comes in that time
    bool operator==(const ExpectChange&) const = default;
};
struct ExpectStill {
    Duration time; // the picture stays as it is for so long
    bool operator==(const ExpectStill&) const = default;
};
struct Screenshot {
    std::string file;
    bool operator==(const Screenshot&) const = default;
};
struct Quit {
    bool operator==(const Quit&) const = default;
};
} // namespace scriptStep

struct ScriptStep {
    int line = 0; // counted from 1
    std::variant<scriptStep::Send, scriptStep::Wait, scriptStep::ExpectChange, scriptStep::ExpectStill,
        scriptStep::Screenshot, scriptStep::Quit>
        action;
};

struct ScriptError {
    int line = 0;
    std::string text;
    bool operator==(const ScriptError&) const = default;
};

Result<std::vector<ScriptStep>, ScriptError> parseScript(std::string_view text);

} // namespace pelorin
