// Links as a camera may read them from anybody's paper: whatever is taken for a link survives being written.

#include "PelorinCore/Pairing/PairingLink.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace pelorin;
    const auto link = PairingLink::parse({reinterpret_cast<const char*>(data), size});
    if (!link) return 0;
    require(link->key.view().size() == 32, "a link has a whole key");
    require(PairingLink::parse(link->url()) == *link, "a link that is read is written as the same link");
    return 0;
}
