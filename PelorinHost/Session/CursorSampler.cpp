#include "PelorinHost/Session/CursorSampler.h"

#include <atomic>
#include <mutex>
#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

constexpr auto closePeriod = 8ms; // while the cursor moves: twice a frame
constexpr auto restPeriod = 100ms;
constexpr auto closeSpell = 250ms; // of rest, after which we look less often

} // namespace

// What lives on the cursor queue.
struct CursorSampler::Run : std::enable_shared_from_this<Run> {
    std::function<void(message::CursorPosition)> reportPosition; // from the cursor queue
    std::function<void(message::CursorImage)> reportImage;
    std::function<std::unique_ptr<CursorSource>()> makeSource;
    QueueRef cursorQueue;
    std::atomic<bool> looksClosely = false;

    std::mutex cursorLock; // guards what the session's side changes
    const InputInjector* injector = nullptr; // nothing once the session's side is gone
    Rect display;
    double pointsPerPixel = 1;

    // The cursor queue's own.
    std::unique_ptr<CursorSource> source;
    Subscription timer;
    std::optional<message::CursorPosition> lastCursor;
    std::optional<std::uint64_t> lastCursorFingerprint;
    std::uint32_t cursorImageID = 0;
    SteadyTime lastMoveAt;

    void begin();
    void stop();
    void lookClosely();
    void tick();
    void samplePosition(const InputInjector::PointerState& pointer, Rect displayNow);
    void sampleShape(double pointsPerPixelNow);
};

CursorSampler::CursorSampler(const QueueRef& queue, QueueRef cursorQueue,
    std::function<std::unique_ptr<CursorSource>()> makeSource, const InputInjector& injector)
    : run(std::make_shared<Run>())
{
    run->reportPosition = [this, queue, alive = lifetime.watch()](message::CursorPosition position) {
        queue->post([this, alive, position] {
            if (alive && onPosition) onPosition(position);
        });
    };
    run->reportImage = [this, queue, alive = lifetime.watch()](message::CursorImage image) {
        queue->post([this, alive, image = std::move(image)]() mutable {
            if (alive && onImage) onImage(std::move(image));
        });
    };
    run->makeSource = std::move(makeSource);
    run->cursorQueue = std::move(cursorQueue);
    run->injector = &injector;
}

CursorSampler::~CursorSampler()
{
    {
        const std::lock_guard guard(run->cursorLock);
        run->injector = nullptr;
    }
    run->cursorQueue->post([run = run] { run->stop(); });
}

void CursorSampler::follow(Rect displayBounds, double pointsPerPixel)
{
    {
        const std::lock_guard guard(run->cursorLock);
        run->display = displayBounds;
        run->pointsPerPixel = pointsPerPixel;
    }
    run->cursorQueue->post([run = run] { run->begin(); });
}

void CursorSampler::pointerMoved()
{
    if (run->looksClosely.exchange(true)) return;
    run->cursorQueue->post([run = run] { run->lookClosely(); });
}

void CursorSampler::Run::begin()
{
    if (!source) source = makeSource();
    tick();
}

void CursorSampler::Run::stop()
{
    timer.cancel();
    source.reset();
}

void CursorSampler::Run::lookClosely()
{
    if (!source) return;
    lastMoveAt = cursorQueue->now();
    tick();
}

void CursorSampler::Run::tick()
{
    InputInjector::PointerState pointer;
    Rect displayNow;
    double pointsPerPixelNow = 1;
    {
        const std::lock_guard guard(cursorLock);
        if (!injector) return;
        // The injector may go as soon as the lock is open; its own lock is the innermost of all.
        pointer = injector->pointerState();
        displayNow = display;
        pointsPerPixelNow = pointsPerPixel;
    }
    sampleShape(pointsPerPixelNow);
    samplePosition(pointer, displayNow);
    looksClosely = cursorQueue->now() - lastMoveAt < closeSpell;
    timer = cursorQueue->after(
        looksClosely ? Duration(closePeriod) : Duration(restPeriod), [run = weak_from_this()] {
            if (const auto self = run.lock()) self->tick();
        });
}

// Right after our own moves the injector knows better: what the system says lags behind posted events.
void CursorSampler::Run::samplePosition(const InputInjector::PointerState& pointer, Rect displayNow)
{
    const auto at = pointer.recentlyPosted ? pointer.recentlyPosted : source->position();
    if (!at) return;
    const message::CursorPosition position{static_cast<float>(at->x - displayNow.x),
        static_cast<float>(at->y - displayNow.y), pointer.appliedMoves};
    if (position == lastCursor) return;
    lastCursor = position;
    lastMoveAt = cursorQueue->now();
    reportPosition(position);
}

void CursorSampler::Run::sampleShape(double pointsPerPixelNow)
{
    const auto fingerprint = source->shapeFingerprint();
    if (!fingerprint || fingerprint == lastCursorFingerprint) return;
    auto shape = source->shape();
    if (!shape) return;
    lastCursorFingerprint = fingerprint;
    const auto points = [&](int pixels) { return static_cast<float>(pixels * pointsPerPixelNow); };
    reportImage({++cursorImageID, points(shape->hotX), points(shape->hotY), points(shape->widthPx),
        points(shape->heightPx), std::move(shape->png)});
}

} // namespace pelorin
