#pragma once

namespace pelorin {

// Global display points, origin top left of the main display's desktop.
struct Point {
    double x = 0;
    double y = 0;
    bool operator==(const Point&) const = default;
};

struct Delta {
    double dx = 0;
    double dy = 0;
    bool operator==(const Delta&) const = default;
};

// In points.
struct Rect {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
    bool isEmpty() const { return !(width > 0 && height > 0); }
    bool contains(Point p) const { return p.x >= x && p.y >= y && p.x < x + width && p.y < y + height; }
    bool operator==(const Rect&) const = default;
};

// In pixels of one picture.
struct PixelRect {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    bool operator==(const PixelRect&) const = default;
};

} // namespace pelorin
