#include "PelorinViewer/ViewerWindow.h"

#include "PelorinViewer/KeyboardInput.h"
#include "PelorinViewer/OverlayFont.h"
#include "PelorinViewer/X11ClipboardWatch.h"
#include "PelorinViewer/X11Errors.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <mutex>
#include <png.h>
#include <SDL.h>
#include <set>
#include <utility>

namespace pelorin {

namespace {

constexpr int longestCursorSide = 512;
constexpr int glideFrameMs = 8; // between two pictures of a pointer that glides

constexpr int firstWidth = 1280;
constexpr int firstHeight = 720;

// The key that gives mouse and keyboard back: on the right, where no shortcut needs it.
constexpr SDL_Scancode releaseKey = SDL_SCANCODE_RCTRL;
constexpr SDL_Scancode figuresKey = SDL_SCANCODE_F9;

// The figures' dots are two pixels wide, with one dot between letters and three between lines.
constexpr int dot = 2;
constexpr int letterAdvance = (OverlayFont::glyphWidth + 1) * dot;
constexpr int lineAdvance = (OverlayFont::glyphHeight + 3) * dot;
constexpr int overlayMargin = 4 * dot;

struct WindowDeleter {
    void operator()(SDL_Window* window) const { SDL_DestroyWindow(window); }
    void operator()(SDL_Renderer* renderer) const { SDL_DestroyRenderer(renderer); }
    void operator()(SDL_Texture* texture) const { SDL_DestroyTexture(texture); }
    void operator()(char* text) const { SDL_free(text); }
};
template <class Resource>
using Owned = std::unique_ptr<Resource, WindowDeleter>;

// Started with the first member and ended after the last.
struct Library {
    Library()
    {
        SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1"); // the program reads its signals itself
        // Motion as the user's desktop accelerates it, instead of the device's raw counts. Devices that
        // report places, as those of virtual machines and remote desktops, have no raw motion at all.
        SDL_SetHint(SDL_HINT_MOUSE_RELATIVE_MODE_WARP, "1");
        // The click that brings the window to the front takes the mouse as well.
        SDL_SetHint(SDL_HINT_MOUSE_FOCUS_CLICKTHROUGH, "1");
        outliveX11Errors(); // before SDL sets a handler that ends with the one it found
        isStarted = SDL_Init(SDL_INIT_VIDEO) == 0;
    }
    ~Library() { SDL_Quit(); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    bool isStarted = false;
};

KeyModifiers modifiersOf(int state)
{
    const std::pair<int, KeyModifiers> pairs[] = {{KMOD_SHIFT, keyModifier::shift},
        {KMOD_CTRL, keyModifier::control}, {KMOD_ALT, keyModifier::option}, {KMOD_GUI, keyModifier::command},
        {KMOD_CAPS, keyModifier::capsLock}};
    KeyModifiers modifiers;
    for (const auto& [mask, modifier] : pairs)
        if ((state & mask) != 0) modifiers |= modifier;
    return modifiers;
}

std::optional<MouseButton> buttonOf(int number)
{
    switch (number) {
    case SDL_BUTTON_LEFT:
        return MouseButton::left;
    case SDL_BUTTON_RIGHT:
        return MouseButton::right;
    case SDL_BUTTON_MIDDLE:
        return MouseButton::middle;
    default:
        return std::nullopt;
    }
}

std::string orDash(std::optional<double> value)
{
    return value ? fmt::format("{:.1f}", *value) : "-";
}

// The cursor's picture, not larger than any desktop's; nothing for what is none.
std::optional<Bytes> rgbaOf(const Bytes& png, int& width, int& height)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_memory(&image, png.data(), png.size())) return std::nullopt;
    std::optional<Bytes> rgba;
    width = static_cast<int>(std::min<png_uint_32>(image.width, longestCursorSide + 1));
    height = static_cast<int>(std::min<png_uint_32>(image.height, longestCursorSide + 1));
    image.format = PNG_FORMAT_RGBA;
    if (width <= longestCursorSide && height <= longestCursorSide) {
        rgba.emplace(PNG_IMAGE_SIZE(image));
        if (!png_image_finish_read(&image, nullptr, rgba->data(), 0, nullptr)) rgba.reset();
    }
    png_image_free(&image);
    return rgba;
}

SteadyTime steadyNow()
{
    return std::chrono::steady_clock::now();
}

} // namespace

