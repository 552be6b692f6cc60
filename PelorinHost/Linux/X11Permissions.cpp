#include "PelorinHost/Linux/X11Permissions.h"

#include "PelorinHost/Linux/X11Connection.h"

#include <span>
#include <xcb/damage.h>
#include <xcb/randr.h>
#include <xcb/shm.h>
#include <xcb/xfixes.h>
#include <xcb/xtest.h>

namespace pelorin {
namespace {

struct Need {
    xcb_extension_t* extension;
    const char* name;
};

Permissions::Answer answer(const std::string& display, std::span<const Need> needs)
{
    const auto connection = X11Connection::open(display);
    if (!connection) return {false, connection.error().description};
    for (const auto& [extension, name] : needs) xcb_prefetch_extension_data(connection->get(), extension);

    std::string missing;
    for (const auto& [extension, name] : needs)
        if (!connection->extension(extension))
            missing += (missing.empty() ? "no " : ", no ") + std::string(name);
    return {missing.empty(), missing};
}

} // namespace

Permissions::Answer X11Permissions::mayCapture()
{
    const Need needs[] = {{&xcb_damage_id, "DAMAGE"}, {&xcb_shm_id, "MIT-SHM"}, {&xcb_xfixes_id, "XFIXES"},
        {&xcb_randr_id, "RANDR"}};
    return answer(display, needs);
}

Permissions::Answer X11Permissions::mayPostEvents()
{
    const Need needs[] = {{&xcb_test_id, "XTEST"}};
    return answer(display, needs);
}

} // namespace pelorin
