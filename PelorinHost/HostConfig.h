#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pelorin {

// The host's settings, as the user may write them by hand into host.json; the keys are the field names. Read
// once when the controller starts, then copied by value to whoever needs it.
struct HostConfig {
    struct LiveActivity {
        std::string apnsKeyPath; // the APNs signing key (.p8)
        std::string apnsKeyID;
        std::string apnsTeamID = "PELORINTEAM"; // the team under which the phone app is published
        std::string bundleID = "com.marrowfen.pelorin.client"; // the phone app's, and the APNs topic
        bool sandbox = true; // APNs sandbox instead of production
        double pollSeconds = 2;
        double idleEndMinutes = 120;
        double codexRecentMinutes = 30;
        bool operator==(const LiveActivity&) const = default;
    };

    std::uint16_t port = 7420; // TCP, tailnet listener; 0 lets the system choose
    std::vector<std::string> allowedLoginNames; // besides the machine's own
    std::vector<std::string> allowedNodeNames;
    double bitrateMbps = 12; // the video's start and ceiling
    std::int64_t maxFrameRate = 60;
    bool preferHEVC = true; // when the phone decodes it
    double idleTimeoutMinutes = 15; // without input; 0 or less: never
    bool requirePairing = true;
    bool allowLoopbackForTesting = false; // test mode: 127.0.0.1 only, no identity checks
    bool rendezvous = true;
    std::string rendezvousURL; // "https://…"; empty: none, this host stays off
    std::string reviewPairingCode; // empty: none
    LiveActivity liveActivity;
    bool operator==(const HostConfig&) const = default;

    // Missing keys take their default one by one, unknown keys are ignored. Nothing when the text is not a
    // JSON object, a present key has the wrong type (null included) or a number does not fit.
    static std::optional<HostConfig> decode(std::string_view json);
    std::string encode() const; // indented, keys in alphabetical order

    // What load would find wrong with the file there, for people; a missing one is fine.
    static std::optional<std::string> problemIn(const std::filesystem::path& directory);
    // Never fails: a missing, unreadable or malformed host.json in directory is replaced by the defaults, on
    // disk too; what a malformed one said is kept beside it as host.json.malformed. A partial file that
    // decodes stays as it is.
    static HostConfig load(const std::filesystem::path& directory);
    // Makes the directory and replaces the file whole. A failure is ignored; the program runs on with what it
    // has in memory.
    void save(const std::filesystem::path& directory) const;
};

} // namespace pelorin
