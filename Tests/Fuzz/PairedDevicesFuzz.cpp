#include "PelorinHost/Trust/PairedDevicesFile.h"

#include <set>

using namespace pelorin;

// Whatever a list of paired phones says, only keys of full length get in, each under an id of its own, and
// what was read reads the same once it is written.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const auto devices = PairedDevicesFile::decode(
        SecretJSON::parse(std::string_view(reinterpret_cast<const char*>(data), size)));
    if (!devices) return 0;
    std::set<std::string> ids;
    for (const auto& device : *devices) {
        require(PelorinTLS::isIdentity(device.id, PelorinTLS::devicePrefix), "a device's identity");
        require(ids.insert(device.id).second, "an id of its own");
        require(device.key.isEmpty() || device.key.view().size() == 32, "a key of full length");
        require(!device.publicKey || device.publicKey->size() == 65, "a public key of full length");
    }
    const auto again = PairedDevicesFile::decode(PairedDevicesFile::encode(*devices));
    require(again && again->size() == devices->size(), "what we write, we read");
    for (std::size_t i = 0; i < again->size(); ++i) {
        auto device = (*again)[i];
        const auto drift = device.pairedAt - (*devices)[i].pairedAt; // of a double, far from now
        require(drift < std::chrono::microseconds(10) && -drift < std::chrono::microseconds(10), "the date");
        device.pairedAt = (*devices)[i].pairedAt;
        require(device == (*devices)[i], "the rest to the letter");
    }
    return 0;
}
