#pragma once

#include "PelorinCore/Result.h"

#include <optional>
#include <string>
#include <string_view>

namespace pelorin {

// A text as a QR code of error correction level M, with the quiet zone of four modules that readers ask for.
class QrImage {
public:
    static std::optional<QrImage> of(std::string_view text); // nothing for more than a code can hold

    int side() const { return modulesPerSide; } // in modules, quiet zone included

    // A grey PNG of sizePx by sizePx pixels. Nothing for less than a pixel a module.
    std::optional<Bytes> png(int sizePx) const;

    // Lines for a terminal, two rows of modules a line. The colours are set, so that it reads on dark
    // terminals and on light ones.
    std::string terminal() const;

private:
    bool isDark(int x, int y) const;

    int modulesPerSide = 0;
    std::vector<bool> darkModules; // row by row, without the quiet zone
};

} // namespace pelorin
