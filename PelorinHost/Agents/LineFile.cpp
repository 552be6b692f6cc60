#include "PelorinHost/Agents/LineFile.h"

#include "PelorinNet/OwnedDescriptor.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace pelorin {
namespace {

// Less than asked for where the file ends, or was cut meanwhile.
std::string readAt(int fd, off_t begin, off_t end)
{
    std::string text(static_cast<std::size_t>(end - begin), '\0');
    std::size_t filled = 0;
    while (filled < text.size()) {
        const ssize_t count
            = ::pread(fd, text.data() + filled, text.size() - filled, begin + static_cast<off_t>(filled));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        filled += static_cast<std::size_t>(count);
    }
    text.resize(filled);
    return text;
}

} // namespace

LineFile::Found LineFile::read(
    const std::function<void(std::string_view)>& line, const std::function<void()>& startOver)
{
    // Non-blocking, so that a pipe in the file's place can't hang us.
    const OwnedDescriptor file(
        ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY));
    struct stat status = {};
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return Found::nothing;

    const bool isSame = status.st_ino == inode && status.st_dev == device && status.st_size >= offset;
    if (!isSame) {
        inode = status.st_ino;
        device = status.st_dev;
        offset = 0;
        isInsideLine = false;
        if (startOver) startOver();
    }
    const auto tail = static_cast<off_t>(tailBytes);
    if (offset == 0 && status.st_size > tail)
        offset = readLines(file.get(), 0, static_cast<off_t>(headBytes), false, line);
    if (status.st_size - offset > tail) {
        offset = status.st_size - tail;
        isInsideLine = true;
    }
    const off_t behind = readLines(file.get(), offset, status.st_size, isInsideLine, line);
    if (behind > offset) isInsideLine = false;
    offset = behind;
    // A line that fills the tail alone is too long for us; so is one that is still being left out.
    if (isInsideLine || status.st_size - offset >= tail) {
        offset = status.st_size;
        isInsideLine = true;
    }
    return isSame ? Found::sameFile : Found::anotherFile;
}

off_t LineFile::readLines(
    int fd, off_t begin, off_t end, bool skipsFirst, const std::function<void(std::string_view)>& line) const
{
    const std::string text = readAt(fd, begin, end);
    std::size_t at = 0;
    for (auto next = text.find('\n'); next != text.npos; next = text.find('\n', at)) {
        if (!std::exchange(skipsFirst, false) && next > at)
            line(std::string_view(text).substr(at, next - at));
        at = next + 1;
    }
    return begin + static_cast<off_t>(at);
}

} // namespace pelorin
