#pragma once

#include "PelorinCore/Result.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <filesystem>
#include <string>
#include <vector>

namespace pelorin {

// One run of a command-line tool.
struct ToolRun {
    std::string program; // its path
    std::vector<std::string> arguments; // after the program's name
    std::vector<std::string> environment; // "NAME=value", added to our own
    Duration deadline;
    std::size_t outputLimit = 1 << 20; // bytes of each stream
};

struct ToolExit {
    int status = 0; // 128 + signal, as shells tell it, when a signal ended the tool
    std::string output;
    std::string errors; // its standard error
};

struct ToolFailure {
    enum class Kind { notStarted, timedOut, tooMuchOutput };
    Kind kind = Kind::notStarted;
    std::string description;
};

struct InterfaceAddress {
    std::string interface; // "eth0"
    std::string address; // without a zone
};

// What the machine is called, where its user's files go, and what it can be asked.
class System {
public:
    virtual ~System() = default;

    virtual std::string hostName() = 0;
    // Without "Pelorin" folder name doubled: Linux $XDG_CONFIG_HOME/Pelorin, macOS Application
    // Support/Pelorin.
    virtual std::filesystem::path supportDirectory() = 0;
    // Linux $XDG_STATE_HOME/Pelorin, macOS Library/Logs/Pelorin.
    virtual std::filesystem::path logDirectory() = 0;

    // Of the interfaces that are up, in the system's order.
    virtual std::vector<InterfaceAddress> interfaceAddresses() = 0;
    virtual bool isExecutableFile(const std::string& path) = 0;

    // Runs a tool without standard input and tells how it ended; on queue, which is the caller's, and never
    // within this call. done may let go of the subscription. The tool and what it started are killed when its
    // deadline passes, when it writes more than it may and when the subscription goes first.
    using ToolDone = std::move_only_function<void(Result<ToolExit, ToolFailure>)>;
    [[nodiscard]] virtual Subscription runTool(QueueRef queue, ToolRun run, ToolDone done) = 0;
};

} // namespace pelorin
