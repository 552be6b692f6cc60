#include "PelorinHost/Platform/FolderWatch.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <sys/inotify.h>
#include <unistd.h>

namespace pelorin {
namespace {

constexpr std::uint32_t selfEvents = IN_DELETE_SELF | IN_MOVE_SELF;
constexpr std::uint32_t arrivalEvents = IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM;
// Not IN_ATTRIB: who reads a database may touch its log's owner, and would hear of itself for ever.
constexpr std::uint32_t contentEvents = arrivalEvents | IN_MODIFY;
constexpr int mostRaces = 4; // a folder that comes and goes that often while we look is not worth more

} // namespace

FolderWatch::FolderWatch(QueueRef newQueue)
    : queue(std::move(newQueue)),
      inotify(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
{
    if (inotify) {
        listen();
    } else {
        log.warning("no notice of changed files ({}); looking every 5 s", std::strerror(errno));
        poll();
    }
}

FolderWatch::~FolderWatch() = default;

void FolderWatch::watch(Paths folders)
{
    queue->assertCurrent();
    if (folders == wanted) return;
    wanted = std::move(folders);
    if (inotify) arm();
}

void FolderWatch::arm()
{
    std::map<int, Interest> armed;
    for (const auto& folder : wanted) armFolder(folder, armed);
    for (const auto& [descriptor, interest] : interests)
        if (!armed.contains(descriptor)) ::inotify_rm_watch(inotify.get(), descriptor);
    interests = std::move(armed);
}

// The folder's contents, and the nearest folder above it that exists, in which it, or a folder on the way to
// it, comes and goes.
void FolderWatch::armFolder(const std::filesystem::path& folder, std::map<int, Interest>& armed)
{
    for (int attempt = 0; attempt < mostRaces; ++attempt) {
        const int contents = add(folder, contentEvents);
        if (contents >= 0) armed[contents].contents.insert(folder);
        for (auto entry = folder; entry.has_relative_path(); entry = entry.parent_path()) {
            const int above = add(entry.parent_path(), arrivalEvents);
            if (above < 0) continue;
            armed[above].arrivals[entry.filename()].insert(folder);
            break;
        }
        std::error_code ignored;
        if (contents >= 0 || !std::filesystem::is_directory(folder, ignored)) return;
    }
}

int FolderWatch::add(const std::filesystem::path& folder, std::uint32_t events)
{
    const int descriptor = ::inotify_add_watch(
        inotify.get(), folder.c_str(), events | selfEvents | IN_ONLYDIR | IN_MASK_ADD | IN_EXCL_UNLINK);
    if (descriptor < 0 && errno == ENOSPC && !polling) {
        log.warning("the system has no more watches to give; looking every 5 s as well");
        poll();
    }
    return descriptor;
}

void FolderWatch::listen()
{
    readable = queue->whenReadable(inotify.get(), [this] { drain(); });
}

void FolderWatch::poll()
{
    polling = queue->every(pollPeriod, [this] {
        if (inotify) arm();
        const auto tell = onChange;
        if (tell) tell(Paths(wanted));
    });
}

void FolderWatch::drain()
{
    readable.cancel();
    pausing = queue->after(pause, [this] { listen(); });

    Paths changed;
    bool mustArm = false;
    alignas(inotify_event) std::array<char, 16384> buffer;
    ssize_t size = 0;
    while ((size = ::read(inotify.get(), buffer.data(), buffer.size())) > 0) {
        for (ssize_t at = 0; at < size;) {
            const auto& event = *reinterpret_cast<const inotify_event*>(buffer.data() + at);
            at += static_cast<ssize_t>(sizeof event + event.len);
            if (event.mask & IN_Q_OVERFLOW) changed.insert(wanted.begin(), wanted.end());
            mustArm |= note(event.wd, event.mask, event.len ? event.name : "", changed);
        }
    }
    if (mustArm) arm();
    if (changed.empty()) return;
    const auto tell = onChange; // it may destroy us
    if (tell) tell(changed);
}

// True when folders came or went, so that what is watched is out of date.
bool FolderWatch::note(int descriptor, std::uint32_t events, const std::string& name, Paths& changed) const
{
    const auto found = interests.find(descriptor);
    if (found == interests.end()) return false;
    const auto& [contents, arrivals] = found->second;
    if (name.empty()) {
        if (!(events & (selfEvents | IN_IGNORED | IN_UNMOUNT))) return false;
        changed.insert(contents.begin(), contents.end());
        for (const auto& [entry, folders] : arrivals) changed.insert(folders.begin(), folders.end());
        return true;
    }
    for (const auto& folder : contents) changed.insert(folder / name);
    const auto arrived = arrivals.find(name);
    if (arrived == arrivals.end() || !(events & arrivalEvents)) return false;
    changed.insert(arrived->second.begin(), arrived->second.end());
    return true;
}

} // namespace pelorin
