#pragma once

#include "PelorinCore/Pairing/Key.h"
#include "PelorinNet/Identity/PairingProof.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <filesystem>
#include <optional>
#include <vector>

namespace pelorin {

// The paired phones, their file, and the one pairing that is on offer. Any thread calls in; a lock guards the
// phones and the offer and is held while the file is written, so that saves are ordered. A save that fails
// changes nothing in memory, and the next one writes everything. Made by the app, one for the process.
class PairingStore {
public:
    struct Device {
        std::string id; // "dev-" and 16 hexadecimal digits; also the identity of its TLS key
        std::string name; // as the phone calls itself, fit for a menu
        SecretBytes key; // 32 bytes; empty for a phone that paired through the rendezvous service
        WallTime pairedAt;
        std::optional<Bytes> publicKey; // X9.63, 65 bytes, of a phone that paired through the service
        bool operator==(const Device&) const = default;
    };
    struct Pending {
        PelorinTLS::Key key; // for pairing over the tailnet, "pair-…"
        SecretBytes code; // 32 bytes, for pairing through the service
        WallTime expiresAt;
        SteadyTime expiresAtSteady; // whichever clock gets there first ends the offer
        bool operator==(const Pending&) const = default;
    };
    static constexpr std::chrono::seconds validity{300};
    static constexpr std::size_t maxDevices = 256; // far more than anybody owns; keeps file and lists small
    static constexpr const char* fileName = "paired-devices.json";

    // Reads the file; one that is not ours to the letter pairs nobody, and stays until the next save replaces
    // it. queue: for the expiry of an offer; its clocks are the store's.
    PairingStore(const std::filesystem::path& supportDirectory, QueueRef queue);
    ~PairingStore();
    PairingStore(const PairingStore&) = delete;
    PairingStore& operator=(const PairingStore&) = delete;

    // Posts to queue after every change of devices or pending, until cancelled.
    [[nodiscard]] Subscription onDidChange(QueueRef queue, std::function<void()> changed);

    Pending beginPairing(); // takes the place of an earlier offer
    std::optional<Pending> pending() const; // while it is valid
    std::vector<PelorinTLS::Key> keys() const; // devices with a key, then the pending one while it is valid

    // Turns the offer into a paired phone, once. Nothing when there is no such offer any more.
    std::optional<Device> redeem(const std::string& pskIdentity, const std::string& name);
    // The same for a phone that came through the rendezvous service. proof must be made with the offer's code
    // (once) or with reviewCode (any number of times): see pairingProof. A phone that is paired already is
    // recorded anew.
    std::optional<Device> pairRemote(const Bytes& publicKey, const std::string& name, ByteView proof,
        const std::string& context, const std::optional<SecretBytes>& reviewCode);

    std::vector<Device> devices() const; // in the order of pairing
    std::optional<Device> device(ByteView forFingerprint) const; // KeyFingerprint of its public key
    bool remove(const std::string& id); // false when there is none such

private:
    struct Shared;

    std::shared_ptr<Shared> shared;
};

} // namespace pelorin
