#include "Tests/Lab/Programs.h"
#include "Tests/Lab/Wait.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

// The real host and viewer on two machines of a tailnet, with nobody paired: who is let in by name.
namespace pelorin {
namespace {

using lab::eventually;
using lab::Tailnet;
using nlohmann::json;
using Answer = Tailnet::Answer;
using enum Tailnet::Side;

constexpr int fine = 0;
constexpr int refusedByHost = 4;

struct TailnetSession : testing::Test {
    Tailnet tailnet;
    lab::XServer server;
    struct Outcome {
        int exit = -1;
        std::string output;
    };
    Outcome view(const std::vector<std::string>& arguments) const
    {
        std::vector<std::string> command{lab::programPath("pelorin-viewer")};
        command.insert(command.end(), arguments.begin(), arguments.end());
        const lab::TemporaryFolder folder;
        const auto log = folder.path() / "log";
        const auto viewer = lab::Process::start(tailnet.inside(phone, command), {}, log.string());
        const int exit = viewer->waitForExit(60'000);
        return {exit, lab::contentOf(log)};
    }
    static bool isReady(const lab::HostProgram& running)
    {
        return eventually([&] {
            const auto status = json::parse(running.control({"status", "--json"}), nullptr, false);
            return !status.is_discarded() && !status["listening"].is_null()
                && !status["allowedLogins"].empty();
        });
    }
};

TEST_F(TailnetSession, tellsWhoIsNotAllowedWhy)
{
    const struct {
        Answer answer;
        std::string words; // empty: admitted
    } rows[] = {
        {Answer::fine, ""},
        {Answer::guiFailsOnce, ""},
        {Answer::otherUser, "stranger@example.com（janes-phone） 不在允许列表"},
        {Answer::fails, "tailscale exited "},
        {Answer::floods, "tailscale"},
        {Answer::undecodable, "tailscale"},
        {Answer::guiFails, "tailscale"},
    };
    for (const auto& [answer, words] : rows) {
        SCOPED_TRACE(static_cast<int>(answer));
        tailnet.answer(phone, answer);
        // A host of its own each, which remembers no answer and no offence.
        lab::HostProgram desk(tailnet, server.display(), R"("requirePairing": false)");
        ASSERT_TRUE(isReady(desk)) << desk.log();
        const auto seen = view({Tailnet::address(host) + ":7420", "--headless", "--frames", "1"});
        EXPECT_EQ(seen.exit, words.empty() ? fine : refusedByHost) << seen.output << desk.log();
        EXPECT_NE(seen.output.find(words), std::string::npos) << seen.output;
        EXPECT_TRUE(words.empty() || desk.waitForConnectionLog("rejected " + Tailnet::address(phone)));
    }
}

TEST_F(TailnetSession, letsNobodyInBeforeItKnowsWhoseDesktopItIs)
{
    tailnet.answer(host, Answer::fails);
    lab::HostProgram desk(tailnet, server.display(), R"("requirePairing": false)");
    EXPECT_TRUE(desk.waitForConnectionLog(
        "whois for this Mac failed, so every connection is refused until it works: tailscale exited "));
    const auto early = view({Tailnet::address(host) + ":7420", "--headless", "--frames", "1"});
    EXPECT_EQ(early.exit, refusedByHost) << early.output;
    tailnet.answer(host, Answer::fine);
    ASSERT_TRUE(isReady(desk)) << desk.log();
    EXPECT_EQ(view({Tailnet::address(host) + ":7420", "--headless", "--frames", "1"}).exit, fine);
}

} // namespace
} // namespace pelorin
