#pragma once

#include "PelorinCore/Result.h"
#include "PelorinNet/NetError.h"

#include <chrono>
#include <functional>
#include <string>

// The certificate in which a device shows its key to a peer: X.509 version 3 without extensions, its own
// issuer. A new one is made at each start, so peers look at the key in it and at nothing else.
namespace pelorin::SelfSignedCertificate {

using Sign = std::function<Result<Bytes, NetError>(ByteView toBeSigned)>; // ECDSA with SHA-256, in DER
using RandomBytes = std::function<Bytes(std::size_t count)>;

// In DER, valid from a day before now for twenty years of 365 days. publicKey is X9.63, 65 bytes; commonName
// is UTF-8. Fails only with what sign fails with.
Result<Bytes, NetError> make(ByteView publicKey, const std::string& commonName,
    std::chrono::system_clock::time_point now, const Sign& sign, const RandomBytes& random);
Result<Bytes, NetError> make(ByteView publicKey, const std::string& commonName,
    std::chrono::system_clock::time_point now, const Sign& sign); // random from the system

} // namespace pelorin::SelfSignedCertificate
