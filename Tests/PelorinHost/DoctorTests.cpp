#include "PelorinHost/Shell/Doctor.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using Doctor::Facts;
using Doctor::Finding;
using testing::HasSubstr;
using Verdict = Finding::Verdict;

// A machine with which all is well.
Facts healthy()
{
    Facts facts;
    facts.supportDirectory = "/home/me/.config/Pelorin";
    facts.hasSettingsFile = true;
    facts.settingsText = "{}";
    facts.settings.rendezvousURL = "https://meet.example.org";
    facts.files = {{"host.json"}, {"paired-devices.json"}, {""}};
    facts.runningHost = R"({"listening": "100.64.0.1:7420"})";
    facts.permissions.capture = facts.permissions.events = {true, ""};
    facts.encodesH264 = true;
    facts.tailnetAddress = "100.64.0.1";
    facts.tailnetName = "desk.example.ts.net";
    facts.service = Doctor::Service{std::nullopt, true,
        NatProbe::Answer{NatProbe::Kind::oneForAll, SocketAddress::ipv4({203, 0, 113, 7}, 5)}};
    return facts;
}

TEST(Doctor, findsNothingWhereAllIsWell)
{
    for (const auto& finding : Doctor::diagnose(healthy())) {
        EXPECT_EQ(finding.verdict, Verdict::fine) << finding.subject << ": " << finding.text;
        EXPECT_EQ(finding.advice, "") << finding.subject;
    }
}

TEST(Doctor, tellsWhatIsWrongAndWhatToDo)
{
    const struct {
        std::function<void(Facts&)> harm;
        Verdict verdict;
        const char* subject;
        const char* text;
        const char* advice;
    } rows[] = {
        {[](auto& f) { f.settingsText = R"({"port": "7420"})"; }, Verdict::problem, "settings",
            "can't be read as settings", "Mend it"},
        {[](auto& f) { f.settingsText.reset(); }, Verdict::problem, "settings", "can't be read", "1 MiB"},
        {[](auto& f) { f.files[1].isOpenToOthers = true; }, Verdict::problem, "files",
            "look into or change /home/me/.config/Pelorin/paired-devices.json", "chmod go="},
        {[](auto& f) { f.files[2].isOpenToOthers = true; }, Verdict::problem, "files",
            "change /home/me/.config/Pelorin", "chmod go= /home/me/.config/Pelorin"},
        {[](auto& f) { f.files[0].isOpenToOthers = true; }, Verdict::note, "files", "host.json", "chmod go="},
        {[](auto& f) {
             f.files[0].isOpenToOthers = true;
             f.settings.reviewPairingCode = "secret";
         },
            Verdict::problem, "files", "host.json", "chmod go="},
        {[](auto& f) { f.files[0].isOurs = false; }, Verdict::problem, "files", "belongs to another user",
            "chown"},
        {[](auto& f) {
             f.permissions.capture = f.permissions.events = {false, "no X server: DISPLAY is not set"};
         },
            Verdict::problem, "display server", "DISPLAY is not set", "graphical session"},
        {[](auto& f) {
             f.permissions.capture = f.permissions.events = {false, "no X server at :0"};
             f.hasWaylandSession = true;
         },
            Verdict::problem, "display server", "no X server", "X11"},
        {[](auto& f) { f.permissions.events = {false, "no XTEST"}; }, Verdict::problem, "display server",
            "no XTEST", "extension"},
        {[](auto& f) { f.encodesH264 = false; }, Verdict::problem, "video encoder", "H.264", "libx264"},
        {[](auto& f) { f.runningHost = std::unexpected("no host runs"); }, Verdict::note, "host",
            "no host runs", "systemctl"},
        {[](auto& f) {
             f.runningHost = std::unexpected("no host runs");
             f.isPortFree = false;
         },
            Verdict::problem, "port", "another program listens on port 7420", "host.json"},
        {[](auto& f) { f.runningHost = R"({"listening": null})"; }, Verdict::note, "host", "listens nowhere",
            "tailnet"},
        {[](auto& f) { f.tailnetName = std::unexpected("tailscale CLI not found"); }, Verdict::note,
            "tailnet", "not found", "install Tailscale"},
        {[](auto& f) { f.tailnetAddress.reset(); }, Verdict::note, "tailnet", "no address", "tailscale up"},
        {[](auto& f) { f.settings.allowLoopbackForTesting = true; }, Verdict::note, "tailnet", "test mode",
            "allowLoopbackForTesting"},
        {[](auto& f) { f.service.reset(); }, Verdict::note, "rendezvous service", "none is set",
            "rendezvousURL"},
        {[](auto& f) { f.service = {"https://meet.example.org: refused", false, std::nullopt}; },
            Verdict::problem, "rendezvous service", "refused", "rendezvousURL"},
        {[](auto& f) { f.service->isHostOnline = false; }, Verdict::problem, "rendezvous service",
            "not registered", "clock"},
        {[](auto& f) { f.service->network.reset(); }, Verdict::note, "network", "not looked at", "names"},
        {[](auto& f) { f.service->network->kind = NatProbe::Kind::oneForEach; }, Verdict::note, "network",
            "symmetric NAT, seen as 203.0.113.7:5", "relay"},
        {[](auto& f) {
             f.service->network = NatProbe::Answer{NatProbe::Kind::some, f.service->network->seen, 1};
         },
            Verdict::note, "network", "1 did not answer", "servers"},
        {[](auto& f) { f.service->network = NatProbe::Answer{}; }, Verdict::problem, "network", "no answer",
            "Let UDP out"},
    };
    for (const auto& [harm, verdict, subject, text, advice] : rows) {
        Facts facts = healthy();
        harm(facts);
        const auto findings = Doctor::diagnose(facts);
        SCOPED_TRACE(Doctor::readable(findings));
        const auto found = std::ranges::find_if(findings, [&](const Finding& finding) {
            return finding.subject == subject && finding.verdict != Verdict::fine;
        });
        ASSERT_NE(found, findings.end()) << subject;
        EXPECT_EQ(found->verdict, verdict);
        EXPECT_THAT(found->text, HasSubstr(text));
        EXPECT_THAT(found->advice, HasSubstr(advice));
        EXPECT_EQ(Doctor::hasProblem(findings), verdict == Verdict::problem);
        EXPECT_EQ(nlohmann::json::parse(Doctor::json(findings))["findings"].size(), findings.size());
    }
}

} // namespace
} // namespace pelorin
