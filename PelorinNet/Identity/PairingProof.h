#pragma once

#include "PelorinCore/Pairing/SecretBytes.h"

#include <string>

namespace pelorin {

// What a phone shows to prove that it knows code: HMAC-SHA-256 over "pelorin-pair-v1|", the context of the
// exchange, "|" and its key's fingerprint in base64.
Bytes pairingProof(const SecretBytes& code, ByteView publicKey, const std::string& context);

} // namespace pelorin
