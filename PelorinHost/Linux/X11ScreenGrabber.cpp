#include "PelorinHost/Linux/X11ScreenGrabber.h"

#include "PelorinHost/Screen/PicturePainter.h"

#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

namespace pelorin {
namespace {

// What is taken beyond the need when memory grows, as the next need is seldom the same.
constexpr std::size_t growthPercent = 25;

std::string described(const xcb_generic_error_t& error)
{
    return fmt::format("X error {} of request {}.{}", error.error_code, error.major_code, error.minor_code);
}

Result<void, PlatformError> checkPixelFormat(const X11Connection& connection)
{
    const auto& screen = connection.screen();
    const auto* setup = xcb_get_setup(connection.get());
    int bitsPerPixel = 0;
    for (auto f = xcb_setup_pixmap_formats_iterator(setup); f.rem > 0; xcb_format_next(&f))
        if (f.data->depth == screen.root_depth) bitsPerPixel = f.data->bits_per_pixel;
    const xcb_visualtype_t* visual = nullptr;
    for (auto d = xcb_screen_allowed_depths_iterator(&screen); d.rem > 0; xcb_depth_next(&d))
        for (auto v = xcb_depth_visuals_iterator(d.data); v.rem > 0; xcb_visualtype_next(&v))
            if (v.data->visual_id == screen.root_visual) visual = v.data;

    const bool isBgrx = bitsPerPixel == 32 && setup->image_byte_order == XCB_IMAGE_ORDER_LSB_FIRST && visual
        && visual->red_mask == 0xFF0000 && visual->green_mask == 0xFF00 && visual->blue_mask == 0xFF;
    if (isBgrx) return {};
    return std::unexpected(
        PlatformError{fmt::format("the screen's pixels are not 32-bit BGRX (depth {}, {} bits each)",
            screen.root_depth, bitsPerPixel)});
}

Result<void, PlatformError> checkExtensions(const X11Connection& connection)
{
    const struct {
        xcb_extension_t* extension;
        const char* name;
    } needed[] = {{&xcb_shm_id, "MIT-SHM"}, {&xcb_xfixes_id, "XFIXES"}, {&xcb_damage_id, "DAMAGE"}};
    for (const auto& [extension, name] : needed)
        if (!connection.extension(extension))
            return std::unexpected(PlatformError{fmt::format("the X server has no {}", name)});
    return {};
}

} // namespace

Result<X11SharedMemory, PlatformError> X11SharedMemory::create(
    const X11Connection& connection, std::size_t bytes)
{
    auto* c = connection.get();
    const int fd = memfd_create("pelorin-capture", MFD_CLOEXEC);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
        if (fd >= 0) close(fd);
        return std::unexpected(PlatformError{"no memory to share with the X server"});
    }
    X11SharedMemory made;
    auto* mapped = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapped == MAP_FAILED) {
        close(fd);
        return std::unexpected(PlatformError{"can't map the memory shared with the X server"});
    }
    made.memory = static_cast<std::uint8_t*>(mapped);
    made.byteCount = bytes;

    const auto segment = xcb_generate_id(c);
    const auto attached = xcb_shm_attach_fd_checked(c, segment, fd, 0); // closes fd
    const XcbReply<xcb_generic_error_t> error(xcb_request_check(c, attached));
    if (error || connection.isBroken())
        return std::unexpected(PlatformError{
            "the X server can't share memory with us: " + (error ? described(*error) : "connection lost")});
    made.connection = c;
    made.segment = segment;
    return made;
}

X11SharedMemory::X11SharedMemory(X11SharedMemory&& other) noexcept
    : connection(std::exchange(other.connection, nullptr)),
      segment(other.segment),
      memory(std::exchange(other.memory, nullptr)),
      byteCount(std::exchange(other.byteCount, 0))
{
}

X11SharedMemory& X11SharedMemory::operator=(X11SharedMemory&& other) noexcept
{
    std::swap(connection, other.connection);
    std::swap(segment, other.segment);
    std::swap(memory, other.memory);
    std::swap(byteCount, other.byteCount);
    return *this;
}

X11SharedMemory::~X11SharedMemory()
{
    if (connection) xcb_shm_detach(connection, segment);
    if (memory) munmap(memory, byteCount);
}

