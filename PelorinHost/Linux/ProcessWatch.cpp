#include "PelorinHost/Platform/ProcessWatch.h"

#include "PelorinNet/Files/AtomicFile.h"

#include <charconv>
#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace pelorin {
namespace {

// Of /proc/PID/stat, counted from behind the name, which may hold anything.
constexpr std::size_t stateField = 0;
constexpr std::size_t startField = 19;
constexpr std::size_t maxStatBytes = 4096;

std::vector<std::string_view> fieldsOf(std::string_view stat)
{
    std::vector<std::string_view> fields;
    stat.remove_prefix(std::min(stat.size(), stat.rfind(')') + 1));
    while (true) {
        const auto begin = stat.find_first_not_of(" \n");
        if (begin == stat.npos) return fields;
        const auto end = std::min(stat.find_first_of(" \n", begin), stat.size());
        fields.push_back(stat.substr(begin, end - begin));
        stat.remove_prefix(end);
    }
}

std::chrono::nanoseconds sinceBoot()
{
    timespec now = {};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

} // namespace

std::optional<ProcessStart> processStart(int pid)
{
    if (pid <= 0) return std::nullopt;
    const auto stat = readWholeFile("/proc/" + std::to_string(pid) + "/stat", maxStatBytes);
    if (!stat) return std::nullopt;
    const auto fields = fieldsOf(*stat);
    if (fields.size() <= startField || fields[stateField] == "Z") return std::nullopt;
    ProcessStart start;
    const auto text = fields[startField];
    std::from_chars(text.data(), text.data() + text.size(), start.ticks);
    const std::chrono::duration<double> age(std::chrono::duration<double>(sinceBoot()).count()
        - static_cast<double>(start.ticks) / static_cast<double>(::sysconf(_SC_CLK_TCK)));
    start.date = std::chrono::system_clock::now() - std::chrono::duration_cast<WallTime::duration>(age);
    return start;
}

ProcessWatch::ProcessWatch(const QueueRef& queue, int pid)
    : process(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)))
{
    if (!process) return;
    ended = queue->whenReadable(process.get(), [this] {
        ended.cancel(); // it stays readable
        const auto tell = onEnd;
        if (tell) tell();
    });
}

} // namespace pelorin
