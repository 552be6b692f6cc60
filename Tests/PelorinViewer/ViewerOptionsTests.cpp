#include "PelorinViewer/ViewerOptions.h"

#include <gtest/gtest.h>

using namespace pelorin;

namespace {

TEST(ViewerOptions, readAddresses)
{
    const struct {
        std::string_view text;
        std::optional<HostAddress> expected;
    } rows[] = {
        {"10.0.0.5:7420", HostAddress{"10.0.0.5", 7420}},
        {"my-desk.local:1", HostAddress{"my-desk.local", 1}},
        {"[fd7a::1]:65535", HostAddress{"fd7a::1", 65535}},
        {"", std::nullopt},
        {"desk", std::nullopt},
        {":7420", std::nullopt},
        {"[]:7420", std::nullopt},
        {"desk:", std::nullopt},
        {"desk:0", std::nullopt},
        {"desk:65536", std::nullopt},
        {"desk:74x", std::nullopt},
        {"fd7a::1:7420", std::nullopt},
        {"pelorin://pair?host=a:1", std::nullopt},
    };
    for (const auto& [text, expected] : rows) EXPECT_EQ(HostAddress::parse(text), expected) << text;
}

TEST(ViewerOptions, tellAddressesLinksAndNamesApart)
{
    const PairingLink link{
        "Studio", "100.64.0.1", {}, 7420, "pair-0123456789abcdef", SecretBytes(Bytes(32, 1))};
    const RemotePairingLink remote{"Studio", "abcdefghijklmnopqrstuvwx27", Bytes(32, 2),
        "https://rendezvous.example.org", SecretBytes(Bytes(32, 3))};
    const struct {
        std::string text;
        std::optional<ViewerTarget> expected;
    } rows[] = {
        {"10.0.0.5:7420", HostAddress{"10.0.0.5", 7420}},
        {link.url(), PairingOffer{link, {}}},
        {remote.url(), PairingOffer{{}, remote}},
        {PairingOffer{link, remote}.url(), PairingOffer{link, remote}},
        {link.url().substr(0, 60), std::nullopt},
        {"pelorin://other", std::nullopt},
        {"王的 Studio", PairedHostName{"王的 Studio"}},
        {"fd7a::1", PairedHostName{"fd7a::1"}},
    };
    for (const auto& [text, expected] : rows) EXPECT_EQ(parseTarget(text), expected) << text;
}

TEST(ViewerOptions, readSizesAndRectangles)
{
    EXPECT_EQ(parseViewport("1280x720"), (Viewport{1280, 720, 1}));
    EXPECT_EQ(parseViewport("1170x2532@3"), (Viewport{1170, 2532, 3}));
    EXPECT_EQ(parseViewport("1170x2532@2.5"), (Viewport{1170, 2532, 2.5}));
    for (const char* text : {"", "x", "1280", "0x720", "1280x", "1280x720@", "1280x720@0", "1280x720@-1",
             "1280x720@nan", "99999x1", "1280x720x3", " 1280x720"})
        EXPECT_FALSE(parseViewport(text)) << text;
    EXPECT_EQ(parseRect("1,2,30,40"), (PictureRect{1, 2, 30, 40}));
    for (const char* text : {"", "1,2,3", "1,2,3,4,5", "1,2,0,4", "-1,2,3,4", "1,2,3,x", "1,,3,4"})
        EXPECT_FALSE(parseRect(text)) << text;
}

} // namespace
