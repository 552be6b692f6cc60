#pragma once

#include "PelorinCore/Pairing/SecretBytes.h"
#include "PelorinNet/NetError.h"

#include <memory>

struct evp_pkey_st;

namespace pelorin {

// A private key for ECDSA on P-256 with SHA-256. Never changes: any thread may use it; copies share the key.
class SigningKey {
public:
    // A new key that has a compact representation: its Y is the smaller of Y and p - Y, so that X alone names
    // the public key.
    static Result<SigningKey, NetError> generate();
    // From the private scalar: 32 bytes, big-endian, above 0 and below the order of the curve.
    static Result<SigningKey, NetError> fromScalar(SecretBytes scalar);

    const SecretBytes& scalar() const { return privateScalar; }
    const Bytes& publicKey() const { return publicPoint; } // X9.63: 04, X, Y, 65 bytes
    SecretBytes x963() const; // 04, X, Y, scalar, 97 bytes

    Result<Bytes, NetError> sign(ByteView data) const; // DER: a SEQUENCE of r and s
    Result<Bytes, NetError> signRaw(ByteView data) const; // r, s, 32 bytes each

    // Whether this is the key that a certificate, in DER, is about.
    bool isKeyOf(ByteView certificate) const;

private:
    SigningKey() = default;

    SecretBytes privateScalar;
    Bytes publicPoint;
    std::shared_ptr<evp_pkey_st> handle;
};

} // namespace pelorin
