// Links as a camera may read them from anybody's paper: whatever is taken for a link survives being written.

#include "PelorinCore/Pairing/RemotePairingLink.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace pelorin;
    const auto offer = PairingOffer::parse({reinterpret_cast<const char*>(data), size});
    if (!offer) return 0;
    require(offer->tailnet || offer->remote, "a link has a way to pair");
    if (offer->remote) {
        require(offer->remote->code.view().size() == 32, "a link has a whole code");
        require(offer->remote->fingerprint.size() == 32, "a link names one key");
    }
    require(PairingOffer::parse(offer->url()) == *offer, "a link that is read is written as the same link");
    return 0;
}