std::vector<std::string> linesOf(const PhoneFigures& figures)
{
    std::vector<std::string> lines{fmt::format("fps {:.0f}", figures.fps),
        fmt::format("Mbit/s {:.1f}", figures.mbps), fmt::format("drops {}", figures.dropped),
        fmt::format("rtt ms {}", orDash(figures.rttMs)), fmt::format("age ms {}", orDash(figures.ageMs))};
    for (std::size_t stage = 0; stage < stageCount; ++stage)
        lines.push_back(
            fmt::format(" {} {}", nameOf(static_cast<Stage>(stage)), orDash(figures.stages.ms[stage])));
    return lines;
}

struct ViewerWindow::State {
    // The window's thread only.
    Library library;
    Owned<SDL_Window> window;
    Owned<SDL_Renderer> renderer;
    Owned<SDL_Texture> texture;
    int textureWidth = 0;
    int textureHeight = 0;
    CursorPredictor pointer;
    message::CursorImage cursor; // of the texture; without its PNG
    Owned<SDL_Texture> cursorTexture;
    std::uint32_t wakeEvent = 0;
    KeyboardInput keyboard;
    bool isCaptured = false;
    std::set<MouseButton> buttonsDown; // told to the host
    bool showsFigures = false;
    bool needsDrawing = true;
    std::string lastClipboard;
    X11ClipboardWatch clipboardWatch;
    std::vector<std::string> figureLines;
    std::string path; // above them; empty: none is told
    bool isClosing = false;

    // What other threads leave for it.
    struct Mail {
        std::optional<ReceivedPicture> picture;
        std::optional<CursorPredictor> pointer;
        std::optional<message::CursorImage> cursor;
        std::optional<PhoneFigures> figures;
        std::optional<std::string> path;
        std::optional<std::string> title;
        std::optional<std::string> clipboard;
        bool close = false;
    };
    std::mutex lock; // guards mail and isWoken
    Mail mail;
    bool isWoken = false;

    Result<void, std::string> open();
    template <class Change>
    void leave(Change change);
    void takeMail(const WindowInput& input);
    void handle(const SDL_Event& event, const WindowInput& input);
    void handleKey(const SDL_KeyboardEvent& event, const WindowInput& input);
    void handleButton(const SDL_MouseButtonEvent& event, const WindowInput& input);
    void handleClipboard(const WindowInput& input);
    void handleWindow(const SDL_WindowEvent& event, const WindowInput& input);
    void capture();
    void letGo(const WindowInput& input);
    void upload(const DecodedPicture& picture);
    void setCursor(message::CursorImage image);
    void draw();
    void drawPointer(const SDL_Rect& picture);
    void drawFigures();
    Viewport viewport() const;
};

Result<void, std::string> ViewerWindow::State::open()
{
    if (!library.isStarted) return std::unexpected(std::string("no window: ") + SDL_GetError());
    // Without a display the library falls back on a window that nobody can see, unless it was asked for.
    if (SDL_GetHint(SDL_HINT_VIDEODRIVER) == nullptr
        && std::string_view(SDL_GetCurrentVideoDriver()) == "offscreen")
        return std::unexpected("no window: there is no display; --headless needs none");
    // Shown only when complete: the renderer may make the window anew, and window managers are slow to
    // follow.
    window.reset(SDL_CreateWindow("Pelorin", SDL_WINDOWPOS_UNDEFINED, SDL_WINDOWPOS_UNDEFINED, firstWidth,
        firstHeight, SDL_WINDOW_RESIZABLE | SDL_WINDOW_ALLOW_HIGHDPI | SDL_WINDOW_HIDDEN));
    if (window)
        renderer.reset(SDL_CreateRenderer(window.get(), -1, 0)); // no wait for the screen's own frames
    if (!renderer) return std::unexpected(std::string("no window: ") + SDL_GetError());
    clipboardWatch.begin(*window);
    SDL_ShowWindow(window.get());
    SDL_SetYUVConversionMode(SDL_YUV_CONVERSION_BT709);
    SDL_SetRenderDrawBlendMode(renderer.get(), SDL_BLENDMODE_BLEND);
    wakeEvent = SDL_RegisterEvents(1);
    const Owned<char> clipboard(SDL_GetClipboardText());
    lastClipboard = clipboard ? clipboard.get() : "";
    return {};
}

