#include "PelorinHost/Linux/X11Gamma.h"

#include <algorithm>
#include <cmath>
#include <xcb/randr.h>

namespace pelorin {
namespace {

std::vector<std::uint16_t> stretched(const std::vector<float>& table, std::size_t size)
{
    std::vector<std::uint16_t> ramp(size);
    if (table.empty()) return ramp;
    for (std::size_t i = 0; i < size; ++i) {
        const double place = size > 1 ? double(i) * double(table.size() - 1) / double(size - 1) : 0;
        const auto below = static_cast<std::size_t>(place);
        const auto above = std::min(below + 1, table.size() - 1);
        const double share = place - double(below);
        const double value = table[below] * (1 - share) + table[above] * share;
        ramp[i] = static_cast<std::uint16_t>(std::lround(std::clamp(value, 0.0, 1.0) * 65535));
    }
    return ramp;
}

} // namespace

X11Ramp X11Ramp::of(const GammaTable& table, std::size_t size)
{
    return {stretched(table.red, size), stretched(table.green, size), stretched(table.blue, size)};
}

std::optional<X11Ramp> readRamp(const X11Connection& connection, std::uint32_t crtc)
{
    const auto reply = connection.reply<xcb_randr_get_crtc_gamma_reply_t>(
        xcb_randr_get_crtc_gamma(connection.get(), crtc), X11Connection::patience);
    if (!reply || reply->size == 0) return std::nullopt;
    const auto entries
        = [&](const std::uint16_t* first) { return std::vector<std::uint16_t>(first, first + reply->size); };
    return X11Ramp{entries(xcb_randr_get_crtc_gamma_red(reply.get())),
        entries(xcb_randr_get_crtc_gamma_green(reply.get())),
        entries(xcb_randr_get_crtc_gamma_blue(reply.get()))};
}

void writeRamp(const X11Connection& connection, std::uint32_t crtc, const X11Ramp& ramp)
{
    xcb_randr_set_crtc_gamma(connection.get(), crtc, static_cast<std::uint16_t>(ramp.red.size()),
        ramp.red.data(), ramp.green.data(), ramp.blue.data());
}

} // namespace pelorin
