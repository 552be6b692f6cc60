#include "PelorinCore/Access/AccessPolicy.h"

#include <algorithm>

namespace pelorin {
namespace {

// Letters of ASCII only: logins are mail addresses and device names DNS labels. Anything wider has letters
// that fold into one of these (the Kelvin sign into k), which would let one name pass for another.
char lowerCase(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool holds(const std::vector<std::string>& list, const std::string& name)
{
    return std::ranges::any_of(list,
        [&](const std::string& entry) { return std::ranges::equal(entry, name, {}, lowerCase, lowerCase); });
}

} // namespace

bool AccessPolicy::permits(const TailscaleWhois& whois) const
{
    if (!holds(allowedLoginNames, whois.loginName)) return false;
    return allowedNodeNames.empty() || holds(allowedNodeNames, whois.nodeName);
}

} // namespace pelorin
