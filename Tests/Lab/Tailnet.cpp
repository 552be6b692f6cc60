#include "Tests/Lab/Tailnet.h"

#include "PelorinCore/Result.h"
#include "Tests/Lab/Wait.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

namespace pelorin::lab {
namespace {

using Side = Tailnet::Side;

constexpr Side sides[] = {Side::host, Side::phone};
constexpr const char* answerNames[]
    = {"fine", "fine", "fails", "guiFailsOnce", "guiFails", "floods", "undecodable"};

// FOLDER holds, for each address, what is to be answered and how.
constexpr const char* tool = R"(#!/bin/sh
echo "$TAILSCALE_BE_CLI $*" >>FOLDER/calls
case "$1 $2" in
"status --json") exec cat FOLDER/status.json ;;
"whois --json") ;;
*) echo "unknown subcommand $1" >&2; exit 2 ;;
esac
how=$(cat "FOLDER/how-$3" 2>/dev/null) || { echo "peer not found" >&2; exit 1; }
case $how in
fails) echo "failed to connect to local Tailscale service; is Tailscale running?" >&2; exit 1 ;;
guiFailsOnce) echo fine >"FOLDER/how-$3"; echo "The Tailscale GUI failed to start: no display" ;;
guiFails) echo "The Tailscale GUI failed to start: no display" ;;
floods) exec head -c 10485760 /dev/zero ;;
undecodable) echo "<html>not JSON</html>" ;;
*) exec cat "FOLDER/whois-$3.json" ;;
esac
)";

std::string replaced(std::string text, const std::string& what, const std::string& by)
{
    for (std::size_t at = 0; (at = text.find(what, at)) != text.npos; at += by.size())
        text.replace(at, what.size(), by);
    return text;
}

std::string lastNumber(Side side)
{
    return side == Side::host ? "1" : "2";
}

std::string whoisJSON(Side side, const std::string& login)
{
    const auto name = Tailnet::nodeName(side);
    return R"({"Node": {"ID": 10)" + lastNumber(side) + R"(, "StableID": "nLab)" + lastNumber(side)
        + R"(CNTRL", "Name": ")" + name + R"(.tail1234.ts.net.", "User": 7, "Addresses": [")"
        + Tailnet::address(side) + R"(/32", ")" + Tailnet::ipv6Address(side)
        + R"(/128"], "Hostinfo": {"OS": ")" + (side == Side::host ? "linux" : "iOS") + R"(", "Hostname": ")"
        + name + R"("}, "Created": "2024-01-01T00:00:00Z", "Online": true, "ComputedName": ")" + name
        + R"(", "ComputedNameWithHost": ")" + name + R"("}, "UserProfile": {"ID": 7, "LoginName": ")" + login
        + R"(", "DisplayName": "Somebody", "ProfilePicURL": ""}, "CapMap": null})";
}

std::string statusOf(Side side, const std::string& curAddr)
{
    return R"({"HostName": ")" + Tailnet::nodeName(side) + R"(", "DNSName": ")" + Tailnet::nodeName(side)
        + R"(.tail1234.ts.net.", "TailscaleIPs": [")" + Tailnet::address(side) + R"(", ")"
        + Tailnet::ipv6Address(side) + R"("], "CurAddr": ")" + curAddr + R"("})";
}

} // namespace

std::string Tailnet::address(Side side)
{
    return "100.101.102." + lastNumber(side);
}

std::string Tailnet::ipv6Address(Side side)
{
    return "fd7a:115c:a1e0::" + lastNumber(side);
}

std::string Tailnet::nodeName(Side side)
{
    return side == Side::host ? "desk" : "janes-phone";
}

Tailnet::Tailnet()
{
    require(geteuid() == 0, "the tailnet of the lab needs root");
    write(bin() / "tailscale", replaced(tool, "FOLDER", folder.path().string()));
    require(chmod((bin() / "tailscale").c_str(), 0755) == 0, "chmod");
    write(folder.path() / "status.json",
        R"({"Version": "1.80.0", "BackendState": "Running", "Self": )" + statusOf(Side::host, "")
            + R"(, "Peer": {"nodekey:02": )" + statusOf(Side::phone, "203.0.113.7:41641") + "}}");
    for (const Side side : sides) {
        answer(side, Answer::fine);
        startMachine(side);
    }
    connect();
}

// Goes when its parent does, even when that is killed.
void Tailnet::startMachine(Side side)
{
    const auto ready = folder.path() / ("ready" + lastNumber(side));
    machines[static_cast<int>(side)] = Process::start({"setpriv", "--pdeathsig", "KILL", "unshare", "--net",
        "--mount", "--propagation", "private", "sh", "-c",
        "mount --bind \"$1\" /usr/local/bin && ip link set lo up && touch \"$2\" && exec sleep infinity",
        "sh", bin().string(), ready.string()});
    require(eventually([&] { return std::filesystem::exists(ready); }), "a machine of the lab did not start");
}

void Tailnet::connect()
{
    const auto run = [](std::vector<std::string> command) {
        require(Process::start(std::move(command))->waitForExit(20'000) == 0, "a cable of the lab");
    };
    // Both ends are made where they belong, so that names outside don't matter.
    run({"ip", "link", "add", "tailscale0", "netns", std::to_string(machine(Side::host).pid()), "type",
        "veth", "peer", "name", "tailscale0", "netns", std::to_string(machine(Side::phone).pid())});
    for (const Side side : sides) {
        run(inside(side, {"ip", "address", "add", address(side) + "/10", "dev", "tailscale0"}));
        run(inside(side, {"ip", "address", "add", ipv6Address(side) + "/48", "dev", "tailscale0", "nodad"}));
        run(inside(side, {"ip", "link", "set", "tailscale0", "up"}));
    }
}

void Tailnet::answer(Side about, Answer how)
{
    for (const auto& asked : {address(about), ipv6Address(about)}) {
        const auto login = how == Answer::otherUser ? otherLoginName : loginName;
        write(folder.path() / ("whois-" + asked + ".json"), whoisJSON(about, login));
        write(folder.path() / ("how-" + asked), answerNames[static_cast<int>(how)]);
    }
}

std::string Tailnet::calls() const
{
    return contentOf(folder.path() / "calls");
}

std::vector<std::string> Tailnet::inside(Side side, std::vector<std::string> command) const
{
    command.insert(command.begin(),
        {"nsenter", "--target", std::to_string(machine(side).pid()), "--net", "--mount", "--"});
    return command;
}

void Tailnet::enter(Side side) const
{
    require(unshare(CLONE_FS) == 0,
        "unshare"); // a mount namespace is entered with a root and folder of one's own
    for (const auto& [name, kind] : {std::pair("net", CLONE_NEWNET), std::pair("mnt", CLONE_NEWNS)}) {
        const auto file = "/proc/" + std::to_string(machine(side).pid()) + "/ns/" + name;
        const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
        require(setns(fd, kind) == 0, "setns");
        close(fd);
    }
}

} // namespace pelorin::lab
