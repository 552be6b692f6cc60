#include "PelorinHost/Trust/QrImage.h"

#include <memory>
#include <png.h>
#include <qrencode.h>

namespace pelorin {
namespace {

constexpr int quietZone = 4; // modules; ISO/IEC 18004
constexpr int maxSizePx = 8192; // of a picture; beyond it is a mistake

struct FreeCode {
    void operator()(QRcode* code) const { QRcode_free(code); }
};

} // namespace

std::optional<QrImage> QrImage::of(std::string_view text)
{
    const std::unique_ptr<QRcode, FreeCode> code(QRcode_encodeData(
        static_cast<int>(text.size()), reinterpret_cast<const unsigned char*>(text.data()), 0, QR_ECLEVEL_M));
    if (!code) return std::nullopt;
    QrImage image;
    image.modulesPerSide = code->width + 2 * quietZone;
    const auto count = static_cast<std::size_t>(code->width) * static_cast<std::size_t>(code->width);
    image.darkModules.reserve(count);
    for (std::size_t i = 0; i < count; ++i) image.darkModules.push_back((code->data[i] & 1) != 0);
    return image;
}

bool QrImage::isDark(int x, int y) const
{
    const int width = modulesPerSide - 2 * quietZone;
    x -= quietZone;
    y -= quietZone;
    if (x < 0 || y < 0 || x >= width || y >= width) return false;
    return darkModules[static_cast<std::size_t>(y * width + x)];
}

std::optional<Bytes> QrImage::png(int sizePx) const
{
    if (sizePx < modulesPerSide || sizePx > maxSizePx) return std::nullopt;
    Bytes pixels;
    pixels.reserve(static_cast<std::size_t>(sizePx) * static_cast<std::size_t>(sizePx));
    for (int y = 0; y < sizePx; ++y)
        for (int x = 0; x < sizePx; ++x)
            pixels.push_back(isDark(x * modulesPerSide / sizePx, y * modulesPerSide / sizePx) ? 0 : 255);

    png_image header = {};
    header.version = PNG_IMAGE_VERSION;
    header.width = header.height = static_cast<png_uint_32>(sizePx);
    header.format = PNG_FORMAT_GRAY;
    png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(header);
    Bytes file(size);
    if (!png_image_write_to_memory(&header, file.data(), &size, 0, pixels.data(), 0, nullptr))
        return std::nullopt;
    file.resize(size);
    return file;
}

std::string QrImage::terminal() const
{
    // Black on white from the fixed part of the palette, which themes leave alone. A dark pair of modules is
    // a blank on black: block characters of some fonts leave gaps between the lines.
    constexpr std::string_view onWhite = "\x1B[38;5;16;48;5;231m";
    constexpr std::string_view onBlack = "\x1B[48;5;16m";
    constexpr std::string_view plain = "\x1B[0m";
    std::string text;
    for (int y = 0; y < modulesPerSide; y += 2) {
        text += onWhite;
        for (int x = 0; x < modulesPerSide; ++x) {
            const bool upper = isDark(x, y);
            const bool lower = isDark(x, y + 1);
            if (upper && lower)
                text.append(onBlack).append(" ").append(onWhite);
            else
                text += upper ? "▀" : lower ? "▄" : " ";
        }
        text.append(plain).append("\n");
    }
    return text;
}

} // namespace pelorin
