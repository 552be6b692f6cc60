#include "PelorinHost/Linux/X11Displays.h"
#include "PelorinHost/Linux/X11Monitors.h"
#include "Tests/Lab/Files.h"
#include "Tests/Lab/XServer.h"

#include <gmock/gmock.h>
#include <sstream>

namespace pelorin {
namespace {

using testing::HasSubstr;

const GammaTable black{{0, 0}, {0, 0}, {0, 0}};
constexpr VirtualDisplaySettings upright{.hiDPI = true, .size = {390, 844}};
constexpr VirtualDisplaySettings sideways{.hiDPI = true, .size = {844, 390}};

// A desktop of two panels that its user arranged by hand.
struct X11DisplaysTest : testing::Test {
    lab::XServer server{{.isXorg = true, .extraArguments = {}}};
    lab::TemporaryFolder folder;
    std::optional<X11Displays> displays;

    X11DisplaysTest()
    {
        addMode("DUMMY1", "second", 1024, 768);
        xrandr({"--output", "DUMMY1", "--mode", "second", "--pos", "1280x100", "--primary"});
        tint();
        begin();
    }

    void begin()
    {
        displays.emplace(server.display());
        displays->keepNotesIn(folder.path());
    }
    void addMode(const std::string& output, const std::string& name, int width, int height) const
    {
        std::vector<std::string> arguments{"--newmode", name, "50"};
        for (const int side : {width, height})
            for (const int blank : {0, 8, 16, 24}) arguments.push_back(std::to_string(side + blank));
        xrandr(std::move(arguments));
        xrandr({"--addmode", output, name});
    }
    std::string xrandr(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), "xrandr");
        return server.run(std::move(arguments));
    }
    // Everything that RandR tells of what is shown where. The modes that could be are the driver's affair,
    // which looks for them anew at times.
    std::string everything() const
    {
        std::istringstream text(xrandr({"--verbose"}) + xrandr({"--listmonitors"})
            + server.run({"sh", "-c", "xdpyinfo | grep -A3 'screen #'"}));
        std::string kept;
        bool isCurrentMode = false;
        for (std::string line; std::getline(text, line);) {
            const bool isMode = line.starts_with("  ") && line.find("(0x") != std::string::npos;
            const bool isTiming = line.starts_with("        ");
            if (isMode) isCurrentMode = line.find("*current") != std::string::npos;
            if ((isMode || isTiming) && !isCurrentMode) continue;
            if (const auto at = line.find(" connected (normal"); at != std::string::npos)
                line.replace(at, 10, " disconnected"); // to this driver, whatever was on once is connected
            if (line.find("Timestamp:") == std::string::npos) kept += line + '\n';
        }
        return kept;
    }
    std::string monitors() const
    {
        std::string text;
        for (const auto& monitor : queryMonitors(*X11Connection::open(server.display())))
            text += fmt::format("{} {}x{}+{}+{}{};", monitor.name, monitor.bounds.width,
                monitor.bounds.height, monitor.bounds.x, monitor.bounds.y, monitor.isMain ? "*" : "");
        return text;
    }
    std::string screenSize() const
    {
        const auto text = xrandr({});
        const auto from = text.find("current ") + 8;
        return text.substr(from, text.find(',', from) - from);
    }
    // Ramps that no rule would come up with.
    void tint() const
    {
        const auto connection = X11Connection::open(server.display());
        const auto now = readArrangement(*connection);
        for (const auto& crtc : now->crtcs) {
            auto ramp = *readRamp(*connection, crtc.id);
            for (std::size_t i = 0; i < ramp.red.size(); ++i)
                ramp.red[i] = static_cast<std::uint16_t>(i * 7 + crtc.id);
            writeRamp(*connection, crtc.id, ramp);
        }
        EXPECT_TRUE(connection->settle(X11Connection::patience));
    }
    std::vector<X11Ramp> ramps() const
    {
        std::vector<X11Ramp> found;
        const auto connection = X11Connection::open(server.display());
        const auto now = readArrangement(*connection);
        for (const auto& crtc : now->crtcs)
            found.push_back(readRamp(*connection, crtc.id).value_or(X11Ramp{}));
        return found;
    }
    static bool isBlack(const X11Ramp& ramp)
    {
        return !ramp.red.empty() && ramp == X11Ramp::of(black, ramp.red.size());
    }
    bool hasNote() const { return std::filesystem::exists(folder.path() / "display-restore.json"); }

    void mirrorOnto(std::uint32_t id)
    {
        auto others = displays->onlineDisplays();
        std::erase(others, id);
        EXPECT_EQ(displays->mirror(others, id), 0);
    }
    void blacken()
    {
        for (const auto id : displays->activeDisplays()) displays->setGamma(id, black);
    }
};

