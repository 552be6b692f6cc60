#include "PelorinHost/Linux/X11Arrangement.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace pelorin {
namespace {

constexpr auto patience = X11Connection::patience;

// The resources as they are; the server need not ask its hardware again.
XcbReply<xcb_randr_get_screen_resources_current_reply_t> resourcesOf(const X11Connection& connection)
{
    return connection.reply<xcb_randr_get_screen_resources_current_reply_t>(
        xcb_randr_get_screen_resources_current(connection.get(), connection.root()), patience);
}

void readTransform(const X11Connection& connection, X11Crtc& crtc)
{
    const auto reply = connection.reply<xcb_randr_get_crtc_transform_reply_t>(
        xcb_randr_get_crtc_transform(connection.get(), crtc.id), patience);
    if (!reply || !reply->has_transforms) return;
    const auto& t = reply->current_transform;
    crtc.transform = {t.matrix11, t.matrix12, t.matrix13, t.matrix21, t.matrix22, t.matrix23, t.matrix31,
        t.matrix32, t.matrix33};
    crtc.filter.assign(xcb_randr_get_crtc_transform_current_filter_name(reply.get()), reply->current_len);
    const auto* parameters = xcb_randr_get_crtc_transform_current_params(reply.get());
    crtc.filterParameters.assign(parameters, parameters + reply->current_nparams);
}

void readPanning(const X11Connection& connection, X11Crtc& crtc)
{
    const auto reply = connection.reply<xcb_randr_get_panning_reply_t>(
        xcb_randr_get_panning(connection.get(), crtc.id), patience);
    if (!reply || reply->status != XCB_RANDR_SET_CONFIG_SUCCESS) return;
    const auto number = [](std::uint16_t value) { return static_cast<std::int16_t>(value); };
    crtc.panning = {number(reply->left), number(reply->top), number(reply->width), number(reply->height),
        number(reply->track_left), number(reply->track_top), number(reply->track_width),
        number(reply->track_height), reply->border_left, reply->border_top, reply->border_right,
        reply->border_bottom};
}

bool isIdentity(const std::array<std::int32_t, 9>& transform)
{
    constexpr std::int32_t one = 1 << 16; // fixed point
    constexpr std::array<std::int32_t, 9> identity{one, 0, 0, 0, one, 0, 0, 0, one};
    return transform == identity || std::ranges::count(transform, 0) == 9;
}

bool pans(const X11Crtc& crtc)
{
    return crtc.panning[2] > 0 || crtc.panning[3] > 0;
}

// One change after another; each needs the time of the configuration that it starts from.
class Changes {
public:
    Changes(const X11Connection& newConnection, xcb_timestamp_t newConfiguredAt)
        : connection(newConnection),
          configuredAt(newConfiguredAt)
    {
    }

    void turnOff(const X11Crtc& crtc) { configure({.id = crtc.id}); }

    void resizeScreen(const X11Arrangement& to)
    {
        xcb_randr_set_screen_size(connection.get(), connection.root(), static_cast<std::uint16_t>(to.width),
            static_cast<std::uint16_t>(to.height), static_cast<std::uint32_t>(to.widthMm),
            static_cast<std::uint32_t>(to.heightMm));
    }

    void turnOn(const X11Crtc& crtc, bool hadTransform)
    {
        if (hadTransform || !isIdentity(crtc.transform)) setTransform(crtc);
        configure(crtc);
        if (pans(crtc)) setPanning(crtc);
    }

    void setPrimary(std::uint32_t output)
    {
        xcb_randr_set_output_primary(connection.get(), connection.root(), output);
    }

    int firstFailure() const { return failure; }

private:
    void note(int status)
    {
        if (failure == 0) failure = status;
    }

    void configure(const X11Crtc& crtc)
    {
        const auto reply = connection.reply<xcb_randr_set_crtc_config_reply_t>(
            xcb_randr_set_crtc_config(connection.get(), crtc.id, XCB_CURRENT_TIME, configuredAt,
                static_cast<std::int16_t>(crtc.x), static_cast<std::int16_t>(crtc.y), crtc.mode,
                crtc.rotation, static_cast<std::uint32_t>(crtc.outputs.size()), crtc.outputs.data()),
            patience);
        note(reply ? reply->status : serverSilent);
    }

    void setTransform(const X11Crtc& crtc)
    {
        const auto& t = crtc.transform;
        xcb_randr_set_crtc_transform(connection.get(), crtc.id,
            {t[0], t[1], t[2], t[3], t[4], t[5], t[6], t[7], t[8]},
            static_cast<std::uint16_t>(crtc.filter.size()), crtc.filter.data(),
            static_cast<std::uint32_t>(crtc.filterParameters.size()), crtc.filterParameters.data());
    }

