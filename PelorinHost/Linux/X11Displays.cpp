#include "PelorinHost/Linux/X11Displays.h"

#include "PelorinHost/Linux/X11DrawnMonitor.h"
#include "PelorinNet/Files/AtomicFile.h"

#include <algorithm>
#include <set>
#include <utility>

namespace pelorin {
namespace {

constexpr auto patience = X11Connection::patience;
constexpr const char* noteName = "display-restore.json";
constexpr std::size_t largestNote = 4 << 20; // 16 CRTCs with ramps of 4096 entries need about one
constexpr std::string_view modePrefix = "pelorin-"; // "pelorin-390x844"
constexpr int modeRefreshRate = 60;
constexpr int notTaken = 1003; // in place of a RandR status: the server has no place for such a display

std::string modeName(PointSize size)
{
    return fmt::format("{}{}x{}", modePrefix, size.width, size.height);
}

bool hasMonitors(const X11Connection& connection)
{
    if (!connection.extension(&xcb_randr_id)) return false;
    const auto version = connection.reply<xcb_randr_query_version_reply_t>(
        xcb_randr_query_version(connection.get(), 1, 5), patience);
    return version && (version->major_version > 1 || version->minor_version >= 5);
}

} // namespace

class X11Displays::PhoneDisplay final : public VirtualDisplay {
public:
    explicit PhoneDisplay(X11Displays& newDisplays) : displays(newDisplays) {}
    ~PhoneDisplay() override { displays.restoreArrangement(); } // in one step, so that nothing flashes