TEST_F(X11DisplaysTest, mirrorsOnPanelsThatTakeTheSize)
{
    addMode("DUMMY0", "tall", 390, 844);
    const auto before = everything();
    {
        const auto phone = displays->createVirtualDisplay({});
        ASSERT_TRUE(phone->applySettings(upright));
        mirrorOnto(phone->displayID());
        EXPECT_EQ(monitors(), "DUMMY2 390x844+0+0*;DUMMY0 390x844+0+0;");
        ASSERT_TRUE(phone->applySettings(sideways));
        mirrorOnto(phone->displayID());
        EXPECT_EQ(monitors(), "DUMMY2 844x390+0+0*;");
    }
    EXPECT_EQ(everything(), before);
}

TEST_F(X11DisplaysTest, putsPanningBack)
{
    xrandr({"--output", "DUMMY0", "--panning", "2000x1500", "--pos", "0x0"});
    xrandr({"--output", "DUMMY1", "--off"});
    const auto before = everything();
    ASSERT_THAT(before, HasSubstr(" panning "));
    {
        const auto phone = displays->createVirtualDisplay({});
        const auto applied = phone->applySettings(upright);
        ASSERT_TRUE(applied) << applied.error().description;
        mirrorOnto(phone->displayID());
        EXPECT_EQ(screenSize(), "390 x 844");
    }
    EXPECT_EQ(everything(), before);
}

TEST_F(X11DisplaysTest, restoresAfterAHostThatDied)
{
    const auto before = everything();
    const auto rampsBefore = ramps();
    const auto note = folder.path() / "display-restore.json";
    std::string left;
    {
        const auto phone = displays->createVirtualDisplay({});
        ASSERT_TRUE(phone->applySettings(upright));
        mirrorOnto(phone->displayID());
        blacken();
        left = lab::contentOf(note);
        // Another one in the place of the one that is no more, while this still holds everything.
        X11Displays next(server.display());
        next.keepNotesIn(folder.path());
        EXPECT_EQ(everything(), before);
        EXPECT_EQ(ramps(), rampsBefore);
        EXPECT_FALSE(hasNote());
    }
    displays.reset();
    EXPECT_EQ(everything(), before);

    lab::write(note, left); // of a session long gone, whose mark a later one took away
    xrandr({"--output", "DUMMY0", "--off"});
    server.run({"xprop", "-root", "-remove", "_PELORIN_DISPLAY_NOTE"});
    const auto later = everything();
    begin();
    EXPECT_EQ(everything(), later);
    EXPECT_FALSE(hasNote());
}

TEST_F(X11DisplaysTest, blackensPanelsAndGivesTheirRampsBackExactly)
{
    const auto before = ramps();
    ASSERT_NE(before[0].red, before[0].green);
    blacken();
    EXPECT_THAT(ramps(), testing::Each(testing::Truly(isBlack)));
    EXPECT_TRUE(hasNote());

    // One that is plugged in meanwhile, and something else that meddles.
    addMode("DUMMY5", "third", 800, 600);
    xrandr({"--output", "DUMMY5", "--mode", "third", "--right-of", "DUMMY1"});
    xrandr({"--output", "DUMMY0", "--gamma", "1:1:1"});
    blacken();
    ASSERT_EQ(ramps().size(), 3u);
    EXPECT_THAT(ramps(), testing::Each(testing::Truly(isBlack)));

    displays->restoreGamma();
    EXPECT_EQ(ramps()[0], before[0]);
    EXPECT_EQ(ramps()[1], before[1]);
    EXPECT_FALSE(isBlack(ramps()[2]));
    EXPECT_FALSE(hasNote());
}

TEST_F(X11DisplaysTest, neverShowsAPanelBrightThatComesBackBehindThePrivacyScreen)
{
    const auto before = ramps();
    for (const bool isBlackFirst : {true, false}) {
        auto phone = displays->createVirtualDisplay({});
        if (isBlackFirst) blacken();
        ASSERT_TRUE(phone->applySettings(upright));
        mirrorOnto(phone->displayID());
        if (!isBlackFirst) blacken();
        phone.reset();
        EXPECT_THAT(ramps(), testing::Each(testing::Truly(isBlack))) << isBlackFirst;
        displays->restoreGamma();
        EXPECT_EQ(ramps(), before) << isBlackFirst;
        EXPECT_FALSE(hasNote());
    }
}

