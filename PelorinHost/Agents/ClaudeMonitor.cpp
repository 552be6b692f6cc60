#include "PelorinHost/Agents/ClaudeMonitor.h"

#include "PelorinCore/Label.h"
#include "PelorinNet/Files/AtomicFile.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t mostSessions = 256; // of each source; a person has a dozen
constexpr std::size_t mostProjects = 4096; // folders that are looked through for a transcript
constexpr auto longestSilence = 12h; // of a session that only hooks told of, and that may have died unheard
// A process that began this much later than its session is another one with the same number.
constexpr auto startSlack = 60s;
constexpr std::uint64_t mostTicks = 100'000'000'000; // above it, processStart is in another unit than ours

// Tools by which the agent asks the user something.
constexpr std::array askingTools{"AskUserQuestion", "ExitPlanMode"};

struct EventRule {
    const char* event;
    std::optional<AgentPhase> phase; // none: says nothing about it
};
constexpr EventRule eventRules[] = {
    {"SessionStart", AgentPhase::idle},
    {"UserPromptSubmit", AgentPhase::running},
    {"PreToolUse", AgentPhase::running},
    {"PostToolUse", AgentPhase::running},
    {"PostToolUseFailure", AgentPhase::running},
    {"PermissionRequest", AgentPhase::waiting},
    {"PermissionDenied", AgentPhase::running},
    {"PreCompact", AgentPhase::running},
    {"Stop", AgentPhase::idle},
    {"StopFailure", AgentPhase::idle},
    {"Notification", std::nullopt}, // by its type
    {"SubagentStart", std::nullopt},
    {"SubagentStop", std::nullopt},
    {"SessionEnd", std::nullopt},
};

std::string projectOf(const std::string& cwd)
{
    return asLabel(std::filesystem::path(cwd).filename().string());
}

std::optional<std::string> ifAny(const std::string& text)
{
    return text.empty() ? std::nullopt : std::optional(text);
}

void dropPassed(std::optional<UsageWindow>& window, DeckDate now)
{
    if (window && window->resetsAt && *window->resetsAt <= now) window.reset();
}

} // namespace

ClaudeMonitor::ClaudeMonitor(std::filesystem::path newRoot, QueueRef newQueue)
    : root(std::move(newRoot)),
      sessionsFolder(root / "sessions"),
      queue(std::move(newQueue)),
      watch(queue)
{
    queue->assertCurrent();
    watch.onChange = [this](const FolderWatch::Paths& changed) { filesChanged(changed); };
    watch.watch({sessionsFolder});
    readFolder();
}

AgentActivity ClaudeMonitor::activity()
{
    queue->assertCurrent();
    dropOldReports();
    std::map<std::string, AgentTask> tasks; // by session; of two processes of one, the later word
    for (const auto& [file, session] : running) {
        if (!session.process || !session.session.isForPeople()) continue;
        AgentTask task = taskOf(session);
        const auto known = tasks.find(session.session.sessionID);
        if (known == tasks.end() || known->second.since < task.since)
            tasks[session.session.sessionID] = std::move(task);
    }
    for (const auto& [sessionID, report] : reported) {
        const auto known = tasks.find(sessionID);
        if (known == tasks.end() && hasStateFile(sessionID)) continue; // not for people, or dead
        AgentTask& task = tasks[sessionID];
        if (known != tasks.end() && report.said < task.since) continue;
        if (known == tasks.end())
            task = {"claude:" + sessionID, AgentKind::claude, titleOf(sessionID), report.project, {}, {}, {}};
        task.phase = report.phase;
        task.detail = ifAny(report.detail);
        task.since = report.since;
    }
    AgentActivity activity;
    for (auto& [sessionID, task] : tasks) {
        if (task.title.empty()) task.title = task.project;
        activity.tasks.push_back(std::move(task));
    }
    dropPassed(usage.session, now());
    dropPassed(usage.weekly, now());
    if (usage.session || usage.weekly) activity.usage = usage;
    return activity;
}

// ---- state files

void ClaudeMonitor::filesChanged(const FolderWatch::Paths& changed)
{
    if (changed.contains(sessionsFolder))
        readFolder();
    else
        for (const auto& path : changed)
            if (path.extension() == ".json") readFile(path);
    tellChange();
}

