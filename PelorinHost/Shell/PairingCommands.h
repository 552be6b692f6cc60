#pragma once

#include "PelorinHost/HostServer.h"

namespace pelorin {

// What `pelorin-host pair | devices | remove ID` ask of the running host: its replies, JSON for programs. One
// with the member "error" says, for people, why nothing was done.
namespace PairingCommands {

// By what a phone far away recognizes this host: its key, and its name at the service that is configured.
struct Remote {
    std::string hostID;
    Bytes fingerprint;
};

// Puts a pairing on offer and replies with its link, which leads over the tailnet, through the service or
// both. remote: none when the host is not to be reached so.
std::string pair(PairingStore& store, const HostServer::Status& server, const HostConfig& config,
    const std::string& hostName, const std::optional<Remote>& remote);
// The standing link of the settings' review code alone; starts no pairing.
std::string review(
    const HostConfig& config, const std::string& hostName, const std::optional<Remote>& remote);
std::string devices(const PairingStore& store);
std::string remove(PairingStore& store, const std::string& id);

// The same for people. Nothing when the text is no such reply.
std::optional<std::string> readablePair(const std::string& reply); // with the link's code drawn in it
std::optional<std::string> readableDevices(const std::string& reply);
std::optional<std::string> readableRemoval(const std::string& reply);
std::optional<std::string> linkIn(const std::string& pairReply);

} // namespace PairingCommands

} // namespace pelorin
