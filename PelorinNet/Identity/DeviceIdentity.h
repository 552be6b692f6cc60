#pragma once

#include "PelorinCore/Pairing/SecretBytes.h"
#include "PelorinNet/NetError.h"

namespace pelorin {

// What one side of a handshake shows and proves. In forms that any TLS library takes.
struct TLSIdentity {
    Bytes certificate; // DER
    SecretBytes privateKey; // X9.63: 04, X, Y and the scalar, 97 bytes
};

// The long-lived P-256 key of a device, by which its peers know it. Never changes; any thread may ask. Made
// by the app, one for the process.
class DeviceIdentity {
public:
    virtual ~DeviceIdentity() = default;

    virtual const TLSIdentity& secIdentity() const = 0;
    virtual const Bytes& publicKey() const = 0; // X9.63: 04, X, Y, 65 bytes
    virtual Result<Bytes, NetError> sign(ByteView data) const = 0; // ECDSA with SHA-256, in DER
    virtual Result<Bytes, NetError> signRaw(ByteView data) const = 0; // the same as r and s, 32 bytes each

    Bytes fingerprint() const; // KeyFingerprint::of(publicKey())
};

} // namespace pelorin
