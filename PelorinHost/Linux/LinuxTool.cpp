#include "PelorinHost/Linux/LinuxTool.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace pelorin {
namespace {

// What a tool has written is in its pipes when it exits; only what it started and left behind writes later.
constexpr auto graceOfPipes = std::chrono::milliseconds(100);
constexpr Duration firstPause = std::chrono::milliseconds(2); // from the kill to the look after the child
constexpr Duration longestPause = std::chrono::seconds(1);
constexpr std::size_t chunkSize = 16 * 1024; // bytes of one turn, so that a flood leaves room for others

void closeDescriptor(int& fd)
{
    if (fd >= 0) ::close(std::exchange(fd, -1));
}

// Both ends above the standard descriptors, which the child's ends are to become one after the other.
bool openPipe(int (&ends)[2])
{
    int fresh[2];
    if (::pipe2(fresh, O_CLOEXEC) != 0) return false;
    for (int i = 0; i < 2; ++i) {
        ends[i] = ::fcntl(fresh[i], F_DUPFD_CLOEXEC, 3);
        ::close(fresh[i]);
    }
    return ends[0] >= 0 && ends[1] >= 0;
}

std::vector<char*> pointers(std::vector<std::string>& strings)
{
    std::vector<char*> result;
    result.reserve(strings.size() + 1);
    for (auto& text : strings) result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

std::vector<std::string> environmentWith(const std::vector<std::string>& additions)
{
    auto all = additions;
    for (char** entry = environ; *entry; ++entry) {
        const std::string_view existing(*entry);
        const auto name = existing.substr(0, existing.find('=') + 1);
        if (std::ranges::none_of(additions, [&](const auto& added) { return added.starts_with(name); }))
            all.emplace_back(existing);
    }
    return all;
}

// A child of ours begins as one of a shell does: our signal mask and our ignored signals are not its own, and
// it can be killed with all that it starts.
struct SpawnAttributes {
    SpawnAttributes()
    {
        sigset_t none, all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &all);
        posix_spawnattr_setpgroup(&attributes, 0);
        posix_spawnattr_setflags(
            &attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    }
    ~SpawnAttributes() { posix_spawnattr_destroy(&attributes); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    posix_spawnattr_t attributes;
};

struct SpawnDescriptors {
    SpawnDescriptors(int output, int errors)
    {
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, output, 1);
        posix_spawn_file_actions_adddup2(&actions, errors, 2);
        posix_spawn_file_actions_addclosefrom_np(&actions, 3); // whatever a library opened without CLOEXEC
    }
    ~SpawnDescriptors() { posix_spawn_file_actions_destroy(&actions); }
    SpawnDescriptors(const SpawnDescriptors&) = delete;
    SpawnDescriptors& operator=(const SpawnDescriptors&) = delete;
    posix_spawn_file_actions_t actions;
};

// A child that was killed dies within a moment, but one held up inside the kernel only when it gets out; no
// queue waits for either.
void reap(const QueueRef& queue, pid_t child, Duration pause)
{
    if (::waitpid(child, nullptr, WNOHANG) != 0) return;
    queue->postAfter(pause, [queue, child, pause] { reap(queue, child, std::min(2 * pause, longestPause)); });
}

} // namespace

Subscription LinuxTool::start(QueueRef queue, ToolRun run, System::ToolDone done)
{
    queue->assertCurrent();
    const auto tool = std::make_shared<LinuxTool>(std::move(queue), std::move(run), std::move(done));
    tool->begin();
    return Subscription(tool);
}

LinuxTool::LinuxTool(QueueRef newQueue, ToolRun newRun, System::ToolDone newDone)
    : queue(std::move(newQueue)),
      run(std::move(newRun)),
      done(std::move(newDone))
{
}

LinuxTool::~LinuxTool()
{
    release();
}

void LinuxTool::cancel()
{
    done = nullptr;
    release();
}

void LinuxTool::begin()
{
    if (std::string problem; !spawn(problem)) {
        timer = queue->after(Duration::zero(),
            [this, problem] { fail(ToolFailure::Kind::notStarted, run.program + ": " + problem); });
        return;
    }
    for (auto& stream : streams)
        stream.readable = queue->whenReadable(stream.fd, [this, &stream] { read(stream); });
    exit = queue->whenReadable(processFd, [this] { exited(); });
    timer = queue->after(run.deadline, [this] { fail(ToolFailure::Kind::timedOut, run.program); });
}

bool LinuxTool::spawn(std::string& problem)
{
    int output[2] = {-1, -1}, errors[2] = {-1, -1};
    int failure = openPipe(output) && openPipe(errors) ? 0 : errno;
    if (failure == 0) {
        auto arguments = run.arguments;
        arguments.insert(arguments.begin(), run.program);
        auto environment = environmentWith(run.environment);
        const SpawnAttributes attributes;
        const SpawnDescriptors descriptors(output[1], errors[1]);
        failure = ::posix_spawn(&child, run.program.c_str(), &descriptors.actions, &attributes.attributes,
            pointers(arguments).data(), pointers(environment).data());
        if (failure != 0) child = -1;
    }
    closeDescriptor(output[1]);
    closeDescriptor(errors[1]);
    streams[0].fd = output[0];
    streams[1].fd = errors[0];
    if (failure == 0) {
        processFd = static_cast<int>(::syscall(SYS_pidfd_open, child, 0));
        if (processFd < 0) failure = errno;
    }
    for (const auto& stream : streams)
        if (failure == 0) ::fcntl(stream.fd, F_SETFL, O_NONBLOCK);
    if (failure == 0) return true;
    problem = std::strerror(failure);
    release();
    return false;
}

void LinuxTool::read(Stream& stream)
{
    std::array<char, chunkSize> chunk;
    const auto count = ::read(stream.fd, chunk.data(), chunk.size());
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count <= 0) {
        stream.readable.cancel();
        closeDescriptor(stream.fd);
        return endIfComplete();
    }
    stream.text.append(chunk.data(), static_cast<std::size_t>(count));
    if (stream.text.size() > run.outputLimit)
        fail(ToolFailure::Kind::tooMuchOutput,
            run.program + " wrote more than " + std::to_string(run.outputLimit) + " bytes");
}

