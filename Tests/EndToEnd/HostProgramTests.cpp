#include "Tests/Lab/Programs.h"
#include "Tests/Lab/Wait.h"
#include "Tests/Peers/RawPhone.h"

#include <arpa/inet.h>
#include <csignal>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

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
    const auto status = host.control({"status", "--json"});
    for (const char* member : {"listening", "allowedLogins", "session", "peer", "path", "fps", "mbps",
             "drops", "stages", "rendezvous", "pairing"})
        EXPECT_NE(status.find('"' + std::string(member) + '"'), std::string::npos)
            << member << " in " << status;

    host.control({"disconnect"});
    EXPECT_EQ(viewer.waitForExit(), 4);
    EXPECT_NE(viewer.output().find("已在 Mac 上断开"), std::string::npos) << viewer.output();
    EXPECT_TRUE(host.waitForConnectionLog("disconnected on the Mac"));

    struct stat socketStatus{};
    ASSERT_EQ(stat((host.support() / "control.sock").c_str(), &socketStatus), 0);
    EXPECT_EQ(socketStatus.st_mode & 0777, 0600U);
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

TEST(HostProgram, saysWhyNoPhoneCanBePairedInTestMode)
{
    lab::XServer server;
    HostProgram host(server.display());
    ASSERT_TRUE(host.waitUntilListening());
    for (const std::vector<std::string>& more : {std::vector<std::string>{}, {"--json"}}) {
        std::vector<std::string> command{
            lab::programPath("pelorin-host"), "pair", "--support-dir", host.support().string()};
        command.insert(command.end(), more.begin(), more.end());
        EXPECT_NE(lab::outputOf(command).find("没法配对：未启用配对"), std::string::npos);
        EXPECT_EQ(lab::Process::start(command)->waitForExit(20'000), 1);
    }
    EXPECT_NE(host.control({"devices"}).find("no phone is paired"), std::string::npos);
}

TEST(HostProgram, waitsForAPortThatIsInUse)
{
    lab::XServer server;
    int taken = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ASSERT_EQ(bind(taken, reinterpret_cast<sockaddr*>(&address), size), 0);
    ASSERT_EQ(listen(taken, 1), 0);
    ASSERT_EQ(getsockname(taken, reinterpret_cast<sockaddr*>(&address), &size), 0);

    HostProgram host(server.display(), "\"port\": " + std::to_string(ntohs(address.sin_port)));
    ASSERT_TRUE(eventually([&] { return host.log().find("Address already in use") != std::string::npos; }))
        << host.log();
    close(taken);
    EXPECT_TRUE(host.waitUntilListening());
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

    host.process().signal(SIGKILL); // leaves its socket behind, which must not keep the next one out
    host.process().waitForExit(10'000);
    const auto next = lab::Process::start(
        {lab::programPath("pelorin-host"), "--headless", "--support-dir", host.support().string()},
        {"DISPLAY=" + server.display()});
    EXPECT_TRUE(host.waitUntilListening());
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
