#include "PelorinCore/Pairing/SecretBytes.h"

namespace pelorin {

SecretBytes& SecretBytes::operator=(SecretBytes other) noexcept
{
    std::swap(held, other.held); // the old bytes are wiped with other
    return *this;
}

bool SecretBytes::operator==(const SecretBytes& other) const
{
    if (held.size() != other.held.size()) return false;
    std::uint8_t difference = 0;
    for (std::size_t i = 0; i < held.size(); ++i)
        difference = static_cast<std::uint8_t>(difference | (held[i] ^ other.held[i]));
    return difference == 0;
}

void SecretBytes::wipe(std::span<std::uint8_t> bytes)
{
    volatile std::uint8_t* at = bytes.data();
    for (std::size_t i = 0; i < bytes.size(); ++i) at[i] = 0;
}

} // namespace pelorin
