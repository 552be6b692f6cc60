#include "PelorinHost/Trust/TailscaleCLI.h"

#include "PelorinHost/Trust/OwnTailnetAddress.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Fakes/FakeSystem.h"

#include <gtest/gtest.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using Kind = TailscaleCLIError::Kind;

const std::string phoneJSON
    = R"({"Node": {"ComputedName": "phone", "Hostinfo": {"OS": "iOS"}}, "UserProfile": {"LoginName": "a@x.org"}})";

class TailscaleCLITest : public testing::Test {
protected:
    TailscaleCLITest() { system.executables = {"/usr/bin/tailscale"}; }

    using Answer = Result<TailscaleWhois, TailscaleCLIError>;

    // Asks and keeps the answer under a number.
    std::size_t ask(const std::string& address)
    {
        const auto number = answers.size();
        answers.emplace_back();
        askers.push_back(
            cli->whois(address, [this, number](Answer answer) { answers[number] = std::move(answer); }));
        EXPECT_FALSE(answers[number]); // never within the call
        return number;
    }
    void answerTool(const std::string& output, int status = 0, const std::string& errors = {})
    {
        ASSERT_TRUE(system.answer(ToolExit{status, output, errors}));
        queues.runReady();
    }
    std::string errorOf(std::size_t number)
    {
        queues.runReady();
        if (!answers[number]) return "no answer yet";
        return *answers[number] ? "success" : answers[number]->error().description();
    }
    bool isPhone(std::size_t number)
    {
        queues.runReady();
        return answers[number] && *answers[number] == (TailscaleWhois{"a@x.org", "phone", "iOS"});
    }

    ManualQueues queues;
    QueueRef queue = queues.makeQueue("test");
    fakes::FakeSystem system{"fake"};
    std::unique_ptr<TailscaleCLI> cli = std::make_unique<TailscaleCLI>(system, queue);
    std::deque<std::optional<Answer>> answers;
    std::vector<Subscription> askers;
};

TEST_F(TailscaleCLITest, runsTheToolAsToldAndReadsItsAnswer)
{
    const auto asked = ask("::ffff:100.64.0.2");
    ASSERT_EQ(system.runs.size(), 1u);
    EXPECT_EQ(system.runs[0].program, "/usr/bin/tailscale");
    EXPECT_EQ(system.runs[0].arguments, (std::vector<std::string>{"whois", "--json", "100.64.0.2"}));
    EXPECT_EQ(system.runs[0].environment, (std::vector<std::string>{"TAILSCALE_BE_CLI=1"}));
    EXPECT_EQ(system.runs[0].deadline, 15s);
    answerTool(phoneJSON);
    EXPECT_TRUE(isPhone(asked));
}

TEST_F(TailscaleCLITest, describesEachFailure)
{
    using Failed = ToolFailure::Kind;
    const struct {
        Result<ToolExit, ToolFailure> how;
        std::string description;
    } rows[] = {
        {ToolExit{1, "", "peer not found\n"}, "tailscale exited 1: peer not found"},
        {ToolExit{137, phoneJSON, ""}, "tailscale exited 137: "},
        {ToolExit{1, "", "two\nlines \xFF\n"}, "tailscale exited 1: two lines \uFFFD"},
        {ToolExit{0, "not JSON", ""},
            "tailscale CLI answered something unreadable: the answer is no JSON object"},
        {ToolExit{0, "{\"Node\": {}}", ""}, "tailscale CLI answered something unreadable: no UserProfile"},
        {std::unexpected(ToolFailure{Failed::timedOut, "x"}), "tailscale CLI timed out"},
        {std::unexpected(ToolFailure{Failed::tooMuchOutput, "10 MB"}),
            "tailscale CLI answered something unreadable: 10 MB"},
        {std::unexpected(ToolFailure{Failed::notStarted, "no memory"}), "tailscale exited 126: no memory"},
    };
    for (const auto& row : rows) {
        const auto asked = ask("100.64.0.2");
        ASSERT_TRUE(system.answer(row.how));
        EXPECT_EQ(errorOf(asked), row.description);
    }
    EXPECT_EQ(system.runs.size(), std::size(rows)); // no failure was remembered

    EXPECT_EQ(errorOf(ask("--help")), "tailscale CLI answered something unreadable: no IP address");
    system.executables.clear();
    EXPECT_EQ(errorOf(ask("100.64.0.2")), "tailscale CLI not found");
    EXPECT_EQ(system.runs.size(), std::size(rows));
}

TEST_F(TailscaleCLITest, givesAnAppThatDidNotActAsTheToolOneSecondChance)
{
    const std::string gui = "The Tailscale GUI failed to start: something";
    auto asked = ask("100.64.0.2");
    answerTool(gui);
    queues.advance(299ms);
    EXPECT_EQ(system.runs.size(), 1u);
    queues.advance(1ms);
    ASSERT_EQ(system.runs.size(), 2u);
    EXPECT_EQ(system.runs[1].arguments, system.runs[0].arguments);
    answerTool(phoneJSON);
    EXPECT_TRUE(isPhone(asked));

    asked = ask("100.64.0.3");
    answerTool(gui);
    queues.advance(300ms);
    answerTool(gui);
    EXPECT_EQ(errorOf(asked), "tailscale CLI answered something unreadable: the answer is no JSON object");
    EXPECT_EQ(system.runs.size(), 4u);

    asked = ask("100.64.0.4"); // on standard error with a failure it is a failure like any
    answerTool("", 1, gui);
    EXPECT_EQ(errorOf(asked), "tailscale exited 1: " + gui);

    ask("100.64.0.5");
    answerTool(gui);
    cli.reset(); // during the pause
    queues.advance(10s);
    EXPECT_EQ(system.runs.size(), 6u);
}

