#pragma once

#include "PelorinCore/AgentDeck/AgentDeckState.h"

#include <optional>
#include <string>
#include <string_view>

namespace pelorin {

// What Claude Code writes for itself and says to commands of the user's, as far as we go by it. Each text may
// come from any version: what is missing is empty, what is new is left alone.

bool isSessionID(std::string_view text); // as it may stand in a file's name

// sessions/<pid>.json: one running session.
struct ClaudeSession {
    int pid = 0;
    std::string sessionID;
    std::string cwd;
    std::optional<DeckDate> startedAt;
    std::optional<DeckDate> statusSince;
    std::string processStart; // of the process, in the system's own form
    std::string kind; // "interactive", "bg", "daemon", …
    std::string entrypoint; // "cli", "sdk-py", …
    std::string name;
    std::string status; // "busy", "shell", "idle", "waiting"
    std::string waitingFor;

    static std::optional<ClaudeSession> parse(std::string_view text); // nothing without process or session
    static constexpr std::size_t maxSize = 64 << 10;

    bool isForPeople() const; // not one that another program leads
    bool operator==(const ClaudeSession&) const = default;
};

// What Claude Code tells a hook, or the command of its status line, on standard input.
struct ClaudeReport {
    std::string sessionID;
    std::string project; // the last part of its directory
    std::string event; // "PreToolUse", …; empty: of the status line
    std::string notification; // "permission_prompt", …
    std::string tool;
    bool isAboutPermission = false; // by the words of a notification that has no type
    AgentUsage usage;

    // Nothing when it is of no session, or tells neither an event nor a usage.
    static std::optional<ClaudeReport> parse(std::string_view text);
    static constexpr std::size_t maxSize = 8 << 20; // a tool's whole input and output may be in it
    std::string encode() const; // what of it we go by, which is what parse reads, in at most 2000 bytes

    bool operator==(const ClaudeReport&) const = default;
};

// What a line of a transcript says about the session's title.
struct ClaudeTitle {
    enum class Rank { firstPrompt, summary, generated, chosen };
    Rank rank = Rank::firstPrompt;
    std::string text;

    static std::optional<ClaudeTitle> parse(std::string_view line);
    bool operator==(const ClaudeTitle&) const = default;
};

} // namespace pelorin
