#include "PelorinCore/Pairing/PairingLink.h"
#include "PelorinHost/Trust/QrImage.h"
#include "Tests/Lab/Files.h"
#include "Tests/Lab/Picture.h"
#include "Tests/Lab/Wait.h"
#include "Tests/Lab/XServer.h"

#include <gtest/gtest.h>

// Every code is judged by a reader that somebody else wrote.
namespace pelorin {
namespace {

const std::string link = PairingLink{"王小明的 Studio", "100.101.102.103", "studio.example-tailnet.ts.net",
    7420, "pair-0123456789abcdef", SecretBytes(Bytes(32, 0xA5))}
                             .url();

std::string readBack(const std::filesystem::path& picture)
{
    std::string text = lab::outputOf(
        {"zbarimg", "--nodbus", "--quiet", "--raw", "-Sdisable", "-Sqrcode.enable", picture.string()});
    if (text.ends_with('\n')) text.pop_back();
    return text;
}

TEST(QrImage, isReadBackFromAPictureOfAnySize)
{
    const lab::TemporaryFolder folder;
    const auto file = folder.path() / "code.png";
    const auto image = QrImage::of(link);
    ASSERT_TRUE(image);
    for (const int size : {2 * image->side(), 333, 600, 1000}) {
        const auto png = image->png(size);
        ASSERT_TRUE(png);
        lab::write(file, std::string(png->begin(), png->end()));
        EXPECT_EQ(readBack(file), link) << size;
        EXPECT_EQ(lab::Picture::ofPNG(file.string()).widthPx, size);
    }
    EXPECT_FALSE(image->png(image->side() - 1));
    EXPECT_FALSE(image->png(0));
    EXPECT_FALSE(image->png(1 << 20));
    EXPECT_FALSE(QrImage::of(std::string(2332, 'x'))) << "2331 bytes is the most for level M";
    EXPECT_TRUE(QrImage::of(std::string(2331, 'x')));
}

TEST(QrImage, isReadBackFromATerminalDarkOrLight)
{
    const lab::XServer server({.widthPx = 1000, .heightPx = 1000, .isXorg = false, .extraArguments = {}});
    const lab::TemporaryFolder folder;
    const auto text = folder.path() / "code.txt";
    const auto screenshot = folder.path() / "screen.ppm";
    for (const auto& [ground, letters] : {std::pair("black", "white"), std::pair("white", "black")}) {
        const std::string shown = link + "&on=" + ground;
        lab::write(text, QrImage::of(shown).value().terminal());
        const auto terminal = server.launch({"env", "LC_ALL=C.UTF-8", "xterm", "-u8", "-bg", ground, "-fg",
            letters, "-fa", "DejaVu Sans Mono", "-fs", "9", "-geometry", "90x45+0+0", "-e",
            "cat " + text.string() + "; cat"});
        std::string seen;
        EXPECT_TRUE(lab::eventually([&] {
            const auto screen = lab::Picture::ofScreen(server.display());
            lab::write(screenshot,
                "P6 " + std::to_string(screen.widthPx) + " " + std::to_string(screen.heightPx) + " 255\n"
                    + std::string(screen.pixels.begin(), screen.pixels.end()));
            seen = readBack(screenshot);
            return seen == shown;
        })) << ground
            << ": " << seen;
    }
}

} // namespace
} // namespace pelorin
