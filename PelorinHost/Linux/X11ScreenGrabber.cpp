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
    const X11Connection& connection, std::size_t bytes, const X11Connection::EventHandler& onEvent)
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
    const bool isAnswered = connection.reply<xcb_get_input_focus_reply_t>(
                                xcb_get_input_focus(c), X11Connection::patience, onEvent)
        != nullptr;
    if (!isAnswered) {
        xcb_discard_reply(c, attached.sequence);
        return std::unexpected(PlatformError{"the X server does not answer"});
    }
    const XcbReply<xcb_generic_error_t> error(xcb_request_check(c, attached)); // known by now
    if (error)
        return std::unexpected(
            PlatformError{"the X server can't share memory with us: " + described(*error)});
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

Result<X11ScreenGrabber, PlatformError> X11ScreenGrabber::open(
    const X11Connection& connection, X11Connection::EventHandler onEvent)
{
    if (auto extensions = checkExtensions(connection); !extensions)
        return std::unexpected(extensions.error());
    if (auto format = checkPixelFormat(connection); !format) return std::unexpected(format.error());

    auto* c = connection.get();
    const auto shm = connection.reply<xcb_shm_query_version_reply_t>(
        xcb_shm_query_version(c), X11Connection::patience, onEvent);
    const auto fixes = connection.reply<xcb_xfixes_query_version_reply_t>(
        xcb_xfixes_query_version(c, 5, 0), X11Connection::patience, onEvent);
    const auto damages = connection.reply<xcb_damage_query_version_reply_t>(
        xcb_damage_query_version(c, 1, 1), X11Connection::patience, onEvent);
    if (!shm || !fixes || !damages) return std::unexpected(PlatformError{"the X server does not answer"});
    if (shm->major_version == 1 && shm->minor_version < 2)
        return std::unexpected(PlatformError{"the X server's MIT-SHM is older than 1.2"});

    X11ScreenGrabber made(connection, std::move(onEvent));
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
    const auto region = connection->reply<xcb_xfixes_fetch_region_reply_t>(
        xcb_xfixes_fetch_region(c, changed), X11Connection::patience, onEvent);
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
        auto grown = X11SharedMemory::create(*connection, needed + needed * growthPercent / 100, onEvent);
        if (!grown) return std::unexpected(grown.error());
        memory = std::move(*grown);
    }

    // All requests leave together. After one that failed the others are not waited for.
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
    for (std::size_t i = 0; i < rects.size(); ++i) {
        if (!connection->reply<xcb_shm_get_image_reply_t>(asked[i], X11Connection::patience, onEvent)) {
            for (const auto& cookie : std::span(asked).subspan(i + 1)) xcb_discard_reply(c, cookie.sequence);
            return std::unexpected(PlatformError{"the X server gives no pixels"});
        }
        grabbed.push_back({memory.data() + offsets[i], rects[i].width * 4});
    }
    return grabbed;
}

} // namespace pelorin
