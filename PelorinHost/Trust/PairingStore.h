#pragma once

#include "PelorinCore/Pairing/Key.h"
#include "PelorinNet/Log.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <filesystem>
#include <mutex>
#include <optional>
#include <vector>

namespace pelorin {

// The paired phones, their file, and the one pairing that is on offer. Any thread calls in; the lock guards
// devices and pending and is held while the file is written, so that saves are ordered. Made by the app, one
// for the process.
class PairingStore {
public:
    struct Device {
        std::string id; // "dev-" and 16 hexadecimal digits; also the identity of its TLS key
        std::string name; // as the phone calls itself
        SecretBytes key; // 32 bytes; empty for a phone that paired through the rendezvous service
        WallTime pairedAt;
        std::optional<Bytes> publicKey; // X9.63, of a phone that paired through the service
    };
    struct Pending {
        PelorinTLS::Key key; // for pairing over the tailnet, "pair-…"
        SecretBytes code; // 32 bytes, for pairing through the service
        WallTime expiresAt;
        SteadyTime expiresAtSteady; // a clock set back revives nothing
        bool operator==(const Pending&) const = default;
    };
    static constexpr std::chrono::seconds validity{300};

    // queue: for the expiry task; its clock is the store's.
    PairingStore(const std::filesystem::path& supportDirectory, QueueRef queue);
    ~PairingStore();

    // Posts to queue after every change of devices or pending, until cancelled.
    [[nodiscard]] Subscription onDidChange(QueueRef queue, std::function<void()> changed);

    Pending beginPairing();
    std::optional<Pending> pending() const; // while it is valid
    std::vector<PelorinTLS::Key> keys() const; // devices with a key, then the pending one while it is valid
    std::optional<Device> redeem(const std::string& pskIdentity, const std::string& name);
    std::vector<Device> devices() const;
    bool remove(const std::string& id); // false when there is none such
};

} // namespace pelorin
