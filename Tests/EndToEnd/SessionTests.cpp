#include "PelorinHost/Linux/X11Connection.h"
#include "Tests/Lab/Picture.h"
#include "Tests/Lab/Programs.h"
#include "Tests/Lab/Wait.h"
#include "Tests/Peers/RawPhone.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>

// Whole sessions: the real host and viewer programs on a real X server, judged by what shows on the desktop,
// in the connection log and in the programs' exit codes.
namespace pelorin {
namespace {

using namespace std::chrono_literals;
using lab::eventually;
using lab::HostProgram;
using lab::ViewerProgram;

// A desktop with one terminal, which writes every line that is typed into a file.
struct Desktop {
    lab::TemporaryFolder folder;
    lab::XServer server;
    std::unique_ptr<lab::Process> terminal;

    explicit Desktop(lab::XServer::Options options = {}) : server(std::move(options)) {}

    std::filesystem::path typed() const { return folder.path() / "typed.txt"; }
    void openTerminal()
    {
        terminal = server.launch({"env", "LC_ALL=C.UTF-8", "xterm", "-u8", "-fa", "DejaVu Sans Mono", "-fd",
            "Noto Sans Mono CJK SC", "-fs", "13", "-geometry", "80x24+0+0", "-e",
            "sh -c 'touch " + typed().string() + "; while read -r line; do echo \"$line\" >> "
                + typed().string() + "; done'"});
        ASSERT_TRUE(eventually([&] { return std::filesystem::exists(typed()); }));
    }
};

struct Held {
    bool isAnyKeyDown = false;
    bool isAnyButtonDown = false;
    int pointerX = 0;
    int pointerY = 0;
};

Held heldOn(const std::string& display)
{
    auto x = X11Connection::open(display);
    if (!x) return {};
    const XcbReply<xcb_query_keymap_reply_t> keys(
        xcb_query_keymap_reply(x->get(), xcb_query_keymap(x->get()), nullptr));
    const XcbReply<xcb_query_pointer_reply_t> pointer(
        xcb_query_pointer_reply(x->get(), xcb_query_pointer(x->get(), x->root()), nullptr));
    if (!keys || !pointer) return {};
    return {std::ranges::any_of(keys->keys, [](std::uint8_t bits) { return bits != 0; }),
        (pointer->mask & 0x1F00) != 0, pointer->root_x, pointer->root_y};
}

TEST(Session, showsTheScreenAndTypesIntoATerminal)
{
    Desktop desktop;
    desktop.openTerminal();
    HostProgram host(desktop.server.display());
    ASSERT_TRUE(host.waitUntilListening());

    ViewerProgram viewer(host, R"(expect change 10
        moveto 300 200
        click left
        key shift+a
        text bc déjà 你好，世界 🙂 #!
        key return
        wait 800
        quit)");
    ASSERT_EQ(viewer.waitForExit(), 0) << viewer.output() << host.log();
    EXPECT_TRUE(eventually([&] { return lab::contentOf(desktop.typed()) == "Abc déjà 你好，世界 🙂 #!\n"; }))
        << lab::contentOf(desktop.typed());

    const auto seen = lab::Picture::ofPNG(viewer.screenshot());
    const auto shown = lab::Picture::ofScreen(desktop.server.display());
    EXPECT_GT(lab::shareOfEqualBlocks(seen, shown), 0.97);
    EXPECT_GT(lab::shareOfLivelyBlocks(seen), 0.005);
    EXPECT_TRUE(host.waitForConnectionLog("session started: 本机（测试模式）"));
    EXPECT_TRUE(host.waitForConnectionLog("session ended after "));
}

TEST(Session, fitsThePictureToAPhoneHeldUpright)
{
    Desktop desktop({.widthPx = 2560, .heightPx = 1600, .isXorg = false, .extraArguments = {}});
    desktop.openTerminal();
    HostProgram host(desktop.server.display());
    ASSERT_TRUE(host.waitUntilListening());
    ViewerProgram viewer(host, "expect change 10\nwait 800\nquit", {"--viewport", "1170x2532@3"});
    ASSERT_EQ(viewer.waitForExit(), 0) << viewer.output() << host.log();

    const auto seen = lab::Picture::ofPNG(viewer.screenshot());
    EXPECT_EQ(seen.widthPx, 1170);
    EXPECT_EQ(seen.heightPx, 730);
    EXPECT_GT(
        lab::shareOfEqualBlocks(seen, lab::Picture::ofScreen(desktop.server.display()).scaledTo(1170, 730)),
        0.95);
}

TEST(Session, endsWhenThePhoneFallsSilentAndLetsGoOfWhatItHeld)
{
    Desktop desktop;
    HostProgram host(desktop.server.display());
    ASSERT_TRUE(host.waitUntilListening());
    ViewerProgram viewer(host, "expect change 10\nkeydown shift\ndown left\nwait 60000");
    ASSERT_TRUE(eventually([&] {
        const auto held = heldOn(desktop.server.display());
        return held.isAnyKeyDown && held.isAnyButtonDown;
    })) << viewer.output();
    viewer.process().signal(SIGSTOP);
    EXPECT_TRUE(host.waitForConnectionLog("client stopped responding"));
    EXPECT_TRUE(eventually([&] {
        const auto held = heldOn(desktop.server.display());
        return !held.isAnyKeyDown && !held.isAnyButtonDown;
    }));
    viewer.process().signal(SIGKILL);
}

TEST(Session, letsGoOfEverythingWhenThePhoneVanishesInTheMiddleOfAFrame)
{
    Desktop desktop;
    HostProgram host(desktop.server.display());
    ASSERT_TRUE(host.waitUntilListening());
    peers::RawPhone phone(host.port());
    ASSERT_TRUE(phone.sayHello() && phone.wait<message::HelloAck>());
    phone.send(message::Key{55, true, keyModifier::command});
    phone.send(message::Key{0, true, keyModifier::command});
    phone.send(message::MouseButtonChange{MouseButton::right, true, 1});
    ASSERT_TRUE(eventually([&] { return heldOn(desktop.server.display()).isAnyButtonDown; }));
    phone.send(Bytes{24, 0, 0, 1});
    phone.vanish();
    EXPECT_TRUE(host.waitForConnectionLog("session ended after "));
    EXPECT_TRUE(eventually([&] {
        const auto held = heldOn(desktop.server.display());
        return !held.isAnyKeyDown && !held.isAnyButtonDown;
    }));
}

TEST(Session, saysWhichPermissionsAreMissing)
{
    for (const std::string extension : {"XTEST", "DAMAGE", "MIT-SHM"}) {
        lab::XServer server(
            {.widthPx = 640, .heightPx = 480, .isXorg = false, .extraArguments = {"-extension", extension}});
        HostProgram host(server.display());
        ASSERT_TRUE(host.waitUntilListening());
        peers::RawPhone phone(host.port());
        phone.sayHello();
        const auto error = phone.wait<message::Error>();
        ASSERT_TRUE(error) << extension;
        EXPECT_EQ(error->code, ErrorCode::permissionsMissing) << extension;
        EXPECT_EQ(error->message, "请在 Mac 上给 Pelorin Host 授予屏幕录制和辅助功能权限");
        EXPECT_NE(host.log().find(extension), std::string::npos) << host.log();
    }
    HostProgram blind(":987"); // no X server there
    ASSERT_TRUE(blind.waitUntilListening());
    peers::RawPhone phone(blind.port());
    phone.sayHello();
    EXPECT_EQ(phone.wait<message::Error>().value_or(message::Error{}).code, ErrorCode::permissionsMissing);
}

TEST(Session, outlivesARestartOfTheXServerAndGivesUpOnADeadOne)
{
    Desktop desktop;
    HostProgram host(desktop.server.display());
    ASSERT_TRUE(host.waitUntilListening());
    peers::RawPhone phone(host.port());
    ASSERT_TRUE(phone.sayHello() && phone.wait<message::VideoFrame>());

    desktop.server.restart();
    ASSERT_TRUE(phone.wait<message::VideoFormat>()) << host.log();
    ASSERT_TRUE(phone.wait<message::VideoFrame>());
    const auto before = heldOn(desktop.server.display()).pointerX;
    ASSERT_TRUE(eventually([&] { // input finds the new server, too
        phone.send(message::MouseMove{1, 0});
        phone.send(message::Ping{1, 1});
        return phone.wait<message::Pong>() && heldOn(desktop.server.display()).pointerX != before;
    })) << host.log();

    desktop.server.kill();
    bool isGivenUp = false;
    for (const auto start = std::chrono::steady_clock::now(); !isGivenUp;) {
        ASSERT_LT(std::chrono::steady_clock::now() - start, 30s) << host.log();
        isGivenUp = !phone.send(message::Ping{1, 1}) || phone.waitForClose(500ms);
    }
    // Which of the two depends on how often the capture stopped before: a third stop is the last.
    EXPECT_TRUE(eventually([&] {
        const auto log = host.connectionLog();
        return log.find("无法开始屏幕采集") != std::string::npos
            || log.find("屏幕采集已停止") != std::string::npos;
    })) << host.connectionLog();
    EXPECT_TRUE(host.process().isRunning());
}

TEST(Session, keepsPaceWithTenThousandInputMessagesASecond)
{
    Desktop desktop;
    HostProgram host(desktop.server.display());
    ASSERT_TRUE(host.waitUntilListening());
    peers::RawPhone phone(host.port());
    ASSERT_TRUE(phone.sayHello() && phone.wait<message::VideoFrame>());
    phone.send(message::MouseMove{-5000, -5000});
    constexpr int count = 20'000; // two seconds' worth, all at once
    for (int i = 0; i < count; ++i) ASSERT_TRUE(phone.send(message::MouseMove{i % 2 ? 2.0F : -1.0F, 0}));
    phone.send(message::Ping{7, 7});
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(phone.wait<message::Pong>());
    EXPECT_LT(std::chrono::steady_clock::now() - start, 4s); // a sanitizer on a loaded machine included
    EXPECT_TRUE(eventually([&] { return heldOn(desktop.server.display()).pointerX == 1279; }))
        << heldOn(desktop.server.display()).pointerX << host.log();
}

TEST(Session, dropsFramesForAPhoneThatStopsReadingAndStaysSmall)
{
    Desktop desktop({.widthPx = 1920, .heightPx = 1080, .isXorg = false, .extraArguments = {}});
    // AddressSanitizer keeps freed memory for a while, which looks like growth.
    const char* options = std::getenv("ASAN_OPTIONS");
    HostProgram host(desktop.server.display(), {},
        {"ASAN_OPTIONS=" + std::string(options ? options : "")
            + ":quarantine_size_mb=1:thread_local_quarantine_size_kb=64"});
    ASSERT_TRUE(host.waitUntilListening());
    const auto motion = desktop.server.launch({lab::programPath("pelorin-bench-target"), "motion"});
    peers::RawPhone phone(host.port());
    ASSERT_TRUE(phone.sayHello() && phone.wait<message::VideoFrame>());

    // Silent on the receiving side, alive on the other.
    std::uint32_t pings = 0;
    const auto hasDropped = [&](int frames) {
        return eventually(
            [&] {
                phone.send(message::Ping{++pings, pings});
                const auto status = host.control({"status", "--json"});
                const auto drops = status.find("\"drops\":");
                return drops != std::string::npos && std::stoi(status.substr(drops + 8)) > frames;
            },
            lab::slowness * 20s);
    };
    ASSERT_TRUE(hasDropped(30)) << host.control({"status", "--json"});
    const auto memoryBefore = host.process().residentKiB(); // every buffer has its size by now
    ASSERT_TRUE(hasDropped(200));
    // Far less than the pictures that were dropped, and enough for the trial of an encoder on the side.
    EXPECT_LT(host.process().residentKiB(), memoryBefore + 32 * 1024);

    // Then every answer still comes, in order.
    for (std::uint32_t i = 1; i <= pings; ++i) {
        const auto pong = phone.wait<message::Pong>();
        ASSERT_TRUE(pong);
        ASSERT_EQ(pong->id, i);
    }
    const auto afterwards = phone.wait<message::VideoFrame>();
    ASSERT_TRUE(afterwards);
}

} // namespace
} // namespace pelorin