    void setPanning(const X11Crtc& crtc)
    {
        const auto& p = crtc.panning;
        const auto size = [](std::int16_t value) { return static_cast<std::uint16_t>(value); };
        const auto reply = connection.reply<xcb_randr_set_panning_reply_t>(
            xcb_randr_set_panning(connection.get(), crtc.id, XCB_CURRENT_TIME, size(p[0]), size(p[1]),
                size(p[2]), size(p[3]), size(p[4]), size(p[5]), size(p[6]), size(p[7]), p[8], p[9], p[10],
                p[11]),
            patience);
        note(reply ? reply->status : serverSilent);
    }

    const X11Connection& connection;
    const xcb_timestamp_t configuredAt;
    int failure = 0;
};

// Where a panning CRTC is depends on the pointer, and how large, on the screen, so these are no difference.
X11Crtc comparable(X11Crtc crtc)
{
    if (pans(crtc)) crtc.x = crtc.y = crtc.width = crtc.height = 0;
    if (isIdentity(crtc.transform)) {
        crtc.transform = {};
        crtc.filter.clear();
        crtc.filterParameters.clear();
    }
    return crtc;
}

const X11Crtc* find(const X11Arrangement& arrangement, std::uint32_t crtc)
{
    const auto found = std::ranges::find(arrangement.crtcs, crtc, &X11Crtc::id);
    return found == arrangement.crtcs.end() ? nullptr : &*found;
}

bool isSame(const X11Crtc& crtc, const X11Arrangement& in)
{
    const auto* other = find(in, crtc.id);
    return other && comparable(crtc) == comparable(*other);
}

// The server itself adapts the areas of panning to a new size of the screen.
bool agree(X11Arrangement a, X11Arrangement b)
{
    for (auto* arrangement : {&a, &b})
        for (auto& crtc : arrangement->crtcs)
            if (pans(crtc)) {
                crtc = comparable(crtc);
                crtc.panning = {};
            }
    return a.width == b.width && a.height == b.height && a.primary == b.primary
        && a.crtcs.size() == b.crtcs.size()
        && std::ranges::all_of(a.crtcs, [&](const X11Crtc& crtc) { return isSame(crtc, b); });
}

} // namespace

bool X11Crtc::shows(std::uint32_t output) const
{
    return std::ranges::count(outputs, output) > 0;
}

const X11Crtc* X11Arrangement::crtcOf(std::uint32_t output) const
{
    const auto found = std::ranges::find_if(crtcs, [&](const X11Crtc& crtc) { return crtc.shows(output); });
    return found == crtcs.end() ? nullptr : &*found;
}

void X11Arrangement::fitScreen(const X11Arrangement& likeThat)
{
    const double mmPerPixel
        = likeThat.width > 0 && likeThat.widthMm > 0 ? double(likeThat.widthMm) / likeThat.width : 25.4 / 96;
    width = height = 1;
    for (const auto& crtc : crtcs) {
        width = std::max({width, crtc.x + crtc.width, crtc.panning[0] + crtc.panning[2]});
        height = std::max({height, crtc.y + crtc.height, crtc.panning[1] + crtc.panning[3]});
    }
    widthMm = std::max(1, static_cast<int>(std::lround(width * mmPerPixel)));
    heightMm = std::max(1, static_cast<int>(std::lround(height * mmPerPixel)));
}

const X11Outputs::Mode* X11Outputs::mode(std::uint32_t id) const
{
    const auto found = std::ranges::find(modes, id, &Mode::id);
    return found == modes.end() ? nullptr : &*found;
}

const X11Outputs::Output* X11Outputs::output(std::uint32_t id) const
{
    const auto found = std::ranges::find(outputs, id, &Output::id);
    return found == outputs.end() ? nullptr : &*found;
}

std::optional<X11Arrangement> readArrangement(const X11Connection& connection)
{
    auto* c = connection.get();
    const auto resources = resourcesOf(connection);
    const auto root
        = connection.reply<xcb_get_geometry_reply_t>(xcb_get_geometry(c, connection.root()), patience);
    const auto primary = connection.reply<xcb_randr_get_output_primary_reply_t>(
        xcb_randr_get_output_primary(c, connection.root()), patience);
    if (!resources || !root || !primary) return std::nullopt;

    X11Arrangement arrangement{root->width, root->height, connection.screen().width_in_millimeters,
        connection.screen().height_in_millimeters, primary->output, {}};
    const auto* ids = xcb_randr_get_screen_resources_current_crtcs(resources.get());
    for (int i = 0; i < resources->num_crtcs; ++i) {
        const auto info = connection.reply<xcb_randr_get_crtc_info_reply_t>(
            xcb_randr_get_crtc_info(c, ids[i], resources->config_timestamp), patience);
        if (!info) return std::nullopt;
        if (info->mode == XCB_NONE || info->num_outputs == 0) continue;
        X11Crtc crtc{.id = ids[i],
            .x = info->x,
            .y = info->y,
            .width = info->width,
            .height = info->height,
            .mode = info->mode,
            .rotation = info->rotation};
        const auto* outputs = xcb_randr_get_crtc_info_outputs(info.get());
        crtc.outputs.assign(outputs, outputs + info->num_outputs);
        readTransform(connection, crtc);
        readPanning(connection, crtc);
        arrangement.crtcs.push_back(std::move(crtc));
    }
    return arrangement;
}

