#include "PelorinHost/Linux/X11CursorSource.h"
#include "Tests/Lab/XDrawing.h"
#include "Tests/Lab/XServer.h"

#include <gtest/gtest.h>
#include <png.h>

namespace pelorin {
namespace {

Bytes decoded(const CursorSource::Shape& shape)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    EXPECT_TRUE(png_image_begin_read_from_memory(&image, shape.png.data(), shape.png.size()));
    EXPECT_EQ(int(image.width), shape.widthPx);
    EXPECT_EQ(int(image.height), shape.heightPx);
    image.format = PNG_FORMAT_RGBA;
    Bytes rgba(PNG_IMAGE_SIZE(image));
    EXPECT_TRUE(png_image_finish_read(&image, nullptr, rgba.data(), 0, nullptr));
    return rgba;
}

TEST(X11CursorSource, tellsWhereTheCursorIsAndHowItLooks)
{
    lab::XServer server;
    lab::XDrawing desktop(server.display());
    X11CursorSource source(server.display());
    desktop.movePointer(120, 90);
    EXPECT_EQ(source.position(), (Point{120, 90}));
    desktop.setCursorSquare(9, 0x3366CC);
    const auto square = source.shapeFingerprint();
    ASSERT_TRUE(square);
    EXPECT_EQ(source.shapeFingerprint(), square);

    const auto shape = source.shape();
    ASSERT_TRUE(shape);
    EXPECT_EQ(shape->hotX, 0);
    const auto rgba = decoded(*shape);
    EXPECT_EQ(Bytes(rgba.begin(), rgba.begin() + 4), (Bytes{0x33, 0x66, 0xCC, 0xFF}));

    desktop.setCursorSquare(9, 0xFF0000);
    source.position(); // a reply of the server, behind whatever it told before
    EXPECT_NE(source.shapeFingerprint(), square);
    EXPECT_EQ(decoded(*source.shape())[0], 0xFF);
}

TEST(X11CursorSource, followsAServerThatComesBack)
{
    lab::XServer server;
    X11CursorSource source(server.display());
    const auto before = source.shapeFingerprint();
    ASSERT_TRUE(before);
    server.kill();
    while (source.position()) {}
    EXPECT_FALSE(source.shapeFingerprint());
    EXPECT_FALSE(source.shape());
    server.restart();
    EXPECT_TRUE(source.position());
    EXPECT_NE(source.shapeFingerprint(), before); // its serials start over, its cursors may differ
}

} // namespace
} // namespace pelorin
