#include "Tests/Lab/PathPair.h"

#include "Tests/Lab/Programs.h"
#include "Tests/Lab/Wait.h"

#include <algorithm>
#include <csignal>
#include <fstream>

namespace pelorin::lab {
namespace {

using nlohmann::json;
using Role = PathEnd::Role;

constexpr Role roles[] = {Role::host, Role::phone};
constexpr int framesForFlow = 10;

} // namespace

PathPair::PathPair(const NatLab::Machine& host, const NatLab::Machine& phone, const Options& options)
{
    start(Role::host, host, options);
    start(Role::phone, phone, options);
}

void PathPair::start(Role role, const NatLab::Machine& machine, const Options& options)
{
    const std::string name = role == Role::host ? "host" : "phone";
    const auto program = "pelorin-path-" + (options.isSession ? name : "end");
    const auto credentials = TurnServer::credentials(name);
    std::vector<std::string> command{programPath(program.c_str()), "--role", name, "--signal",
        (folder.path() / "signal").string(), "--signal-delay", std::to_string(options.signalDelay.count()),
        "--stun", NatLab::relayAddress(0).hostText(), "--turn-user", credentials.username,
        "--turn-credential", credentials.credential};
    for (int i = 0; i < NatLab::relayCount; ++i)
        command.insert(command.end(), {"--turn", NatLab::relayAddress(i).hostText()});
    const auto& more = role == Role::host ? options.host : options.phone;
    command.insert(command.end(), more.begin(), more.end());
    end(role).output = folder.path() / name;
    end(role).process = Process::start(machine.inside(std::move(command)), {}, end(role).output.string());
}

const std::vector<json>& PathPair::reports(Role role)
{
    End& of = end(role);
    std::ifstream file(of.output);
    file.seekg(static_cast<std::streamoff>(of.readBytes));
    for (std::string line; std::getline(file, line) && !file.eof();) { // a last one may be half written
        of.readBytes += line.size() + 1;
        if (line.starts_with('{')) of.reports.push_back(json::parse(line));
    }
    return of.reports;
}

std::optional<json> PathPair::wait(Role role, const std::string& event, std::chrono::milliseconds within)
{
    std::optional<json> found;
    eventually(
        [&] {
            for (const json& each : reports(role)) {
                if (each["event"] != event) continue;
                found = each;
                return true;
            }
            return false;
        },
        within);
    return found;
}

bool PathPair::has(Role role, const std::string& event)
{
    return std::ranges::any_of(reports(role), [&](const json& each) { return each["event"] == event; });
}

bool PathPair::carriesFrames(std::chrono::milliseconds within)
{
    return eventually(
        [&] {
            return std::ranges::all_of(
                roles, [&](Role role) { return framesReceived(role) >= framesForFlow; });
        },
        within);
}

std::chrono::milliseconds PathPair::longestGapSince(
    Clock::time_point moment, std::chrono::milliseconds duration)
{
    const auto ms
        = [](Clock::duration time) { return std::chrono::duration<double, std::milli>(time).count(); };
    const double from = ms(moment.time_since_epoch());
    const auto isToldTill = [&](Role role) {
        const auto traffic = last(role, "traffic");
        return !traffic || traffic->at("at") >= from + ms(duration);
    };
    eventually([&] { return std::ranges::all_of(roles, isToldTill); }, duration + std::chrono::seconds(20));
    double longest = 0;
    for (const Role role : roles)
        for (const json& each : reports(role))
            if (each["event"] == "traffic" && each["at"] >= from)
                longest = std::max(longest, each["longestGapMs"].get<double>());
    return std::chrono::milliseconds(static_cast<long>(longest));
}

std::optional<json> PathPair::last(Role role, const std::string& event)
{
    const auto& all = reports(role);
    const auto found
        = std::find_if(all.rbegin(), all.rend(), [&](const json& each) { return each["event"] == event; });
    return found == all.rend() ? std::nullopt : std::optional(*found);
}

std::string PathPair::label(Role role)
{
    std::string latest;
    for (const json& each : reports(role))
        if (each.contains("label")) latest = each["label"];
    return latest;
}

std::uint64_t PathPair::framesReceived(Role role)
{
    const auto traffic = last(role, "traffic");
    return traffic ? traffic->at("received").get<std::uint64_t>() : 0;
}

bool PathPair::isBroken()
{
    return std::ranges::any_of(roles, [&](Role role) {
        return std::ranges::any_of(
            reports(role), [](const json& each) { return each.value("isBroken", false); });
    });
}

bool PathPair::endInOrder()
{
    for (End& each : ends) each.process->signal(SIGTERM);
    return std::ranges::all_of(ends, [](End& each) { return each.process->waitForExit(20'000) == 0; });
}

std::string PathPair::log(Role role) const
{
    return contentOf(ends[role == Role::host ? 0 : 1].output);
}

} // namespace pelorin::lab
