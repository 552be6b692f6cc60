#include "PelorinPhone/CursorPredictor.h"

#include <algorithm>
#include <cmath>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

// Long enough to be seen as a movement, short enough not to be waited for.
constexpr Duration glideTime = 100ms;

// What rounding to whole pixels does is not worth a movement.
constexpr double noticeable = 0.01;

} // namespace

void CursorPredictor::displayIs(double newWidth, double newHeight)
{
    width = newWidth;
    height = newHeight;
}

// The host neither carries out nor counts motion that is not finite.
void CursorPredictor::moved(double dx, double dy)
{
    if (std::isfinite(dx) && std::isfinite(dy)) unacknowledged.push_back({dx, dy});
}

void CursorPredictor::reported(const message::CursorPosition& position, SteadyTime now)
{
    if (!std::isfinite(position.x) || !std::isfinite(position.y)) return;
    const auto newlyApplied = static_cast<std::int32_t>(position.appliedMoves - appliedMoves);
    if (newlyApplied < 0 || static_cast<std::size_t>(newlyApplied) > unacknowledged.size()) return;
    const auto drawn = at(now);
    unacknowledged.erase(unacknowledged.begin(), unacknowledged.begin() + newlyApplied);
    appliedMoves = position.appliedMoves;
    lastReported = Place{position.x, position.y};
    if (!drawn) return;
    const Place corrected = predicted();
    glide = {drawn->x - corrected.x, drawn->y - corrected.y};
    glidesSince = now;
    if (std::hypot(glide.dx, glide.dy) < noticeable) glide = {0, 0};
}

std::optional<CursorPredictor::Place> CursorPredictor::at(SteadyTime now) const
{
    if (!lastReported) return std::nullopt;
    Place place = predicted();
    if (!isGliding(now)) return place;
    const double left = 1 - std::chrono::duration<double>(now - glidesSince) / glideTime;
    place.x += glide.dx * left;
    place.y += glide.dy * left;
    return place;
}

bool CursorPredictor::isGliding(SteadyTime now) const
{
    return (glide.dx != 0 || glide.dy != 0) && now - glidesSince < glideTime;
}

CursorPredictor::Place CursorPredictor::predicted() const
{
    Place place = *lastReported;
    for (const Move& move : unacknowledged) place = confined({place.x + move.dx, place.y + move.dy});
    return place;
}

CursorPredictor::Place CursorPredictor::confined(Place place) const
{
    if (width <= 0 || height <= 0) return place;
    return {std::clamp(place.x, 0.0, std::max(0.0, width - 1)),
        std::clamp(place.y, 0.0, std::max(0.0, height - 1))};
}

} // namespace pelorin
