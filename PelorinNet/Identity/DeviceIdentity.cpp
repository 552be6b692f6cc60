#include "PelorinNet/Identity/DeviceIdentity.h"

#include "PelorinNet/Identity/KeyFingerprint.h"

namespace pelorin {

Bytes DeviceIdentity::fingerprint() const
{
    return KeyFingerprint::of(publicKey());
}

} // namespace pelorin