std::optional<X11Outputs> readOutputs(const X11Connection& connection)
{
    auto* c = connection.get();
    const auto resources = resourcesOf(connection);
    if (!resources) return std::nullopt;
    X11Outputs found;
    const auto* names
        = reinterpret_cast<const char*>(xcb_randr_get_screen_resources_current_names(resources.get()));
    for (auto modes = xcb_randr_get_screen_resources_current_modes_iterator(resources.get()); modes.rem > 0;
        xcb_randr_mode_info_next(&modes)) {
        const auto& m = *modes.data;
        found.modes.push_back({m.id, m.width, m.height, std::string(names, m.name_len)});
        names += m.name_len;
    }
    const auto* ids = xcb_randr_get_screen_resources_current_outputs(resources.get());
    for (int i = 0; i < resources->num_outputs; ++i) {
        const auto info = connection.reply<xcb_randr_get_output_info_reply_t>(
            xcb_randr_get_output_info(c, ids[i], resources->config_timestamp), patience);
        if (!info) return std::nullopt;
        const auto atom = connection.reply<xcb_intern_atom_reply_t>(
            xcb_intern_atom(c, 0, info->name_len,
                reinterpret_cast<const char*>(xcb_randr_get_output_info_name(info.get()))),
            patience);
        if (!atom) return std::nullopt;
        const bool hasPanel = info->connection != XCB_RANDR_CONNECTION_DISCONNECTED && info->mm_width > 0
            && info->mm_height > 0;
        X11Outputs::Output output{ids[i], atom->atom, hasPanel, {}, {}};
        const auto* crtcs = xcb_randr_get_output_info_crtcs(info.get());
        output.crtcs.assign(crtcs, crtcs + info->num_crtcs);
        const auto* modes = xcb_randr_get_output_info_modes(info.get());
        output.modes.assign(modes, modes + info->num_modes);
        found.outputs.push_back(std::move(output));
    }
    return found;
}

int applyArrangement(const X11Connection& connection, const X11Arrangement& target)
{
    const auto resources = resourcesOf(connection);
    const auto now = readArrangement(connection);
    if (!resources || !now) return serverSilent;

    Changes changes(connection, resources->config_timestamp);
    // Off first: no CRTC may reach beyond the screen at any moment.
    for (const auto& crtc : now->crtcs)
        if (!isSame(crtc, target)) changes.turnOff(crtc);
    if (now->width != target.width || now->height != target.height) changes.resizeScreen(target);
    for (const auto& crtc : target.crtcs) {
        const auto* before = find(*now, crtc.id);
        if (!isSame(crtc, *now)) changes.turnOn(crtc, before && !isIdentity(before->transform));
    }
    if (now->primary != target.primary) changes.setPrimary(target.primary);
    if (changes.firstFailure() != 0) return changes.firstFailure();

    const auto became = readArrangement(connection);
    if (!became) return serverSilent;
    return agree(*became, target) ? 0 : arrangementDiffers;
}

xcb_randr_mode_info_t timingOf(int width, int height, int refreshRate)
{
    constexpr int horizontalBlank = 160;
    constexpr int leastVerticalBlank = 23; // lines
    constexpr double verticalBlankTime = 460e-6; // seconds, at the least
    const double lineTime = (1.0 / refreshRate - verticalBlankTime) / height;
    const int verticalBlank
        = std::max(leastVerticalBlank, static_cast<int>(std::ceil(verticalBlankTime / lineTime)));
    const int widthTotal = width + horizontalBlank;
    const int heightTotal = height + verticalBlank;
    const auto lines = [](int value) { return static_cast<std::uint16_t>(value); };
    xcb_randr_mode_info_t mode{};
    mode.width = lines(width);
    mode.height = lines(height);
    mode.dot_clock = static_cast<std::uint32_t>(
        std::min(4'294'967'295.0, double(widthTotal) * heightTotal * refreshRate));
    mode.hsync_start = lines(width + 48);
    mode.hsync_end = lines(width + 80);
    mode.htotal = lines(widthTotal);
    mode.vsync_start = lines(height + 3);
    mode.vsync_end = lines(height + 9);
    mode.vtotal = lines(heightTotal);
    mode.mode_flags = XCB_RANDR_MODE_FLAG_HSYNC_POSITIVE | XCB_RANDR_MODE_FLAG_VSYNC_NEGATIVE;
    return mode;
}

} // namespace pelorin
