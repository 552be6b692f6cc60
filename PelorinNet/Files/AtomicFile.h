#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace pelorin {

// Replaces path whole with content, readable by its owner alone: readers see the old file or the new one, and
// so does the next start after a crash. Makes missing directories. False when it could not; the old file then
// stands.
bool writeFileAtomically(const std::filesystem::path& path, std::string_view content);

// A regular file of at most maxBytes; nothing when it is missing, unreadable, longer or no regular file.
std::optional<std::string> readWholeFile(const std::filesystem::path& path, std::size_t maxBytes);

} // namespace pelorin
