#pragma once

#include <fmt/format.h>
#include <functional>
#include <string>
#include <string_view>

namespace pelorin {

enum class LogLevel { debug, info, warning, error };

// The diagnostic log, in English. A Log is a category ("session", "capture", "encoder") of the one subsystem
// "dev.pelorin.host"; lines go to standard error, with date and level, or as systemd's journal reads them
// when that is what standard error is connected to. Any thread.
class Log {
public:
    explicit Log(std::string_view categoryName) : category(categoryName) {}

    template <class... Args>
    void debug(fmt::format_string<Args...> format, Args&&... args) const
    {
        if (isEnabled(LogLevel::debug))
            write(LogLevel::debug, fmt::format(format, std::forward<Args>(args)...));
    }
    template <class... Args>
    void info(fmt::format_string<Args...> format, Args&&... args) const
    {
        if (isEnabled(LogLevel::info))
            write(LogLevel::info, fmt::format(format, std::forward<Args>(args)...));
    }
    template <class... Args>
    void warning(fmt::format_string<Args...> format, Args&&... args) const
    {
        write(LogLevel::warning, fmt::format(format, std::forward<Args>(args)...));
    }
    template <class... Args>
    void error(fmt::format_string<Args...> format, Args&&... args) const
    {
        write(LogLevel::error, fmt::format(format, std::forward<Args>(args)...));
    }

    static void setLevel(LogLevel lowest);
    static bool isEnabled(LogLevel level);

    // Takes every line while it is set, instead of standard error; an empty function restores it. For tests.
    using Observer = std::function<void(LogLevel, std::string_view category, std::string_view text)>;
    static void observe(Observer observer);

private:
    void write(LogLevel level, std::string_view text) const;

    std::string category;
};

} // namespace pelorin
