#pragma once

#include "PelorinNet/Identity/DeviceIdentity.h"
#include "PelorinNet/Identity/SigningKey.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <filesystem>
#include <optional>
#include <string_view>

namespace pelorin {

// A device identity whose key lies in a file that its owner alone can read.
class SoftwareIdentity final : public DeviceIdentity {
public:
    static constexpr const char* fileName = "host-identity.json"; // beside the host's settings

    // What the file holds: {"privateKey": "…"}, the scalar in base64.
    struct Stored {
        SecretBytes privateKey; // 32 bytes

        std::string json() const;
        static std::optional<Stored> parse(std::string_view json); // whatever the key's length
    };

    // With a certificate of its own, made now under that name.
    static Result<std::unique_ptr<SoftwareIdentity>, NetError> create(
        SigningKey privateKey, const std::string& commonName, WallTime now);
    // The identity of that file. One that is missing or damaged is replaced by a new key, its directory made
    // where needed: the device then has another name, and every pairing with it is void. Fails when the new
    // key cannot be kept.
    static Result<std::unique_ptr<SoftwareIdentity>, NetError> loadOrCreate(
        const std::filesystem::path& file, const std::string& commonName, WallTime now);

    const TLSIdentity& secIdentity() const override { return identity; }
    const Bytes& publicKey() const override { return privateKey.publicKey(); }
    Result<Bytes, NetError> sign(ByteView data) const override { return privateKey.sign(data); }
    Result<Bytes, NetError> signRaw(ByteView data) const override { return privateKey.signRaw(data); }

private:
    SoftwareIdentity(SigningKey newPrivateKey, TLSIdentity newIdentity)
        : privateKey(std::move(newPrivateKey)),
          identity(std::move(newIdentity))
    {
    }

    const SigningKey privateKey;
    const TLSIdentity identity;
};

} // namespace pelorin
