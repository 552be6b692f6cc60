#pragma once

#include "PelorinCore/AgentDeck/AgentDeckState.h"

namespace pelorin {

// A line of a Codex rollout, as far as we go by it. It may come from any version: what is missing is empty,
// what is new is left alone.
struct CodexRecord {
    std::optional<DeckDate> when;
    std::string type; // "event_msg", "response_item", …
    std::string threadID; // of the first line
    std::string cwd;
    bool isOfSubagent = false; // a thread that another thread leads
    std::optional<AgentPhase> phase; // that begins with it
    bool isTurnMark = false; // says so outright, as newer versions do; else the phase is inferred
    std::string tool; // that is called
    std::string prompt; // of the user
    std::optional<AgentUsage> usage;

    static std::optional<CodexRecord> parse(std::string_view line); // nothing when it is no such line
    bool isKnownType() const;
};

// What the lines of one rollout say together.
struct CodexThread {
    std::string id;
    std::string cwd;
    std::string prompt; // the first
    std::string tool;
    AgentPhase phase = AgentPhase::idle;
    std::optional<DeckDate> since; // of the phase
    std::optional<DeckDate> heard; // of the last line with a date
    bool isOfSubagent = false;
    bool hasTurnMarks = false;

    void apply(const CodexRecord& record);
    bool operator==(const CodexThread&) const = default;
};

} // namespace pelorin
