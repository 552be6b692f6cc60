#pragma once

#include <string>
#include <string_view>

namespace pelorin {

// A text from the other end as it may stand in a log, a menu or a terminal: one line of well-formed UTF-8 and
// at most 120 bytes, without control characters and without what turns the direction of the line around.
std::string asLabel(std::string_view text);

} // namespace pelorin
