#include "PelorinNet/Log.h"

#include <atomic>
#include <mutex>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

namespace pelorin {
namespace {

std::atomic<LogLevel> lowestLevel{LogLevel::info};
std::mutex observerLock; // guards observer
Log::Observer observer;

spdlog::logger& standardError()
{
    static const auto logger = [] {
        auto made = std::make_shared<spdlog::logger>(
            "dev.pelorin.host", std::make_shared<spdlog::sinks::stderr_color_sink_mt>());
        made->set_level(spdlog::level::trace); // our own level decides
        made->set_pattern("%Y-%m-%d %H:%M:%S.%e %^%l%$ %v");
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
    if (isEnabled(level)) standardError().log(spdlogLevel(level), "[{}] {}", category, text);
}

} // namespace pelorin
