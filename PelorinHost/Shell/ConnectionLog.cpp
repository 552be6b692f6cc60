#include "PelorinHost/Shell/ConnectionLog.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/chrono.h>
#include <fstream>
#include <unistd.h>

namespace pelorin {
namespace {

std::string dated(std::string line, WallTime when)
{
    // Names come from the network: none may begin a line of its own.
    std::ranges::replace_if(line, [](unsigned char byte) { return byte < 0x20 || byte == 0x7F; }, ' ');
    const auto local = fmt::localtime(std::chrono::system_clock::to_time_t(when));
    return fmt::format("{:%Y-%m-%d %H:%M:%S} {}\n", local, line);
}

} // namespace

ConnectionLog::ConnectionLog(const std::filesystem::path& directory) : file(directory / "connections.log")
{
    std::error_code ignored; // append says what is wrong
    std::filesystem::create_directories(directory, ignored);
}

void ConnectionLog::append(const std::string& line, WallTime when)
{
    const std::string text = dated(line, when);
    makeRoomFor(text);
    // Opened for each of the few lines, so that the file may be moved away at any time.
    const int fd = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    const bool isWritten
        = fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (!isWritten) log.error("cannot write {}: {}", file.string(), std::strerror(errno));
    if (fd >= 0) ::close(fd);
}

std::vector<std::string> ConnectionLog::latest() const
{
    constexpr std::streamoff tailBytes = 16384; // of some hundred bytes a line
    std::ifstream stream(file, std::ios::binary | std::ios::ate);
    const auto size = static_cast<std::streamoff>(stream.tellg());
    if (!stream || size <= 0) return {};
    stream.seekg(std::max<std::streamoff>(size - tailBytes, 0));
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(std::move(line));
    if (size > tailBytes && !lines.empty()) lines.erase(lines.begin()); // began in the middle
    std::ranges::reverse(lines);
    lines.resize(std::min(lines.size(), mostLatest));
    return lines;
}

void ConnectionLog::makeRoomFor(const std::string& text)
{
    std::error_code error;
    const auto size = std::filesystem::file_size(file, error);
    if (error || size + text.size() <= mostBytes) return;
    auto former = file;
    former += ".1";
    std::filesystem::rename(file, former, error);
    if (error) log.error("cannot rename {}: {}", file.string(), error.message());
}

} // namespace pelorin
