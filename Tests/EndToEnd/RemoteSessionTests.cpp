#include "PelorinCore/Pairing/RemotePairingLink.h"
#include "Tests/Lab/NatLab.h"
#include "Tests/Lab/Programs.h"
#include "Tests/Lab/RendezvousService.h"
#include "Tests/Lab/Wait.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

// The way from anywhere, as people go it: the real service, host and viewer programs, host and phone each
// behind a router of its own.
namespace pelorin {
namespace {

using namespace std::chrono_literals;
using lab::eventually;
using lab::NatKind;
using lab::NatLab;
using lab::Process;
using lab::RendezvousService;
using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;
using Clock = std::chrono::steady_clock;

constexpr int refused = 4; // the viewer's exit codes
constexpr int cannotConnect = 3;

class RemoteSession : public testing::Test {
protected:
    struct Run {
        int exit = -1;
        std::string output; // both streams
        json report() const
        {
            const auto begin = output.find("{\n");
            if (begin == std::string::npos) return {};
            const auto size = output.find("\n}\n", begin) + 2 - begin; // the log may go on after it
            return json::parse(output.substr(begin, size), nullptr, false);
        }
    };

    void SetUp() override
    {
        PELORIN_SKIP_WITHOUT_NETWORKS();
        lab.emplace();
        lab->setQuality({.delay = 10ms, .bitsPerSecond = 50e6}); // 40 ms there and back
        startService();
        desktop.emplace();
        terminal = desktop->launch({"xterm", "-geometry", "200x60+0+0", "-e",
            "sh -c 'exec cat >" + (folder.path() / "typed").string() + "'"});
        ASSERT_TRUE(eventually([&] { return std::filesystem::exists(folder.path() / "typed"); }));
        phone = &lab->addMachine(NatKind::portRestricted);
        host = &lab->addMachine(NatKind::portRestricted);
        ASSERT_NO_FATAL_FAILURE(startHost());
    }
    void startService(RendezvousService::Options options = {})
    {
        options.host = NatLab::strangers[0];
        options.relays = {"turn:" + NatLab::relayAddress(0).text(), "turn:" + NatLab::relayAddress(1).text()};
        options.prefix = lab->internet().inside({});
        service.emplace(options);
    }
    void startHost(std::vector<std::string> environment = {})
    {
        lab::write(support / "host.json", fmt::format(R"({{"rendezvousURL": "{}"}})", service->url()));
        environment.push_back("DISPLAY=" + desktop->display());
        const int before = registrations();
        hostProgram
            = Process::start(host->inside({lab::programPath("pelorin-host"), "--headless", "--support-dir",
                                 support.string(), "--log-dir", folder.path().string()}),
                std::move(environment), hostLog.string());
        ASSERT_TRUE(eventually([&] { return registrations() > before; })) << lab::contentOf(hostLog);
    }
    int registrations() const
    {
        return timesIn(lab::contentOf(hostLog), "registered with the rendezvous service as");
    }
    static int timesIn(const std::string& text, const std::string& what)
    {
        int times = 0;
        for (auto at = text.find(what); at != text.npos; at = text.find(what, at + 1)) ++times;
        return times;
    }
    void TearDown() override
    {
        if (HasFailure() && service) fmt::print("{}{}", lab::contentOf(hostLog), service->log());
    }