template <class Change>
void ViewerWindow::State::leave(Change change)
{
    const std::lock_guard guard(lock);
    change(mail);
    if (isWoken) return;
    SDL_Event event{};
    event.type = wakeEvent;
    isWoken = SDL_PushEvent(&event) > 0; // its queue may be full; the next mail tries again
}

void ViewerWindow::State::takeMail(const WindowInput& input)
{
    Mail taken;
    {
        const std::lock_guard guard(lock);
        taken = std::exchange(mail, {});
        isWoken = false;
    }
    if (taken.title) SDL_SetWindowTitle(window.get(), taken.title->c_str());
    if (taken.clipboard) {
        lastClipboard = *taken.clipboard;
        SDL_SetClipboardText(lastClipboard.c_str());
    }
    if (taken.path) path = std::move(*taken.path);
    if (taken.figures) {
        figureLines = linesOf(*taken.figures);
        if (!path.empty()) figureLines.insert(figureLines.begin(), path);
        needsDrawing = needsDrawing || showsFigures;
    }
    if (taken.cursor) setCursor(std::move(*taken.cursor));
    if (taken.pointer) pointer = std::move(*taken.pointer);
    needsDrawing = needsDrawing || taken.cursor || taken.pointer;
    isClosing = isClosing || taken.close;
    if (!taken.picture) return;
    upload(taken.picture->picture);
    draw();
    input.onDrew(std::chrono::steady_clock::now() - taken.picture->decodedAt);
}

void ViewerWindow::State::handle(const SDL_Event& event, const WindowInput& input)
{
    if (event.type == wakeEvent) return takeMail(input);
    switch (event.type) {
    case SDL_QUIT:
        return input.onClosed();
    case SDL_KEYDOWN:
    case SDL_KEYUP:
        return handleKey(event.key, input);
    case SDL_TEXTINPUT:
        if (auto text = keyboard.type(event.text.text)) input.onMessage(std::move(*text));
        return;
    case SDL_MOUSEMOTION:
        if (isCaptured) input.onMouseMove(event.motion.xrel, event.motion.yrel);
        return;
    case SDL_MOUSEBUTTONDOWN:
    case SDL_MOUSEBUTTONUP:
        return handleButton(event.button, input);
    case SDL_MOUSEWHEEL: // turned right, the content moves left
        if (isCaptured) input.onWheel(-event.wheel.preciseX, event.wheel.preciseY);
        return;
    case SDL_CLIPBOARDUPDATE:
    case SDL_SYSWMEVENT: // the clipboard watch's
        return handleClipboard(input);
    case SDL_WINDOWEVENT:
        return handleWindow(event.window, input);
    default:
        return;
    }
}

void ViewerWindow::State::handleKey(const SDL_KeyboardEvent& event, const WindowInput& input)
{
    const bool isDown = event.type == SDL_KEYDOWN;
    const SDL_Scancode code = event.keysym.scancode;
    if (code == releaseKey) {
        if (isDown) letGo(input);
        return;
    }
    if (code == figuresKey && !isCaptured) {
        if (isDown && event.repeat == 0) showsFigures = !showsFigures;
        needsDrawing = true;
        return;
    }
    // The library's scan codes are the usages of the USB HID keyboard page.
    if (auto key = keyboard.press(code, isDown, modifiersOf(event.keysym.mod))) input.onMessage(*key);
}

// The click that captures the mouse is not the host's: its pointer stands elsewhere.
void ViewerWindow::State::handleButton(const SDL_MouseButtonEvent& event, const WindowInput& input)
{
    const bool isDown = event.type == SDL_MOUSEBUTTONDOWN;
    if (!isCaptured) {
        if (isDown) capture();
        return;
    }
    const auto button = buttonOf(event.button);
    if (!button) return;
    if (isDown)
        buttonsDown.insert(*button);
    else if (buttonsDown.erase(*button) == 0)
        return; // pressed to capture
    input.onMouseButton(*button, isDown);
}

void ViewerWindow::State::handleClipboard(const WindowInput& input)
{
    const Owned<char> text(SDL_GetClipboardText());
    if (!text || text.get() == lastClipboard) return; // our own doing
    lastClipboard = text.get();
    if (!lastClipboard.empty()) input.onMessage(message::PasteText{lastClipboard, false});
}

