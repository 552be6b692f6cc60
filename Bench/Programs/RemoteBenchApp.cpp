// How long a viewer takes from its start to the first picture of a host in another network, by way of the
// service, directly and over a relay, and to be back after its network was gone, as JSON. Arguments:
// connections of each kind, losses. Needs root, as the networks are this machine's own: 40 ms there and back
// between either end and service or relay, 80 between the ends. Milliseconds throughout.

#include "PelorinCore/Pairing/RemotePairingLink.h"
#include "Tests/Lab/BuildFolder.h"
#include "Tests/Lab/Files.h"
#include "Tests/Lab/NatLab.h"
#include "Tests/Lab/RendezvousService.h"
#include "Tests/Lab/Wait.h"
#include "Tests/Lab/XServer.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using lab::NatKind;
using lab::NatLab;
using lab::Process;
using nlohmann::json;
using Clock = std::chrono::steady_clock;

// A host that one viewer, behind another router, is paired with.
class World {
public:
    World()
    {
        lab.setQuality({.delay = 20ms, .bitsPerSecond = 50e6});
        clock = desktop.launch({"xclock", "-update", "1"});
        lab::write(support / "host.json", fmt::format(R"({{"rendezvousURL": "{}"}})", service.url()));
        host = Process::start(hostMachine.inside({lab::programPath("pelorin-host"), "--support-dir",
                                  support.string(), "--log-dir", folder.path().string()}),
            {"DISPLAY=" + desktop.display()}, log("host"));
        require(lab::eventually([&] { return said("host", "registered with the rendezvous service") == 1; }),
            "the host registers");
        const json pairing = json::parse(lab::outputOf(
            {lab::programPath("pelorin-host"), "pair", "--json", "--support-dir", support.string()}));
        const auto link = pairing["link"].get<std::string>();
        name = PairingOffer::parse(link)->hostName();
        require(startViewer({link, "--frames", "1"})->waitForExit(60'000) == 0, "the viewer pairs");
    }

    // The steps of one connection, from the viewer's start.
    json connect(std::vector<std::string> environment)
    {
        require(startViewer({name, "--frames", "1"}, std::move(environment))->waitForExit(60'000) == 0,
            lab::contentOf(log("viewer")).c_str());
        return report()["connect"];
    }

    // From the return of the phone's network to the session that follows it, for each of the losses.
    std::vector<double> resume(int losses)
    {
        const auto viewer = startViewer({name});
        require(lab::eventually([&] { return said("viewer", "[viewer] connected to") == 1; }), "a session");
        std::vector<double> times;
        for (int loss = 1; loss <= losses; ++loss) {
            std::this_thread::sleep_for(2s);
            phoneMachine.network.configure("ip link set eth0 down");
            std::this_thread::sleep_for(10s);
            phoneMachine.network.configure(
                "ip link set eth0 up\nip route add default via 192.168.1.1 dev eth0 onlink");
            const auto back = Clock::now();
            require(
                lab::eventually([&] { return said("viewer", "first picture") == loss + 1; }), "it resumes");
            times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - back).count());
        }
        return times;
    }

private:
    std::string log(const char* program) const { return (folder.path() / program).string() + ".log"; }
    int said(const char* program, const std::string& what) const
    {
        const std::string text = lab::contentOf(log(program));
        int times = 0;
        for (auto at = text.find(what); at != text.npos; at = text.find(what, at + 1)) ++times;
        return times;
    }
    std::unique_ptr<Process> startViewer(
        std::vector<std::string> arguments, std::vector<std::string> environment = {}) const
    {
        std::filesystem::remove(log("viewer")); // of the run before
        arguments.insert(arguments.begin(), lab::programPath("pelorin-viewer"));
        arguments.insert(arguments.end(), {"--headless", "--json", "--verbose"});
        environment.push_back("XDG_CONFIG_HOME=" + (folder.path() / "config").string());
        return Process::start(
            phoneMachine.inside(std::move(arguments)), std::move(environment), log("viewer"));
    }
    json report() const
    {
        const std::string text = lab::contentOf(log("viewer"));
        const auto begin = text.find("{\n"); // among the lines of its log
        return json::parse(text.substr(begin, text.find("\n}\n", begin) + 2 - begin));
    }

    lab::TemporaryFolder folder;
    std::filesystem::path support = folder.path() / "support";
    NatLab lab;
    NatLab::Machine& hostMachine = lab.addMachine(NatKind::portRestricted);
    NatLab::Machine& phoneMachine = lab.addMachine(NatKind::portRestricted);
    lab::RendezvousService service{{.host = NatLab::strangers[0],
        .relays = {"turn:" + NatLab::relayAddress(0).text(), "turn:" + NatLab::relayAddress(1).text()},
        .prefix = lab.internet().inside({})}};
    lab::XServer desktop;
    std::unique_ptr<Process> clock;
    std::unique_ptr<Process> host;
    std::string name;
};

int main(int argumentCount, char** arguments)
{
    if (const auto refusal = lab::NetworkNamespace::refusal()) {
        fmt::print(stderr, "{}\n", *refusal);
        return 1;
    }
    const int connections = argumentCount > 1 ? std::atoi(arguments[1]) : 10;
    const int losses = argumentCount > 2 ? std::atoi(arguments[2]) : 3;
    World world;
    json direct = json::array();
    json relayed = json::array();
    for (int i = 0; i < connections; ++i) { // in turn, so that both see the same machine
        direct.push_back(world.connect({}));
        relayed.push_back(world.connect({"PELORIN_FORCE_TURN=1"}));
    }
    const json result{{"direct", direct}, {"relayed", relayed}, {"resumeMs", world.resume(losses)}};
    fmt::print("{}\n", result.dump(2));
    return 0;
}

} // namespace
} // namespace pelorin

int main(int argumentCount, char** arguments)
{
    return pelorin::main(argumentCount, arguments);
}