Result<X11ScreenGrabber, PlatformError> X11ScreenGrabber::open(const X11Connection& connection)
{
    if (auto extensions = checkExtensions(connection); !extensions)
        return std::unexpected(extensions.error());
    if (auto format = checkPixelFormat(connection); !format) return std::unexpected(format.error());

    auto* c = connection.get();
    const auto shmAsked = xcb_shm_query_version(c);
    const auto fixesAsked = xcb_xfixes_query_version(c, 5, 0);
    const auto damageAsked = xcb_damage_query_version(c, 1, 1);
    const XcbReply<xcb_shm_query_version_reply_t> shm(xcb_shm_query_version_reply(c, shmAsked, nullptr));
    const XcbReply<xcb_xfixes_query_version_reply_t> fixes(
        xcb_xfixes_query_version_reply(c, fixesAsked, nullptr));
    const XcbReply<xcb_damage_query_version_reply_t> damages(
        xcb_damage_query_version_reply(c, damageAsked, nullptr));
    if (!shm || !fixes || !damages) return std::unexpected(PlatformError{"the X server is gone"});
    if (shm->major_version == 1 && shm->minor_version < 2)
        return std::unexpected(PlatformError{"the X server's MIT-SHM is older than 1.2"});

    X11ScreenGrabber made(connection);
    made.changed = xcb_generate_id(c);
    xcb_xfixes_create_region(c, made.changed, 0, nullptr);
    made.damage = xcb_generate_id(c);
    // One event when the first thing changes, and the whole of it fetched as a region, costs the same whether
    // an application draws with one request or with a thousand.
    xcb_damage_create(c, made.damage, connection.root(), XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY);
    connection.flush();
    return made;
}

bool X11ScreenGrabber::isDamage(const xcb_generic_event_t& event) const
{
    const auto* extension = connection->extension(&xcb_damage_id);
    return extension && (event.response_type & 0x7F) == extension->first_event + XCB_DAMAGE_NOTIFY;
}

std::optional<std::vector<PixelRect>> X11ScreenGrabber::takeDamage()
{
    auto* c = connection->get();
    xcb_damage_subtract(c, damage, XCB_NONE, changed);
    const XcbReply<xcb_xfixes_fetch_region_reply_t> region(
        xcb_xfixes_fetch_region_reply(c, xcb_xfixes_fetch_region(c, changed), nullptr));
    if (!region) return std::nullopt;
    const auto* first = xcb_xfixes_fetch_region_rectangles(region.get());
    std::vector<PixelRect> rects;
    for (const auto& r :
        std::span(first, static_cast<std::size_t>(xcb_xfixes_fetch_region_rectangles_length(region.get()))))
        rects.push_back({r.x, r.y, r.width, r.height});
    return rects;
}

Result<std::vector<X11ScreenGrabber::Grabbed>, PlatformError> X11ScreenGrabber::grab(
    std::span<const PixelRect> rects)
{
    std::size_t needed = 0;
    std::vector<std::size_t> offsets;
    for (const auto& r : rects) {
        offsets.push_back(needed);
        needed += static_cast<std::size_t>(r.width) * static_cast<std::size_t>(r.height) * 4
            + PicturePainter::bytesReadPastEnd;
    }
    if (needed > memory.size()) {
        auto grown = X11SharedMemory::create(*connection, needed + needed * growthPercent / 100);
        if (!grown) return std::unexpected(grown.error());
        memory = std::move(*grown);
    }

    // All requests leave together; the first failure does not keep the other replies waiting.
    auto* c = connection->get();
    std::vector<xcb_shm_get_image_cookie_t> asked;
    for (std::size_t i = 0; i < rects.size(); ++i) {
        const auto& r = rects[i];
        asked.push_back(xcb_shm_get_image(c, connection->root(), static_cast<std::int16_t>(r.x),
            static_cast<std::int16_t>(r.y), static_cast<std::uint16_t>(r.width),
            static_cast<std::uint16_t>(r.height), ~std::uint32_t{0}, XCB_IMAGE_FORMAT_Z_PIXMAP, memory.id(),
            static_cast<std::uint32_t>(offsets[i])));
    }
    std::vector<Grabbed> grabbed;
    std::optional<PlatformError> failure;
    for (std::size_t i = 0; i < rects.size(); ++i) {
        xcb_generic_error_t* error = nullptr;
        const XcbReply<xcb_shm_get_image_reply_t> reply(xcb_shm_get_image_reply(c, asked[i], &error));
        const XcbReply<xcb_generic_error_t> owned(error);
        if (!reply) failure = PlatformError{error ? described(*error) : "the X server is gone"};
        grabbed.push_back({memory.data() + offsets[i], rects[i].width * 4});
    }
    if (failure) return std::unexpected(*failure);
    return grabbed;
}

} // namespace pelorin
