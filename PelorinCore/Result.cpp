#include "PelorinCore/Result.h"

#include <cstdio>
#include <cstdlib>

namespace pelorin {

void require(bool condition, const char* text)
{
    if (condition) return;
    std::fprintf(stderr, "pelorin: broken promise: %s\n", text);
    std::abort();
}

} // namespace pelorin
