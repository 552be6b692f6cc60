#include "Tests/Lab/MessageBus.h"
#include "Tests/Lab/Programs.h"
#include "Tests/Lab/Wait.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

// The tray as a program: on a desktop with a tray, and on one without.
namespace pelorin {
namespace {

using lab::eventually;
using lab::HostProgram;
using nlohmann::json;
using testing::HasSubstr;

struct Tray : testing::Test {
    lab::XServer server;
    lab::MessageBus bus;
    lab::TemporaryFolder folder;

    void SetUp() override
    {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
        GTEST_SKIP() << "what the toolkit's libraries do on X11 passes for a fault";
#endif
    }
    std::vector<std::string> environment() const
    {
        return {"DISPLAY=" + server.display(), "DBUS_SESSION_BUS_ADDRESS=" + bus.address(),
            "XDG_CONFIG_HOME=" + folder.path().string(), "QT_QPA_PLATFORM=xcb"};
    }
    std::unique_ptr<lab::Process> start(
        const std::filesystem::path& support, const char* language = "en") const
    {
        return lab::Process::start(
            {lab::programPath("pelorin-tray"), "--support-dir", support.string(), "--language", language},
            environment());
    }
    std::string desktop(std::vector<std::string> request) const
    {
        request.insert(request.begin(), {"/usr/bin/python3", lab::programPath("pelorin-tray-desktop")});
        return lab::outputOf(request, environment());
    }
    json item() const
    {
        const auto parsed = json::parse(desktop({"menu"}), nullptr, false);
        return parsed.is_object() ? parsed : json::object();
    }
    std::string window(const std::string& name) const // its number, or nothing
    {
        return server.run({"xdotool", "search", "--onlyvisible", "--name", "^" + name + "$"});
    }
};

TEST_F(Tray, isAnItemOfTheDesktopsTrayAndEndsTheSessionFromThere)
{
    const auto watcher = lab::Process::start(
        {"/usr/bin/python3", lab::programPath("pelorin-tray-desktop"), "serve"}, environment());
    ASSERT_TRUE(eventually([&] { return item().empty() && desktop({"menu"}) == "{}\n"; }));
    HostProgram host(server.display());
    ASSERT_TRUE(host.waitUntilListening());
    const auto tray = start(host.support());
    json waiting;
    ASSERT_TRUE(eventually([&] {
        waiting = item();
        return waiting.dump().find("Waiting for a phone") != std::string::npos;
    }));
    EXPECT_FALSE(waiting["icon"].empty());
    EXPECT_THAT(waiting["menu"].dump(), HasSubstr("Address: " + host.address()));
    EXPECT_THAT(waiting["menu"].dump(), HasSubstr("Test mode"));

    lab::ViewerProgram viewer(host, "wait 60000");
    ASSERT_TRUE(
        eventually([&] { return item()["menu"].dump().find("End the session") != std::string::npos; }));
    EXPECT_THAT(item()["tip"].get<std::string>(), HasSubstr("Connected: "));
    EXPECT_NE(item()["picture"], waiting["picture"]) << "told by the icon, too";
    desktop({"click", "End the session"});
    EXPECT_EQ(viewer.waitForExit(), 4) << viewer.output();

    desktop({"click", "Quit"});
    EXPECT_EQ(tray->waitForExit(10'000), 0);
    EXPECT_NE(host.control({"status"}).find("listening"), std::string::npos) << "the host goes on";
}

TEST_F(Tray, pairsWithAPhoneThatScansItsWindow)
{
    lab::Tailnet tailnet;
    HostProgram host(tailnet, server.display());
    ASSERT_TRUE(eventually([&] {
        return host.control({"status", "--json"}).find(lab::Tailnet::loginName) != std::string::npos;
    }));
    const auto tray = start(host.support());
    ASSERT_TRUE(eventually([&] { return !window("Pelorin .* Waiting for a phone").empty(); }))
        << "there is no tray here";
    const auto second = start(host.support());
    EXPECT_EQ(second->waitForExit(10'000), 0) << "one is enough";
    // The first button is the one to pair with. Once: each press makes the link before worthless.
    server.run({"xdotool", "search", "--onlyvisible", "--name", "^Pelorin .* Waiting for a phone$",
        "windowfocus", "--sync", "key", "space"});
    ASSERT_TRUE(eventually([&] { return !window("Pair a new phone").empty(); }));
    std::string link;
    const std::string picture = (folder.path() / "picture.xwd").string();
    ASSERT_TRUE(eventually([&] {
        server.run({"xwd", "-root", "-silent", "-out", picture});
        const std::string read
            = lab::outputOf({"zbarimg", "--nodbus", "-q", "--raw", "xwd:" + picture}); // and complaints
        const auto begin = read.find("pelorin://pair?");
        if (begin == std::string::npos) return false;
        link = read.substr(begin, read.find('\n', begin) - begin);
        return true;
    }));
    const auto viewer
        = lab::Process::start(tailnet.inside(lab::Tailnet::Side::phone,
                                  {lab::programPath("pelorin-viewer"), link, "--headless", "--frames", "1"}),
            environment());
    EXPECT_EQ(viewer->waitForExit(60'000), 0);
    EXPECT_THAT(host.control({"devices", "--json"}), HasSubstr("dev-"));
    EXPECT_TRUE(eventually([&] { return window("Pair a new phone").empty(); }))
        << "it closes when it is done";
    EXPECT_TRUE(tray->isRunning());
}

} // namespace
} // namespace pelorin
