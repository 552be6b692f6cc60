// Which congestion control carries a desktop's video over remote paths: what a stream reaches on loopback and
// over a line that loses, what loss costs a frame, and what a change of the path underneath does to the
// video. Prints tables in Markdown.
#include "PelorinNet/Channel/QuicParameters.h"
#include "PelorinNet/Identity/SigningKey.h"
#include "PelorinNet/Identity/SoftwareIdentity.h"
#include "PelorinNet/Queue/QueuePool.h"
#include "Tests/Peers/DatagramWire.h"

#include <fmt/format.h>
#include <semaphore>
#include <thread>

using namespace pelorin;
using namespace std::chrono_literals;

namespace {

constexpr int framesPerSecond = 60;
constexpr std::size_t frameSize = 12'000'000 / 8 / framesPerSecond; // of a stream of 12 Mbit/s
constexpr int maxFramesInFlight = 2; // as a session lets through
constexpr const char* names[] = {"CUBIC", "BBR", "BBR2"};

double secondsOf(Duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

double percentile(std::vector<double> values, double share)
{
    if (values.empty()) return NAN;
    std::ranges::sort(values);
    return values[std::min(values.size() - 1, std::size_t(share * double(values.size())))];
}

// A host that sends and a phone that receives, a thread each, and a wire between them on a third.
class Ends {
public:
    Ends(QuicCongestion congestion, std::optional<DatagramWire::Quality> quality)
    {
        const auto identity = SoftwareIdentity::create(
            SigningKey::generate().value(), "bench", WallTime(std::chrono::years(54)))
                                  .value();
        const auto parametersOf = [&](QueuePool& pool, bool isServer) {
            const TLSIdentity& shown = identity->secIdentity();
            auto made = std::make_shared<QuicParameters>(pool.makeQueue("verify"),
                QuicParameters::credentialsOf(shown), isServer, QuicParameters::resetKeyOf(shown),
                [](const Bytes&) { return true; });
            made->congestion = congestion;
            return made;
        };
        std::uint16_t port = 0;
        onHost([&] {
            listener = PelorinQUIC::Listener::listen(hostQueue, "127.0.0.1", 0, parametersOf(hostPool, true))
                           .value();
            port = listener->port();
            listener->onConnection = [this](auto made) {
                host = std::move(made);
                hostChannel = host->openStream();
                hostChannel->start(hostQueue);
                isConnected.release();
            };
        });
        SocketAddress to = SocketAddress::ipv4({127, 0, 0, 1}, port);
        if (quality)
            onWire([&] {
                wire.emplace(wireQueue, to);
                wire->quality = *quality;
                to = wire->address();
            });
        onPhone([&] {
            phone = PelorinQUIC::connect(phoneQueue, to, parametersOf(phonePool, false)).value();
            phone->onStream = [this](auto made) {
                phoneChannel = std::move(made);
                phoneChannel->onBytes = [this](ByteView bytes) {
                    received += bytes.size();
                    if (onReceived) onReceived();
                };
                phoneChannel->start(phoneQueue);
                isConnected.release();
            };
        });
        isConnected.acquire();
        isConnected.acquire();
    }
    ~Ends()
    {
        onHost([&] {
            pace.cancel();
            hostChannel.reset();
            host.reset();
            listener.reset();
        });
        onPhone([&] {
            phoneChannel.reset();
            phone.reset();
        });
        onWire([&] { wire.reset(); });
    }

    void onHost(Task task) { runOn(hostQueue, std::move(task)); }
    void onPhone(Task task) { runOn(phoneQueue, std::move(task)); }
    void onWire(Task task) { runOn(wireQueue, std::move(task)); }

    // Megabits a second that a stream without pause carries, after a start that does not count.
    double throughput(Duration start, Duration measured)
    {
        onHost([&] {
            for (int i = 0; i < 4; ++i) sendMore();
        });
        std::this_thread::sleep_for(start);
        std::uint64_t before = 0, after = 0;
        onPhone([&] { before = received; });
        const auto began = std::chrono::steady_clock::now();
        std::this_thread::sleep_for(measured);
        onPhone([&] { after = received; });
        onHost([&] { isBulk = false; });
        return double(after - before) * 8 / 1e6 / secondsOf(std::chrono::steady_clock::now() - began);
    }

    struct Frame {
        SteadyTime sent;
        std::optional<SteadyTime> arrived;
    };
    // Sends frames at their pace, those that the rule of two in flight lets through.
    void startVideo()
    {
        std::this_thread::sleep_for(500ms); // what was sent before has arrived
        onPhone([&] {
            videoStart = received;
            onReceived = [this] {
                const auto now = std::chrono::steady_clock::now();
                while (received >= videoStart + (arrivals.size() + 1) * frameSize) arrivals.push_back(now);
            };
        });
        onHost([&] {
            pace = hostQueue->every(std::chrono::nanoseconds(1s) / framesPerSecond, [this] {
                if (inFlight >= maxFramesInFlight) {
                    ++dropped;
                    return;
                }
                ++inFlight;
                sent.push_back(std::chrono::steady_clock::now());
                hostChannel->send(Bytes(frameSize), [this] { --inFlight; });
            });
        });
    }
    std::vector<Frame> stopVideo(Duration patience)
    {
        onHost([&] { pace.cancel(); });
        std::this_thread::sleep_for(patience);
        std::vector<Frame> frames;
        onHost([&] {
            for (const auto time : sent) frames.push_back({time, std::nullopt});
        });
        onPhone([&] {
            for (std::size_t i = 0; i < std::min(frames.size(), arrivals.size()); ++i)
                frames[i].arrived = arrivals[i];
        });
        return frames;
    }

    std::unique_ptr<PelorinQUIC::Connection> host, phone;
    std::optional<DatagramWire> wire;
    int dropped = 0;

private:
    void sendMore()
    {
        if (!isBulk) return;
        hostChannel->send(Bytes(256 << 10), [this] { sendMore(); });
    }
    static void runOn(const QueueRef& queue, Task task)
    {
        std::binary_semaphore done(0);
        queue->post([&] {
            task();
            task = nullptr;
            done.release();
        });
        done.acquire();
    }

    QueuePool hostPool{1}, phonePool{1}, wirePool{1};
    const QueueRef hostQueue = hostPool.makeQueue("host"), phoneQueue = phonePool.makeQueue("phone"),
                   wireQueue = wirePool.makeQueue("wire");
    std::counting_semaphore<> isConnected{0};
    std::unique_ptr<PelorinQUIC::Listener> listener;
    std::unique_ptr<Channel> hostChannel, phoneChannel;
    std::uint64_t received = 0; // by the phone
    std::uint64_t videoStart = 0;
    std::function<void()> onReceived; // on the phone's queue
    std::vector<SteadyTime> arrivals; // of whole frames
    std::vector<SteadyTime> sent; // by the host
    int inFlight = 0;
    bool isBulk = true; // the stream without pause goes on
    Subscription pace;
};

DatagramWire::Quality line(double megabits, Duration roundTrip, double loss)
{
    return {.delay = roundTrip / 2, .loss = loss, .bitsPerSecond = megabits * 1e6};
}

void printThroughput(Duration time)
{
    fmt::print(
        "One stream, Mbit/s:\n\n"
        "| | loopback, median of 3 | 50 Mbit/s, 40 ms | 1 % loss | 5 % loss | 1 % loss, 20 ms jitter |\n"
        "| --- | --- | --- | --- | --- | --- |\n");
    auto jittery = line(50, 40ms, 0.01);
    jittery.jitter = 20ms;
    for (int i = 0; i < 3; ++i) {
        const auto algorithm = QuicCongestion(i);
        const auto over = [&](const DatagramWire::Quality& quality) {
            return Ends(algorithm, quality).throughput(2s, time);
        };
        std::vector<double> onLoopback; // where what else runs on the machine counts
        for (int turn = 0; turn < 3; ++turn)
            onLoopback.push_back(Ends(algorithm, std::nullopt).throughput(1s, time));
        fmt::print("| {} | {:.0f} | {:.1f} | {:.1f} | {:.1f} | {:.1f} |\n", names[i],
            percentile(onLoopback, 0.5), over(line(50, 40ms, 0)), over(line(50, 40ms, 0.01)),
            over(line(50, 40ms, 0.05)), over(jittery));
        std::fflush(stdout);
    }
}

struct VideoFigures {
    double p50 = 0, p95 = 0; // milliseconds from sending to the whole frame's arrival
    double droppedPercent = 0; // by the rule of two in flight
};

VideoFigures videoOver(QuicCongestion algorithm, const DatagramWire::Quality& quality, Duration time)
{
    Ends ends(algorithm, quality);
    ends.startVideo();
    std::this_thread::sleep_for(time);
    std::vector<double> ages;
    const auto frames = ends.stopVideo(1s);
    for (const auto& frame : frames)
        if (frame.arrived && frame.sent - frames.front().sent > 1s)
            ages.push_back(secondsOf(*frame.arrived - frame.sent) * 1e3);
    return {percentile(ages, 0.5), percentile(ages, 0.95),
        100.0 * ends.dropped / double(ends.dropped + int(frames.size()))};
}

void printVideo(Duration time)
{
    fmt::print(
        "\nFrames of a video of 12 Mbit/s and 60 frames/s over 50 Mbit/s and 40 ms, from sending to whole "
        "arrival;\nthe host sends at most two at once and drops others:\n\n"
        "| | loss | p50 ms | p95 ms | p95 more than without loss | dropped % |\n"
        "| --- | --- | --- | --- | --- | --- |\n");
    for (int i = 0; i < 3; ++i) {
        double without = 0;
        for (const double loss : {0.0, 0.01, 0.05}) {
            const auto figures = videoOver(QuicCongestion(i), line(50, 40ms, loss), time);
            if (loss == 0) without = figures.p95;
            fmt::print("| {} | {:.0f} % | {:.1f} | {:.1f} | {:.2f} round trips | {:.1f} |\n", names[i],
                loss * 100, figures.p50, figures.p95, (figures.p95 - without) / 40, figures.droppedPercent);
            std::fflush(stdout);
        }
    }
}

// How the video fares in the time after a change: the longest time without a frame, and how long it takes
// until a second's frames have come at nearly full rate.
struct ChangeFigures {
    double gapMs = 0, recoveryMs = 0;
};

ChangeFigures after(SteadyTime change, SteadyTime end, const std::vector<Ends::Frame>& frames)
{
    std::vector<SteadyTime> arrivals;
    for (const auto& frame : frames)
        if (frame.arrived && *frame.arrived > change && *frame.arrived < end)
            arrivals.push_back(*frame.arrived);
    ChangeFigures figures;
    SteadyTime last = change;
    for (const auto time : arrivals) {
        figures.gapMs = std::max(figures.gapMs, secondsOf(time - last) * 1e3);
        last = time;
    }
    figures.recoveryMs = INFINITY;
    constexpr std::size_t most = framesPerSecond / 2 * 9 / 10; // of half a second's frames
    for (std::size_t i = 0; i + most < arrivals.size(); ++i)
        if (arrivals[i + most] - arrivals[i] < 500ms) {
            figures.recoveryMs = secondsOf(arrivals[i] - change) * 1e3;
            break;
        }
    return figures;
}

enum class Notice { none, both, hostOnly, newAddress };
constexpr const char* notices[] = {"nobody", "both ends", "the host", "the host, by address"};

// A video and the paths underneath it.
class ChangingPath {
public:
    ChangingPath(
        QuicCongestion algorithm, Notice newNotice, const DatagramWire::Quality& first, Duration time)
        : ends(algorithm, first),
          notice(newNotice)
    {
        ends.throughput(1s, 1s); // so that the line's speed is known, as after a picture
        ends.startVideo();
        std::this_thread::sleep_for(time);
    }
    SteadyTime change(const DatagramWire::Quality& quality)
    {
        ends.onWire([&] {
            ends.wire->quality = quality;
            if (notice == Notice::newAddress) ends.wire->faceTargetFrom(fmt::format("127.0.0.{}", ++address));
        });
        if (notice == Notice::both) ends.onPhone([&] { ends.phone->pathChanged(); });
        if (notice == Notice::both || notice == Notice::hostOnly)
            ends.onHost([&] { ends.host->pathChanged(); });
        return std::chrono::steady_clock::now();
    }
    void die(Duration time)
    {
        ends.onWire([&] { ends.wire->quality.loss = 1; });
        std::this_thread::sleep_for(time);
    }

    Ends ends;

private:
    const Notice notice;
    int address = 1;
};

void changePaths(QuicCongestion algorithm, Notice notice, Duration time)
{
    const auto direct = line(20, 10ms, 0), relayed = line(20, 120ms, 0);
    ChangingPath path(algorithm, notice, direct, time);
    const auto there = path.change(relayed);
    std::this_thread::sleep_for(2 * time);
    const auto back = path.change(direct);
    std::this_thread::sleep_for(time);
    const auto frames = path.ends.stopVideo(1s);
    const auto toRelay = after(there, back, frames), toDirect = after(back, back + time, frames);
    fmt::print("| {} | {} | {:.0f} | {:.0f} | {:.0f} | {:.0f} | {:.1f} |\n", names[int(algorithm)],
        notices[int(notice)], toRelay.gapMs, toRelay.recoveryMs, toDirect.gapMs, toDirect.recoveryMs,
        100.0 * path.ends.dropped / double(path.ends.dropped + int(frames.size())));
    std::fflush(stdout);
}

// The path is dead for a while until another takes over.
void loseThePath(QuicCongestion algorithm, Notice notice, Duration time)
{
    std::string row = fmt::format("| {} | {} |", names[int(algorithm)], notices[int(notice)]);
    for (const auto dead : {500ms, 2000ms}) {
        ChangingPath path(algorithm, notice, line(20, 40ms, 0), 2s);
        path.die(dead);
        const auto change = path.change(line(20, 60ms, 0));
        std::this_thread::sleep_for(time);
        const auto figures = after(change, change + time, path.ends.stopVideo(1s));
        row += fmt::format(" {:.0f} | {:.0f} |", figures.gapMs, figures.recoveryMs);
    }
    fmt::print("{}\n", row);
    std::fflush(stdout);
}

void printChanges(Duration time)
{
    fmt::print(
        "\nThe same video over 20 Mbit/s while the path underneath changes, 10 ms to 120 ms and back. "
        "Longest "
        "time without a\nframe, and time until frames come at 90 % of their rate again:\n\n"
        "| | who is told | to 120 ms: gap ms | recovered ms | to 10 ms: gap ms | recovered ms | dropped % |\n"
        "| --- | --- | --- | --- | --- | --- | --- |\n");
    for (int i = 0; i < 3; ++i)
        for (const auto notice : {Notice::none, Notice::both, Notice::hostOnly, Notice::newAddress})
            changePaths(QuicCongestion(i), notice, time);
    fmt::print(
        "\nThe path dies, and after a while another of 60 ms takes its place. From then on:\n\n"
        "| | who is told | dead for 0.5 s: gap ms | recovered ms | dead for 2 s: gap ms | recovered ms |\n"
        "| --- | --- | --- | --- | --- | --- |\n");
    for (int i = 0; i < 3; ++i)
        for (const auto notice : {Notice::none, Notice::both, Notice::hostOnly, Notice::newAddress})
            loseThePath(QuicCongestion(i), notice, time);
}

} // namespace

// QuicBench [SECONDS]: how long each figure is measured, 8 by default.
int main(int count, char** arguments)
{
    const auto time = std::chrono::seconds(count > 1 ? std::max(1, std::atoi(arguments[1])) : 8);
    printThroughput(time);
    printVideo(time);
    printChanges(time);
}
