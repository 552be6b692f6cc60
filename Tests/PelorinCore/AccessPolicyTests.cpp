#include "PelorinCore/Access/AccessPolicy.h"

#include "PelorinCore/Access/TailscalePath.h"

#include <algorithm>
#include <gtest/gtest.h>

using namespace pelorin;

TEST(AccessPolicy, comparesWholeNamesWithoutRegardToCase)
{
    const struct {
        AccessPolicy policy;
        TailscaleWhois whois;
        bool isPermitted;
    } rows[] = {
        {{{}, {}}, {"a@x.org", "phone", {}}, false}, {{{}, {"phone"}}, {"a@x.org", "phone", {}}, false},
        {{{"a@x.org"}, {}}, {"a@x.org", "phone", {}}, true},
        {{{"A@X.org"}, {}}, {"a@x.ORG", "phone", {}}, true},
        {{{"b@x.org", "a@x.org"}, {}}, {"a@x.org", "", {}}, true},
        {{{"@x.org"}, {}}, {"a@x.org", "phone", {}}, false}, {{{"*"}, {}}, {"a@x.org", "phone", {}}, false},
        {{{"a@x.org"}, {}}, {"a@x.org.evil.org", "phone", {}}, false},
        {{{"a@x.org"}, {}}, {"a@x.org ", "phone", {}}, false},
        {{{"a@x.org"}, {"phone"}}, {"a@x.org", "Phone", {}}, true},
        {{{"a@x.org"}, {"phone"}}, {"a@x.org", "phone2", {}}, false},
        {{{"a@x.org"}, {"tablet", "PHONE"}}, {"a@x.org", "phone", {}}, true},
        {{{"a@x.org"}, {"phone"}}, {"b@x.org", "phone", {}}, false},
        {{{"k@x.org"}, {}}, {"\u212A@x.org", "phone", {}}, false}, // the Kelvin sign, k in lower case
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.policy.permits(row.whois), row.isPermitted)
            << row.whois.loginName << ' ' << row.whois.nodeName;
}

TEST(TailscalePath, takesTheFirstPlaceThatHoldsAnExecutable)
{
    const auto find = [](std::vector<std::string> present) {
        return TailscalePath::find(
            [&](const std::string& path) { return std::ranges::count(present, path) > 0; });
    };
    const std::string app = "/Applications/Tailscale.app/Contents/MacOS/Tailscale";
    EXPECT_EQ(find({}), std::nullopt);
    EXPECT_EQ(find({"/usr/local/bin/tailscale"}), "/usr/local/bin/tailscale");
    EXPECT_EQ(
        find({"/usr/local/bin/tailscale", "/opt/homebrew/bin/tailscale"}), "/opt/homebrew/bin/tailscale");
    EXPECT_EQ(find({"/usr/local/bin/tailscale", "/opt/homebrew/bin/tailscale", app}), app);
    EXPECT_EQ(find({"/usr/sbin/tailscale", "/usr/bin/tailscale"}), "/usr/bin/tailscale");
    EXPECT_EQ(find({"/usr/sbin/tailscale"}), "/usr/sbin/tailscale");
    EXPECT_EQ(find({"/tmp/tailscale"}), std::nullopt);
}
