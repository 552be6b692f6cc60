#pragma once

#include "PelorinCore/Result.h"

#include <string>

// The short names of a public key, which is given in X9.63 form: 04, X, Y, 65 bytes.
namespace pelorin::KeyFingerprint {

// SHA-256 of the key, 32 bytes: what a pairing records and what a channel compares its peer with.
Bytes of(ByteView publicKey);

// The first 16 bytes of that in Base32, 26 characters: the name of a host at the rendezvous service.
std::string hostID(ByteView publicKey);

} // namespace pelorin::KeyFingerprint
