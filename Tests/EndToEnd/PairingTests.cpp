#include "PelorinCore/Pairing/PairingLink.h"
#include "Tests/Lab/Programs.h"
#include "Tests/Lab/Tailnet.h"
#include "Tests/Lab/Wait.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

// Pairing as people do it: the real host and viewer programs, each on its own machine of a tailnet.
namespace pelorin {
namespace {

using lab::eventually;
using nlohmann::json;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;
using Side = lab::Tailnet::Side;

constexpr int refused = 4; // the viewer's exit codes
constexpr int lost = 6;

struct Pairing : testing::Test {
    lab::XServer server;
    lab::Tailnet tailnet;
    lab::TemporaryFolder folder;
    std::filesystem::path support = folder.path() / "support";
    std::filesystem::path hostLog = folder.path() / "host.log";
    std::filesystem::path pairedHosts = folder.path() / "config" / "Pelorin" / "viewer" / "paired-hosts.json";
    std::unique_ptr<lab::Process> host;

    struct Run {
        int exit;
        std::string output; // both streams
    };

    void SetUp() override
    {
        lab::write(support / "host.json", R"({"rendezvous": false})");
        host = lab::Process::start(tailnet.inside(Side::host,
                                       {lab::programPath("pelorin-host"), "--headless", "--support-dir",
                                           support.string(), "--log-dir", folder.path().string()}),
            {"DISPLAY=" + server.display()}, hostLog.string());
        ASSERT_TRUE(eventually([&] { return status()["listening"] == "100.101.102.1:7420"; }))
            << lab::contentOf(hostLog);
        ASSERT_TRUE(eventually([&] { return !status()["allowedLogins"].empty(); }));
    }

    Run control(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), lab::programPath("pelorin-host"));
        arguments.insert(arguments.end(), {"--support-dir", support.string()});
        return run(arguments);
    }
    json status() const // empty while there is no host
    {
        const auto reply = control({"status", "--json"});
        return reply.exit == 0 ? json::parse(reply.output) : json::object();
    }
    json devices() const { return json::parse(control({"devices", "--json"}).output)["devices"]; }
    std::string offerLink() const
    {
        return json::parse(control({"pair", "--json"}).output)["link"].get<std::string>();
    }

    std::vector<std::string> viewer(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), lab::programPath("pelorin-viewer"));
        return tailnet.inside(Side::phone, std::move(arguments));
    }
    Run view(std::vector<std::string> arguments) const { return run(viewer(std::move(arguments))); }
    Run show(const std::string& target) const { return view({target, "--headless", "--frames", "1"}); }

    Run run(const std::vector<std::string>& command) const
    {
        const lab::TemporaryFolder own;
        const auto output = own.path() / "output";
        const auto program = lab::Process::start(
            command, {"XDG_CONFIG_HOME=" + (folder.path() / "config").string()}, output.string());
        const int exit = program->waitForExit(60'000);
        return {exit, lab::contentOf(output)};
    }
};

