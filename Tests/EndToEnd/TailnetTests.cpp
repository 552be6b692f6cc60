#include "Tests/Lab/Picture.h"
#include "Tests/Lab/Programs.h"
#include "Tests/Lab/Wait.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

// The real host and viewer on two machines of a tailnet, from the first pairing to the end of access.
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
    std::unique_ptr<lab::Process> drawing = server.launch({"xlogo", "-geometry", "600x600+100+50"});
    lab::TemporaryFolder phoneFolder; // the viewer's own settings

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
        const auto viewer = lab::Process::start(
            tailnet.inside(phone, command), {"XDG_CONFIG_HOME=" + phoneFolder.path().string()}, log.string());
        const int exit = viewer->waitForExit(60'000);
        return {exit, lab::contentOf(log)};
    }
    static json control(const lab::HostProgram& running, std::vector<std::string> arguments)
    {
        arguments.emplace_back("--json");
        return json::parse(running.control(std::move(arguments)), nullptr, false);
    }
    static bool isReady(const lab::HostProgram& running)
    {
        return eventually([&] {
            const auto status = control(running, {"status"});
            return !status.is_discarded() && !status["listening"].is_null()
                && !status["allowedLogins"].empty();
        });
    }
};

TEST_F(TailnetSession, pairsSeesTheDesktopAndLosesItWhenRemoved)
{
    lab::HostProgram desk(tailnet, server.display());
    ASSERT_TRUE(isReady(desk)) << desk.log();
    EXPECT_EQ(control(desk, {"status"})["listening"], Tailnet::address(host) + ":7420");

    // A phone that never paired: by plain text, and with somebody else's key.
    const auto plain = view({Tailnet::address(host) + ":7420", "--headless", "--frames", "1"});
    EXPECT_NE(plain.exit, fine);
    EXPECT_NE(plain.output.find("paired"), std::string::npos) << plain.output;
    EXPECT_TRUE(desk.waitForConnectionLog("rejected janes-phone: "));

    const auto offer = control(desk, {"pair"});
    const std::string link = offer["link"];
    const auto shot = phoneFolder.path() / "shot.png";
    const auto paired = view({link, "--headless", "--frames", "3", "--screenshot", shot.string()});
    ASSERT_EQ(paired.exit, fine) << paired.output << desk.log();
    const auto seen = lab::Picture::ofPNG(shot.string());
    const auto screen = lab::Picture::ofScreen(server.display());
    ASSERT_FALSE(seen.isEmpty());
    EXPECT_GT(lab::shareOfEqualBlocks(screen.scaledTo(seen.widthPx, seen.heightPx), seen), 0.95);

    const auto again = view({link, "--headless", "--frames", "1"});
    EXPECT_NE(again.exit, fine) << "a link works once";

    const auto devices = control(desk, {"devices"});
    ASSERT_EQ(devices["devices"].size(), 1u) << devices;
    struct stat status{};
    ASSERT_EQ(stat((desk.support() / "paired-devices.json").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);

    const auto listed = json::parse(view({"--list", "--json"}).output, nullptr, false);
    const std::string name = listed["hosts"][0]["name"];
    const auto back = view({name, "--headless", "--frames", "3"});
    EXPECT_EQ(back.exit, fine) << back.output << desk.log();

    const std::string secrets[] = {link.substr(link.find("key=") + 4)};
    for (const auto& secret : secrets) {
        EXPECT_EQ(desk.log().find(secret), std::string::npos);
        EXPECT_EQ(control(desk, {"status"}).dump().find(secret), std::string::npos);
    }

    control(desk, {"remove", devices["devices"][0]["id"]});
    const auto removed = view({name, "--headless", "--frames", "1"});
    EXPECT_NE(removed.exit, fine);
    EXPECT_TRUE(desk.waitForConnectionLog("rejected janes-phone: ")) << desk.connectionLog();
    EXPECT_EQ(view({"--forget", name}).exit, fine);
    EXPECT_NE(view({name, "--headless", "--frames", "1"}).exit, fine);
}

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
