#pragma once

#include "Tests/Lab/Files.h"
#include "Tests/Lab/Process.h"

namespace pelorin::lab {

// Two machines of a tailnet, made of this one: each a network and a mount namespace, joined by a cable that
// bears tailnet addresses, with a stand-in for the Tailscale tool at /usr/local/bin/tailscale. The real
// machine is left as it is, and all of it goes with the object, or with the thread that made it. Needs root.
// Programs inside share files with the outside, X servers' sockets under /tmp included; nothing else gets in
// or out.
class Tailnet {
public:
    enum class Side { host, phone };
    // What the tool says when it is asked about a machine. "Other user" is one whom nobody knows.
    enum class Answer { fine, otherUser, fails, guiFailsOnce, guiFails, floods, undecodable };

    Tailnet();

    static std::string address(Side side); // "100.101.102.1", "100.101.102.2"
    static std::string ipv6Address(Side side);
    static constexpr const char* loginName = "Jane@example.com"; // of both machines
    static constexpr const char* otherLoginName = "stranger@example.com";
    static std::string nodeName(Side side); // "desk", "janes-phone"

    void answer(Side about, Answer how);
    std::string calls() const; // of the tool, one line each: $TAILSCALE_BE_CLI and the arguments

    // command as a command to be started on that side.
    std::vector<std::string> inside(Side side, std::vector<std::string> command) const;
    // Takes the calling thread there, with all that it starts, until its end.
    void enter(Side side) const;

private:
    void startMachine(Side side);
    void connect();
    std::filesystem::path bin() const { return folder.path() / "bin"; }
    const Process& machine(Side side) const { return *machines[static_cast<int>(side)]; }

    TemporaryFolder folder;
    std::unique_ptr<Process> machines[2]; // each a process that holds its namespaces
};

} // namespace pelorin::lab