TEST_F(Pairing, showsTheDesktopFromTheLinkOnAndByNameLater)
{
    const auto code = folder.path() / "code.png";
    const auto paired = control({"pair", "--png", code.string()});
    ASSERT_EQ(paired.exit, 0) << paired.output;
    EXPECT_THAT(paired.output, HasSubstr("用 iPhone 相机或 Pelorin 扫码配对，5 分钟内有效，只能用一次\n"));
    std::string link
        = lab::outputOf({"zbarimg", "--nodbus", "--quiet", "--raw", "-Sdisable", "-Sqrcode.enable", code});
    link.erase(link.find_last_not_of('\n') + 1);
    EXPECT_THAT(paired.output, HasSubstr("\n" + link + "\n"));
    const auto parsed = PairingLink::parse(link);
    ASSERT_TRUE(parsed) << link;
    EXPECT_EQ(parsed->address, "100.101.102.1");
    EXPECT_EQ(parsed->port, 7420);
    EXPECT_EQ(parsed->dnsName.value_or("").find(lab::Tailnet::nodeName(Side::host)), 0u);
    EXPECT_GT(status()["pairing"]["pending"]["expiresInSeconds"], 240);

    const auto first = show(link);
    EXPECT_EQ(first.exit, 0) << first.output << lab::contentOf(hostLog);
    EXPECT_THAT(first.output, HasSubstr("Paired with " + parsed->hostName));
    EXPECT_EQ(status()["pairing"],
        (json{{"required", true}, {"pending", nullptr}, {"devices", 1}, {"reviewCode", false}}));
    const auto byName = show(parsed->hostName);
    EXPECT_EQ(byName.exit, 0) << byName.output;
    ASSERT_THAT(devices(), SizeIs(1));

    struct stat files[2] = {};
    ASSERT_EQ(::stat(pairedHosts.c_str(), &files[0]), 0);
    ASSERT_EQ(::stat((support / "paired-devices.json").c_str(), &files[1]), 0);
    for (const auto& file : files) EXPECT_EQ(file.st_mode & 0777, 0600u);
    const auto listed = view({"--list", "--json"});
    const auto hosts = json::parse(listed.output)["hosts"];
    ASSERT_THAT(hosts, SizeIs(1));
    EXPECT_EQ(hosts[0]["deviceID"], devices()[0]["id"]);
    const auto kept = json::parse(lab::contentOf(pairedHosts))[0]["key"].get<std::string>();
    for (const std::string& text : {listed.output, lab::contentOf(hostLog), control({"devices"}).output,
             control({"status", "--json"}).output, lab::contentOf(folder.path() / "connections.log")})
        EXPECT_THAT(text, Not(HasSubstr(kept)));

    EXPECT_EQ(view({"--forget", "attic"}).exit, 2);
    EXPECT_EQ(view({"--forget", parsed->hostName}).exit, 0);
    EXPECT_EQ(show(parsed->hostName).exit, 2);
    EXPECT_EQ(view({"--list"}).output, "paired with no host\n");
}

TEST_F(Pairing, letsALinkInOnce)
{
    const std::string replaced = offerLink();
    const std::string link = offerLink();
    ASSERT_EQ(show(link).exit, 0) << lab::contentOf(hostLog);
    const std::string before = lab::contentOf(pairedHosts);
    const auto again = show(link);
    EXPECT_EQ(again.exit, refused);
    EXPECT_THAT(again.output, HasSubstr("the host does not know this pairing link"));
    EXPECT_EQ(lab::contentOf(pairedHosts), before) << "and keeps what the link brought the first time";
    EXPECT_THAT(devices(), SizeIs(1));
    EXPECT_THAT(lab::contentOf(folder.path() / "connections.log"), HasSubstr("rejected janes-phone: "));
}

TEST_F(Pairing, shutsOutARemovedViewerInTheMiddleOfItsSession)
{
    const std::string link = offerLink();
    const std::string name = PairingLink::parse(link)->hostName;
    const auto output = folder.path() / "viewer.log";
    const auto session = lab::Process::start(viewer({link, "--headless", "--seconds", "60"}),
        {"XDG_CONFIG_HOME=" + (folder.path() / "config").string()}, output.string());
    ASSERT_TRUE(eventually([&] { return status()["session"].is_object(); })) << lab::contentOf(output);
    const std::string id = devices()[0]["id"];
    EXPECT_EQ(control({"remove", "dev-0000000000000000"}).exit, 1);
    EXPECT_EQ(control({"remove", id}).exit, 0);
    EXPECT_EQ(session->waitForExit(20'000), refused);
    EXPECT_THAT(lab::contentOf(output), HasSubstr("请重新配对"));
    const auto later = show(name);
    EXPECT_EQ(later.exit, refused);
    EXPECT_THAT(later.output, HasSubstr("the host does not know this device, or no longer"));

    const auto plain = show("100.101.102.1:7420");
    EXPECT_EQ(plain.exit, lost);
    EXPECT_THAT(plain.output,
        HasSubstr("perhaps this host talks to paired phones only: then run `pelorin-host pair`"));
}

} // namespace
} // namespace pelorin
