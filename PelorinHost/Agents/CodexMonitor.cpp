#include "PelorinHost/Agents/CodexMonitor.h"

#include "PelorinCore/Label.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <sys/stat.h>

namespace pelorin {
namespace {

constexpr std::size_t mostRollouts = 64; // that are followed at once
constexpr std::size_t mostFilesLookedAt = 4096; // for their dates, the newest days first
constexpr std::size_t mostDays = 64; // likewise
constexpr std::size_t watchedDays = 2; // around midnight a thread begins in either

// Folders named by numbers, the highest first.
std::vector<std::filesystem::path> datedFolders(const std::filesystem::path& folder)
{
    std::vector<std::filesystem::path> folders;
    std::error_code error;
    for (auto entry = std::filesystem::directory_iterator(folder, error);
        !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename();
        if (!name.empty() && name.size() <= 4 && name.find_first_not_of("0123456789") == name.npos)
            folders.push_back(entry->path());
        if (folders.size() >= mostDays) break;
    }
    std::ranges::sort(folders, std::greater{});
    return folders;
}

std::optional<DeckDate> dateOf(const std::filesystem::path& file)
{
    struct stat status = {};
    if (::lstat(file.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
    return DeckDate(std::chrono::seconds(status.st_mtim.tv_sec)
        + std::chrono::microseconds(status.st_mtim.tv_nsec / 1000));
}

void dropPassed(std::optional<UsageWindow>& window, DeckDate now)
{
    if (window && window->resetsAt && *window->resetsAt <= now) window.reset();
}

// rollout-2026-01-31T12-00-00-<uuid>.jsonl
std::string threadIn(const std::filesystem::path& rollout)
{
    constexpr std::size_t uuidSize = 36;
    const std::string stem = rollout.stem();
    return asLabel(stem.size() > uuidSize ? stem.substr(stem.size() - uuidSize) : stem);
}

} // namespace

CodexMonitor::CodexMonitor(const std::filesystem::path& root, std::filesystem::path newDatabaseFolder,
    std::chrono::microseconds newRecent, QueueRef newQueue)
    : sessionsFolder(root / "sessions"),
      databaseFolder(std::move(newDatabaseFolder)),
      recent(newRecent),
      queue(std::move(newQueue)),
      watch(queue)
{
    queue->assertCurrent();
    watch.onChange = [this](const FolderWatch::Paths& changed) { filesChanged(changed); };
    watch.watch({sessionsFolder, databaseFolder});
    findRollouts();
    readDatabase();
}

AgentActivity CodexMonitor::activity()
{
    queue->assertCurrent();
    dropOld();
    std::map<std::string, AgentTask> tasks; // by identifier: a copied rollout is still one thread
    for (const auto& [path, rollout] : rollouts) {
        if (rollout.thread.isOfSubagent) continue;
        AgentTask task = taskOf(rollout);
        const auto entry = listed.find(task.id);
        if (entry != listed.end() && entry->second.isArchived) continue;
        if (const auto known = tasks.find(task.id); known == tasks.end() || known->second.since < task.since)
            tasks[task.id] = std::move(task);
    }
    AgentActivity activity;
    for (auto& [id, task] : tasks) {
        task.id = "codex:" + id;
        activity.tasks.push_back(std::move(task));
    }
    dropPassed(usage.session, now());
    dropPassed(usage.weekly, now());
    if (usage.session || usage.weekly) activity.usage = usage;
    return activity;
}

void CodexMonitor::filesChanged(const FolderWatch::Paths& changed)
{
    bool mustFind = false;
    for (const auto& path : changed) {
        const std::string name = path.filename();
        if (isRollout(path))
            readRollout(path);
        else if (path.parent_path() == databaseFolder && name.starts_with("state_"))
            databaseChanged();
        else if (dayFolders.contains(path) || dayFolders.contains(path.parent_path()))
            mustFind = true;
        if (path == databaseFolder) databaseChanged();
    }
    if (mustFind) findRollouts();
    watchFolders();
    tellChange();
}

// ---- rollouts

bool CodexMonitor::isRollout(const std::filesystem::path& path) const
{
    const std::string name = path.filename();
    return name.starts_with("rollout-") && name.ends_with(".jsonl");
}

void CodexMonitor::findRollouts()
{
    dayFolders = {sessionsFolder};
    std::vector<std::filesystem::path> days;
    for (const auto& year : datedFolders(sessionsFolder)) {
        if (days.size() >= mostDays) break;
        if (days.size() < watchedDays) dayFolders.insert(year);
        for (const auto& month : datedFolders(year)) {
            if (days.size() >= mostDays) break;
            if (days.size() < watchedDays) dayFolders.insert(month);
            for (const auto& day : datedFolders(month)) {
                if (days.size() < watchedDays) dayFolders.insert(day);
                days.push_back(day);
            }
        }
    }
    std::size_t seen = 0;
    for (const auto& day : days) {
        std::error_code error;
        for (auto entry = std::filesystem::directory_iterator(day, error);
            !error && entry != std::filesystem::directory_iterator() && ++seen < mostFilesLookedAt;
            entry.increment(error)) {
            if (!isRollout(entry->path())) continue;
            const auto date = dateOf(entry->path());
            if (date && isRecent(*date)) readRollout(entry->path());
        }
    }
    watchFolders();
}

void CodexMonitor::readRollout(const std::filesystem::path& path)
{
    const auto date = dateOf(path);
    auto found = rollouts.find(path);
    if (!date) {
        if (found != rollouts.end()) rollouts.erase(found);
        return;
    }
    if (found == rollouts.end()) {
        if (rollouts.size() >= mostRollouts) dropOld();
        if (rollouts.size() >= mostRollouts)
            return oddities.note("too many threads at once; some are left out");
        found = rollouts.emplace(path, path).first;
    }
    Rollout& rollout = found->second;
    rollout.written = *date;
    const auto result = rollout.file.read(
        [&](std::string_view line) {
            if (const auto record = CodexRecord::parse(line)) apply(*record, rollout);
        },
        [&] { rollout.thread = {}; });
    if (result != LineFile::Found::nothing) return;
    oddities.note("a rollout can't be read: " + asLabel(path.string()));
    rollouts.erase(path);
}

void CodexMonitor::apply(const CodexRecord& record, Rollout& rollout)
{
    if (!record.isKnownType())
        oddities.note("a kind of record that we don't know, left alone: " + record.type);
    rollout.thread.apply(record);
    if (!record.usage || (usageDate && record.when && *record.when < *usageDate)) return;
    if (record.usage->session) usage.session = record.usage->session;
    if (record.usage->weekly) usage.weekly = record.usage->weekly;
    usageDate = record.when;
}

// ---- the database

void CodexMonitor::databaseChanged()
{
    if (databaseSoon) return;
    const SteadyTime next = databaseRead ? *databaseRead + databasePause : queue->now();
    databaseSoon = queue->after(std::max(next - queue->now(), Duration::zero()), [this] {
        databaseSoon = {};
        readDatabase();
        watchFolders();
        tellChange();
    });
}

void CodexMonitor::readDatabase()
{
    const auto database = CodexDatabase::find(databaseFolder);
    if (!database) return;
    databaseRead = queue->now();
    auto threads = CodexDatabase::threads(*database);
    // A locked one is asked again after its next change, and what we know stays.
    if (!threads) return oddities.note("the list of threads can't be read: " + asLabel(threads.error()));
    listed.clear();
    for (auto& thread : *threads) {
        const bool isOurs = thread.rollout.lexically_normal() == thread.rollout
            && thread.rollout.string().starts_with(sessionsFolder.string() + "/");
        if (isOurs && isRollout(thread.rollout) && !thread.isArchived && thread.updatedAt
            && isRecent(*thread.updatedAt) && !rollouts.contains(thread.rollout))
            readRollout(thread.rollout);
        const std::string id = thread.id;
        listed.emplace(id, std::move(thread));
    }
}

// ---- what becomes of it

void CodexMonitor::watchFolders()
{
    FolderWatch::Paths folders = dayFolders;
    folders.insert(databaseFolder);
    for (const auto& [path, rollout] : rollouts) folders.insert(path.parent_path());
    watch.watch(std::move(folders));
}

AgentTask CodexMonitor::taskOf(const Rollout& rollout) const
{
    const CodexThread& thread = rollout.thread;
    AgentTask task{thread.id.empty() ? threadIn(rollout.file.path) : thread.id, AgentKind::codex,
        thread.prompt, asLabel(std::filesystem::path(thread.cwd).filename().string()), thread.phase,
        std::nullopt, thread.since.value_or(lastWordOf(rollout))};
    if (!thread.tool.empty()) task.detail = thread.tool;
    const auto entry = listed.find(task.id);
    if (entry != listed.end() && !entry->second.title.empty()) task.title = entry->second.title;
    if (task.title.empty()) task.title = task.project;
    return task;
}

DeckDate CodexMonitor::lastWordOf(const Rollout& rollout) const
{
    return rollout.thread.heard.value_or(rollout.written);
}

bool CodexMonitor::isRecent(DeckDate date) const
{
    return date + recent >= now();
}

void CodexMonitor::dropOld()
{
    std::erase_if(rollouts, [&](const auto& known) { return !isRecent(lastWordOf(known.second)); });
}

DeckDate CodexMonitor::now() const
{
    return std::chrono::floor<std::chrono::microseconds>(queue->wallNow());
}

void CodexMonitor::tellChange()
{
    const auto tell = onChange; // it may destroy us
    if (tell) tell();
}

} // namespace pelorin
