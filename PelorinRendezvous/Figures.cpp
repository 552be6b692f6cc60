#include "PelorinRendezvous/Figures.h"

#include <fmt/format.h>
#include <iterator>

namespace pelorin {
namespace {

long long secondsOf(Duration duration)
{
    return std::chrono::floor<std::chrono::seconds>(duration).count();
}

void append(std::string& text, std::string_view name, const char* type, std::string_view help,
    unsigned long long value)
{
    fmt::format_to(std::back_inserter(text),
        "# HELP pelorin_rendezvous_{0} {1}\n# TYPE pelorin_rendezvous_{0} {2}\npelorin_rendezvous_{0} {3}\n",
        name, help, type, value);
}

} // namespace

std::string Figures::page(const Now& now) const
{
    const long long minutes = secondsOf(now.uptime) / 60;
    return fmt::format("Pelorin rendezvous service\n\nup for     {} h {:02} min\nhosts      {}\n"
                       "sessions   {}\nrequests   {} ({} accepted, {} unanswered)\n",
        minutes / 60, minutes % 60, now.hosts, now.sessions, connectRequests, accepted, unanswered);
}

std::string Figures::metrics(const Now& now) const
{
    std::string text;
    const auto gauge = [&](std::string_view name, std::string_view help, unsigned long long value) {
        append(text, name, "gauge", help, value);
    };
    const auto counter = [&](std::string_view name, std::string_view help, unsigned long long value) {
        append(text, name, "counter", help, value);
    };
    gauge("uptime_seconds", "Time since the start.", static_cast<unsigned long long>(secondsOf(now.uptime)));
    gauge("connections", "Open connections.", now.connections);
    gauge("hosts", "Registered hosts.", now.hosts);
    gauge("sessions", "Requests under way and signalling sessions.", now.sessions);
    gauge("sources", "Networks with open connections.", now.sources);
    counter("connections_total", "Connections let in.", connections);
    counter("connections_refused_total", "Connections beyond a source's limit.", connectionsRefused);
    counter("requests_refused_total", "HTTP requests beyond a source's limit.", requestsRefused);
    counter("registrations_total", "Hosts registered.", registrations);
    counter("registrations_refused_total", "Registrations refused.", registrationsRefused);
    counter("connect_requests_total", "Connect requests passed on to hosts.", connectRequests);
    counter("connect_accepted_total", "Connect requests accepted by hosts.", accepted);
    counter("connect_rejected_total", "Connect requests rejected by hosts.", rejected);
    counter("connect_unanswered_total", "Connect requests without an answer in time.", unanswered);
    counter("connect_busy_total", "Connect requests not passed on for a limit.", busy);
    counter("signals_total", "Signalling messages passed on.", signals);
    counter("rule_breakers_total", "Peers closed for what they sent.", ruleBreakers);
    counter("silent_total", "Peers closed for their silence.", silent);
    gauge("broker_in_reach", "1 while other nodes can be reached.", now.hasBroker ? 1 : 0);
    counter("phones_elsewhere_total", "Phones whose host was at another node.", phonesElsewhere);
    counter("guests_total", "Phones for our hosts that came to another node.", guests);
    counter("broker_losses_total", "Times that the broker was lost.", brokerLosses);
    return text;
}

} // namespace pelorin
