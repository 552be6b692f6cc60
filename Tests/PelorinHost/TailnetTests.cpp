#include "PelorinHost/Linux/LinuxSystem.h"
#include "PelorinHost/Trust/OwnTailnetAddress.h"
#include "PelorinHost/Trust/TailscaleCLI.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Lab/Tailnet.h"
#include "Tests/Lab/Wait.h"
#include "Tests/Lab/XServer.h"

#include <gtest/gtest.h>
#include <thread>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using Side = lab::Tailnet::Side;
using Answer = lab::Tailnet::Answer;

// Serves one connection and writes where it came from.
constexpr const char* serve = R"(
import socket, sys
listener = socket.create_server((sys.argv[1], 7420), family=socket.AF_INET6 if ":" in sys.argv[1] else socket.AF_INET)
print("listening", flush=True)
print("from", listener.accept()[1][0], flush=True)
)";
constexpr const char* call = R"(
import socket, sys
socket.create_connection((sys.argv[1], 7420), 20, (sys.argv[2], 0))
)";

TEST(LabTailnet, carriesConnectionsBetweenItsMachines)
{
    const lab::Tailnet tailnet, another; // with the same addresses, and out of each other's way
    const lab::TemporaryFolder folder;
    const struct {
        std::string listener, caller;
    } rows[] = {
        {lab::Tailnet::address(Side::host), lab::Tailnet::address(Side::phone)},
        {lab::Tailnet::ipv6Address(Side::host), lab::Tailnet::ipv6Address(Side::phone)},
        {lab::Tailnet::address(Side::host), lab::Tailnet::foreignAddress(Side::phone)},
    };
    for (const auto& [listener, caller] : rows) {
        const auto output = folder.path() / caller;
        const auto server = lab::Process::start(
            tailnet.inside(Side::host, {"/usr/bin/python3", "-c", serve, listener}), {}, output.string());
        ASSERT_TRUE(lab::eventually([&] { return !lab::contentOf(output).empty(); }));
        const std::vector<std::string> client{"/usr/bin/python3", "-c", call, listener, caller};
        EXPECT_NE(lab::Process::start(another.inside(Side::phone, client))->waitForExit(20'000), 0);
        EXPECT_EQ(lab::Process::start(tailnet.inside(Side::phone, client))->waitForExit(20'000), 0);
        EXPECT_EQ(server->waitForExit(20'000), 0);
        EXPECT_EQ(lab::contentOf(output), "listening\nfrom " + caller + "\n");
    }
}

TEST(LabTailnet, leavesTheMachineAloneAndLetsXClientsOut)
{
    const bool hadTool = std::filesystem::exists("/usr/local/bin/tailscale");
    const lab::XServer server;
    std::unique_ptr<lab::Process> client;
    {
        const lab::Tailnet tailnet;
        EXPECT_EQ(std::filesystem::exists("/usr/local/bin/tailscale"), hadTool);
        EXPECT_NE(lab::outputOf(tailnet.inside(Side::host, {"xdpyinfo"}), {"DISPLAY=" + server.display()})
                      .find("dimensions:    1280x720"),
            std::string::npos);
        EXPECT_EQ(lab::outputOf(tailnet.inside(Side::phone, {"tailscale", "whois", "--json", "100.99.0.9"})),
            "peer not found\n");
    }
    EXPECT_EQ(std::filesystem::exists("/usr/local/bin/tailscale"), hadTool);
}

// The host's own means, on a thread that went to its machine.
class Asker {
public:
    explicit Asker(const lab::Tailnet& newTailnet) : tailnet(newTailnet) {}

    // The answer in words. passing: time that goes by while the tool is at work.
    std::string ask(const std::string& address, Duration passing = {})
    {
        queues.advance(TailscaleCLI::rememberedFor);
        std::string words;
        const auto before = tailnet.calls();
        const auto asked = cli.whois(address, [&](const Result<TailscaleWhois, TailscaleCLIError>& answer) {
            words = answer ? answer->loginName + ' ' + answer->nodeName + ' ' + answer->os.value_or("")
                           : answer.error().description();
        });
        lab::eventually([&] { return tailnet.calls() != before; });
        queues.advance(passing);
        lab::eventually([&] {
            queues.advance(1ms);
            return !words.empty();
        });
        return words;
    }

    LinuxSystem system;

private:
    const lab::Tailnet& tailnet;
    ManualQueues queues;
    TailscaleCLI cli{system, queues.makeQueue("test")};
};

TEST(LabTailnet, answersTheHostAsTheToolDoes)
{
    lab::Tailnet tailnet;
    const auto phone = lab::Tailnet::address(Side::phone);
    const std::string unreadable = "tailscale CLI answered something unreadable: ";
    const struct {
        Answer answer;
        Duration passing;
        std::string expected;
    } rows[] = {
        {Answer::fine, 0s, "Jane@example.com janes-phone iOS"},
        {Answer::otherUser, 0s, "stranger@example.com janes-phone iOS"},
        {Answer::fails, 0s,
            "tailscale exited 1: failed to connect to local Tailscale service; is Tailscale running?"},
        {Answer::hangs, 15s, "tailscale CLI timed out"},
        {Answer::guiFailsOnce, 0s, "Jane@example.com janes-phone iOS"},
        {Answer::guiFails, 0s, unreadable + "the answer is no JSON object"},
        {Answer::floods, 0s, unreadable + "/usr/local/bin/tailscale wrote more than 1048576 bytes"},
        {Answer::undecodable, 0s, unreadable + "the answer is no JSON object"},
    };
    std::thread onTheHost([&] {
        tailnet.enter(Side::host);
        Asker host(tailnet);
        EXPECT_EQ(ownTailnetAddress(host.system.interfaceAddresses()), lab::Tailnet::address(Side::host));
        EXPECT_EQ(host.ask(lab::Tailnet::address(Side::host)), "Jane@example.com desk linux");
        EXPECT_EQ(host.ask("100.99.0.9"), "tailscale exited 1: peer not found");
        for (const auto& [answer, passing, expected] : rows) {
            tailnet.answer(Side::phone, answer);
            EXPECT_EQ(host.ask(phone, passing), expected);
        }
        tailnet.uninstallTool();
        EXPECT_FALSE(host.system.isExecutableFile("/usr/local/bin/tailscale"));
    });
    onTheHost.join();
    EXPECT_TRUE(tailnet.calls().starts_with("1 whois --json 100.101.102.1\n")) << tailnet.calls();
}

} // namespace
} // namespace pelorin
