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

constexpr Need forCapture[] = {{&xcb_damage_id, "DAMAGE"}, {&xcb_shm_id, "MIT-SHM"},
    {&xcb_xfixes_id, "XFIXES"}, {&xcb_randr_id, "RANDR"}};
constexpr Need forEvents[] = {{&xcb_test_id, "XTEST"}};

Permissions::Answer answer(const X11Connection& connection, std::span<const Need> needs)
{
    std::string missing;
    for (const auto& [extension, name] : needs)
        if (!connection.extension(extension))
            missing += (missing.empty() ? "no " : ", no ") + std::string(name);
    return {missing.empty(), missing};
}

} // namespace

Permissions::Answers X11Permissions::ask()
{
    const auto connection = X11Connection::open(display);
    if (!connection)
        return {{false, connection.error().description}, {false, connection.error().description}};
    for (const std::span<const Need> needs :
        {std::span<const Need>(forCapture), std::span<const Need>(forEvents)})
        for (const auto& need : needs) xcb_prefetch_extension_data(connection->get(), need.extension);
    return {answer(*connection, forCapture), answer(*connection, forEvents)};
}

} // namespace pelorin
