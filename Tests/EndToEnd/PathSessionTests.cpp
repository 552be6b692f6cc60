#include "Tests/Lab/PathPair.h"
#include "Tests/Lab/Wait.h"
#include "Tests/Lab/XServer.h"

#include <gmock/gmock.h>

// Real sessions between two networks: the host's server on a real display, a phone that types into a terminal
// there and watches it, QUIC over a path between them.
namespace pelorin {
namespace {

using namespace std::chrono_literals;
using lab::eventually;
using lab::NatKind;
using lab::NatLab;
using lab::PathPair;
using testing::StartsWith;
using Role = lab::PathEnd::Role;
using enum NatKind;

// A desktop with one terminal, which puts every line that is typed into a file.
struct Desktop {
    Desktop()
        : terminal(server.launch({"xterm", "-geometry", "200x60+0+0", "-e",
              "sh -c 'exec cat >" + (folder.path() / "typed").string() + "'"}))
    {
        EXPECT_TRUE(eventually([&] { return std::filesystem::exists(folder.path() / "typed"); }));
    }
    // How many of the numbers 1, 2, 3, … were typed, a line each; negative when there is anything else.
    int linesInOrder() const
    {
        std::istringstream text(lab::contentOf(folder.path() / "typed"));
        int count = 0;
        for (std::string line; std::getline(text, line); ++count)
            if (line != std::to_string(count + 1)) return -1;
        return count;
    }

    lab::TemporaryFolder folder;
    lab::XServer server;
    std::unique_ptr<lab::Process> terminal;
};

void liveThrough(NatKind hostKind, NatKind phoneKind, const std::string& label,
    const std::function<void(NatLab&, NatLab::Machine& phone)>& lose, const std::string& laterLabel)
{
    SCOPED_TRACE(label);
    Desktop desktop;
    NatLab lab;
    NatLab::Machine& host = lab.addMachine(hostKind);
    NatLab::Machine& phone = lab.addMachine(phoneKind);
    lab.setQuality({.delay = 20ms, .bitsPerSecond = 50e6});
    PathPair pair(host, phone,
        {.isSession = true,
            .host
            = {"--display", desktop.server.display(), "--support-dir", desktop.folder.path().string()}});
    const auto logs = [&] { return pair.log(Role::host) + pair.log(Role::phone); };
    const auto types = [&](int lines) { return eventually([&] { return desktop.linesInOrder() >= lines; }); };
    const auto shown = [&] { // of the host's words about the path, the last
        const auto path = pair.last(Role::phone, "path");
        return path ? path->at("text").get<std::string>() : "";
    };
    ASSERT_TRUE(types(10)) << desktop.linesInOrder() << logs();
    EXPECT_TRUE(eventually([&] { return shown().starts_with(label); })) << shown();
    const auto pictures = pair.framesReceived(Role::phone);
    EXPECT_GE(pictures, 5);

    const auto moment = PathPair::Clock::now();
    const int before = desktop.linesInOrder();
    lose(lab, phone);
    ASSERT_TRUE(types(before + 20)) << desktop.linesInOrder() << logs();
    // A second for the path, and one more picture of a line that is typed ten times a second.
    EXPECT_LE(pair.longestGapSince(moment, lab::slowness * 2000ms), lab::slowness * 1300ms) << logs();
    EXPECT_GT(pair.framesReceived(Role::phone), pictures + 10);
    EXPECT_TRUE(eventually([&] { return shown().starts_with(laterLabel); })) << shown() << logs();
    EXPECT_FALSE(pair.has(Role::phone, "closed") || pair.has(Role::host, "closed")) << logs();
    EXPECT_TRUE(pair.endInOrder()) << logs();
}

TEST(PathSession, carriesPictureAndTypingOverEachKindOfPathAndOutlivesItsLoss)
{
    PELORIN_SKIP_WITHOUT_NETWORKS();
    lab::atOnce({
        [] {
            liveThrough(
                portRestricted, portRestricted, "direct ",
                [](NatLab&, NatLab::Machine& phone) { phone.site.forgetMappings(); }, "direct ");
        },
        [] {
            liveThrough(
                symmetric, symmetric, "relay 192.0.2.1",
                [](NatLab& lab, NatLab::Machine&) { lab.freezeRelay(0); }, "relay 192.0.2.2");
        },
    });
}

} // namespace
} // namespace pelorin
