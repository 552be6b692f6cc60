#pragma once

#include "PelorinPhone/CursorPredictor.h"
#include "PelorinPhone/PhoneStatistics.h"
#include "PelorinPhone/VideoReceiver.h"

#include <functional>
#include <memory>
#include <string>

namespace pelorin {

// What people do in the window, told on the window's thread.
struct WindowInput {
    std::function<void(double dx, double dy)> onMouseMove; // raw motion, while the mouse is captured
    std::function<void(MouseButton, bool isDown)> onMouseButton;
    std::function<void(double clicksX, double clicksY)> onWheel;
    std::function<void(Message)> onMessage; // keys, text, a new viewport, a clipboard
    std::function<void(Duration)> onDrew; // from the decoded picture to the screen
    std::function<void()> onClosed;
};

// The window: shows pictures with bars where the shapes differ, the host's cursor and, when wanted, the
// figures over them, and takes the mouse and the keyboard. Lives on the thread that made it, which run
// occupies; show, everything that sets, and close may be called from any thread. Owned by the program.
class ViewerWindow {
public:
    // Fails with the platform's text, such as when there is no display.
    static Result<std::unique_ptr<ViewerWindow>, std::string> open(bool showsFigures);
    ~ViewerWindow();

    void run(const WindowInput& input); // until close, which the window's own closing only asks for
    Viewport viewport() const; // before run

    void show(const ReceivedPicture& picture); // replaces one that was not drawn yet
    void setPointer(const CursorPredictor& pointer);
    void setCursor(message::CursorImage image); // what is drawn there
    void setFigures(const PhoneFigures& figures);
    void setPath(std::string path); // shown with the next figures
    void setTitle(std::string title);
    void setClipboard(std::string text);
    void close();

private:
    struct State;
    explicit ViewerWindow(std::unique_ptr<State> state);

    std::unique_ptr<State> state;
};

// The figures over the picture, line by line.
std::vector<std::string> linesOf(const PhoneFigures& figures);

} // namespace pelorin
