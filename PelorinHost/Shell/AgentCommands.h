#pragma once

#include <iosfwd>
#include <optional>
#include <string>

namespace pelorin {

// The command line's part in watching coding agents.
namespace AgentCommands {

// The deck for people, from the JSON of a running host. Nothing when it is no deck.
std::optional<std::string> readableDeck(const std::string& json);

// The control socket's request for what Claude Code tells a hook or its status line, with what the deck goes
// by and nothing else: neither prompts nor what tools are given and return. Nothing when there is none of it.
std::optional<std::string> eventRequest(std::istream& input);

} // namespace AgentCommands

} // namespace pelorin