void ViewerWindow::State::handleWindow(const SDL_WindowEvent& event, const WindowInput& input)
{
    if (event.event == SDL_WINDOWEVENT_FOCUS_LOST) letGo(input);
    if (event.event == SDL_WINDOWEVENT_SIZE_CHANGED) input.onMessage(message::SetViewport{viewport()});
    needsDrawing = true;
}

void ViewerWindow::State::capture()
{
    isCaptured = SDL_SetRelativeMouseMode(SDL_TRUE) == 0;
    SDL_SetWindowKeyboardGrab(window.get(), isCaptured ? SDL_TRUE : SDL_FALSE);
}

void ViewerWindow::State::letGo(const WindowInput& input)
{
    for (const MouseButton button : std::exchange(buttonsDown, {})) input.onMouseButton(button, false);
    for (const message::Key& key : keyboard.releaseAll()) input.onMessage(key);
    if (!std::exchange(isCaptured, false)) return;
    SDL_SetRelativeMouseMode(SDL_FALSE);
    SDL_SetWindowKeyboardGrab(window.get(), SDL_FALSE);
}

void ViewerWindow::State::upload(const DecodedPicture& picture)
{
    if (!texture || textureWidth != picture.widthPx || textureHeight != picture.heightPx) {
        SDL_SetHint(SDL_HINT_RENDER_SCALE_QUALITY, "linear");
        texture.reset(SDL_CreateTexture(renderer.get(), SDL_PIXELFORMAT_IYUV, SDL_TEXTUREACCESS_STREAMING,
            picture.widthPx, picture.heightPx));
        textureWidth = picture.widthPx;
        textureHeight = picture.heightPx;
    }
    if (texture)
        SDL_UpdateYUVTexture(texture.get(), nullptr, picture.planes[0], picture.strides[0], picture.planes[1],
            picture.strides[1], picture.planes[2], picture.strides[2]);
}

void ViewerWindow::State::setCursor(message::CursorImage image)
{
    int width = 0;
    int height = 0;
    const auto rgba = rgbaOf(image.png, width, height);
    cursorTexture.reset();
    if (rgba)
        cursorTexture.reset(SDL_CreateTexture(
            renderer.get(), SDL_PIXELFORMAT_RGBA32, SDL_TEXTUREACCESS_STATIC, width, height));
    cursor = std::move(image);
    cursor.png.clear();
    if (!cursorTexture) return;
    SDL_UpdateTexture(cursorTexture.get(), nullptr, rgba->data(), width * 4);
    SDL_SetTextureBlendMode(cursorTexture.get(), SDL_BLENDMODE_BLEND);
}

void ViewerWindow::State::draw()
{
    needsDrawing = false;
    SDL_SetRenderDrawColor(renderer.get(), 0, 0, 0, SDL_ALPHA_OPAQUE);
    SDL_RenderClear(renderer.get());
    if (texture) {
        int width = 0;
        int height = 0;
        SDL_GetRendererOutputSize(renderer.get(), &width, &height);
        const double scale = std::min(double(width) / textureWidth, double(height) / textureHeight);
        const int shownWidth = static_cast<int>(std::lround(textureWidth * scale));
        const int shownHeight = static_cast<int>(std::lround(textureHeight * scale));
        const SDL_Rect target{(width - shownWidth) / 2, (height - shownHeight) / 2, shownWidth, shownHeight};
        SDL_RenderCopy(renderer.get(), texture.get(), nullptr, &target);
        drawPointer(target);
    }
    if (showsFigures) drawFigures();
    SDL_RenderPresent(renderer.get());
}

void ViewerWindow::State::drawPointer(const SDL_Rect& picture)
{
    const auto place = pointer.at(steadyNow());
    if (!place || !cursorTexture || pointer.displayWidth() <= 0 || pointer.displayHeight() <= 0) return;
    const double scaleX = picture.w / pointer.displayWidth();
    const double scaleY = picture.h / pointer.displayHeight();
    const auto rounded = [](double value) { return static_cast<int>(std::lround(value)); };
    const SDL_Rect target{picture.x + rounded((place->x - cursor.hotX) * scaleX),
        picture.y + rounded((place->y - cursor.hotY) * scaleY), std::max(1, rounded(cursor.widthPt * scaleX)),
        std::max(1, rounded(cursor.heightPt * scaleY))};
    SDL_RenderSetClipRect(renderer.get(), &picture);
    SDL_RenderCopy(renderer.get(), cursorTexture.get(), nullptr, &target);
    SDL_RenderSetClipRect(renderer.get(), nullptr);
}