void LinuxTool::exited()
{
    int status = 0;
    const auto reaped = ::waitpid(child, &status, WNOHANG);
    if (reaped == 0) return;
    child = -1;
    // Nobody else waits for our children; if somebody did, how it ended must not be taken for success.
    if (reaped < 0) return fail(ToolFailure::Kind::notStarted, run.program + ": its exit status is lost");
    exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    exit.cancel();
    timer = queue->after(graceOfPipes, [this] {
        for (auto& stream : streams) {
            stream.readable.cancel();
            closeDescriptor(stream.fd);
        }
        endIfComplete();
    });
    endIfComplete();
}

void LinuxTool::endIfComplete()
{
    const bool isOpen = std::ranges::any_of(streams, [](const Stream& stream) { return stream.fd >= 0; });
    if (child >= 0 || isOpen) return;
    finish(ToolExit{exitStatus, std::move(streams[0].text), std::move(streams[1].text)});
}

void LinuxTool::fail(ToolFailure::Kind kind, std::string description)
{
    finish(std::unexpected(ToolFailure{kind, std::move(description)}));
}

void LinuxTool::finish(Result<ToolExit, ToolFailure> how)
{
    release();
    auto callback = std::exchange(done, nullptr);
    if (callback) callback(std::move(how)); // we may be gone after it
}

void LinuxTool::release()
{
    timer.cancel();
    exit.cancel();
    for (auto& stream : streams) {
        stream.readable.cancel();
        closeDescriptor(stream.fd);
    }
    if (child >= 0) {
        ::kill(-child, SIGKILL);
        reap(queue, std::exchange(child, -1), firstPause);
    }
    closeDescriptor(processFd);
}

} // namespace pelorin
