#pragma once

#include "PelorinHost/Linux/X11Connection.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>
#include <xcb/randr.h>

namespace pelorin {

// One CRTC that is on, with everything that says what its outputs show.
struct X11Crtc {
    std::uint32_t id = 0;
    int x = 0;
    int y = 0;
    int width = 0; // of what it shows of the screen; follows from the rest
    int height = 0;
    std::uint32_t mode = 0;
    std::uint16_t rotation = 1;
    std::vector<std::uint32_t> outputs{};
    std::array<std::int32_t, 9> transform{}; // all zero where the server has none to tell
    std::string filter{};
    std::vector<std::int32_t> filterParameters{};
    std::array<std::int16_t, 12> panning{}; // left, top, width, height; the same to track; four borders
    bool operator==(const X11Crtc&) const = default;

    bool shows(std::uint32_t output) const;
};

// How an X server's screen is laid out over its outputs.
struct X11Arrangement {
    int width = 0;
    int height = 0;
    int widthMm = 0;
    int heightMm = 0;
    std::uint32_t primary = 0; // output
    std::vector<X11Crtc> crtcs;
    bool operator==(const X11Arrangement&) const = default;

    const X11Crtc* crtcOf(std::uint32_t output) const;
    void fitScreen(const X11Arrangement& likeThat); // to the CRTCs, at the density that one has
};

// What there is to arrange.
struct X11Outputs {
    struct Output {
        std::uint32_t id = 0;
        std::uint32_t nameAtom = 0; // also its display's id
        bool hasPanel = false; // something with a size is plugged in
        std::vector<std::uint32_t> crtcs; // that can drive it
        std::vector<std::uint32_t> modes;
    };
    struct Mode {
        std::uint32_t id = 0;
        int width = 0;
        int height = 0;
        std::string name;
    };
    std::vector<Output> outputs;
    std::vector<Mode> modes;

    const Mode* mode(std::uint32_t id) const;
    const Output* output(std::uint32_t id) const;
};

// Keeps every other client from seeing, or causing, anything in between.
class X11ServerGrab {
public:
    explicit X11ServerGrab(const X11Connection& newConnection) : connection(newConnection)
    {
        xcb_grab_server(connection.get());
    }
    ~X11ServerGrab()
    {
        xcb_ungrab_server(connection.get());
        connection.flush();
    }
    X11ServerGrab(const X11ServerGrab&) = delete;
    X11ServerGrab& operator=(const X11ServerGrab&) = delete;

private:
    const X11Connection& connection;
};

// Nothing when the server is gone or does not answer. The screen's size in millimetres is that of the moment
// the connection was opened; RandR has no question for it.
std::optional<X11Arrangement> readArrangement(const X11Connection& connection);
std::optional<X11Outputs> readOutputs(const X11Connection& connection);

// Makes it so, as far as it goes; CRTCs that are right already are not touched. 0, or the first failure: a
// RandR status, an X error, or arrangementDiffers when the server agreed and did otherwise.
inline constexpr int arrangementDiffers = 1001;
inline constexpr int serverSilent = 1002;
int applyArrangement(const X11Connection& connection, const X11Arrangement& target);

// The timing of a mode for a display without a panel: short blanking, as flat panels have it.
xcb_randr_mode_info_t timingOf(int width, int height, int refreshRate);

} // namespace pelorin
