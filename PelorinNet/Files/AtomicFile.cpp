#include "PelorinNet/Files/AtomicFile.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace pelorin {
namespace {

bool writeAll(int fd, std::string_view content)
{
    while (!content.empty()) {
        const ssize_t written = ::write(fd, content.data(), content.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        content.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

// The rename is only as durable as the directory that records it.
void syncDirectory(const std::filesystem::path& directory)
{
    const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

} // namespace

bool writeFileAtomically(const std::filesystem::path& path, std::string_view content)
{
    std::error_code ignored;
    std::filesystem::create_directories(path.parent_path(), ignored);
    std::string temporary = path.string() + ".XXXXXX";
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC); // made with mode 0600
    if (fd < 0) return false;
    const bool isWritten = writeAll(fd, content) && ::fsync(fd) == 0;
    const bool isClosed = ::close(fd) == 0;
    if (!isWritten || !isClosed || ::rename(temporary.c_str(), path.c_str()) != 0) {
        ::unlink(temporary.c_str());
        return false;
    }
    syncDirectory(path.parent_path());
    return true;
}

std::optional<std::string> readWholeFile(const std::filesystem::path& path, std::size_t maxBytes)
{
    // Non-blocking, so that a pipe in the file's place can't hang us.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return std::nullopt;
    struct stat status = {};
    std::optional<std::string> content;
    if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) content.emplace();
    char chunk[16384];
    while (content) {
        const ssize_t count = ::read(fd, chunk, sizeof chunk);
        if (count < 0 && errno == EINTR) continue;
        if (count == 0) break;
        if (count < 0 || content->size() + static_cast<std::size_t>(count) > maxBytes)
            content.reset();
        else
            content->append(chunk, static_cast<std::size_t>(count));
    }
    ::close(fd);
    return content;
}

} // namespace pelorin