void ViewerWindow::State::drawFigures()
{
    std::size_t longest = 0;
    for (const std::string& line : figureLines) longest = std::max(longest, line.size());
    const SDL_Rect ground{0, 0, static_cast<int>(longest) * letterAdvance + 2 * overlayMargin,
        static_cast<int>(figureLines.size()) * lineAdvance + 2 * overlayMargin};
    SDL_SetRenderDrawColor(renderer.get(), 0, 0, 0, 170);
    SDL_RenderFillRect(renderer.get(), &ground);

    std::vector<SDL_Rect> dots;
    int y = overlayMargin;
    for (const std::string& line : figureLines) {
        int x = overlayMargin;
        for (const char character : line) {
            const auto glyph = OverlayFont::glyphOf(character);
            for (int row = 0; row < OverlayFont::glyphHeight; ++row)
                for (int column = 0; column < OverlayFont::glyphWidth; ++column)
                    if ((glyph[static_cast<std::size_t>(row)] >> (OverlayFont::glyphWidth - 1 - column) & 1)
                        != 0)
                        dots.push_back({x + column * dot, y + row * dot, dot, dot});
            x += letterAdvance;
        }
        y += lineAdvance;
    }
    SDL_SetRenderDrawColor(renderer.get(), 255, 255, 255, SDL_ALPHA_OPAQUE);
    SDL_RenderFillRects(renderer.get(), dots.data(), static_cast<int>(dots.size()));
}

Viewport ViewerWindow::State::viewport() const
{
    int width = 0;
    int height = 0;
    SDL_GetRendererOutputSize(renderer.get(), &width, &height);
    int pointsWidth = 0;
    SDL_GetWindowSize(window.get(), &pointsWidth, nullptr);
    const float scale = pointsWidth > 0 ? static_cast<float>(width) / static_cast<float>(pointsWidth) : 1;
    return {static_cast<std::uint32_t>(std::max(width, 1)), static_cast<std::uint32_t>(std::max(height, 1)),
        scale};
}

Result<std::unique_ptr<ViewerWindow>, std::string> ViewerWindow::open(bool showsFigures)
{
    auto state = std::make_unique<State>();
    if (auto opened = state->open(); !opened) return std::unexpected(opened.error());
    state->showsFigures = showsFigures;
    return std::unique_ptr<ViewerWindow>(new ViewerWindow(std::move(state)));
}

ViewerWindow::ViewerWindow(std::unique_ptr<State> newState) : state(std::move(newState)) {}
ViewerWindow::~ViewerWindow() = default;

void ViewerWindow::run(const WindowInput& input)
{
    SDL_Event event;
    while (!state->isClosing) {
        const bool isGliding = state->pointer.isGliding(steadyNow());
        const bool isTold
            = (isGliding ? SDL_WaitEventTimeout(&event, glideFrameMs) : SDL_WaitEvent(&event)) != 0;
        if (!isTold && !isGliding) return;
        if (isTold) {
            do state->handle(event, input);
            while (!state->isClosing && SDL_PollEvent(&event) != 0);
        }
        if (state->needsDrawing || isGliding) state->draw();
    }
}

Viewport ViewerWindow::viewport() const
{
    return state->viewport();
}

void ViewerWindow::show(const ReceivedPicture& picture)
{
    state->leave([&](State::Mail& mail) { mail.picture = picture; });
}

void ViewerWindow::setPointer(const CursorPredictor& pointer)
{
    state->leave([&](State::Mail& mail) { mail.pointer = pointer; });
}

void ViewerWindow::setCursor(message::CursorImage image)
{
    state->leave([&](State::Mail& mail) { mail.cursor = std::move(image); });
}

void ViewerWindow::setFigures(const PhoneFigures& figures)
{
    state->leave([&](State::Mail& mail) { mail.figures = figures; });
}

void ViewerWindow::setPath(std::string path)
{
    state->leave([&](State::Mail& mail) { mail.path = std::move(path); });
}

void ViewerWindow::setTitle(std::string title)
{
    state->leave([&](State::Mail& mail) { mail.title = std::move(title); });
}

void ViewerWindow::setClipboard(std::string text)
{
    state->leave([&](State::Mail& mail) { mail.clipboard = std::move(text); });
}

void ViewerWindow::close()
{
    state->leave([](State::Mail& mail) { mail.close = true; });
}

} // namespace pelorin
