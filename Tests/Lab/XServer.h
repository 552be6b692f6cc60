#pragma once

#include "Tests/Lab/Process.h"

namespace pelorin::lab {

// A real X server on a display number of its own, gone with the object.
class XServer {
public:
    struct Options {
        int widthPx = 1280;
        int heightPx = 720;
        // Xorg with the dummy driver knows several outputs and any mode (RandR works fully); Xvfb starts
        // faster.
        bool isXorg = false;
        std::vector<std::string> extraArguments; // "-extension", "DAMAGE"
    };
    explicit XServer(Options options);
    XServer() : XServer(Options{}) {}
    ~XServer();
    XServer(const XServer&) = delete;
    XServer& operator=(const XServer&) = delete;

    const std::string& display() const { return displayName; } // ":7"
    bool isRunning() { return process && process->isRunning(); }
    void kill(); // as a crash
    void pause(); // alive, but deaf and mute until resume
    void resume();
    void restart(); // a new server with the same display name
    // Runs a client to its end and returns its standard output; "xrandr", "xdotool", "xclip".
    std::string run(std::vector<std::string> arguments) const;
    // Starts a client that goes on.
    std::unique_ptr<Process> launch(std::vector<std::string> arguments) const;

private:
    void begin(int displayNumber);
    Options options;
    std::unique_ptr<Process> process;
    std::string displayName;
    std::string folder; // configuration and log of an Xorg
    int heldAddress = -1; // socket that keeps a killed server's number ours
};

} // namespace pelorin::lab
