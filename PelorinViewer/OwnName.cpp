#include "PelorinViewer/OwnName.h"

#include <unistd.h>

namespace pelorin {

std::string ownName()
{
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') return "pelorin-viewer";
    return name;
}

} // namespace pelorin