    std::uint32_t displayID() const override
    {
        const std::lock_guard guard(displays.lock);
        return displays.made ? displays.made->id : 0;
    }
    Result<void, PlatformError> applySettings(const VirtualDisplaySettings& settings) override
    {
        const std::lock_guard guard(displays.lock);
        return displays.shape(settings.size);
    }

private:
    X11Displays& displays;
};

X11Displays::X11Displays(std::string display) : displayName(std::move(display)) {}

X11Displays::~X11Displays()
{
    restoreArrangement();
    restoreGamma();
}

void X11Displays::keepNotesIn(const std::filesystem::path& directory)
{
    const std::lock_guard guard(lock);
    noteFile = directory / noteName;
    isNoteRead = false;
    if (std::error_code ignored; std::filesystem::exists(noteFile, ignored)) connected();
}

std::vector<std::uint32_t> X11Displays::onlineDisplays()
{
    const std::lock_guard guard(lock);
    std::vector<std::uint32_t> ids;
    const auto* c = connected();
    const auto outputs = c ? readOutputs(*c) : std::nullopt;
    const auto now = outputs ? readArrangement(*c) : std::nullopt;
    if (!now) return ids;
    for (const auto& output : outputs->outputs)
        if (now->crtcOf(output.id)) ids.push_back(output.nameAtom);
    if (made && made->output == 0) ids.push_back(made->id);
    return ids;
}

// Mirroring or not, each panel has gamma of its own.
std::vector<std::uint32_t> X11Displays::activeDisplays()
{
    return onlineDisplays();
}

std::unique_ptr<VirtualDisplay> X11Displays::createVirtualDisplay(const VirtualDisplayDescriptor&)
{
    const std::lock_guard guard(lock);
    if (connected()) return std::make_unique<PhoneDisplay>(*this);
    return nullptr;
}

int X11Displays::mirror(const std::vector<std::uint32_t>& displays, std::uint32_t source)
{
    const std::lock_guard guard(lock);
    if (!connected() || !made || made->id != source) return notTaken;
    const int failure = mirrorOutputs(displays);
    if (failure == 0) made->isMirrored = true;
    return failure;
}

void X11Displays::restoreArrangement()
{
    const std::lock_guard guard(lock);
    if (note.arrangement && connected()) putBackArrangement();
}

void X11Displays::setGamma(std::uint32_t displayID, const GammaTable& table)
{
    const std::lock_guard guard(lock);
    const auto* c = connected();
    const auto outputs = c ? readOutputs(*c) : std::nullopt;
    const auto now = outputs ? readArrangement(*c) : std::nullopt;
    if (!now) return;
    for (const auto& output : outputs->outputs) {
        const auto* crtc = output.nameAtom == displayID ? now->crtcOf(output.id) : nullptr;
        if (!crtc) continue;
        noteRamp(crtc->id);
        if (!keepNote()) return;
        gamma = table;
        showGamma(crtc->id);
    }
    c->settle(patience);
}

void X11Displays::restoreGamma()
{
    const std::lock_guard guard(lock);
    if (note.ramps.empty()) return;
    if (!connected()) return;
    gamma.reset();
    putBackRamps();
    if (!note.arrangement) note.ramps.clear();
    keepNote();
}

// Nothing while there is no server, or one that knows nothing of monitors.
const X11Connection* X11Displays::connected()
{
    if (connection) connection->takeEvents({}); // those that every client gets
    if ((!connection || connection->isBroken()) && !reconnect()) return nullptr;
    return &*connection;
}

bool X11Displays::reconnect()
{
    connection.reset();
    auto opened = X11Connection::open(displayName);
    if (!opened) return lackServer(opened.error().description);
    if (!hasMonitors(*opened)) return lackServer("the X server has no RandR 1.5");
    isLackReported = false;
    connection = std::move(*opened);
    checkNote();
    return true;
}

bool X11Displays::lackServer(const std::string& reason)
{
    if (!std::exchange(isLackReported, true)) log.warning("no displays to arrange: {}", reason);
    return false;
}

// A note that another server left, or that was left of a server gone since, means nothing for this one.
void X11Displays::checkNote()
{
    const bool isLeftBehind = !std::exchange(isNoteRead, true) && !noteFile.empty();
    if (isLeftBehind)
        if (const auto text = readWholeFile(noteFile, largestNote))
            note = X11DisplayNote::parse(*text).value_or(X11DisplayNote{.token = "unreadable"});
    if (note.token.empty()) return;
    if (noteTokenOn(*connection) != note.token) {
        log.info("the displays are not those that were changed; nothing to restore");
        note = {};
        gamma.reset();
        made.reset();
        keepNote();
    } else if (isLeftBehind) {
        log.warning("the displays were left changed; restoring them");
        putBackArrangement();
        putBackRamps();
        note.ramps.clear();
        keepNote();
    }
}

// False when it can't be kept, and the change that it is for must not be made.
bool X11Displays::keepNote()
{
    if (noteFile.empty()) return false;
    if (note.isEmpty()) {
        note.token.clear();
        std::error_code ignored;
        std::filesystem::remove(noteFile, ignored);
        return true;
    }
    if (note.token.empty()) {
        note.token = newNoteToken();
        if (!markWithToken(*connection, note.token)) return false;
    }
    return writeFileAtomically(noteFile, note.toJSON());
}

bool X11Displays::noteArrangement()
{
    if (note.arrangement) return true;
    if (!reconnect()) return false; // only a new connection knows how many millimetres the screen has
    auto now = readArrangement(*connection);
    if (!now) return false;
    for (const auto& crtc : now->crtcs) noteRamp(crtc.id);
    note.arrangement = std::move(now);
    if (keepNote()) return true;
    note.arrangement.reset();
    return false;
}

// As it was before we touched it.
void X11Displays::noteRamp(std::uint32_t crtc)
{
    if (note.ramps.contains(crtc)) return;
    if (auto ramp = readRamp(*connection, crtc)) note.ramps[crtc] = std::move(*ramp);
}

Result<void, PlatformError> X11Displays::shape(PointSize size)
{
    if (!connected()) return std::unexpected(PlatformError{"there is no X server"});
    if (!noteArrangement()) return std::unexpected(PlatformError{"how the displays are now can't be noted"});
    int failure = notTaken;
    if (!made || made->output != 0)
        for (const auto output : made ? std::vector{made->output} : spareOutputs()) {
            failure = light(output, size);
            if (failure == 0) return {};
        }
    if (!made || made->output == 0) failure = cover(size);
    if (failure == 0) return {};
    if (!made) putBackArrangement();
    return std::unexpected(PlatformError{
        fmt::format("neither an output nor the screen takes {}x{} ({})", size.width, size.height, failure)});
}

// Those without a panel: one that is off may be so by its user's wish.
std::vector<std::uint32_t> X11Displays::spareOutputs() const
{
    std::vector<std::uint32_t> spare;
    const auto outputs = readOutputs(*connection);
    const auto now = outputs ? readArrangement(*connection) : std::nullopt;
    if (!now) return spare;
    for (const auto& output : outputs->outputs)
        if (!output.hasPanel && !now->crtcOf(output.id)) spare.push_back(output.id);
    return spare;
}

int X11Displays::light(std::uint32_t output, PointSize size)
{
    const X11ServerGrab grab(*connection);
    const auto outputs = readOutputs(*connection);
    const auto now = outputs ? readArrangement(*connection) : std::nullopt;
    const auto* info = now ? outputs->output(output) : nullptr;
    if (!info) return serverSilent;

    X11Crtc crtc;
    if (const auto* lit = now->crtcOf(output)) {
        crtc = *lit;
    } else {
        const auto isFree
            = [&](std::uint32_t id) { return std::ranges::count(now->crtcs, id, &X11Crtc::id) == 0; };
        const auto free = std::ranges::find_if(info->crtcs, isFree);
        if (free == info->crtcs.end()) return notTaken;
        crtc = {.id = *free, .x = now->width, .outputs = {output}};
    }
    crtc.mode = modeOf(size, output, *outputs);
    crtc.width = size.width;
    crtc.height = size.height;

    auto target = *now;
    std::erase_if(target.crtcs,
        [&](const X11Crtc& other) { return other.id == crtc.id || (made && made->isMirrored); });
    target.crtcs.push_back(crtc);
    target.fitScreen(*note.arrangement);
    const int failure = change(*now, target);
    if (failure != 0) {
        dropModes(made ? std::optional(made->size) : std::nullopt);
        return failure;
    }
    made = {info->nameAtom, output, size, made && made->isMirrored};
    dropModes(size);
    return 0;
}

// Draws a monitor over a part of the screen, which grows for it where it can.
int X11Displays::cover(PointSize size)
{
    const X11ServerGrab grab(*connection);
    const auto now = readArrangement(*connection);
    if (!now) return serverSilent;
    auto target = *now;
    target.fitScreen(*note.arrangement);
    target.width = std::max(target.width, size.width);
    target.height = std::max(target.height, size.height);
    if (const int failure = change(*now, target); failure != 0) return failure;
    if (!drawMonitor(*connection, size, {})) return notTaken;
    made = {drawnMonitorID(*connection), 0, size, made && made->isMirrored};
    return 0;
}

int X11Displays::mirrorOutputs(const std::vector<std::uint32_t>& displays)
{
    const X11ServerGrab grab(*connection);
    const auto outputs = readOutputs(*connection);
    const auto now = outputs ? readArrangement(*connection) : std::nullopt;
    if (!now) return serverSilent;
    std::set<std::uint32_t> mirroring;
    for (const auto& output : outputs->outputs)
        if (std::ranges::count(displays, output.nameAtom) > 0) mirroring.insert(output.id);

    if (made->output == 0)
        return drawMonitor(*connection, made->size, {mirroring.begin(), mirroring.end()}) ? 0 : notTaken;

    const auto takesSize = [&](const X11Outputs::Mode& mode, const X11Crtc& crtc) {
        return mode.width == made->size.width && mode.height == made->size.height
            && std::ranges::all_of(crtc.outputs, [&](std::uint32_t output) {
                   const auto* info = outputs->output(output);
                   return info && std::ranges::count(info->modes, mode.id) > 0;
               });
    };
    auto target = *now;
    target.crtcs.clear();
    for (auto crtc : now->crtcs) {
        if (crtc.shows(made->output)) {
            crtc.x = crtc.y = 0;
            target.crtcs.push_back(crtc);
            continue;
        }
        const auto isMirroring = [&](std::uint32_t output) { return mirroring.contains(output); };
        if (std::ranges::none_of(crtc.outputs, isMirroring)) {
            target.crtcs.push_back(crtc);
            continue;
        }
        const auto mode = std::ranges::find_if(
            outputs->modes, [&](const X11Outputs::Mode& candidate) { return takesSize(candidate, crtc); });
        if (mode == outputs->modes.end()) continue; // off, as it can't show the whole
        target.crtcs.push_back({.id = crtc.id,
            .width = mode->width,
            .height = mode->height,
            .mode = mode->id,
            .outputs = crtc.outputs});
    }
    target.primary = made->output;
    target.fitScreen(*note.arrangement);
    return change(*now, target);
}

// All of it or nothing.
int X11Displays::change(const X11Arrangement& now, const X11Arrangement& target)
{
    const int failure = applyArrangement(*connection, target);
    if (failure != 0) applyArrangement(*connection, now);
    return failure;
}

// The mode of that size, made when there is none, and known to the output.
std::uint32_t X11Displays::modeOf(PointSize size, std::uint32_t output, const X11Outputs& outputs)
{
    const auto name = modeName(size);
    const auto found = std::ranges::find(outputs.modes, name, &X11Outputs::Mode::name);
    std::uint32_t mode = found == outputs.modes.end() ? 0 : found->id;
    if (mode == 0) {
        auto timing = timingOf(size.width, size.height, modeRefreshRate);
        timing.name_len = static_cast<std::uint16_t>(name.size());
        const auto reply = connection->reply<xcb_randr_create_mode_reply_t>(
            xcb_randr_create_mode(connection->get(), connection->root(), timing,
                static_cast<std::uint32_t>(name.size()), name.data()),
            patience);
        mode = reply ? reply->mode : 0;
    }
    xcb_randr_add_output_mode(connection->get(), output, mode);
    return mode;
}

// Those of ours that nothing shows; one in use the server keeps anyway.
void X11Displays::dropModes(std::optional<PointSize> but)
{
    const auto outputs = readOutputs(*connection);
    if (!outputs) return;
    for (const auto& mode : outputs->modes) {
        if (!mode.name.starts_with(modePrefix) || (but && mode.name == modeName(*but))) continue;
        for (const auto& output : outputs->outputs)
            if (std::ranges::count(output.modes, mode.id) > 0)
                xcb_randr_delete_output_mode(connection->get(), output.id, mode.id);
        xcb_randr_destroy_mode(connection->get(), mode.id);
    }
}

void X11Displays::putBackArrangement()
{
    if (!note.arrangement) return;
    const int failure = undo();
    if (failure == serverSilent)
        return log.error("the X server does not answer; the displays stay as they are");
    if (failure != 0) log.warning("the displays are not all as before ({})", failure);
    connection->settle(patience);
    made.reset();
    note.arrangement.reset();
    if (!gamma) note.ramps.clear();
    keepNote();
}

int X11Displays::undo()
{
    const X11ServerGrab grab(*connection);
    const auto outputs = readOutputs(*connection);
    const auto now = outputs ? readArrangement(*connection) : std::nullopt;
    if (!now) return serverSilent;
    const auto target = asNoted(*now, *outputs);
    if (gamma) // before they come on again
        for (const auto& crtc : target.crtcs) showGamma(crtc.id);
    const int failure = applyArrangement(*connection, target);
    if (!gamma) putBackRamps();
    eraseMonitor(*connection);
    dropModes(std::nullopt);
    return failure;
}

// What was plugged in meanwhile stays as it is; what can't come back stays away.
X11Arrangement X11Displays::asNoted(const X11Arrangement& now, const X11Outputs& outputs) const
{
    auto target = *note.arrangement;
    std::erase_if(target.crtcs, [&](const X11Crtc& crtc) { return outputs.mode(crtc.mode) == nullptr; });
    for (const auto& crtc : now.crtcs) {
        const auto* mode = outputs.mode(crtc.mode);
        const bool isOurs = mode && mode->name.starts_with(modePrefix);
        const bool isTaken = std::ranges::any_of(target.crtcs, [&](const X11Crtc& other) {
            return other.id == crtc.id
                || std::ranges::any_of(crtc.outputs, [&](auto output) { return other.shows(output); });
        });
        if (isOurs || isTaken) continue;
        target.crtcs.push_back(crtc);
        target.width = std::max(target.width, crtc.x + crtc.width);
        target.height = std::max(target.height, crtc.y + crtc.height);
    }
    return target;
}

void X11Displays::putBackRamps()
{
    for (const auto& [crtc, ramp] : note.ramps) {
        const auto now = readRamp(*connection, crtc);
        if (now && *now != ramp && now->red.size() == ramp.red.size()) writeRamp(*connection, crtc, ramp);
    }
    connection->settle(patience);
}

void X11Displays::showGamma(std::uint32_t crtc)
{
    const auto noted = note.ramps.find(crtc);
    if (noted == note.ramps.end()) return;
    writeRamp(*connection, crtc, X11Ramp::of(*gamma, noted->second.red.size()));
}

} // namespace pelorin
