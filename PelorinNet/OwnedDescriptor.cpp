#include "PelorinNet/OwnedDescriptor.h"

#include <unistd.h>

namespace pelorin {

OwnedDescriptor& OwnedDescriptor::operator=(OwnedDescriptor&& other) noexcept
{
    std::swap(descriptor, other.descriptor);
    return *this;
}

OwnedDescriptor::~OwnedDescriptor()
{
    if (descriptor >= 0) ::close(descriptor);
}

} // namespace pelorin
