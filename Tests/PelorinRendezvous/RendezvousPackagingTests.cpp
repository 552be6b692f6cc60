#include "Tests/Lab/BuildFolder.h"
#include "Tests/Lab/TurnServer.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace pelorin {
namespace {

using lab::TurnServer;
using testing::HasSubstr;

constexpr int toolTimeoutMs = 60'000;
constexpr int exposureThreshold = 17; // 1.7 on systemd's scale of 10: what the unit has, and no more

// What is shipped, with what its guide has one put in.
std::string shipped(const char* name, std::string_view placeholder, std::string_view value)
{
    std::string content
        = lab::contentOf(lab::sourcePath((std::string("Packaging/rendezvous/") + name).c_str()));
    const auto at = content.find(placeholder);
    EXPECT_NE(at, content.npos) << name;
    return at == content.npos ? content : content.replace(at, placeholder.size(), value);
}

class RendezvousPackaging : public testing::Test {
protected:
    // Standard output and errors; its exit code in exitCode.
    std::string outputOf(std::vector<std::string> command)
    {
        const auto log = (folder.path() / "output").string();
        exitCode = lab::Process::start(std::move(command), {}, log)->waitForExit(toolTimeoutMs);
        return lab::contentOf(log);
    }

    lab::TemporaryFolder folder;
    int exitCode = -1;
};

bool hasIPv6()
{
    const int descriptor = ::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    const bool isBound = ::bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(descriptor);
    return isBound;
}

class RendezvousUnit : public RendezvousPackaging {
protected:
    void SetUp() override
    {
        if (::access("/usr/bin/systemd-analyze", X_OK) != 0)
            GTEST_SKIP() << "no systemd-analyze here: the unit is unchecked";
        lab::write(
            unit, shipped("pelorin-rendezvous.service", "/usr/bin/pelorin-rendezvous", "/usr/bin/true"));
    }
    void drop(const std::string& line)
    {
        std::string content = lab::contentOf(unit);
        const auto at = content.find(line);
        ASSERT_NE(at, content.npos) << line;
        lab::write(unit, content.erase(at, line.size()));
    }
    std::string judge()
    {
        return outputOf({"systemd-analyze", "security", "--offline=true", "--no-pager",
            fmt::format("--threshold={}", exposureThreshold), unit});
    }

    const std::string unit = (folder.path() / "pelorin-rendezvous.service").string();
};

} // namespace

// Unknown words in a unit are passed over when it is started: they show as lines about it here.
TEST_F(RendezvousUnit, isUnderstoodWhole)
{
    const std::string output = outputOf({"systemd-analyze", "verify", "--man=no", unit});
    EXPECT_EQ(exitCode, 0) << output;
    EXPECT_THAT(output, testing::Not(HasSubstr("pelorin-rendezvous.service"))) << output;
}

TEST_F(RendezvousUnit, isExposedNoMoreThanItMustBe)
{
    const std::string output = judge();
    EXPECT_EQ(exitCode, 0) << output;
    drop("RestrictNamespaces=yes\n");
    judge();
    EXPECT_GT(exitCode, 0) << "one protection less must show";
}

// On an allocation of IPv6: on one of IPv4 the relay refuses such peers for their family alone, whatever is
// denied.
TEST_F(RendezvousPackaging, itsRelayIsNoWayIntoTheIPv6NetworkAroundIt)
{
    if (!hasIPv6()) GTEST_SKIP() << "no IPv6 on the loopback interface";
    const auto configuration = (folder.path() / "turnserver.conf").string();
    lab::write(configuration, shipped("turnserver.conf", "REPLACE-WITH-THE-SECRET", TurnServer::secret));
    const TurnServer relay(TurnServer::Options{.configuration = configuration, .more = {"--relay-ip=::1"}});
    const auto user = TurnServer::credentials();

    const std::vector<std::string> inside{"::", "::1", "::7f00:1", "::ffff:0.0.0.1", "::ffff:10.0.0.1",
        "::ffff:127.0.0.1", "::ffff:192.0.2.1", "::ffff:255.255.255.255", "64:ff9b::", "64:ff9b::7f00:1",
        "64:ff9b::ffff:ffff", "64:ff9b:1::", "64:ff9b:1:ffff:ffff:ffff:ffff:ffff", "100::1", "2001::1",
        "2002:7f00:1::", "fc00::", "fc00::1", "fd12::1", "fdff:ffff:ffff:ffff:ffff:ffff:ffff:ffff",
        "fe80::", "fe80::1", "febf:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "fec0::1",
        "feff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "ff02::1"};
    const std::vector<std::string> outside{
        "64:ff9a::1", "64:ff9b:2::1", "2001:200::1", "2003::1", "2606:4700::1111", "fbff::1"};
    std::vector<std::string> command{"/usr/bin/python3", lab::programPath("pelorin-turn-peer"), "127.0.0.1",
        std::to_string(relay.address().port), "6", user.username, user.credential};
    std::string expected = "::1\n"; // where the relay's end is
    for (const auto& [addresses, code] : {std::pair(&inside, 403), std::pair(&outside, 0)})
        for (const std::string& address : *addresses) {
            command.push_back(address);
            expected += fmt::format("{} {}\n", address, code);
        }
    EXPECT_EQ(outputOf(std::move(command)), expected) << relay.log();
    EXPECT_EQ(exitCode, 0);
}

} // namespace pelorin
