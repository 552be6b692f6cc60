#include "PelorinHost/Linux/X11Arrangement.h"
#include "PelorinHost/Linux/X11Gamma.h"
#include "PelorinHost/Linux/X11Monitors.h"
#include "Tests/Lab/DesktopServices.h"
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
    bool isAnythingHeld() const // keys or buttons
    {
        const auto connection = X11Connection::open(server.display());
        if (!connection) return false;
        const auto keys = connection->reply<xcb_query_keymap_reply_t>(
            xcb_query_keymap(connection->get()), X11Connection::patience);
        const auto pointer = connection->reply<xcb_query_pointer_reply_t>(
            xcb_query_pointer(connection->get(), connection->root()), X11Connection::patience);
        return (pointer && (pointer->mask & 0x1F00) != 0)
            || (keys && std::ranges::any_of(keys->keys, [](std::uint8_t bits) { return bits != 0; }));
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
    lab::DesktopServices services;
    const auto before = desktop.panels();
    HostProgram host(desktop.server.display(), {}, services.environment());
    std::optional<peers::RawPhone> phone;
    const auto isKeptAwake = [&] { return services.isKeptAwakeByLogin() || services.isKeptAwakeBySaver(); };
    const auto endHost = [&](int signal) {
        host.process().signal(signal);
        host.process().waitForExit(20'000);
        EXPECT_EQ(desktop.panels() == before, signal != SIGKILL);
        EXPECT_TRUE(eventually([&] { return !isKeptAwake(); }));
        host.startAgain();
    };
    enum class Lock { never, beforeThePanelsLightUp };
    using enum Lock;
    const struct {
        const char* name;
        Lock lock;
        std::function<void()> end;
    } rows[] = {
        {"bye", beforeThePanelsLightUp, [&] { phone->send(message::Bye{}); }},
        {"another phone", never,
            [&] {
                peers::RawPhone other(host.port());
                other.sayHello();
                EXPECT_TRUE(other.wait<message::VideoFrame>()) << host.log();
            }},
        {"the phone's death", beforeThePanelsLightUp, [&] { phone->vanish(); }},
        {"silence", beforeThePanelsLightUp, [] {}},
        {"nonsense", beforeThePanelsLightUp, [&] { phone->send(Bytes(64, 0xFF)); }},
        {"the menu", never, [&] { host.control({"disconnect"}); }},
        {"quitting", never,
            [&] {
                host.control({"quit"});
                host.process().waitForExit(20'000);
                host.startAgain();
            }},
        {"SIGTERM", never, [&] { endHost(SIGTERM); }},
        {"the host's death", never, [&] { endHost(SIGKILL); }},
    };
    const auto begin = [&] {
        ASSERT_TRUE(host.waitUntilListening()) << host.log();
        services.unlock();
        phone.emplace(host.port());
        phone->send(helloOfPhone());
        phone->send(message::SetOptions{sessionOption::privacyScreen | sessionOption::lockAtEnd});
        ASSERT_TRUE(phone->wait<message::VideoFrame>()) << host.log();
        phone->send(message::Key{56, true, keyModifier::shift});
        phone->send(message::MouseButtonChange{MouseButton::middle, true, 1});
        ASSERT_TRUE(eventually([&] { return desktop.panels().areDark(); })) << host.log();
        ASSERT_TRUE(eventually([&] { return desktop.isAnythingHeld(); })) << host.log();
        ASSERT_TRUE(
            eventually([&] { return services.isKeptAwakeByLogin() && services.isKeptAwakeBySaver(); }));
        EXPECT_EQ(desktop.panels().shape(), "390x844");
    };
    for (const auto& [name, lock, end] : rows) {
        SCOPED_TRACE(name);
        begin();
        if (testing::Test::HasFatalFailure()) return;
        end();
        const bool isToLock = lock == beforeThePanelsLightUp;
        EXPECT_TRUE(!isToLock || eventually([&] {
            const bool wereDark = desktop.panels().areDark();
            if (services.isLocked()) return true;
            EXPECT_TRUE(wereDark);
            return false;
        })) << host.log();
        EXPECT_TRUE(eventually([&] { return desktop.panels() == before; }))
            << desktop.monitors() << host.log();
        EXPECT_TRUE(eventually([&] { return !desktop.isAnythingHeld(); })) << host.log();
        EXPECT_TRUE(eventually([&] { return !isKeptAwake(); }));
        EXPECT_EQ(services.isLocked(), isToLock);
        EXPECT_TRUE(
            eventually([&] { return !std::filesystem::exists(host.support() / "display-restore.json"); }));
    }

    begin();
    if (testing::Test::HasFatalFailure()) return;
    desktop.server.kill();
    EXPECT_TRUE(eventually([&] {
        phone->send(message::Ping{1, 1});
        return services.isLocked();
    })) << host.log();
    EXPECT_TRUE(eventually([&] { return !isKeptAwake(); }));
}

TEST(PhoneDisplay, goesAsSoonAsThePhoneWantsAnother)
{
    Desktop desktop;
    const auto before = desktop.panels();
    HostProgram host(desktop.server.display());
    ASSERT_TRUE(host.waitUntilListening());
    peers::RawPhone phone(host.port());
    phone.send(helloOfPhone());
    ASSERT_TRUE(phone.wait<message::VideoFrame>()) << host.log();
    phone.send(message::SetDisplay{{DisplayMode::mirrorMain, 0, 0}});
    EXPECT_TRUE(eventually([&] { return desktop.panels() == before; })) << desktop.monitors() << host.log();
}

TEST(PhoneDisplay, choosesAmongTheDisplaysAndFollowsThemAsTheyComeAndGo)
{
    Desktop desktop;
    HostProgram host(desktop.server.display());
    ASSERT_TRUE(host.waitUntilListening());
    peers::RawPhone phone(host.port());
    auto hello = helloOfPhone();
    hello.display.mode = DisplayMode::mirrorMain;
    hello.viewport = {1280, 768, 1};
    phone.send(hello);
    const auto listOf = [&](std::size_t count) {
        phone.send(message::Ping{1, 1});
        std::optional<message::DisplayList> list;
        do list = phone.wait<message::DisplayList>();
        while (list && list->displays.size() != count);
        return list.value_or(message::DisplayList{}).displays;
    };
    const auto streams = [&](float widthPt, float heightPt) {
        for (;;) {
            const auto info = phone.wait<message::DisplayInfo>();
            if (!info) return false;
            if (info->displayWidthPt == widthPt && info->displayHeightPt == heightPt)
                return phone.wait<message::VideoFrame>().has_value();
        }
    };
    const auto pushPointerTo = [&](std::pair<int, int> corner) {
        phone.send(message::MouseMove{10'000, 10'000});
        return eventually([&] { return desktop.pointer() == corner; });
    };
    const auto both = listOf(2);
    ASSERT_EQ(both.size(), 2U) << host.log();
    const auto second = std::ranges::find(both, 1024U, &DisplayDescriptor::widthPt);
    ASSERT_NE(second, both.end());
    EXPECT_FALSE(second->isMain);
    ASSERT_TRUE(streams(1280, 720)) << host.log();
    EXPECT_TRUE(pushPointerTo({1279, 719})) << "not beyond the display that is shown";

    phone.send(message::SetDisplay{{DisplayMode::mirrorMain, 0, second->id}});
    ASSERT_TRUE(streams(1024, 768)) << host.log();
    EXPECT_TRUE(pushPointerTo({1280 + 1023, 100 + 767}));

    desktop.server.run({"xrandr", "--output", "DUMMY1", "--off"});
    EXPECT_EQ(listOf(1).size(), 1U);
    EXPECT_TRUE(streams(1280, 720)) << "the main one in place of one that went" << host.log();
    desktop.server.run({"xrandr", "--output", "DUMMY1", "--mode", "second", "--pos", "1280x100"});
    EXPECT_EQ(listOf(2).size(), 2U);
    EXPECT_TRUE(streams(1024, 768)) << "the chosen one came back" << host.log();
    EXPECT_TRUE(pushPointerTo({1280 + 1023, 100 + 767}));
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