    std::string control(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), lab::programPath("pelorin-host"));
        arguments.insert(arguments.end(), {"--support-dir", support.string()});
        return lab::outputOf(arguments);
    }
    json pair() const { return json::parse(control({"pair", "--json"})); }
    std::unique_ptr<Process> startViewer(std::vector<std::string> arguments, const std::string& log,
        std::vector<std::string> environment = {}) const
    {
        arguments.insert(arguments.begin(), lab::programPath("pelorin-viewer"));
        arguments.insert(arguments.end(), {"--headless", "--json", "--verbose"});
        environment.push_back("XDG_CONFIG_HOME=" + (folder.path() / "config").string());
        return Process::start(phone->inside(std::move(arguments)), std::move(environment), log);
    }
    Run view(std::vector<std::string> arguments, const std::vector<std::string>& environment = {}) const
    {
        const lab::TemporaryFolder logs;
        const auto log = (logs.path() / "log").string();
        const int exit = startViewer(std::move(arguments), log, environment)->waitForExit(60'000);
        return {exit, lab::contentOf(log)};
    }
    std::string scriptThatTypes(const std::string& line) const
    {
        const auto file = folder.path() / "script";
        lab::write(file, "expect change 10\ntext " + line + "\nkey return\nexpect change 10\n");
        return file.string();
    }
    std::string typed() const { return lab::contentOf(folder.path() / "typed"); }
    std::string hostName() const
    {
        return PairingOffer::parse(pair()["link"].get<std::string>())->hostName();
    }

    lab::TemporaryFolder folder;
    std::filesystem::path support = folder.path() / "support";
    std::filesystem::path hostLog = folder.path() / "host.log";
    std::optional<NatLab> lab;
    NatLab::Machine* host = nullptr;
    NatLab::Machine* phone = nullptr;
    std::optional<RendezvousService> service;
    std::optional<lab::XServer> desktop;
    std::unique_ptr<Process> terminal;
    std::unique_ptr<Process> hostProgram;
};

TEST_F(RemoteSession, pairsAndConnectsFromElsewhere)
{
    const auto link = pair()["link"].get<std::string>();
    const auto offer = PairingOffer::parse(link);
    ASSERT_TRUE(offer && offer->remote && !offer->tailnet) << link;
    const Run paired = view({link, "--frames", "1"});
    ASSERT_EQ(paired.exit, 0) << paired.output;
    EXPECT_EQ(paired.report()["connect"]["way"], "rendezvous");
    struct stat status = {};
    const auto key = folder.path() / "config" / "Pelorin" / "viewer" / "viewer-identity.json";
    EXPECT_EQ(stat(key.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);

    const Run again = view({link, "--frames", "1"});
    EXPECT_EQ(again.exit, refused) << again.output;
    EXPECT_THAT(again.output, HasSubstr("配对码不对、已经过期或已经用过"));

    const struct {
        std::vector<std::string> environment;
        const char* path;
    } rows[] = {{{}, "direct "}, {{"PELORIN_FORCE_TURN=1"}, "relay "}};
    for (const auto& [environment, path] : rows) {
        SCOPED_TRACE(path);
        const std::string text = std::string("typed_over_") + path[0];
        const Run run = view({offer->hostName(), "--script", scriptThatTypes(text)}, environment);
        ASSERT_EQ(run.exit, 0) << run.output;
        EXPECT_TRUE(eventually([&] { return typed().find(text + "\n") != std::string::npos; })) << typed();
        const json connect = run.report()["connect"];
        EXPECT_THAT(connect["path"].get<std::string>(), StartsWith(path));
        double before = 0;
        for (const char* step :
            {"serviceMs", "acceptedMs", "pathMs", "securedMs", "helloMs", "firstPictureMs"}) {
            ASSERT_TRUE(connect[step].is_number()) << step << connect;
            EXPECT_GE(connect[step], before) << step << connect;
            before = connect[step];
        }
        fmt::print("{}\n", connect.dump());
    }

    const auto devices = json::parse(control({"devices", "--json"}))["devices"];
    ASSERT_EQ(devices.size(), 1u);
    control({"remove", devices[0]["id"].get<std::string>()});
    const Run removed = view({offer->hostName(), "--frames", "1"});
    EXPECT_EQ(removed.exit, refused);
    EXPECT_THAT(removed.output, HasSubstr("这部手机没有和这台 Mac 配对"));
    hostProgram.reset();
    EXPECT_TRUE(eventually([&] { return view({offer->hostName(), "--frames", "1"}).exit == cannotConnect; }));
}

TEST_F(RemoteSession, comesBackByItselfWithTheNetwork)
{
    const auto link = pair()["link"].get<std::string>();
    ASSERT_EQ(view({link, "--frames", "1"}).exit, 0);
    const auto log = (folder.path() / "viewer.log").string();
    const auto viewer = startViewer({PairingOffer::parse(link)->hostName()}, log);
    const auto sessions = [&] { return timesIn(lab::contentOf(log), "[viewer] connected to"); }; // so far
    const auto pictures = [&] { return timesIn(lab::contentOf(log), "[viewer] first picture"); }; // of each
    ASSERT_TRUE(eventually([&] { return sessions() == 1 && pictures() == 1; })) << lab::contentOf(log);

    const std::string routes = "ip link set eth0 up\nip route add default via 192.168.1.1 dev eth0 onlink";
    const struct {
        const char* name;
        std::function<void()> lose, bring;
        std::chrono::milliseconds within;
    } rows[] = {
        {"its interface goes", [&] { phone->network.configure("ip link set eth0 down"); },
            [&] { phone->network.configure(routes); }, 1'000ms},
        // Of which nothing tells it: the try that is due next succeeds.
        {"a cable elsewhere is cut", [&] { phone->site.wire().cut(true); },
            [&] { phone->site.wire().cut(false); }, 3'000ms},
    };
    int expected = 1;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        row.lose();
        std::this_thread::sleep_for(10s); // as long as is promised, for programs with clocks of their own
        EXPECT_TRUE(viewer->isRunning());
        row.bring();
        const auto back = Clock::now();
        ++expected;
        ASSERT_TRUE(eventually([&] { return sessions() == expected; })) << lab::contentOf(log);
        const auto took = Clock::now() - back;
        fmt::print("{}: a session again after {} ms\n", row.name,
            std::chrono::duration_cast<std::chrono::milliseconds>(took).count());
        EXPECT_LE(took, lab::slowness * (row.within + 500ms));
        ASSERT_TRUE(eventually([&] { return pictures() == expected; })) << lab::contentOf(log);
    }
    viewer->signal(SIGTERM);
    EXPECT_EQ(viewer->waitForExit(10'000), 0);
    const json report = Run{0, lab::contentOf(log)}.report();
    EXPECT_EQ(report["resumes"], 2) << lab::contentOf(log);
    EXPECT_TRUE(report["connect"]["firstPictureMs"].is_number()) << report;
}

const char* networkSeenBehind(NatKind kind)
{
    switch (kind) {
    case NatKind::none:
        return "no NAT; seen as";
    case NatKind::symmetric:
        return "a symmetric NAT";
    case NatKind::udpBlocked: // to all but the service's servers, who see nothing of that
        return "network: ";
    default:
        return "a NAT that phones can be led through";
    }
}

// Every kind once at each end.
TEST_F(RemoteSession, leadsFromNetworksOfEveryKindToEachOther)
{
    hostProgram.reset();
    const NatKind phoneKinds[] = {NatKind::symmetric, NatKind::udpBlocked, NatKind::portRestricted,
        NatKind::oneToOne, NatKind::fullCone, NatKind::addressRestricted, NatKind::none};
    for (std::size_t i = 0; i < lab::allNatKinds.size(); ++i) {
        const NatKind hostKind = lab::allNatKinds[i];
        SCOPED_TRACE(fmt::format("{} to {}", nameOf(phoneKinds[i]), nameOf(hostKind)));
        host = &lab->addMachine(hostKind);
        phone = &lab->addMachine(phoneKinds[i]);
        support = folder.path() / fmt::format("support-{}", i);
        ASSERT_NO_FATAL_FAILURE(startHost());
        const std::string text = fmt::format("typed_by_{}", i);
        const Run run = view({pair()["link"].get<std::string>(), "--script", scriptThatTypes(text)});
        ASSERT_EQ(run.exit, 0) << run.output;
        EXPECT_TRUE(eventually([&] { return timesIn(typed(), text + "\n") == 1; })) << typed();
        EXPECT_THAT(run.report()["connect"]["path"].get<std::string>(),
            StartsWith(lab::allowDirectPath(hostKind, phoneKinds[i]) ? "direct " : "relay "));
        const auto found = lab::outputOf(host->inside({"env", "DISPLAY=" + desktop->display(),
            lab::programPath("pelorin-host"), "doctor", "--support-dir", support.string()}));
        EXPECT_THAT(found, HasSubstr("answers, and knows this host"));
        EXPECT_THAT(found, HasSubstr(networkSeenBehind(hostKind)));
        hostProgram.reset();
    }
}

TEST_F(RemoteSession, outlivesTheServiceAndItsRelay)
{
    const auto link = pair()["link"].get<std::string>();
    ASSERT_EQ(view({link, "--frames", "1"}).exit, 0);
    const struct {
        const char* name;
        std::function<void()> lose;
    } rows[] = {
        {"service", [&] { service.reset(); }},
        {"relay", [&] { lab->killRelay(0); }},
    };
    for (const auto& [name, lose] : rows) {
        SCOPED_TRACE(name);
        const std::string text = name;
        const auto script = folder.path() / "script";
        lab::write(script,
            "expect change 10\ntext " + text + "_before\nkey return\nwait 4000\ntext " + text
                + "_after\nkey return\nexpect change 10\n");
        const auto log = (folder.path() / (text + ".log")).string();
        const auto viewer = startViewer({PairingOffer::parse(link)->hostName(), "--script", script.string()},
            log, {"PELORIN_FORCE_TURN=1"});
        ASSERT_TRUE(eventually([&] { return timesIn(typed(), text + "_before\n") == 1; }))
            << lab::contentOf(log);
        const auto port = service->port();
        const int before = registrations();
        lose();
        EXPECT_EQ(viewer->waitForExit(60'000), 0) << lab::contentOf(log);
        EXPECT_TRUE(eventually([&] { return timesIn(typed(), text + "_after\n") == 1; })) << typed();
        EXPECT_EQ(timesIn(lab::contentOf(log), "[viewer] connected to"), 1)
            << "the session is still the first";
        if (service) continue;
        startService({.port = port});
        EXPECT_TRUE(eventually([&] { return registrations() > before; })) << lab::contentOf(hostLog);
    }
}

TEST_F(RemoteSession, isGrantedToAPairedPhoneOfAnyMakeAndToNobodyElse)
{
    const auto log = (folder.path() / "other.log").string();
    const auto other
        = Process::start(phone->inside({"/usr/bin/python3", lab::programPath("pelorin-remote-phone"),
                             pair()["link"].get<std::string>()}),
            {}, log);
    EXPECT_EQ(other->waitForExit(60'000), 0) << lab::contentOf(log);
    const auto devices = json::parse(control({"devices", "--json"}))["devices"];
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(devices[0]["name"], "Phone 7");
}

// The service's certificate is that of an authority which only these programs trust.
TEST_F(RemoteSession, comesToNobodyButTheServiceOfThatName)
{
    const auto file = [&](const char* name) { return (folder.path() / name).string(); };
    const auto makeCertificate = [&](const std::string& address) {
        lab::outputOf({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
            "-nodes", "-keyout", file("key.pem"), "-out", file("chain.pem"), "-days", "2", "-subj",
            "/CN=rendezvous", "-addext", "subjectAltName=IP:" + address});
    };
    makeCertificate(NatLab::strangers[0]);
    const std::string trust = "SSL_CERT_FILE=" + file("chain.pem");
    hostProgram.reset();
    startService({.certificate = file("chain.pem"), .key = file("key.pem")});
    ASSERT_NO_FATAL_FAILURE(startHost({trust}));
    const auto link = pair()["link"].get<std::string>();
    EXPECT_EQ(view({link, "--frames", "1"}).exit, cannotConnect) << "who does not trust the authority";
    const Run paired = view({link, "--script", scriptThatTypes("over_tls")}, {trust});
    EXPECT_EQ(paired.exit, 0) << paired.output;
    EXPECT_TRUE(eventually([&] { return timesIn(typed(), "over_tls\n") == 1; }));

    const auto port = service->port();
    makeCertificate(NatLab::strangers[1]);
    startService({.port = port, .certificate = file("chain.pem"), .key = file("key.pem")});
    const Run elsewhere = view({PairingOffer::parse(link)->hostName(), "--frames", "1"}, {trust});
    EXPECT_EQ(elsewhere.exit, cannotConnect) << "a certificate for another name";
}

} // namespace
} // namespace pelorin
