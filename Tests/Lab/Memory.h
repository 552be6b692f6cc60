#pragma once

#include <cstddef>
#include <malloc.h>

namespace pelorin::lab {

// What this program holds of the heap now, in bytes. A sanitizer's heap always says 0.
inline std::ptrdiff_t heapInUse()
{
    return static_cast<std::ptrdiff_t>(mallinfo2().uordblks);
}

} // namespace pelorin::lab
