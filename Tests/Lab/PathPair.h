#pragma once

#include "Tests/Lab/NatLab.h"
#include "Tests/Lab/PathEnd.h"

#include <nlohmann/json.hpp>

namespace pelorin::lab {

// Two ends of a session on machines of the lab, each a program of its own, and what they report.
class PathPair {
public:
    using Role = PathEnd::Role;
    using Clock = std::chrono::steady_clock; // the one that the programs tell the time by

    struct Options {
        bool isSession = false; // a real one, instead of frames
        std::vector<std::string> host{}; // further options of each program
        std::vector<std::string> phone{};
        std::chrono::milliseconds signalDelay{40}; // one way, by a server 20 ms from each
    };
    PathPair(const NatLab::Machine& host, const NatLab::Machine& phone, const Options& options);
    PathPair(const NatLab::Machine& host, const NatLab::Machine& phone) : PathPair(host, phone, Options{}) {}

    // The first report of an event, once it is there.
    std::optional<nlohmann::json> wait(
        Role role, const std::string& event, std::chrono::milliseconds within = std::chrono::seconds(20));
    // Whether both ends have got some frames of each other's.
    bool carriesFrames(std::chrono::milliseconds within = std::chrono::seconds(20));

    std::optional<nlohmann::json> last(Role role, const std::string& event); // of its reports by now
    std::string label(Role role); // of the path in use, empty without one
    bool has(Role role, const std::string& event);
    std::uint64_t framesReceived(Role role);
    // The longest time without a frame at either end that gets some, of those that ended or went on after
    // that moment, once so much more time is over.
    std::chrono::milliseconds longestGapSince(Clock::time_point moment, std::chrono::milliseconds duration);
    bool isBroken(); // a frame came that was not sent

    // Ends both programs; whether they ended in order, with nothing to complain about for a sanitizer.
    bool endInOrder();

    std::string log(Role role) const; // of the program, reports and all
    Process& process(Role role) { return *end(role).process; }

private:
    struct End {
        std::unique_ptr<Process> process;
        std::filesystem::path output;
        std::size_t readBytes = 0;
        std::vector<nlohmann::json> reports;
    };
    End& end(Role role) { return ends[role == Role::host ? 0 : 1]; }
    void start(Role role, const NatLab::Machine& machine, const Options& options);
    const std::vector<nlohmann::json>& reports(Role role); // by now

    TemporaryFolder folder;
    End ends[2];
};

} // namespace pelorin::lab
