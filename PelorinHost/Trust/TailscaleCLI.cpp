#include "PelorinHost/Trust/TailscaleCLI.h"

#include "PelorinCore/Access/TailscalePath.h"
#include "PelorinCore/Label.h"

#include <algorithm>
#include <utility>

namespace pelorin {
namespace {

using Kind = TailscaleCLIError::Kind;
using Output = Result<std::string, TailscaleCLIError>;

constexpr auto deadline = std::chrono::seconds(15); // a daemon that is waking up takes a few seconds
constexpr auto pauseBeforeRetry = std::chrono::milliseconds(300);
constexpr std::string_view notActingAsTool = "The Tailscale GUI failed";
constexpr std::size_t maxRemembered = 64; // more devices than a person's phones, little memory

std::string oneLine(std::string text)
{
    while (text.ends_with('\n')) text.pop_back();
    return asLabel(text);
}

Output outputOf(Result<ToolExit, ToolFailure> ended)
{
    if (!ended) {
        const auto& failure = ended.error();
        switch (failure.kind) {
        case ToolFailure::Kind::timedOut:
            return std::unexpected(TailscaleCLIError{Kind::timedOut});
        case ToolFailure::Kind::tooMuchOutput:
            return std::unexpected(TailscaleCLIError{Kind::unreadable, 0, oneLine(failure.description)});
        case ToolFailure::Kind::notStarted:
            break;
        }
        constexpr int cannotExecute = 126; // as shells tell it
        return std::unexpected(TailscaleCLIError{Kind::failed, cannotExecute, oneLine(failure.description)});
    }
    if (ended->status != 0)
        return std::unexpected(TailscaleCLIError{Kind::failed, ended->status, oneLine(ended->errors)});
    return std::move(ended->output);
}

// One command, tried a second time when the app's executable did not act as the tool. Owned by its
// subscription.
class Command final : public Subscription::State {
public:
    Command(System& newSystem, QueueRef newQueue, ToolRun newRun, TailscaleCLI::Done<std::string> newDone)
        : system(newSystem),
          queue(std::move(newQueue)),
          run(std::move(newRun)),
          done(std::move(newDone))
    {
    }

    void start()
    {
        const auto path = TailscalePath::find(
            [this](const std::string& place) { return system.isExecutableFile(place); });
        if (!path) {
            pause = queue->after(
                Duration::zero(), [this] { finish(std::unexpected(TailscaleCLIError{Kind::notInstalled})); });
            return;
        }
        run.program = *path;
        tool = system.runTool(queue, run,
            [this](Result<ToolExit, ToolFailure> ended) { toolEnded(outputOf(std::move(ended))); });
    }

    void cancel() override
    {
        tool.cancel();
        pause.cancel();
        done = nullptr;
    }

private:
    void toolEnded(Output output)
    {
        if (!isSecondTry && output && output->starts_with(notActingAsTool)) {
            isSecondTry = true;
            pause = queue->after(pauseBeforeRetry, [this] { start(); });
            return;
        }
        finish(std::move(output));
    }

    void finish(Output output)
    {
        auto callback = std::exchange(done, nullptr);
        if (callback) callback(std::move(output)); // we may be gone after it
    }

    System& system;
    const QueueRef queue;
    ToolRun run;
    TailscaleCLI::Done<std::string> done;
    bool isSecondTry = false;
    Subscription tool;
    Subscription pause;
};

Subscription start(System& system, const QueueRef& queue, std::vector<std::string> arguments,
    std::size_t outputLimit, TailscaleCLI::Done<std::string> done)
{
    queue->assertCurrent();
    ToolRun run{{}, std::move(arguments), {"TAILSCALE_BE_CLI=1"}, deadline, outputLimit};
    const auto command = std::make_shared<Command>(system, queue, std::move(run), std::move(done));
    command->start();
    return Subscription(command);
}

// The output as the JSON that it should be.
template <class T>
Result<T, TailscaleCLIError> decoded(const Output& output)
{
    if (!output) return std::unexpected(output.error());
    auto value = T::parse(*output);
    if (!value) return std::unexpected(TailscaleCLIError{Kind::unreadable, 0, value.error().description});
    return std::move(*value);
}

} // namespace

std::string TailscaleCLIError::description() const
{
    switch (kind) {
    case Kind::failed:
        return "tailscale exited " + std::to_string(status) + ": " + message;
    case Kind::notInstalled:
        return "tailscale CLI not found";
    case Kind::timedOut:
        return "tailscale CLI timed out";
    case Kind::unreadable:
        return "tailscale CLI answered something unreadable: " + message;
    case Kind::busy:
        return "tailscale CLI busy";
    }
    return message;
}

// Whoever waits for a whois. Shared by its subscription and the question; without done it has left.
struct TailscaleCLI::Asker final : Subscription::State {
    explicit Asker(Done<TailscaleWhois> newDone) : done(std::move(newDone)) {}
    void cancel() override { done = nullptr; }