TEST_F(X11DisplaysTest, keepsWhatWasPluggedInAndLetsGoOfWhatWasUnplugged)
{
    addMode("DUMMY1", "own", 400, 300);
    xrandr({"--output", "DUMMY1", "--mode", "own"});
    auto phone = displays->createVirtualDisplay({});
    ASSERT_TRUE(phone->applySettings(upright));
    mirrorOnto(phone->displayID());
    xrandr({"--delmode", "DUMMY1", "own"});
    xrandr({"--rmmode", "own"});
    addMode("DUMMY5", "third", 800, 600);
    xrandr({"--output", "DUMMY5", "--mode", "third", "--pos", "390x0"});
    EXPECT_EQ(monitors(), "DUMMY2 390x844+0+0*;DUMMY5 800x600+390+0;");
    phone.reset();
    EXPECT_THAT(monitors(), HasSubstr("DUMMY0 1280x720+0+0"));
    EXPECT_THAT(monitors(), HasSubstr("DUMMY5 800x600+390+0;"));
    EXPECT_FALSE(hasNote());
}

TEST_F(X11DisplaysTest, changesNothingThatItCouldNotUndo)
{
    const auto before = everything();
    X11Displays unnoted(server.display());
    const auto phone = unnoted.createVirtualDisplay({});
    EXPECT_FALSE(phone->applySettings(upright));
    for (const auto id : unnoted.activeDisplays()) unnoted.setGamma(id, black);
    EXPECT_EQ(everything(), before);

    EXPECT_FALSE(displays->createVirtualDisplay({})->applySettings({.size = {40'000, 40'000}}));
    EXPECT_EQ(everything(), before);
    EXPECT_FALSE(hasNote());
}

// With a single output there is a part of its screen at most.
TEST(X11DisplaysOfOneOutput, drawsAMonitorOverThePartOfTheScreenThatFits)
{
    const lab::XServer server;
    const lab::TemporaryFolder folder;
    X11Displays displays(server.display());
    displays.keepNotesIn(folder.path());
    const auto monitors = [&] { return server.run({"xrandr", "--listactivemonitors"}); };
    const auto before = monitors();
    {
        const auto phone = displays.createVirtualDisplay({});
        EXPECT_FALSE(phone->applySettings(upright)) << "the screen is not as high";
        EXPECT_EQ(monitors(), before);
        ASSERT_TRUE(phone->applySettings(sideways));
        auto others = displays.onlineDisplays();
        ASSERT_EQ(std::erase(others, phone->displayID()), 1u);
        ASSERT_EQ(displays.mirror(others, phone->displayID()), 0);
        const auto found = queryMonitors(*X11Connection::open(server.display()));
        ASSERT_EQ(found.size(), 1u);
        EXPECT_EQ(found[0].id, phone->displayID());
        EXPECT_EQ(found[0].bounds, (Rect{0, 0, 844, 390}));
    }
    EXPECT_EQ(monitors(), before);
}

TEST(X11DisplayNote, comesBackWholeAndTakesNothingElse)
{
    X11DisplayNote note{.token = "0123"};
    note.ramps[94] = {{0, 65280}, {1, 2}, {3, 4}};
    note.arrangement = X11Arrangement{1280, 720, 338, 190, 78, {}};
    note.arrangement->crtcs.push_back({.id = 94,
        .x = -1,
        .y = 100,
        .width = 1280,
        .height = 720,
        .mode = 95,
        .rotation = 2,
        .outputs = {78, 79},
        .transform = {65536, 0, -3, 0, 65536, 0, 0, 0, 65536},
        .filter = "bilinear",
        .filterParameters = {1, -2},
        .panning = {0, 0, 2000, 1500, 0, 0, 0, 0, 1, 2, 3, -4}});
    EXPECT_EQ(X11DisplayNote::parse(note.toJSON()), note);
    const auto text = note.toJSON();
    for (std::size_t length = 0; length + 2 < text.size(); length += 7)
        EXPECT_EQ(X11DisplayNote::parse(text.substr(0, length)), std::nullopt) << length;
    for (const auto* wrong :
        {"null", "[]", "{}", R"({"token": 7, "ramps": []})", R"({"token": "", "ramps": []})",
            R"({"token": "a", "ramps": {"x": 1}})", R"({"token": "a", "ramps": [], "arrangement": []})",
            R"({"token": "a", "ramps": [], "arrangement": {"width": "wide"}})",
            "[[[[[[[[[[[[[[]]]]]]]]]]]]]]"})
        EXPECT_EQ(X11DisplayNote::parse(wrong), std::nullopt) << wrong;
    EXPECT_TRUE(X11DisplayNote::parse(
        R"({"token": "a", "ramps": [{"crtc": 1, "red": [1], "green": [1, 2], "blue": []}]})")
            ->ramps.empty());
}

} // namespace
} // namespace pelorin
