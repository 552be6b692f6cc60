#include "PelorinHost/Shell/Doctor.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace pelorin::Doctor {
namespace {

using Verdict = Finding::Verdict;

void judgeSettings(const Facts& facts, std::vector<Finding>& findings)
{
    const auto place = (facts.supportDirectory / "host.json").string();
    if (!facts.hasSettingsFile)
        return findings.push_back({Verdict::fine, "settings", "the defaults; there is no " + place + " yet"});
    if (!facts.settingsText)
        return findings.push_back({Verdict::problem, "settings", place + " can't be read",
            "It must be a file of at most 1 MiB that is yours to read: ls -l " + place});
    if (!HostConfig::decode(*facts.settingsText))
        return findings.push_back({Verdict::problem, "settings", place + " can't be read as settings",
            "Mend it, or remove it: the host puts the defaults in its place when it starts."});
    findings.push_back({Verdict::fine, "settings", place});
}

void judgeFiles(const Facts& facts, std::vector<Finding>& findings)
{
    const auto before = findings.size();
    for (const auto& file : facts.files) {
        const auto path
            = (file.name.empty() ? facts.supportDirectory : facts.supportDirectory / file.name).string();
        const bool holdsNoSecret = file.name == "host.json" && facts.settings.reviewPairingCode.empty();
        if (!file.isOurs)
            findings.push_back({Verdict::problem, "files", path + " belongs to another user",
                "Give it back to yourself, as root: chown <you> " + path});
        else if (file.isOpenToOthers)
            findings.push_back({holdsNoSecret ? Verdict::note : Verdict::problem, "files",
                "other users of this machine may look into or change " + path,
                "Keep it to yourself: chmod go= " + path});
    }
    if (findings.size() == before)
        findings.push_back({Verdict::fine, "files", "yours alone, in " + facts.supportDirectory.string()});
}

void judgeDisplay(const Facts& facts, std::vector<Finding>& findings)
{
    const auto& missing
        = facts.permissions.capture.isGranted ? facts.permissions.events : facts.permissions.capture;
    if (missing.isGranted)
        return findings.push_back(
            {Verdict::fine, "display server", "the screen can be seen, and pointer and keys moved"});
    const bool hasServer
        = !missing.missing.starts_with("no X server") && missing.missing.find("DISPLAY") == std::string::npos;
    findings.push_back({Verdict::problem, "display server", missing.missing,
        hasServer ? "Start the X server with that extension."
            : facts.hasWaylandSession
            ? "This is a Wayland session: choose the X11 one where you log in."
            : "Run the host within your graphical session, or name its display: --display :0"});
}

void judgeEncoders(const Facts& facts, std::vector<Finding>& findings)
{
    if (!facts.encodesH264)
        return findings.push_back({Verdict::problem, "video encoder", "none for H.264 in real time",
            "Install libx264, as the package's dependencies do."});
    findings.push_back({Verdict::fine, "video encoder",
        facts.encodesHEVC ? "HEVC and H.264 in real time"
                          : "H.264 in real time; HEVC needs a graphics card that encodes it"});
}

void judgeTailnet(const Facts& facts, std::vector<Finding>& findings)
{
    if (facts.settings.allowLoopbackForTesting)
        return findings.push_back(
            {Verdict::note, "tailnet", "test mode: reachable from this machine alone, by anybody on it",
                "Set allowLoopbackForTesting to false for real use."});
    if (!facts.tailnetName)
        return findings.push_back({Verdict::note, "tailnet", facts.tailnetName.error(),
            "For phones in your tailnet: install Tailscale and log in with it."});
    if (!facts.tailnetAddress)
        return findings.push_back({Verdict::note, "tailnet", "this machine has no address in one just now",
            "For phones in your tailnet: tailscale up"});
    findings.push_back({Verdict::fine, "tailnet",
        facts.tailnetName->value_or("without a name") + ", " + *facts.tailnetAddress});
}

void judgeHost(const Facts& facts, std::vector<Finding>& findings)
{
    if (!facts.runningHost) {
        findings.push_back({Verdict::note, "host", facts.runningHost.error(),
            "Start it: systemctl --user start pelorin-host"});
        if (!facts.isPortFree)
            findings.push_back({Verdict::problem, "port",
                fmt::format("another program listens on port {}", facts.settings.port),
                "End that program, or set another port in host.json."});
        return;
    }
    const auto status = nlohmann::json::parse(*facts.runningHost, nullptr, false);
    const bool listens
        = status.is_object() && status.contains("listening") && status["listening"].is_string();
    if (listens)
        findings.push_back(
            {Verdict::fine, "host", "runs and listens on " + status["listening"].get<std::string>()});
    else
        findings.push_back({Verdict::note, "host", "runs, but listens nowhere",
            "It listens once this machine is in a tailnet, and reads host.json when it starts."});
}

Finding networkFinding(const std::optional<NatProbe::Answer>& network)
{
    if (!network)
        return {Verdict::note, "network", "not looked at: the service named no server to ask",
            "The service names its servers while the host is registered with it."};
    const std::string seen = network->seen ? network->seen->text() : "";
    switch (network->kind) {
    case NatProbe::Kind::none:
        return {Verdict::fine, "network", "no NAT; seen as " + seen};
    case NatProbe::Kind::oneForAll:
        return {Verdict::fine, "network", "a NAT that phones can be led through; seen as " + seen};
    case NatProbe::Kind::oneForEach:
        return {Verdict::note, "network", "a symmetric NAT, seen as " + seen + " and otherwise by others",
            "Sessions with phones behind one like it go through the relay. A port that the router forwards "
            "would mend that."};
    case NatProbe::Kind::some:
        if (network->silent == 0)
            return {Verdict::fine, "network", "a NAT; seen as " + seen + " by the service's only server"};
        return {Verdict::note, "network",
            fmt::format("a NAT; seen as {} by one server, and {} did not answer", seen, network->silent),
            "One answer does not tell whether phones can be led through: look at the service's servers."};
    case NatProbe::Kind::silent:
        break;
    }
    return {Verdict::problem, "network", "no answer over UDP from the service's servers",
        "Let UDP out of this network: without it there is no session from elsewhere."};
}

void judgeService(const Facts& facts, std::vector<Finding>& findings)
{
    if (!facts.settings.rendezvous || !facts.service)
        return findings.push_back(
            {Verdict::note, "rendezvous service", "none is set: phones come by the tailnet alone",
                "To be reached from elsewhere: set rendezvousURL in host.json."});
    if (facts.service->error)
        return findings.push_back({Verdict::problem, "rendezvous service", *facts.service->error,
            "Look at the network and at rendezvousURL in host.json."});
    if (facts.service->isHostOnline)
        findings.push_back({Verdict::fine, "rendezvous service", "answers, and knows this host"});
    else
        findings.push_back({facts.runningHost ? Verdict::problem : Verdict::note, "rendezvous service",
            "answers, but this host is not registered with it",
            facts.runningHost ? "Look at the clock of this machine and at the host's log."
                              : "The host registers when it runs."});
    if (facts.service->isHostOnline) findings.push_back(networkFinding(facts.service->network));
}

const char* nameOf(Verdict verdict)
{
    constexpr std::array names{"ok", "note", "problem"};
    return names.at(static_cast<std::size_t>(verdict));
}

} // namespace

