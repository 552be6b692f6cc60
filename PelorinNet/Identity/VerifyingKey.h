#pragma once

#include "PelorinCore/Result.h"

#include <memory>
#include <optional>

struct evp_pkey_st;

namespace pelorin {

// Somebody's public key for ECDSA on P-256 with SHA-256. Never changes: any thread may ask; copies share the
// key.
class VerifyingKey {
public:
    // From X9.63: 04, X, Y, 65 bytes. Nothing for other forms and for what is no point of the curve.
    static std::optional<VerifyingKey> fromX963(ByteView publicKey);

    bool hasSigned(ByteView data, ByteView signature) const; // in DER
    bool hasSignedRaw(ByteView data, ByteView signature) const; // r, s, 32 bytes each

private:
    explicit VerifyingKey(std::shared_ptr<evp_pkey_st> newHandle) : handle(std::move(newHandle)) {}

    std::shared_ptr<evp_pkey_st> handle;
};

} // namespace pelorin
