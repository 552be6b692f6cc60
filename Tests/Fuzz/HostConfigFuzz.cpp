#include "PelorinCore/Result.h"
#include "PelorinHost/HostConfig.h"

// Whatever decodes must survive being written and read again unchanged.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const auto config = pelorin::HostConfig::decode({reinterpret_cast<const char*>(data), size});
    if (config) pelorin::require(pelorin::HostConfig::decode(config->encode()) == config, "round trip");
    return 0;
}