    void tell(Result<TailscaleWhois, TailscaleCLIError> answer)
    {
        auto callback = std::exchange(done, nullptr);
        if (callback) callback(std::move(answer));
    }

    Done<TailscaleWhois> done;
};

TailscaleCLI::TailscaleCLI(System& newSystem, QueueRef newQueue)
    : system(newSystem),
      queue(std::move(newQueue))
{
}

TailscaleCLI::~TailscaleCLI() = default;

Subscription TailscaleCLI::run(std::vector<std::string> arguments, Done<std::string> done)
{
    return start(system, queue, std::move(arguments), TailscaleWhois::maxSize, std::move(done));
}

Subscription TailscaleCLI::whois(const std::string& address, Done<TailscaleWhois> done)
{
    queue->assertCurrent();
    const auto asker = std::make_shared<Asker>(std::move(done));
    const auto tellSoon = [&](Result<TailscaleWhois, TailscaleCLIError> answer) {
        queue->post([asker, answer = std::move(answer)]() mutable { asker->tell(std::move(answer)); });
        return Subscription(asker);
    };
    // Only an address may become an argument of the tool.
    const auto parsed = IPAddress::parse(address);
    if (!parsed) return tellSoon(std::unexpected(TailscaleCLIError{Kind::unreadable, 0, "no IP address"}));

    if (const auto known = remembered.find(*parsed); known != remembered.end()) {
        if (queue->now() < known->second.until) return tellSoon(known->second.whois);
        remembered.erase(known);
    }
    if (const auto asked = questions.find(*parsed); asked != questions.end()) {
        asked->second.askers.push_back(asker);
        return Subscription(asker);
    }
    if (waiting.size() >= maxWaiting) return tellSoon(std::unexpected(TailscaleCLIError{Kind::busy}));
    questions[*parsed].askers.push_back(asker);
    waiting.push_back(*parsed);
    startWaiting();
    return Subscription(asker);
}

void TailscaleCLI::startWaiting()
{
    while (!waiting.empty() && runningCount() < maxProcesses) {
        const IPAddress address = waiting.front();
        waiting.pop_front();
        auto& question = questions.at(address);
        const bool isAbandoned
            = std::ranges::all_of(question.askers, [](const auto& asker) { return !asker->done; });
        if (isAbandoned) {
            questions.erase(address);
            continue;
        }
        question.process = start(system, queue, {"whois", "--json", address.text()}, TailscaleWhois::maxSize,
            [this, address](Output output) { answer(address, output); });
    }
}

void TailscaleCLI::answer(const IPAddress& address, const Output& output)
{
    const auto whois = decoded<TailscaleWhois>(output);
    if (whois)
        remember(address, *whois);
    else
        log.info("whois {}: {}", address.text(), whois.error().description());
    const auto question = questions.extract(address);
    startWaiting();
    // We may be gone after any of these.
    for (const auto& asker : question.mapped().askers) asker->tell(whois);
}

// A phone that lost its path comes back within seconds, and often on several paths at once; its identity
// can't change in that time. Failures are asked again each time, since they end at some moment.
void TailscaleCLI::remember(const IPAddress& address, const TailscaleWhois& whois)
{
    const auto now = queue->now();
    std::erase_if(remembered, [&](const auto& entry) { return entry.second.until <= now; });
    if (remembered.size() >= maxRemembered)
        remembered.erase(
            std::ranges::min_element(remembered, {}, [](const auto& entry) { return entry.second.until; }));
    remembered.insert_or_assign(address, Remembered{whois, now + rememberedFor});
}

Subscription TailscaleCLI::ownDNSName(Done<std::optional<std::string>> done)
{
    return start(system, queue, {"status", "--json", "--peers=false"}, TailscaleStatus::maxSize,
        [done = std::move(done)](Output output) mutable {
            const auto status = decoded<TailscaleStatus>(output);
            if (!status) return done(std::unexpected(status.error()));
            done(status->dnsName);
        });
}

Subscription TailscaleCLI::curAddrOf(const std::string& address, Done<std::optional<std::string>> done)
{
    return start(system, queue, {"status", "--json"}, TailscaleStatus::maxSize,
        [done = std::move(done), parsed = IPAddress::parse(address)](Output output) mutable {
            const auto status = decoded<TailscaleStatus>(output);
            if (!status) return done(std::unexpected(status.error()));
            done(parsed ? status->curAddrOf(*parsed) : std::nullopt);
        });
}

} // namespace pelorin
