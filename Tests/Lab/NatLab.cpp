#include "Tests/Lab/NatLab.h"

#include <csignal>
#include <fmt/format.h>
#include <sys/wait.h>

namespace pelorin::lab {
namespace {

constexpr std::uint16_t relayPort = 3478;

// The same network in every home, as in most homes.
constexpr const char* routerAddress = "192.168.1.1";

constexpr const char* forwarding = "echo 1 >/proc/sys/net/ipv4/ip_forward\n";

// Commands of ip, all run by one program.
std::string batch(const std::string& commands)
{
    return "ip -batch - <<END\n" + commands + "\nEND\n";
}

std::string load(const NatRules& rules)
{
    return "nft -f - <<END\n" + rules.text() + "END\n";
}

std::string outerAddressOf(int number)
{
    return fmt::format("203.0.113.{}", number);
}

} // namespace

NatLab::NatLab()
{
    std::string addresses;
    for (int i = 0; i < relayCount; ++i)
        addresses += fmt::format("address add {}/32 dev lo\n", relayAddress(i).hostText());
    for (const char* stranger : strangers) addresses += fmt::format("address add {}/32 dev lo\n", stranger);
    middle.configure(forwarding + batch(addresses));
    for (int i = 0; i < relayCount; ++i) startRelay(i);
}

// Asked to end, a relay would take a second or two, and a frozen one would not hear.
NatLab::~NatLab()
{
    for (const auto& each : relays) each->process().signal(SIGKILL);
}

// The internet

SocketAddress NatLab::relayAddress(int relay)
{
    return SocketAddress::ipv4({192, 0, 2, static_cast<std::uint8_t>(relay + 1)}, relayPort);
}

void NatLab::startRelay(int relay)
{
    relays[relay].reset(); // its port is free before another takes it
    relays[relay] = std::make_unique<TurnServer>(TurnServer::Options{
        .host = relayAddress(relay).hostText(), .port = relayPort, .prefix = middle.inside({})});
}

void NatLab::killRelay(int relay)
{
    relays[relay]->process().signal(SIGKILL);
    relays[relay]->process().waitForExit(10'000);
}

void NatLab::freezeRelay(int relay)
{
    relays[relay]->process().signal(SIGSTOP);
    siginfo_t stopped{}; // once each of its threads is
    waitid(P_PID, static_cast<id_t>(relays[relay]->process().pid()), &stopped, WSTOPPED);
}

void NatLab::setQuality(const Wire::Quality& quality)
{
    for (const auto& site : sites) site->wire().set(quality);
}

// Sites

NatLab::Site& NatLab::addSite(NatKind kind)
{
    const int number = static_cast<int>(sites.size());
    return *sites.emplace_back(new Site(middle, kind, number));
}

NatLab::Site::Site(const NetworkNamespace& internet, NatKind kind, int number)
    : cable({gateway, "wan"}, {internet, fmt::format("site{}", number)}),
      rules{.kind = kind, .outerAddress = outerAddressOf(2 * number + 10)},
      spareAddress(outerAddressOf(2 * number + 11))
{
    internet.configure(batch(fmt::format("route add {}/32 dev site{}\nroute add {}/32 dev site{}",
        rules.outerAddress, number, spareAddress, number)));
    std::string commands = fmt::format(R"(link add lan type bridge
address add {}/24 dev lan
link set lan up
route add default dev wan
)",
        routerAddress);
    if (kind != NatKind::none) commands += "address add " + rules.outerAddress + "/32 dev wan";
    gateway.configure(forwarding + batch(commands) + load(rules));
}

// Rules, what they have learnt, and what is tracked go together.
void NatLab::Site::apply() const
{
    gateway.configure(load(rules) + "conntrack -F");
}

void NatLab::Site::forgetMappings()
{
    auto& [first, last] = rules.ports;
    const int count = last - first + 1;
    first = last + 1;
    last += count;
    apply();
}

void NatLab::Site::changeOuterAddress()
{
    require(rules.kind != NatKind::none, "without a NAT the outer address is the machine's own");
    gateway.configure(fmt::format(
        "ip address add {}/32 dev wan\nip address delete {}/32 dev wan", spareAddress, rules.outerAddress));
    std::swap(rules.outerAddress, spareAddress);
    apply();
}

// Machines

NatLab::Machine& NatLab::addMachine(Site& site)
{
    const bool isPublic = site.kind() == NatKind::none;
    const int number = site.machines++;
    require(number == 0 || !isPublic, "a site without a NAT has one address");
    require(number < NatRules::machines, "the router's rules know no more machines");
    const auto address = isPublic ? site.outerAddress() : NatRules::addressOf(number);
    Machine& machine = *machines.emplace_back(new Machine{site, address, {}});
    std::string plug = fmt::format("link add lan{0} type veth peer name eth0 netns {1}\n"
                                   "link set lan{0} master lan up\n",
        number, machine.network.path());
    if (isPublic) plug += "route add " + address + "/32 dev lan";
    site.gateway.configure(batch(plug));
    const int firstPort = NatRules::firstInnerPort + number * NatRules::portsOfMachine;
    const auto ports = fmt::format("echo {} {} >/proc/sys/net/ipv4/ip_local_port_range\n", firstPort,
        firstPort + NatRules::portsOfMachine - 1);
    machine.network.configure(ports
        + batch(fmt::format("address add {}/{} dev eth0\nlink set eth0 up\n"
                            "route add default via {} dev eth0 onlink",
            address, isPublic ? 32 : 24, routerAddress)));
    return machine;
}

} // namespace pelorin::lab
