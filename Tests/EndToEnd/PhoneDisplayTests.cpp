#include "PelorinHost/Linux/X11Arrangement.h"
#include "PelorinHost/Linux/X11Gamma.h"
#include "PelorinHost/Linux/X11Monitors.h"
#include "Tests/Lab/Picture.h"
#include "Tests/Lab/Programs.h"
#include "Tests/Lab/Wait.h"
#include "Tests/Peers/RawPhone.h"

#include <algorithm>
#include <csignal>
#include <fmt/format.h>
#include <gtest/gtest.h>

// Displays of a phone's own shape and dark panels, with the real programs on a real X server of two panels.
namespace pelorin {
namespace {

using namespace std::chrono_literals;
using lab::eventually;
using lab::HostProgram;
using lab::ViewerProgram;

// What the user sees on the panels, and how.
struct Panels {
    std::optional<X11Arrangement> arrangement;
    std::vector<X11Ramp> ramps;
    bool operator==(const Panels&) const = default;

    bool areDark() const
    {
        return !ramps.empty() && std::ranges::all_of(ramps, [](const X11Ramp& ramp) {
            return ramp == X11Ramp::of({{0}, {0}, {0}}, ramp.red.size());
        });
    }
    std::string shape() const
    {
        if (!arrangement) return "none";
        return fmt::format("{}x{}", arrangement->width, arrangement->height);
    }
};

struct Desktop {
    lab::XServer server{{.isXorg = true, .extraArguments = {}}};
    std::vector<std::unique_ptr<lab::Process>> clients;

    Desktop()
    {
        server.run({"xrandr", "--newmode", "second", "50", "1024", "1032", "1040", "1048", "768", "776",
            "784", "792"});
        server.run({"xrandr", "--addmode", "DUMMY1", "second"});
        server.run({"xrandr", "--output", "DUMMY1", "--mode", "second", "--pos", "1280x100"});
        draw();
        // Ramps that no rule would come up with.
        const auto connection = X11Connection::open(server.display());
        const auto now = readArrangement(*connection);
        for (const auto& crtc : now->crtcs) {
            auto ramp = *readRamp(*connection, crtc.id);
            for (std::size_t i = 0; i < ramp.green.size(); ++i)
                ramp.green[i] = static_cast<std::uint16_t>(i * 5 + crtc.id);
            writeRamp(*connection, crtc.id, ramp);
        }
        EXPECT_TRUE(connection->settle(X11Connection::patience));
    }

