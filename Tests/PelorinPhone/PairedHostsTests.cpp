#include "PelorinPhone/Pairing/PairedHosts.h"

#include "Tests/Lab/Files.h"

#include <barrier>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <thread>

namespace pelorin {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

PairedHost hostNumber(
    int number, const std::string& name, const std::string& address, std::optional<std::string> dnsName = {})
{
    return {name, {address, std::move(dnsName), 7420},
        {fmt::format("dev-{:016x}", number), SecretBytes(Bytes(32, static_cast<std::uint8_t>(number)))}};
}

mode_t modeOf(const std::filesystem::path& path)
{
    struct stat status = {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 0777 : 0;
}

struct PairedHostsTest : testing::Test {
    lab::TemporaryFolder folder;
    std::filesystem::path directory = folder.path() / "config" / "Pelorin" / "viewer";
    PairedHosts hosts{directory};
    const PairedHost studio = hostNumber(1, "Studio", "100.64.0.1", "studio.example.ts.net");
    const PairedHost office = hostNumber(2, "王的电脑", "100.64.0.2");
};

TEST_F(PairedHostsTest, keepsHostsForTheirOwnerAlone)
{
    EXPECT_THAT(hosts.list().value(), IsEmpty());
    ASSERT_TRUE(hosts.add(studio));
    ASSERT_TRUE(hosts.add(office));
    EXPECT_THAT(PairedHosts(directory).list().value(), ElementsAre(studio, office));
    EXPECT_EQ(modeOf(directory), 0700u);
    EXPECT_EQ(modeOf(directory / "paired-hosts.json"), 0600u);
    EXPECT_EQ(hosts.forget("studio").value(), studio);
    EXPECT_THAT(hosts.list().value(), ElementsAre(office));
}

TEST_F(PairedHostsTest, keepsTheWaysToAHost)
{
    const RemotePlace place{"abcdefghijklmnopqrstuvwx27", Bytes(32, 7), "https://rendezvous.example.org"};
    const PairedHost far{"Far", {}, {}, place};
    PairedHost both = studio;
    both.remote = RemotePlace{"bbcdefghijklmnopqrstuvwx27", Bytes(32, 8), place.service};
    for (const PairedHost& host : {far, both}) ASSERT_TRUE(hosts.add(host));
    EXPECT_THAT(hosts.list().value(), ElementsAre(far, both));
    EXPECT_EQ(hosts.find(place.hostID).value(), far);
    EXPECT_EQ(hosts.find(both.remote->hostID).value(), both);

    PairedHost again = far;
    again.name = "Renamed";
    ASSERT_TRUE(hosts.add(again));
    EXPECT_THAT(hosts.list().value(), ElementsAre(both, again));
    lab::write(directory / PairedHosts::fileName,
        R"([{"name":"x","hostID":"a","service":"b","fingerprint":"AAEC"}])");
    EXPECT_FALSE(hosts.list());
}

TEST_F(PairedHostsTest, findsAHostByWhatPeopleCallIt)
{
    const PairedHost second = hostNumber(3, "STUDIO", "100.64.0.3");
    for (const PairedHost& host : {studio, office, second}) ASSERT_TRUE(hosts.add(host));
    EXPECT_EQ(hosts.find("王的电脑").value(), office);
    EXPECT_EQ(hosts.find("studio.example.ts.net").value(), studio);
    EXPECT_EQ(hosts.find("100.64.0.3").value(), second);
    EXPECT_THAT(hosts.find("studio").error(),
        HasSubstr("2 paired hosts are called \"studio\"; say which by its address: 100.64.0.1, 100.64.0.3"));
    EXPECT_THAT(hosts.forget("Studio").error(), HasSubstr("2 paired hosts"));
    EXPECT_THAT(hosts.find("attic").error(), HasSubstr("no paired host is called \"attic\""));
    EXPECT_THAT(hosts.find("").error(), HasSubstr("no paired host"));
}

TEST_F(PairedHostsTest, replacesTheRecordOfAHostThatPairsAnew)
{
    ASSERT_TRUE(hosts.add(studio));
    const auto renamed = hostNumber(4, "Atelier", "100.64.0.1");
    ASSERT_TRUE(hosts.add(renamed));
    EXPECT_THAT(hosts.list().value(), ElementsAre(renamed));
    const auto named = hostNumber(5, "Atelier", "100.64.0.1", "studio.example.ts.net");
    const auto moved = hostNumber(6, "Atelier", "100.64.0.9", "studio.example.ts.net");
    ASSERT_TRUE(hosts.add(named) && hosts.add(moved));
    EXPECT_THAT(hosts.list().value(), ElementsAre(moved));
    auto otherPort = hostNumber(7, "Another user's", "100.64.0.9");
    otherPort.place.port = 7421;
    ASSERT_TRUE(hosts.add(otherPort));
    EXPECT_THAT(hosts.list().value(), SizeIs(2));
}

TEST_F(PairedHostsTest, leavesADamagedFileAlone)
{
    ASSERT_TRUE(hosts.add(studio));
    const auto file = directory / "paired-hosts.json";
    const std::string sound = lab::contentOf(file);
    std::string shortKey = sound;
    shortKey.replace(shortKey.find("AQEB"), 4, "");
    std::string farPort = sound;
    farPort.replace(farPort.find("7420"), 4, "74200");
    std::string pairingKey = sound;
    pairingKey.replace(pairingKey.find("dev-"), 4, "pair-");
    for (const std::string& content : {std::string(), std::string("{}"), std::string("[1]"),
             sound.substr(0, sound.size() / 2), shortKey, farPort, pairingKey, std::string(100'000, '[')}) {
        lab::write(file, content);
        EXPECT_FALSE(hosts.list()) << content.substr(0, 100);
        EXPECT_FALSE(hosts.add(office));
        EXPECT_FALSE(hosts.forget("Studio"));
        EXPECT_EQ(lab::contentOf(file), content);
    }
    lab::write(folder.path() / "no-directory", "");
    EXPECT_THAT(PairedHosts(folder.path() / "no-directory").add(studio).error(), HasSubstr("cannot use"));
}

TEST_F(PairedHostsTest, losesNothingWhenManyWriteAtOnce)
{
    constexpr int threads = 8;
    std::barrier start(threads);
    {
        std::vector<std::jthread> programs;
        for (int i = 0; i < threads; ++i)
            programs.emplace_back([&, i] {
                start.arrive_and_wait();
                const auto address = fmt::format("100.64.1.{}", i);
                EXPECT_TRUE(PairedHosts(directory).add(hostNumber(i, address, address)));
            });
    }
    EXPECT_THAT(hosts.list().value(), SizeIs(threads));
}

} // namespace
} // namespace pelorin
