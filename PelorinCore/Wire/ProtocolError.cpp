#include "PelorinCore/Wire/ProtocolError.h"

namespace pelorin {

std::string ProtocolError::description() const
{
    switch (kind) {
    case Kind::frameTooLarge:
        return "frameTooLarge(" + std::to_string(length) + ")";
    case Kind::invalidValue:
        return "invalidValue(" + text + ")";
    case Kind::truncated:
        break;
    }
    return "truncated";
}

} // namespace pelorin
