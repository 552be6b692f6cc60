#pragma once

#include <filesystem>
#include <functional>
#include <string_view>
#include <sys/types.h>

namespace pelorin {

// The lines of a file that another program appends to, each told once and only when it is whole. However big
// the file, one call reads little: of a file seen for the first time its head and its tail, later what was
// appended, or the tail of that.
class LineFile {
public:
    static constexpr std::size_t headBytes = 64 << 10;
    static constexpr std::size_t tailBytes = 256 << 10; // a longer line is skipped

    enum class Found {
        nothing, // missing, unreadable or no regular file; symbolic links are not followed
        sameFile, // with or without new lines
        anotherFile, // in its place, or it was cut: what earlier lines said is void
    };

    explicit LineFile(std::filesystem::path newPath) : path(std::move(newPath)) {}

    // line is called for each new line, without its end; before that, startOver if it is another file.
    Found read(
        const std::function<void(std::string_view line)>& line, const std::function<void()>& startOver = {});

    const std::filesystem::path path;

private:
    // Lines between two offsets; where the range begins inside a line that is left out. The offset behind the
    // last whole line.
    off_t readLines(int fd, off_t begin, off_t end, bool skipsFirst,
        const std::function<void(std::string_view line)>& line) const;

    dev_t device = 0;
    ino_t inode = 0;
    off_t offset = 0; // behind the last line told
    bool isInsideLine = false; // offset lies in one that is to be left out
};

} // namespace pelorin