void ClaudeMonitor::readFolder()
{
    std::set<std::filesystem::path> found;
    std::error_code error;
    for (auto entry = std::filesystem::directory_iterator(sessionsFolder, error);
        !error && entry != std::filesystem::directory_iterator(); entry.increment(error))
        if (entry->path().extension() == ".json" && found.size() < mostSessions) found.insert(entry->path());
    if (error && error != std::errc::no_such_file_or_directory)
        oddities.note(sessionsFolder.string() + " can't be read: " + error.message());
    std::erase_if(running, [&](const auto& known) { return !found.contains(known.first); });
    for (const auto& file : found) readFile(file);
}

void ClaudeMonitor::readFile(const std::filesystem::path& file)
{
    const auto text = readWholeFile(file, ClaudeSession::maxSize);
    std::error_code ignored;
    if (!text && !std::filesystem::exists(std::filesystem::symlink_status(file, ignored)))
        return forget(file);
    auto session = ClaudeSession::parse(text.value_or(""));
    // A file caught while it is being written says nothing; it will change once more.
    if (!session) return;
    if (!running.contains(file) && running.size() >= mostSessions) return;
    Running& entry = running[file];
    const bool isSameProcess = entry.process && entry.session.pid == session->pid
        && entry.session.processStart == session->processStart;
    if (!isSameProcess) {
        entry.process.reset();
        auto process = std::make_unique<ProcessWatch>(queue, session->pid);
        process->onEnd = [this, file] { processEnded(file); };
        // Asked once the watch stands, so that no end is missed.
        if (isThatProcess(*session)) entry.process = std::move(process);
    }
    if (entry.session.status != session->status) entry.seen = now();
    entry.session = std::move(*session);
    // Each change of status is an occasion: the files are not watched, since they are written all the time.
    if (entry.process) readTitle(entry.session.sessionID, entry.session.cwd);
}

void ClaudeMonitor::forget(const std::filesystem::path& file)
{
    const auto found = running.find(file);
    if (found == running.end()) return;
    reported.erase(found->second.session.sessionID);
    running.erase(found);
}

void ClaudeMonitor::processEnded(const std::filesystem::path& file)
{
    if (const auto found = running.find(file); found != running.end()) {
        reported.erase(found->second.session.sessionID);
        found->second.process.reset();
    }
    tellChange();
}

// Files of killed sessions stay, and numbers of processes are used again.
bool ClaudeMonitor::isThatProcess(const ClaudeSession& session) const
{
    const auto start = processStart(session.pid);
    if (!start) return false;
    const std::string& text = session.processStart;
    std::uint64_t ticks = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), ticks);
    if (error == std::errc() && end == text.data() + text.size() && ticks < mostTicks)
        return ticks == start->ticks;
    return !session.startedAt || start->date <= *session.startedAt + startSlack;
}

AgentTask ClaudeMonitor::taskOf(const Running& entry)
{
    const ClaudeSession& session = entry.session;
    const AgentPhase phase = phaseNamed(session.status).value_or(AgentPhase::idle);
    const std::string title = titleOf(session.sessionID);
    return {"claude:" + session.sessionID, AgentKind::claude, session.name.empty() ? title : session.name,
        projectOf(session.cwd), phase,
        phase == AgentPhase::waiting ? ifAny(session.waitingFor) : std::nullopt,
        session.statusSince.value_or(session.startedAt.value_or(entry.seen))};
}

std::optional<AgentPhase> ClaudeMonitor::phaseNamed(const std::string& status)
{
    if (status == "busy" || status == "shell") return AgentPhase::running;
    if (status == "waiting") return AgentPhase::waiting;
    if (status == "idle" || status.empty()) return AgentPhase::idle;
    oddities.note("a status that we don't know, taken for idle: " + asLabel(status));
    return std::nullopt;
}

// ---- hooks and status line

void ClaudeMonitor::note(const ClaudeReport& report)
{
    queue->assertCurrent();
    keepUsage(report.usage);
    if (!report.event.empty()) apply(report);
    tellChange();
}