    void draw()
    {
        server.run({"xsetroot", "-mod", "16", "16", "-fg", "#ffd080", "-bg", "#31475e"});
        clients.push_back(server.launch({"xclock", "-update", "1", "-geometry", "200x200+20+20"}));
    }
    Panels panels() const
    {
        Panels found;
        const auto connection = X11Connection::open(server.display());
        if (!connection) return found;
        found.arrangement = readArrangement(*connection);
        if (found.arrangement)
            for (const auto& crtc : found.arrangement->crtcs)
                found.ramps.push_back(readRamp(*connection, crtc.id).value_or(X11Ramp{}));
        return found;
    }
    std::pair<int, int> pointer() const
    {
        const auto connection = X11Connection::open(server.display());
        const auto reply = connection->reply<xcb_query_pointer_reply_t>(
            xcb_query_pointer(connection->get(), connection->root()), X11Connection::patience);
        return reply ? std::pair<int, int>(reply->root_x, reply->root_y) : std::pair(-1, -1);
    }
    std::string monitors() const { return server.run({"xrandr", "--listactivemonitors"}); }
};

message::Hello helloOfPhone()
{
    return {protocolVersion, "phone", {1170, 2532, 3}, {DisplayMode::followPhone, 0, 0},
        clientCapability::choosesDisplay};
}

TEST(PhoneDisplay, showsAnUprightDesktopTurnsItAndComesBack)
{
    Desktop desktop;
    const auto before = desktop.panels();
    HostProgram host(desktop.server.display());
    ASSERT_TRUE(host.waitUntilListening());
    const lab::TemporaryFolder folder;
    const auto upright = (folder.path() / "upright.png").string();
    ViewerProgram viewer(host,
        "expect change 10\nwait 1500\nscreenshot " + upright
            + "\nviewport 2532x1170@3\nwait 1000\nexpect still 300\nmove 10000 10000\nwait 60000\nquit",
        {"--phone-shape", "1170x2532@3", "--privacy"});
    ASSERT_TRUE(eventually([&] { return desktop.panels().shape() == "390x844"; })) << host.log();
    ASSERT_TRUE(eventually([&] { return desktop.panels().areDark(); })) << host.log();
    ASSERT_TRUE(eventually([&] { return desktop.panels().shape() == "844x390"; })) << host.log();
    ASSERT_TRUE(eventually([&] { return desktop.pointer() == std::pair(843, 389); }));
    const auto screen = lab::Picture::ofScreen(desktop.server.display());
    viewer.process().signal(SIGTERM);
    ASSERT_EQ(viewer.waitForExit(), 0) << viewer.output() << host.log();

    const auto first = lab::Picture::ofPNG(upright);
    EXPECT_EQ(first.widthPx, 390);
    EXPECT_EQ(first.heightPx, 844);
    EXPECT_GT(lab::shareOfLivelyBlocks(first), 0.5) << "dark panels are no dark picture";
    const auto last = lab::Picture::ofPNG(viewer.screenshot().string());
    EXPECT_EQ(last.widthPx, 844);
    EXPECT_GT(lab::shareOfEqualBlocks(last, screen), 0.95);
    EXPECT_TRUE(eventually([&] { return desktop.panels() == before; })) << desktop.monitors() << host.log();
    EXPECT_FALSE(std::filesystem::exists(host.support() / "display-restore.json"));
}

TEST(PhoneDisplay, isThereWithinASecondAndTurnsWithinOne)
{
    Desktop desktop;
    HostProgram host(desktop.server.display());
    ASSERT_TRUE(host.waitUntilListening());
    peers::RawPhone phone(host.port());
    const auto begun = std::chrono::steady_clock::now();
    const auto limit = 1s * lab::slowness; // on a machine that does nothing else
    phone.send(helloOfPhone());
    ASSERT_EQ(phone.wait<message::DisplayInfo>(), (message::DisplayInfo{390, 844, 390, 844})) << host.log();
    ASSERT_TRUE(phone.wait<message::VideoFrame>());
    EXPECT_LT(std::chrono::steady_clock::now() - begun, limit);

    const auto turned = std::chrono::steady_clock::now();
    phone.send(message::SetViewport{{2532, 1170, 3}});
    for (;;) {
        const auto info = phone.wait<message::DisplayInfo>();
        ASSERT_TRUE(info) << host.log();
        EXPECT_EQ(info->displayWidthPt, 844) << "neither the old shape nor the panels' in between";
        if (info->captureWidthPx == 844) break;
    }
    ASSERT_TRUE(phone.wait<message::VideoFrame>());
    EXPECT_LT(std::chrono::steady_clock::now() - turned, limit);
}

TEST(PhoneDisplay, leavesNothingBehindHoweverItEnds)
{
    Desktop desktop;
    const auto before = desktop.panels();
    HostProgram host(desktop.server.display());
    std::optional<peers::RawPhone> phone;
    const auto endHost = [&](int signal) {
        host.process().signal(signal);
        host.process().waitForExit(20'000);
        EXPECT_EQ(desktop.panels() == before, signal != SIGKILL);
        host.startAgain();
    };
    const struct {
        const char* name;
        std::function<void()> end;
    } rows[] = {
        {"bye", [&] { phone->send(message::Bye{}); }},
        {"another phone",
            [&] {
                peers::RawPhone other(host.port());
                other.sayHello();
                EXPECT_TRUE(other.wait<message::VideoFrame>()) << host.log();
            }},
        {"the phone's death", [&] { phone->vanish(); }},
        {"silence", [] {}},
        {"nonsense", [&] { phone->send(Bytes(64, 0xFF)); }},
        {"the menu", [&] { host.control({"disconnect"}); }},
        {"another display",
            [&] {
                phone->send(message::SetOptions{});
                phone->send(message::SetDisplay{{DisplayMode::mirrorMain, 0, 0}});
            }},
        {"quitting",
            [&] {
                host.control({"quit"});
                host.process().waitForExit(20'000);
                host.startAgain();
            }},
        {"SIGTERM", [&] { endHost(SIGTERM); }},
        {"the host's death", [&] { endHost(SIGKILL); }},
    };
    for (const auto& [name, end] : rows) {
        ASSERT_TRUE(host.waitUntilListening()) << name << host.log();
        phone.emplace(host.port());
        phone->send(helloOfPhone());
        phone->send(message::SetOptions{sessionOption::privacyScreen});
        ASSERT_TRUE(phone->wait<message::VideoFrame>()) << name << host.log();
        ASSERT_TRUE(eventually([&] { return desktop.panels().areDark(); })) << name << host.log();
        EXPECT_EQ(desktop.panels().shape(), "390x844") << name;
        end();
        EXPECT_TRUE(eventually([&] { return desktop.panels() == before; }))
            << name << desktop.monitors() << host.log();
        EXPECT_TRUE(eventually([&] {
            return !std::filesystem::exists(host.support() / "display-restore.json");
        })) << name;
    }
}

TEST(PhoneDisplay, isMadeAnewOnAServerThatStartedAnew)
{
    Desktop desktop;
    HostProgram host(desktop.server.display());
    ASSERT_TRUE(host.waitUntilListening());
    peers::RawPhone phone(host.port());
    phone.send(helloOfPhone());
    phone.send(message::SetOptions{sessionOption::privacyScreen});
    ASSERT_TRUE(phone.wait<message::VideoFrame>());
    desktop.server.restart();
    const auto fresh = desktop.panels().shape();
    EXPECT_TRUE(eventually([&] {
        phone.send(message::Ping{1, 1});
        return desktop.panels().shape() == "390x844" && desktop.panels().areDark();
    })) << host.log();
    phone.send(message::Bye{});
    EXPECT_TRUE(eventually([&] { return desktop.panels().shape() == "1280x720"; })) << fresh << host.log();
    EXPECT_TRUE(eventually([&] { return !desktop.panels().areDark(); }));
}

} // namespace
} // namespace pelorin
