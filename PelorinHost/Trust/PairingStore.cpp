#include "PelorinHost/Trust/PairingStore.h"

#include "PelorinCore/Label.h"
#include "PelorinHost/Trust/ChangeNotice.h"
#include "PelorinHost/Trust/PairedDevicesFile.h"
#include "PelorinNet/Channel/PelorinTLS.h"
#include "PelorinNet/Identity/KeyFingerprint.h"
#include "PelorinNet/Log.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t secretBytes = 32;
constexpr auto expiryDelay = 1s; // behind the end of validity, so that nobody still counts on the offer

bool isPublicKey(ByteView key)
{
    constexpr std::size_t length = 65;
    constexpr std::uint8_t uncompressed = 4;
    return key.size() == length && key[0] == uncompressed;
}

bool hasFingerprint(const PairingStore::Device& device, ByteView fingerprint)
{
    return device.publicKey && std::ranges::equal(KeyFingerprint::of(*device.publicKey), fingerprint);
}

} // namespace

// What the store shares with the expiry of its offer, which may outlive it for a moment.
struct PairingStore::Shared {
    Shared(const std::filesystem::path& directory, QueueRef newClock)
        : file(directory / fileName),
          clock(std::move(newClock))
    {
    }

    void load();
    void save();
    bool isOffered();
    bool hasRoom() const;
    Device& add(const std::string& name, SecretBytes key, std::optional<Bytes> publicKey);
    void expire(const Pending& offer);

    const std::filesystem::path file;
    const QueueRef clock;
    const Log log{"pairing"};
    ChangeNotice changes;

    std::mutex lock; // guards what follows; the functions above but expire expect it to be held
    std::vector<Device> devices;
    std::optional<Pending> pending;
    bool hasExpired = false; // the pending one was seen to be over: a clock set back revives nothing
};

void PairingStore::Shared::load()
{
    auto read = PairedDevicesFile::read(file);
    if (read)
        devices = std::move(*read);
    else
        log.error("no phone counts as paired: {} is not usable, {}; the next pairing replaces it",
            file.string(), read.error());
}

void PairingStore::Shared::save()
{
    if (!PairedDevicesFile::write(file, devices))
        log.error("cannot write {}; the next change tries again", file.string());
}

bool PairingStore::Shared::isOffered()
{
    if (!pending) return false;
    hasExpired |= clock->wallNow() >= pending->expiresAt || clock->now() >= pending->expiresAtSteady;
    return !hasExpired;
}

bool PairingStore::Shared::hasRoom() const
{
    if (devices.size() < maxDevices) return true;
    log.warning("no room for another phone, {} are paired", devices.size());
    return false;
}

PairingStore::Device& PairingStore::Shared::add(
    const std::string& name, SecretBytes key, std::optional<Bytes> publicKey)
{
    devices.push_back({PelorinTLS::randomIdentity(PelorinTLS::devicePrefix), asLabel(name), std::move(key),
        clock->wallNow(), std::move(publicKey)});
    save();
    return devices.back();
}

void PairingStore::Shared::expire(const Pending& offer)
{
    {
        const std::scoped_lock guard(lock);
        if (pending != offer) return; // used or replaced
        pending.reset();
    }
    log.info("pairing key expired unused");
    changes.post();
}

PairingStore::PairingStore(const std::filesystem::path& supportDirectory, QueueRef queue)
    : shared(std::make_shared<Shared>(supportDirectory, std::move(queue)))
{
    const std::scoped_lock guard(shared->lock);
    shared->load();
}

PairingStore::~PairingStore() = default;

Subscription PairingStore::onDidChange(QueueRef queue, std::function<void()> changed)
{
    return shared->changes.subscribe(std::move(queue), std::move(changed));
}

