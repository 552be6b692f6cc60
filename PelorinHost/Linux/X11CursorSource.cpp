#include "PelorinHost/Linux/X11CursorSource.h"

#include <algorithm>
#include <png.h>
#include <utility>

namespace pelorin {
namespace {

std::uint8_t withoutAlpha(std::uint32_t colour, std::uint32_t alpha)
{
    return static_cast<std::uint8_t>(std::min(255U, (colour * 255 + alpha / 2) / alpha));
}

Bytes rgbaOf(const X11CursorImage& image)
{
    Bytes rgba;
    rgba.reserve(image.argb.size() * 4);
    for (const auto pixel : image.argb) {
        const auto alpha = pixel >> 24;
        for (const int shift : {16, 8, 0})
            rgba.push_back(alpha == 0 ? 0 : withoutAlpha(pixel >> shift & 0xFF, alpha));
        rgba.push_back(static_cast<std::uint8_t>(alpha));
    }
    return rgba;
}

std::optional<Bytes> pngOf(const X11CursorImage& image)
{
    png_image description{};
    description.version = PNG_IMAGE_VERSION;
    description.width = static_cast<png_uint_32>(image.widthPx);
    description.height = static_cast<png_uint_32>(image.heightPx);
    description.format = PNG_FORMAT_RGBA;
    const auto rgba = rgbaOf(image);
    Bytes png(PNG_IMAGE_PNG_SIZE_MAX(description));
    png_alloc_size_t size = png.size();
    if (!png_image_write_to_memory(&description, png.data(), &size, 0, rgba.data(), 0, nullptr))
        return std::nullopt;
    png.resize(size);
    return png;
}

} // namespace

std::optional<Point> X11CursorSource::position()
{
    if (!connect()) return std::nullopt;
    const auto pointer = queryPointer(*connection, eventHandler());
    if (!pointer) return std::nullopt;
    return Point{static_cast<double>(pointer->x), static_cast<double>(pointer->y)};
}

std::optional<std::uint64_t> X11CursorSource::shapeFingerprint()
{
    const auto* current = currentImage();
    if (!current) return std::nullopt;
    return std::uint64_t{connections} << 32 | current->serial;
}

std::optional<CursorSource::Shape> X11CursorSource::shape()
{
    const auto* current = currentImage();
    if (!current) return std::nullopt;
    auto png = pngOf(*current);
    if (!png) return std::nullopt;
    return Shape{current->widthPx, current->heightPx, current->hotX, current->hotY, std::move(*png)};
}

bool X11CursorSource::connect()
{
    if (connection && !connection->isBroken()) return true;
    connection.reset();
    hasNewShape = true;
    auto opened = X11Connection::open(displayName);
    if (!opened || !opened->extension(&xcb_xfixes_id)) return false;
    connection = std::move(*opened);
    ++connections;
    connection->reply<xcb_xfixes_query_version_reply_t>(
        xcb_xfixes_query_version(connection->get(), 5, 0), X11Connection::patience);
    watchCursorImage(*connection);
    connection->flush();
    return true;
}

const X11CursorImage* X11CursorSource::currentImage()
{
    if (!connect()) return nullptr;
    connection->takeEvents(eventHandler());
    if (std::exchange(hasNewShape, false)) image = queryCursorImage(*connection, eventHandler());
    if (!image) hasNewShape = true; // asked again next time
    if (!image || image->widthPx == 0 || image->heightPx == 0) return nullptr;
    return &*image;
}

X11Connection::EventHandler X11CursorSource::eventHandler()
{
    return
        [this](const xcb_generic_event_t& event) { hasNewShape |= isCursorImageChange(*connection, event); };
}

} // namespace pelorin
