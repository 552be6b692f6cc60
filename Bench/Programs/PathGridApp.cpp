#include "Tests/Lab/PathPair.h"

#include <CLI/CLI.hpp>
#include <cstdio>

// pelorin-bench-grid: how long two networks take to find a path, for every two kinds of NAT, and how long a
// session's frames stand still when their path is taken away. Prints one JSON object. Needs root.
namespace pelorin::lab {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using Clock = PathPair::Clock;
using Role = PathEnd::Role;
using enum NatKind;

constexpr Wire::Quality distance{.delay = 20ms}; // 40 ms there and back to every server
constexpr auto observation = 2000ms;

// One end's way to its first path: what the phone's user waits for.
json outcome(PathPair& pair)
{
    const auto phone = pair.wait(Role::phone, "ready");
    const auto host = pair.wait(Role::host, "ready");
    if (!phone || !host || !pair.carriesFrames()) return {{"failed", true}};
    return {{"label", pair.label(Role::phone)}, {"ms", phone->at("ms")}, {"hostMs", host->at("ms")},
        {"totalMs", phone->at("totalMs")}, {"securedMs", pair.wait(Role::phone, "secured")->at("totalMs")}};
}

json grid(int rounds)
{
    NatLab lab;
    std::vector<NatLab::Machine*> hosts;
    std::vector<NatLab::Machine*> phones;
    for (const NatKind kind : allNatKinds) {
        hosts.push_back(&lab.addMachine(kind));
        phones.push_back(&lab.addMachine(kind));
    }
    lab.setQuality(distance);
    json results = json::array();
    const std::size_t count = phones.size();
    for (int round = 0; round < rounds; ++round) {
        for (std::size_t shift = 0; shift < count; ++shift) { // each machine has one session at a time
            std::vector<std::unique_ptr<PathPair>> pairs;
            const auto phoneOf
                = [&](std::size_t host) -> NatLab::Machine& { return *phones[(host + shift) % count]; };
            for (std::size_t i = 0; i < count; ++i)
                pairs.push_back(std::make_unique<PathPair>(*hosts[i], phoneOf(i)));
            for (std::size_t i = 0; i < count; ++i) {
                const NatKind host = hosts[i]->site.kind();
                const NatKind phone = phoneOf(i).site.kind();
                json result = outcome(*pairs[i]);
                result["host"] = nameOf(host);
                result["phone"] = nameOf(phone);
                result["mayBeDirect"] = allowDirectPath(host, phone);
                results.push_back(std::move(result));
            }
        }
    }
    return results;
}

struct Loss {
    const char* name;
    NatKind host, phone;
    std::function<void(NatLab&, NatLab::Machine& phone)> happen;
};
const Loss losses[] = {
    {"the relay's process dies", symmetric, symmetric,
        [](NatLab& lab, NatLab::Machine&) { lab.killRelay(0); }},
    {"the relay falls silent", symmetric, symmetric,
        [](NatLab& lab, NatLab::Machine&) { lab.freezeRelay(0); }},
    {"the phone's NAT forgets, direct", portRestricted, portRestricted,
        [](NatLab&, NatLab::Machine& phone) { phone.site.forgetMappings(); }},
    {"the phone's NAT forgets, relayed", symmetric, portRestricted,
        [](NatLab&, NatLab::Machine& phone) { phone.site.forgetMappings(); }},
    {"the phone's outer address changes, direct", portRestricted, portRestricted,
        [](NatLab&, NatLab::Machine& phone) { phone.site.changeOuterAddress(); }},
    {"the phone's outer address changes, relayed", symmetric, symmetric,
        [](NatLab&, NatLab::Machine& phone) { phone.site.changeOuterAddress(); }},
    {"nothing gets through for 5 s, direct", portRestricted, portRestricted,
        [](NatLab&, NatLab::Machine& phone) {
            phone.site.wire().cut(true);
            std::this_thread::sleep_for(5s);
            phone.site.wire().cut(false);
        }},
};

json interruptions(int rounds)
{
    json results = json::array();
    for (const Loss& loss : losses) {
        for (int round = 0; round < rounds; ++round) {
            NatLab lab;
            NatLab::Machine& host = lab.addMachine(loss.host);
            NatLab::Machine& phone = lab.addMachine(loss.phone);
            lab.setQuality(distance);
            PathPair pair(host, phone, {.host = {"--frame-bytes", "25000"}});
            pair.carriesFrames();
            pair.longestGapSince(Clock::now(), 1000ms); // a backup is there
            const auto moment = Clock::now();
            loss.happen(lab, phone);
            const auto gap = pair.longestGapSince(moment, (Clock::now() - moment) / 1ms * 1ms + observation);
            const bool isSame = !pair.has(Role::host, "closed") && !pair.has(Role::phone, "closed");
            results.push_back({{"what", loss.name}, {"gapMs", gap.count()}, {"isSameConnection", isSame}});
        }
    }
    return results;
}

int main(int argumentCount, char** arguments)
{
    int rounds = 20;
    int lossRounds = 5;
    CLI::App app("Paths through every two kinds of NAT");
    app.add_option("--rounds", rounds, "Of each two kinds");
    app.add_option("--loss-rounds", lossRounds, "Of each way to lose a path");
    CLI11_PARSE(app, argumentCount, arguments);
    if (const auto refusal = NetworkNamespace::refusal()) {
        std::fprintf(stderr, "pelorin-bench-grid: %s\n", refusal->c_str());
        return 1;
    }
    std::puts(json{{"grid", grid(rounds)}, {"interruptions", interruptions(lossRounds)}}.dump().c_str());
    return 0;
}

} // namespace
} // namespace pelorin::lab

int main(int argumentCount, char** arguments)
{
    return pelorin::lab::main(argumentCount, arguments);
}
