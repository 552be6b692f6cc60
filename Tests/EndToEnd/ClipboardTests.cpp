#include "Tests/Lab/Programs.h"
#include "Tests/Lab/Wait.h"
#include "Tests/Lab/WindowManager.h"
#include "Tests/Peers/RawPhone.h"

#include <gtest/gtest.h>

// Text that is copied on one machine and pasted on the other, by the applications of both.
namespace pelorin {
namespace {

using namespace std::chrono_literals;
using lab::eventually;

void copyOn(const lab::XServer& server, const std::string& text)
{
    server.run({"sh", "-c", "printf %s \"$0\" | xclip -selection clipboard -in >/dev/null 2>&1", text});
}
std::string pastedOn(const lab::XServer& server)
{
    return server.run({"sh", "-c", "xclip -selection clipboard -out 2>/dev/null"});
}

TEST(Clipboard, isOneOnTheDesktopAndOnTheViewersMachine)
{
    const lab::XServer desktop;
    const lab::XServer away;
    const lab::HostProgram host(desktop.display());
    ASSERT_TRUE(host.waitUntilListening());
    copyOn(desktop, "before the session");
    copyOn(away, "nobody's business");

    const auto viewer = away.launch({lab::programPath("pelorin-viewer"), host.address(), "--clipboard"});
    const std::string there = "from the desktop: déjà 你好 🙂";
    // Copied again until the viewer is there and has said that it shares.
    ASSERT_TRUE(eventually(
        [&] {
            copyOn(desktop, there);
            return eventually([&] { return pastedOn(away) == there; }, 5s);
        },
        60s));

    const std::string back = "from the phone: 修一个错误";
    copyOn(away, back);
    EXPECT_TRUE(eventually([&] { return pastedOn(desktop) == back; })) << pastedOn(desktop);
    EXPECT_NE(host.log().find("paste from the phone: 21 characters, ⌘V false"), std::string::npos)
        << host.log();
    copyOn(away, "once more");
    EXPECT_TRUE(eventually([&] { return pastedOn(desktop) == "once more"; })) << pastedOn(desktop);
    copyOn(desktop, "and forth");
    EXPECT_TRUE(eventually([&] { return pastedOn(away) == "and forth"; }));
}

TEST(Clipboard, isPastedIntoTheApplicationThatHasTheFocus)
{
    const lab::XServer desktop;
    const auto windowManager = lab::startWindowManager(desktop);
    const lab::HostProgram host(desktop.display());
    ASSERT_TRUE(host.waitUntilListening());
    const lab::TemporaryFolder folder;
    const auto output = folder.path() / "output";
    const auto application = lab::Process::start(
        {"/usr/bin/python3", lab::sourcePath("Tests/Peers/Programs/clipboard_peer.py"), "gtk", "entry"},
        {"DISPLAY=" + desktop.display(), "LC_ALL=C.UTF-8"}, output.string());
    ASSERT_TRUE(eventually([&] { return lab::contentOf(output).find("ready") != std::string::npos; }));

    peers::RawPhone phone(host.port());
    ASSERT_TRUE(phone.sayHello());
    ASSERT_TRUE(phone.wait<message::HelloAck>());
    EXPECT_TRUE(phone.send(message::PasteText{"你好 🙂, pasted.", true}));
    EXPECT_TRUE(eventually([&] {
        return lab::contentOf(output).find("你好 🙂, pasted.") != std::string::npos;
    })) << lab::contentOf(output)
        << host.log();
}

} // namespace
} // namespace pelorin
