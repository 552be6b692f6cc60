#include "PelorinHost/Shell/StatusReport.h"

#include <cmath>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using nlohmann::json;

json orNull(const std::optional<std::string>& text)
{
    return text ? json(*text) : json();
}

// Figures for reading: what lies below is noise.
double rounded(double value)
{
    return std::round(value * 1000) / 1000;
}

json toJSON(const SessionFigures& session)
{
    const auto& stages = session.stages;
    return {{"peer", session.peer}, {"client", session.clientName}, {"path", session.path},
        {"display", session.displayLabel}, {"fps", session.fps}, {"mbps", rounded(session.mbps)},
        {"targetMbps", rounded(session.targetMbps)}, {"drops", session.drops},
        {"seconds", rounded(session.seconds)},
        {"stages",
            {{"captureMs", rounded(stages.captureMs)}, {"convertMs", rounded(stages.convertMs)},
                {"encodeMs", rounded(stages.encodeMs)}, {"sendMs", rounded(stages.sendMs)}}}};
}

std::string readableSession(const json& session)
{
    const json& stages = session.at("stages");
    return fmt::format("session with {} ({}) over {} for {:.0f} s\n"
                       "  {} · {} fps · {:.1f}/{:.1f} Mbps · {} frames dropped\n"
                       "  capture {:.1f} ms · convert {:.1f} ms · encode {:.1f} ms · send {:.1f} ms\n",
        session.at("peer").get<std::string>(), session.at("client").get<std::string>(),
        session.at("path").get<std::string>(), session.at("seconds").get<double>(),
        session.at("display").get<std::string>(), session.at("fps").get<int>(),
        session.at("mbps").get<double>(), session.at("targetMbps").get<double>(),
        session.at("drops").get<std::int64_t>(), stages.at("captureMs").get<double>(),
        stages.at("convertMs").get<double>(), stages.at("encodeMs").get<double>(),
        stages.at("sendMs").get<double>());
}

std::string readablePairing(const json& pairing)
{
    const json& pending = pairing.at("pending");
    return fmt::format("pairing {}, {} paired{}{}\n",
        pairing.at("required").get<bool>() ? "required" : "not required",
        pairing.at("devices").get<std::size_t>(),
        pending.is_null()
            ? ""
            : fmt::format(", a link is open for {} s", pending.at("expiresInSeconds").get<std::int64_t>()),
        pairing.at("reviewCode").get<bool>() ? "\n审核模式：配对链接长期有效，只用于演示 Mac" : "");
}

std::string readableRendezvous(const json& hostID)
{
    if (hostID.is_null()) return "not registered with a rendezvous service\n";
    return "registered with the rendezvous service as " + hostID.get<std::string>() + "\n";
}

std::string joined(const json& names)
{
    std::string text;
    for (const auto& name : names) text += (text.empty() ? "" : ", ") + name.get<std::string>();
    return text.empty() ? "nobody" : text;
}

} // namespace

std::string StatusReport::toJSON() const
{
    const json report = {{"listening", orNull(server.listening)}, {"allowedLogins", allowedLogins},
        {"session", server.session ? pelorin::toJSON(*server.session) : json()},
        {"waitingForHello", server.waitingForHello}, {"blockedSources", server.blockedSources},
        {"limits",
            {{"pendingConnections", HostServer::maxPendingSessions},
                {"pendingConnectionsPerSource", SourcePenalties::maxPending},
                {"helloTimeoutSeconds", HostServer::helloTimeout.count()},
                {"blockAboveSeconds", SourcePenalties::threshold.count()},
                {"longestBlockSeconds", std::chrono::seconds(SourcePenalties::longest).count()}}},
        {"rendezvous", orNull(rendezvous)}, {"hostID", orNull(server.hostID)}, {"testMode", isTestMode},
        {"settingsProblems", settingsProblems},
        {"pairing",
            {{"required", requiresPairing},
                {"pending", pairingOpenFor ? json{{"expiresInSeconds", pairingOpenFor->count()}} : json()},
                {"devices", pairedDevices}, {"reviewCode", hasReviewCode}}}};
    // A phone's name may be cut anywhere.
    return report.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

std::optional<std::string> readableStatus(const std::string& text)
{
    try {
        const json report = json::parse(text);
        const json& listening = report.at("listening");
        const json& session = report.at("session");
        return (listening.is_null() ? "not listening\n"
                                    : "listening on " + listening.get<std::string>() + "\n")
            + "allowed logins: " + joined(report.at("allowedLogins")) + "\n"
            + readableRendezvous(report.at("hostID")) + readablePairing(report.at("pairing"))
            + (session.is_null() ? "no session\n" : readableSession(session));
    } catch (const json::exception&) {
        return std::nullopt;
    }
}

} // namespace pelorin
