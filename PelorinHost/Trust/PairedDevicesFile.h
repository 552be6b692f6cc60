#pragma once

#include "PelorinHost/Trust/PairingStore.h"
#include "PelorinNet/Files/SecretJSON.h"

namespace pelorin::PairedDevicesFile {

// paired-devices.json: a list of objects whose members are those of PairingStore::Device; key and publicKey
// in base64, publicKey only where there is one, pairedAt in seconds since 2001-01-01 00:00 UTC.

// The error says why a document is not usable: a single record that we could not have written casts doubt on
// all others, so that not one of them opens the door.
Result<std::vector<PairingStore::Device>, std::string> decode(const SecretJSON& document);
SecretJSON encode(const std::vector<PairingStore::Device>& devices);

// A missing file is an empty list.
Result<std::vector<PairingStore::Device>, std::string> read(const std::filesystem::path& file);

// Readable by its owner alone; the old file or the new one is there whole, whatever happens meanwhile.
bool write(const std::filesystem::path& file, const std::vector<PairingStore::Device>& devices);

} // namespace pelorin::PairedDevicesFile