std::vector<Finding> diagnose(const Facts& facts)
{
    std::vector<Finding> findings;
    for (const auto judge :
        {judgeSettings, judgeFiles, judgeDisplay, judgeEncoders, judgeHost, judgeTailnet, judgeService})
        judge(facts, findings);
    return findings;
}

bool hasProblem(const std::vector<Finding>& findings)
{
    return std::ranges::find(findings, Verdict::problem, &Finding::verdict) != findings.end();
}

std::string readable(const std::vector<Finding>& findings)
{
    std::string text;
    for (const auto& finding : findings) {
        text += fmt::format("{:<8}{}: {}\n", nameOf(finding.verdict), finding.subject, finding.text);
        if (!finding.advice.empty()) text += fmt::format("{:<8}{}\n", "", finding.advice);
    }
    return text;
}

std::string json(const std::vector<Finding>& findings)
{
    auto list = nlohmann::json::array();
    for (const auto& [verdict, subject, text, advice] : findings)
        list.push_back(
            {{"subject", subject}, {"verdict", nameOf(verdict)}, {"text", text}, {"advice", advice}});
    return nlohmann::json{{"findings", list}}.dump(2, ' ', false, nlohmann::json::error_handler_t::replace)
        + "\n";
}

} // namespace pelorin::Doctor
