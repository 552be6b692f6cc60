#include "PelorinHost/Linux/LinuxSystem.h"
#include "PelorinHost/Trust/OwnTailnetAddress.h"
#include "PelorinHost/Trust/TailscaleCLI.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Lab/Tailnet.h"
#include "Tests/Lab/Wait.h"

#include <gtest/gtest.h>
#include <thread>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using Side = lab::Tailnet::Side;
using Answer = lab::Tailnet::Answer;

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