void ClaudeMonitor::apply(const ClaudeReport& report)
{
    const auto rule = std::ranges::find(eventRules, report.event, &EventRule::event);
    if (rule == std::end(eventRules))
        return oddities.note("a hook's event that we don't know, left alone: " + report.event);
    if (report.event == "SessionEnd") {
        reported.erase(report.sessionID);
        return;
    }
    if (!reported.contains(report.sessionID) && reported.size() >= mostSessions) return;
    Reported& session = reported[report.sessionID];
    if (!report.project.empty()) session.project = report.project;
    std::optional<AgentPhase> phase = rule->phase;
    if (std::ranges::find(askingTools, report.tool) != askingTools.end() && report.event == "PreToolUse")
        phase = AgentPhase::waiting;
    if (report.event == "Notification") {
        const bool isAsking = report.notification == "permission_prompt"
            || report.notification == "elicitation_dialog" || report.isAboutPermission;
        // A minute after its turn is over the agent reminds of that, too.
        const bool isReminder = report.notification == "idle_prompt" && session.phase != AgentPhase::idle;
        if (isAsking || isReminder) phase = AgentPhase::waiting;
    }
    const bool isNew = session.since == DeckDate();
    if (isNew || (phase && *phase != session.phase)) session.since = now();
    session.phase = phase.value_or(session.phase);
    session.heard = now();
    if (phase) session.said = now();
    if (phase) session.detail = *phase == AgentPhase::idle ? "" : report.tool;
    if (isNew || phase == AgentPhase::idle) readTitle(report.sessionID, "");
}

// A status line tells either window only when it has one.
void ClaudeMonitor::keepUsage(const AgentUsage& newer)
{
    if (newer.session) usage.session = newer.session;
    if (newer.weekly) usage.weekly = newer.weekly;
}

void ClaudeMonitor::dropOldReports()
{
    std::erase_if(reported, [&](const auto& known) { return known.second.heard + longestSilence < now(); });
    std::erase_if(transcripts,
        [&](const auto& known) { return !reported.contains(known.first) && !hasStateFile(known.first); });
}

bool ClaudeMonitor::hasStateFile(const std::string& sessionID) const
{
    return std::ranges::any_of(
        running, [&](const auto& known) { return known.second.session.sessionID == sessionID; });
}

// ---- titles

void ClaudeMonitor::readTitle(const std::string& sessionID, const std::string& cwd)
{
    Transcript& transcript = transcripts[sessionID];
    if (!transcript.file) transcript.file = findTranscript(sessionID, cwd);
    if (!transcript.file) return;
    auto& title = transcript.title;
    const auto found = transcript.file->read(
        [&](std::string_view line) {
            auto heard = ClaudeTitle::parse(line);
            // The first prompt counts, and the last word of every other kind.
            if (!heard || (title && heard->rank < title->rank)) return;
            if (!title || heard->rank > ClaudeTitle::Rank::firstPrompt) title = std::move(heard);
        },
        [&] { title.reset(); });
    if (found == LineFile::Found::nothing) transcript.file.reset();
}

// In the folder that is named after the working directory as far as we know it, or in any other: a session
// may have begun elsewhere.
std::unique_ptr<LineFile> ClaudeMonitor::findTranscript(
    const std::string& sessionID, const std::string& cwd) const
{
    const auto projects = root / "projects";
    const std::string name = sessionID + ".jsonl";
    std::string folder = cwd;
    std::ranges::replace_if(
        folder, [](char c) { return c == '/' || c == '.' || c == '\\' || c == ':'; }, '-');
    std::error_code error;
    if (!cwd.empty() && std::filesystem::exists(projects / folder / name, error))
        return std::make_unique<LineFile>(projects / folder / name);
    std::size_t seen = 0;
    for (auto entry = std::filesystem::directory_iterator(projects, error);
        !error && entry != std::filesystem::directory_iterator() && ++seen < mostProjects;
        entry.increment(error)) {
        std::error_code ignored;
        if (std::filesystem::exists(entry->path() / name, ignored))
            return std::make_unique<LineFile>(entry->path() / name);
    }
    return nullptr;
}

std::string ClaudeMonitor::titleOf(const std::string& sessionID) const
{
    const auto found = transcripts.find(sessionID);
    return found != transcripts.end() && found->second.title ? found->second.title->text : std::string();
}

DeckDate ClaudeMonitor::now() const
{
    return std::chrono::floor<std::chrono::microseconds>(queue->wallNow());
}

void ClaudeMonitor::tellChange()
{
    const auto tell = onChange; // it may destroy us
    if (tell) tell();
}

} // namespace pelorin