PairingStore::Pending PairingStore::beginPairing()
{
    const Pending offer{PelorinTLS::randomKey(PelorinTLS::randomIdentity(PelorinTLS::pairingPrefix)),
        SecretBytes(PelorinTLS::randomBytes(secretBytes)), shared->clock->wallNow() + validity,
        shared->clock->now() + validity};
    {
        const std::scoped_lock guard(shared->lock);
        shared->pending = offer;
        shared->hasExpired = false;
    }
    shared->log.info("pairing started ({})", offer.key.identity);
    shared->clock->post([store = std::weak_ptr(shared), clock = shared->clock, offer] {
        clock->postAfter(validity + expiryDelay, [store, offer] {
            if (const auto alive = store.lock()) alive->expire(offer);
        });
    });
    shared->changes.post();
    return offer;
}

std::optional<PairingStore::Pending> PairingStore::pending() const
{
    const std::scoped_lock guard(shared->lock);
    return shared->isOffered() ? shared->pending : std::nullopt;
}

std::vector<PelorinTLS::Key> PairingStore::keys() const
{
    const std::scoped_lock guard(shared->lock);
    std::vector<PelorinTLS::Key> keys;
    for (const Device& device : shared->devices)
        if (!device.key.isEmpty()) keys.push_back({device.id, device.key});
    if (shared->isOffered()) keys.push_back(shared->pending->key);
    return keys;
}

std::optional<PairingStore::Device> PairingStore::redeem(
    const std::string& pskIdentity, const std::string& name)
{
    std::optional<Device> device;
    {
        const std::scoped_lock guard(shared->lock);
        if (!shared->pending || shared->pending->key.identity != pskIdentity) return std::nullopt;
        if (!shared->isOffered() || !shared->hasRoom()) return std::nullopt;
        shared->pending.reset();
        device = shared->add(name, SecretBytes(PelorinTLS::randomBytes(secretBytes)), std::nullopt);
    }
    shared->changes.post();
    return device;
}

std::optional<PairingStore::Device> PairingStore::pairRemote(const Bytes& publicKey, const std::string& name,
    ByteView proof, const std::string& context, const std::optional<SecretBytes>& reviewCode)
{
    if (!isPublicKey(publicKey)) return std::nullopt;
    const SecretBytes shown(proof);
    const auto proves = [&](const SecretBytes& code) {
        return !code.isEmpty() && SecretBytes(pairingProof(code, publicKey, context)) == shown;
    };
    const Bytes fingerprint = KeyFingerprint::of(publicKey);
    std::optional<Device> device;
    {
        const std::scoped_lock guard(shared->lock);
        const bool usesOffer = shared->isOffered() && proves(shared->pending->code);
        if (!usesOffer && !(reviewCode && proves(*reviewCode))) return std::nullopt;
        const auto isSamePhone = [&](const Device& known) { return hasFingerprint(known, fingerprint); };
        if (std::ranges::none_of(shared->devices, isSamePhone) && !shared->hasRoom()) return std::nullopt;
        if (usesOffer) shared->pending.reset();
        std::erase_if(shared->devices, isSamePhone);
        device = shared->add(name, {}, publicKey);
    }
    shared->log.info("paired {} as {} through the rendezvous service", device->name, device->id);
    shared->changes.post();
    return device;
}

std::vector<PairingStore::Device> PairingStore::devices() const
{
    const std::scoped_lock guard(shared->lock);
    return shared->devices;
}

std::optional<PairingStore::Device> PairingStore::device(ByteView forFingerprint) const
{
    const std::scoped_lock guard(shared->lock);
    const auto found = std::ranges::find_if(
        shared->devices, [&](const Device& known) { return hasFingerprint(known, forFingerprint); });
    return found == shared->devices.end() ? std::nullopt : std::optional(*found);
}

bool PairingStore::remove(const std::string& id)
{
    std::string name;
    {
        const std::scoped_lock guard(shared->lock);
        const auto found = std::ranges::find(shared->devices, id, &Device::id);
        if (found == shared->devices.end()) return false;
        name = found->name;
        shared->devices.erase(found);
        shared->save();
    }
    shared->log.info("removed paired phone {} ({})", name, id);
    shared->changes.post();
    return true;
}

} // namespace pelorin
