#include "PelorinNet/Identity/PairingProof.h"

#include "PelorinCore/Pairing/Base64URL.h"
#include "PelorinNet/Identity/HmacSHA256.h"
#include "PelorinNet/Identity/KeyFingerprint.h"

namespace pelorin {

Bytes pairingProof(const SecretBytes& code, ByteView publicKey, const std::string& context)
{
    const std::string said
        = "pelorin-pair-v1|" + context + "|" + base64EncodedString(KeyFingerprint::of(publicKey));
    return hmacSHA256(code.view(), {reinterpret_cast<const std::uint8_t*>(said.data()), said.size()});
}

} // namespace pelorin
