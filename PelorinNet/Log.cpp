#include "PelorinNet/Log.h"

#include <array>
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>
#include <unistd.h>

namespace pelorin {
namespace {

std::atomic<LogLevel> lowestLevel{LogLevel::info};
std::mutex observerLock; // guards observer
Log::Observer observer;

// By the variable that systemd sets, which tells the device and inode of the stream: whoever has taken its
// place since gets lines for people. systemd.exec(5), $JOURNAL_STREAM.
bool isJournal()
{
    const char* stream = std::getenv("JOURNAL_STREAM");
    struct stat status = {};
    return stream && ::fstat(STDERR_FILENO, &status) == 0
        && fmt::format("{}:{}", status.st_dev, status.st_ino) == stream;
}

// The level as sd-daemon(3) wants it before a line; the journal has a date of its own.
std::string_view journalPrefix(LogLevel level)
{
    static constexpr std::array<std::string_view, 4> prefixes{"<7>", "<6>", "<4>", "<3>"};
    return prefixes.at(static_cast<std::size_t>(level));
}

spdlog::logger& standardError()
{
    static const auto logger = [] {
        auto made = std::make_shared<spdlog::logger>(
            "dev.pelorin.host", std::make_shared<spdlog::sinks::stderr_color_sink_mt>());
        made->set_level(spdlog::level::trace); // our own level decides
        made->set_pattern(isJournal() ? "%v" : "%Y-%m-%d %H:%M:%S.%e %^%l%$ %v");
        made->flush_on(spdlog::level::trace);
        return made;
    }();
    return *logger;
}

spdlog::level::level_enum spdlogLevel(LogLevel level)
{
    switch (level) {
    case LogLevel::debug:
        return spdlog::level::debug;
    case LogLevel::info:
        return spdlog::level::info;
    case LogLevel::warning:
        return spdlog::level::warn;
    case LogLevel::error:
        return spdlog::level::err;
    }
    return spdlog::level::err;
}

} // namespace

void Log::setLevel(LogLevel lowest)
{
    lowestLevel = lowest;
}

bool Log::isEnabled(LogLevel level)
{
    return level >= lowestLevel.load(std::memory_order_relaxed);
}

void Log::observe(Observer newObserver)
{
    const std::lock_guard guard(observerLock);
    observer = std::move(newObserver);
}

void Log::write(LogLevel level, std::string_view text) const
{
    {
        // Held across the call: an observer that is taken away must not still be running.
        const std::lock_guard guard(observerLock);
        if (observer) return observer(level, category, text);
    }
    if (!isEnabled(level)) return;
    static const bool isForJournal = isJournal();
    standardError().log(
        spdlogLevel(level), "{}[{}] {}", isForJournal ? journalPrefix(level) : "", category, text);
}

} // namespace pelorin
