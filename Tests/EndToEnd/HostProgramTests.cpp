#include "Tests/Lab/Programs.h"
#include "Tests/Lab/Wait.h"
#include "Tests/Peers/RawPhone.h"

#include <array>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
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

// What systemd is at the other end of NOTIFY_SOCKET.
class Manager {
public:
    explicit Manager(const std::filesystem::path& socket)
        : fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        socket.string().copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        const timeval patience{20, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }
    ~Manager() { ::close(fd); }
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    std::string next()
    {
        std::array<char, 256> text{};
        const auto size = ::recv(fd, text.data(), text.size(), 0);
        return {text.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
    }

private:
    int fd;
};

TEST(HostProgram, tellsSystemdHowFarItIsAndWritesForItsJournal)
{
    lab::XServer server;
    const lab::TemporaryFolder folder;
    const auto journal = (folder.path() / "journal").string();
    lab::write(journal, "");
    struct stat status = {};
    ASSERT_EQ(::stat(journal.c_str(), &status), 0);
    Manager manager(folder.path() / "notify");
    const auto host = lab::Process::start({lab::programPath("pelorin-host"), "--support-dir",
                                              folder.path().string(), "--log-dir", folder.path().string()},
        {"DISPLAY=" + server.display(), "NOTIFY_SOCKET=" + (folder.path() / "notify").string(),
            "JOURNAL_STREAM=" + std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino)},
        journal);
    EXPECT_EQ(manager.next(), "READY=1");
    host->signal(SIGTERM);
    EXPECT_EQ(manager.next(), "STOPPING=1");
    EXPECT_EQ(host->waitForExit(10'000), 0);
    EXPECT_EQ(lab::contentOf(journal).rfind("<6>[controller] ", 0), 0U) << lab::contentOf(journal);
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

TEST(HostProgram, hasADoctorWhoFindsWhatIsWrong)
{
    lab::XServer server;
    HostProgram host(server.display());
    ASSERT_TRUE(host.waitUntilListening());
    const auto examine = [&](int& exit) {
        const lab::TemporaryFolder folder;
        const auto output = folder.path() / "output";
        exit = lab::Process::start({lab::programPath("pelorin-host"), "doctor", "--support-dir",
                                       host.support().string(), "--display", server.display()},
            {}, output.string())
                   ->waitForExit(60'000);
        return lab::contentOf(output);
    };
    int exit = -1;
    const auto expect = [&](int status, const std::string& text) {
        const auto found = examine(exit);
        EXPECT_EQ(exit, status) << found;
        EXPECT_NE(found.find(text), std::string::npos) << found;
    };
    expect(0, "host: runs and listens on " + host.address());
    const auto key = host.support() / "host-identity.json";
    lab::write(key, "{}");
    std::filesystem::permissions(
        key, std::filesystem::perms::others_read, std::filesystem::perm_options::add);
    expect(1, "chmod go= " + key.string());
    std::filesystem::remove(key);
    expect(0, "test mode");

    host.process().signal(SIGKILL);
    host.process().waitForExit(10'000);
    expect(0, "Start it");
    const auto other = server.launch({"python3", "-c",
        "import socket, time; s = socket.create_server(('127.0.0.1', " + std::to_string(host.port())
            + ")); time.sleep(1000)"});
    EXPECT_TRUE(
        eventually([&] { return examine(exit).find("another program listens") != std::string::npos; }));
    EXPECT_EQ(exit, 1);
    server.kill();
    lab::write(host.support() / "host.json", "{\"port\":");
    expect(1, "display server: no X server");
    expect(1, "can't be read as settings");
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