TEST_F(TailscaleCLITest, asksTheSameOnceAndRemembersItForAMoment)
{
    const auto first = ask("100.64.0.2"), second = ask("100.64.0.2"), left = ask("::ffff:6440:2");
    askers[left] = {};
    EXPECT_EQ(system.runs.size(), 1u);
    answerTool(phoneJSON);
    EXPECT_TRUE(isPhone(first));
    EXPECT_TRUE(isPhone(second));
    EXPECT_FALSE(answers[left]);

    queues.advance(9'999ms);
    EXPECT_TRUE(isPhone(ask("100.64.0.2")));
    EXPECT_EQ(system.runs.size(), 1u);
    queues.advance(1ms);
    const auto later = ask("100.64.0.2");
    EXPECT_EQ(system.runs.size(), 2u);
    answerTool("", 1, "gone");
    EXPECT_EQ(errorOf(later), "tailscale exited 1: gone");
}

TEST_F(TailscaleCLITest, holdsBackWhatIsTooMuchAtOnce)
{
    const auto address = [](std::size_t i) { return "100.64.1." + std::to_string(i); };
    const std::size_t all = TailscaleCLI::maxProcesses + TailscaleCLI::maxWaiting;
    for (std::size_t i = 0; i < all; ++i) ask(address(i));
    EXPECT_EQ(system.runs.size(), TailscaleCLI::maxProcesses);
    EXPECT_EQ(errorOf(ask(address(200))), "tailscale CLI busy");
    const auto sharing = ask(address(all - 1)); // no process more

    askers[TailscaleCLI::maxProcesses] = {}; // the next in line leaves before its turn
    for (std::size_t i = 0; i < all - 1; ++i) {
        EXPECT_LE(system.runningCount(), TailscaleCLI::maxProcesses);
        answerTool(phoneJSON);
    }
    EXPECT_EQ(system.runs.size(), all - 1);
    EXPECT_EQ(system.runs[TailscaleCLI::maxProcesses].arguments[2], address(TailscaleCLI::maxProcesses + 1));
    EXPECT_FALSE(answers[TailscaleCLI::maxProcesses]);
    EXPECT_TRUE(isPhone(all - 1));
    EXPECT_TRUE(isPhone(sharing));
}

TEST_F(TailscaleCLITest, mayBeDestroyedByAnyAnswerAndEndsItsProcesses)
{
    askers.push_back(cli->whois("100.64.0.2", [this](Answer) { cli.reset(); }));
    bool heard = false;
    askers.push_back(cli->whois("100.64.0.2", [&](Answer) { heard = true; }));
    ask("100.64.0.3");
    answerTool(phoneJSON);
    EXPECT_FALSE(cli);
    EXPECT_TRUE(heard);
    EXPECT_EQ(system.runningCount(), 0u);
}

TEST_F(TailscaleCLITest, readsTheStatus)
{
    std::optional<std::string> name, where;
    std::string problem;
    auto asked = cli->ownDNSName([&](auto answer) { name = *answer; });
    answerTool(R"({"Self": {"DNSName": "desk.tail1.ts.net."}})");
    EXPECT_EQ(name, "desk.tail1.ts.net");
    EXPECT_EQ(system.runs.back().arguments, (std::vector<std::string>{"status", "--json", "--peers=false"}));

    asked = cli->curAddrOf("100.64.0.2", [&](auto answer) { where = *answer; });
    answerTool(R"({"Peer": {"k": {"TailscaleIPs": ["100.64.0.2"], "CurAddr": "203.0.113.7:41641"}}})");
    EXPECT_EQ(where, "203.0.113.7:41641");
    EXPECT_EQ(system.runs.back().arguments, (std::vector<std::string>{"status", "--json"}));

    asked = cli->ownDNSName([&](auto answer) { problem = answer.error().description(); });
    answerTool("[]");
    EXPECT_EQ(problem, "tailscale CLI answered something unreadable: the answer is no JSON object");
}

TEST(OwnTailnetAddress, prefersTailscalesOwnInterfaceAndIPv4)
{
    const InterfaceAddress home{"eth0", "192.168.1.2"}, carrier{"wwan0", "100.70.1.1"},
        own4{"tailscale0", "100.101.1.1"}, own6{"tailscale0", "fd7a:115c:a1e0::1"}, link{"eth0", "fe80::1"};
    const struct {
        std::vector<InterfaceAddress> addresses;
        std::optional<std::string> expected;
    } rows[] = {
        {{}, {}},
        {{home, link}, {}},
        {{home, own6, own4}, "100.101.1.1"},
        {{own4}, "100.101.1.1"},
        {{own6, home}, "fd7a:115c:a1e0::1"},
        {{carrier, own4, own6}, "100.101.1.1"},
        {{carrier, own4}, "100.70.1.1"},
        {{carrier, own6}, "100.70.1.1"},
    };
    for (const auto& row : rows) EXPECT_EQ(ownTailnetAddress(row.addresses), row.expected);
}

} // namespace
} // namespace pelorin
