#pragma once

#include "PelorinCore/Access/AccessPolicy.h"
#include "PelorinHost/HostConfig.h"
#include "PelorinHost/Trust/TailscaleCLI.h"

namespace pelorin {

// Decides who may come in over the tailnet: Tailscale says who is calling, the policy whether they may. Until
// it is known whose machine this is, nobody may. Queue: the server's. Owns the runner of the Tailscale tool.
// Owned by the HostServer.
class TailnetAdmission {
public:
    // A caller's label, "phone", or why they are turned away, as they are told.
    using Verdict = Result<std::string, std::string>;

    TailnetAdmission(System& system, QueueRef queue, const HostConfig& config);

    std::function<void(std::vector<std::string> names)> onAllowedLogins; // once it is known who may come in
    std::function<void(std::string line)> onConnectionLog;

    // This machine's address in the tailnet, with every refresh. Learns from it whose machine it is, and asks
    // again with the next refresh when that failed.
    void setOwnAddress(const std::optional<std::string>& address);

    // Nothing when Tailscale is to be asked.
    std::optional<std::string> refusalWithoutAsking(const std::string& address) const;
    // done comes on the queue, never within the call, and not after the subscription is gone.
    [[nodiscard]] Subscription ask(const std::string& address, std::move_only_function<void(Verdict)> done);

    const std::optional<std::string>& ownDNSName() const { return dnsName; }

private:
    void askWhoWeAre();
    void learntOwn(const Result<TailscaleWhois, TailscaleCLIError>& answer);
    Verdict judge(const Result<TailscaleWhois, TailscaleCLIError>& answer) const;

    TailscaleCLI tailscale;
    AccessPolicy policy; // with our own login name once that is known
    Log log{"server"};
    std::optional<std::string> ownAddress;
    std::optional<std::string> ownLoginName;
    std::optional<std::string> dnsName;
    std::string ownWhoisFailure; // the last one
    bool reportedOwnWhoisFailure = false; // it is in the connection log
    std::vector<std::string> configuredLoginNames;
    Subscription ownQuestion; // while it is open
    Subscription nameQuestion;
};

} // namespace pelorin
