#include "Tests/Lab/Programs.h"
#include "Tests/Lab/Wait.h"
#include "Tests/Peers/RawPhone.h"

#include <csignal>
#include <gtest/gtest.h>

// The host as a program: its files, its port, its control socket, its end.
namespace pelorin {
namespace {

using lab::eventually;
using lab::HostProgram;

TEST(HostProgram, answersStatusDisconnectAndQuit)
{
    lab::XServer server;
    HostProgram host(server.display());
    ASSERT_TRUE(host.waitUntilListening());
    EXPECT_NE(host.control({"status", "--json"}).find("\"session\": null"), std::string::npos)
        << host.control({"status", "--json"});

    lab::ViewerProgram viewer(host, "wait 60000");
    ASSERT_TRUE(
        eventually([&] { return host.control({"status", "--json"}).find("\"fps\"") != std::string::npos; }));
    host.control({"disconnect"});
    EXPECT_EQ(viewer.waitForExit(), 4);
    EXPECT_NE(viewer.output().find("已在 Mac 上断开"), std::string::npos) << viewer.output();
    EXPECT_TRUE(host.waitForConnectionLog("disconnected on the Mac"));
    host.control({"quit"});
    EXPECT_EQ(host.process().waitForExit(10'000), 0);
    EXPECT_FALSE(std::filesystem::exists(host.support() / "control.sock"));
}

TEST(HostProgram, endsInOrderOnSIGTERMAndTellsThePhone)
{
    lab::XServer server;
    HostProgram host(server.display());
    ASSERT_TRUE(host.waitUntilListening());
    peers::RawPhone phone(host.port());
    ASSERT_TRUE(phone.sayHello() && phone.wait<message::HelloAck>());
    phone.send(message::Key{56, true, keyModifier::shift});
    host.process().signal(SIGTERM);
    EXPECT_EQ(phone.wait<message::Error>().value_or(message::Error{}).message, "已在 Mac 上断开")
        << host.log();
    EXPECT_EQ(host.process().waitForExit(10'000), 0);
}

TEST(HostProgram, replacesABrokenSettingsFileAndThenOnlyWaits)
{
    lab::XServer server;
    lab::TemporaryFolder folder;
    const auto file = folder.path() / "host.json";
    lab::write(file, R"({"port": "7500", "allowLoopbackForTesting": true})");
    const auto host = lab::Process::start({lab::programPath("pelorin-host"), "--headless", "--support-dir",
                                              folder.path().string(), "--log-dir", folder.path().string()},
        {"DISPLAY=" + server.display()}, (folder.path() / "host.log").string());
    EXPECT_TRUE(eventually([&] { return lab::contentOf(file).find("\"port\": 7420") != std::string::npos; }));
    EXPECT_TRUE(eventually([&] {
        return lab::contentOf(folder.path() / "connections.log")
                   .find("no Tailscale address; waiting for Tailscale")
            != std::string::npos;
    }));
}

TEST(HostProgram, standsAloneInItsSupportFolder)
{
    lab::XServer server;
    HostProgram host(server.display());
    ASSERT_TRUE(host.waitUntilListening());
    const auto second = lab::Process::start(
        {lab::programPath("pelorin-host"), "--headless", "--support-dir", host.support().string()});
    EXPECT_GT(second->waitForExit(20'000), 0);
    EXPECT_TRUE(host.process().isRunning());
}

TEST(HostProgram, survivesWhateverIsThrownAtItsPort)
{
    lab::XServer server;
    HostProgram host(server.display());
    ASSERT_TRUE(host.waitUntilListening());
    const Bytes oversized{11, 0xFF, 0xFF, 0xFF, 0xFF};
    const Bytes http{'G', 'E', 'T', ' ', '/', ' ', 'H', 'T', 'T', 'P', '/', '1', '.', '1', '\r', '\n'};
    for (const auto& garbage : {oversized, http, encodeFrame(message::Key{}), Bytes(100'000, 0)}) {
        peers::RawPhone phone(host.port());
        phone.send(garbage);
        if (garbage.size() < 100'000 && garbage != http) {
            EXPECT_TRUE(phone.waitForClose());
        }
    }
    {
        peers::RawPhone phone(host.port());
        ASSERT_TRUE(phone.sayHello() && phone.wait<message::HelloAck>());
        phone.sayHello();
        EXPECT_TRUE(phone.waitForClose()); // hello twice
    }
    peers::RawPhone phone(host.port());
    EXPECT_TRUE(phone.sayHello() && phone.wait<message::VideoFrame>()) << host.log();
}

} // namespace
} // namespace pelorin
