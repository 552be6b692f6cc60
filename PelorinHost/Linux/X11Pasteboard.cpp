#include "PelorinHost/Linux/X11Pasteboard.h"

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

namespace pelorin {
namespace {

// A window that never reads its pieces would be waited for as long as we live.
constexpr std::size_t mostTransfers = 16;
constexpr std::size_t largestPiece = 65'536;
constexpr std::uint32_t mostInMultiple = 64; // pairs of atoms; an application asks for a few

// The session waits meanwhile. A server that takes longer is stopped or as good as.
constexpr std::chrono::milliseconds patience{200};

struct Atoms {
    xcb_atom_t clipboard;
    xcb_atom_t targets;
    xcb_atom_t timestamp;
    xcb_atom_t utf8String;
    xcb_atom_t utf8Mime;
    xcb_atom_t plainMime;
    xcb_atom_t text;
    xcb_atom_t incr;
    xcb_atom_t stamp; // the property that tells us the server's time
    xcb_atom_t multiple;
    xcb_atom_t atomPair;
};

// Nothing when the server does not answer.
std::optional<Atoms> internAtoms(const X11Connection& connection)
{
    auto* c = connection.get();
    constexpr std::array<std::string_view, 11> names{"CLIPBOARD", "TARGETS", "TIMESTAMP", "UTF8_STRING",
        "text/plain;charset=utf-8", "text/plain", "TEXT", "INCR", "PELORIN_TIME", "MULTIPLE", "ATOM_PAIR"};
    std::array<xcb_intern_atom_cookie_t, names.size()> asked{};
    std::array<xcb_atom_t, names.size()> atoms{};
    for (std::size_t i = 0; i < names.size(); ++i)
        asked[i] = xcb_intern_atom(c, 0, static_cast<std::uint16_t>(names[i].size()), names[i].data());
    for (std::size_t i = 0; i < names.size(); ++i) {
        const auto reply = connection.reply<xcb_intern_atom_reply_t>(asked[i], patience);
        if (!reply) return std::nullopt;
        atoms[i] = reply->atom;
    }
    return Atoms{atoms[0], atoms[1], atoms[2], atoms[3], atoms[4], atoms[5], atoms[6], atoms[7], atoms[8],
        atoms[9], atoms[10]};
}

// STRING is Latin-1; what it can't say becomes a question mark.
std::string latin1(const std::string& utf8)
{
    std::string result;
    for (std::size_t i = 0; i < utf8.size();) {
        const auto lead = static_cast<std::uint8_t>(utf8[i]);
        const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        const bool fits = length == 2 && lead <= 0xC3 && i + 1 < utf8.size();
        if (length == 1)
            result += utf8[i];
        else
            result += fits ? static_cast<char>((lead & 0x03) << 6 | (utf8[i + 1] & 0x3F)) : '?';
        i += length;
    }
    return result;
}

} // namespace

struct X11Pasteboard::Owner {
    Owner(X11Connection newConnection, const Atoms& newAtoms)
        : connection(std::move(newConnection)),
          atoms(newAtoms),
          window(xcb_generate_id(connection.get()))
    {
        const std::uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
        xcb_create_window(connection.get(), 0, window, connection.root(), -1, -1, 1, 1, 0,
            XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT, XCB_CW_EVENT_MASK, &events);
    }

    // ICCCM 2.1 wants a real time, and only an event carries one: an empty change of a property of ours makes
    // one.
    template <class Handle>
    std::optional<xcb_timestamp_t> serverTime(Handle handleOther) const
    {
        std::optional<xcb_timestamp_t> time;
        xcb_change_property(
            connection.get(), XCB_PROP_MODE_APPEND, window, atoms.stamp, XCB_ATOM_STRING, 8, 0, "");
        // The event comes ahead of the reply to whatever is asked next.
        connection.reply<xcb_get_input_focus_reply_t>(
            xcb_get_input_focus(connection.get()), patience, [&](const xcb_generic_event_t& event) {
                const auto& change = reinterpret_cast<const xcb_property_notify_event_t&>(event);
                const bool isOurs = (event.response_type & 0x7F) == XCB_PROPERTY_NOTIFY
                    && change.window == window && change.atom == atoms.stamp;
                if (isOurs)
                    time = change.time;
                else
                    handleOther(event);
            });
        return time;
    }

    X11Connection connection;
    const Atoms atoms;
    const xcb_window_t window;
};

X11Pasteboard::X11Pasteboard(QueueRef newQueue, std::string newDisplay)
    : queue(std::move(newQueue)),
      display(std::move(newDisplay))
{
}

X11Pasteboard::~X11Pasteboard() = default;

bool X11Pasteboard::setText(const std::string& newText)
{
    queue->assertCurrent();
    if (owner && owner->connection.isBroken()) owner.reset();
    if (!owner && !connect()) return false;
    auto* c = owner->connection.get();

    const auto later = [this](const xcb_generic_event_t& event) { deferred.push_back(event); };
    const auto time = owner->serverTime(later);
    if (!time) return false;
    text = newText;
    xcb_set_selection_owner(c, owner->window, owner->atoms.clipboard, *time);
    const auto now = owner->connection.reply<xcb_get_selection_owner_reply_t>(
        xcb_get_selection_owner(c, owner->atoms.clipboard), patience, later);
    if (!now || now->owner != owner->window) return false;
    ownedSince = time;
    readEvents(); // those that came with the reply wake nobody
    return true;
}

bool X11Pasteboard::connect()
{
    readable = {};
    transfers.clear();
    deferred.clear();
    auto connection = X11Connection::open(display);
    if (!connection) {
        log.warning("no clipboard: {}", connection.error().description);
        return false;
    }
    const auto atoms = internAtoms(*connection);
    if (!atoms) {
        log.warning("no clipboard: the X server does not answer");
        return false;
    }
    owner = std::make_unique<Owner>(std::move(*connection), *atoms);
    readable = queue->whenReadable(owner->connection.fileDescriptor(), [this] { readEvents(); });
    return true;
}

void X11Pasteboard::readEvents()
{
    while (const XcbReply<xcb_generic_event_t> event{xcb_poll_for_event(owner->connection.get())})
        handle(*event);
    while (!deferred.empty()) {
        const auto event = deferred.front();
        deferred.pop_front();
        handle(event);
    }
    owner->connection.flush();
    if (!owner->connection.isBroken()) return;
    readable = {};
    ownedSince.reset();
    transfers.clear();
}

void X11Pasteboard::handle(const xcb_generic_event_t& event)
{
    switch (event.response_type & 0x7F) {
    case XCB_SELECTION_REQUEST:
        return answer(reinterpret_cast<const xcb_selection_request_event_t&>(event));
    case XCB_SELECTION_CLEAR:
        ownedSince.reset();
        return;
    case XCB_PROPERTY_NOTIFY: {
        const auto& change = reinterpret_cast<const xcb_property_notify_event_t&>(event);
        if (change.state == XCB_PROPERTY_DELETE) sendPiece({change.window, change.atom});
        return;
    }
    case XCB_DESTROY_NOTIFY: {
        const auto gone = reinterpret_cast<const xcb_destroy_notify_event_t&>(event).window;
        std::erase_if(transfers, [gone](const auto& entry) { return entry.first.first == gone; });
        return;
    }
    default:
        return;
    }
}

void X11Pasteboard::answer(const xcb_selection_request_event_t& request)
{
    const bool isTimely = request.time == XCB_CURRENT_TIME
        || (ownedSince && static_cast<std::int32_t>(request.time - *ownedSince) >= 0);
    // A client of the old kind names no property and means one called like its target (ICCCM 2.2).
    const xcb_atom_t property = request.property == XCB_ATOM_NONE ? request.target : request.property;
    const bool isDone = ownedSince && isTimely && request.selection == owner->atoms.clipboard
        && convert(request.requestor, request.target, property);

    xcb_selection_notify_event_t notice{};
    notice.response_type = XCB_SELECTION_NOTIFY;
    notice.time = request.time;
    notice.requestor = request.requestor;
    notice.selection = request.selection;
    notice.target = request.target;
    notice.property = isDone ? property : static_cast<xcb_atom_t>(XCB_ATOM_NONE);
    std::array<char, 32> wire{}; // events are always this long on the wire
    std::copy_n(reinterpret_cast<const char*>(&notice), sizeof notice, wire.begin());
    xcb_send_event(owner->connection.get(), 0, request.requestor, 0, wire.data());
}

// The property lists pairs of target and property; those that can't be had are marked in it (ICCCM 2.6.2).
bool X11Pasteboard::convertMultiple(xcb_window_t requestor, xcb_atom_t property)
{
    auto* c = owner->connection.get();
    const auto listed = owner->connection.reply<xcb_get_property_reply_t>(
        xcb_get_property(c, 0, requestor, property, XCB_GET_PROPERTY_TYPE_ANY, 0, 2 * mostInMultiple),
        patience, [this](const xcb_generic_event_t& event) { deferred.push_back(event); });
    if (!listed || listed->format != 32) return false;
    const auto* first = static_cast<const xcb_atom_t*>(xcb_get_property_value(listed.get()));
    std::vector<xcb_atom_t> atoms(first, first + xcb_get_property_value_length(listed.get()) / 4);
    for (std::size_t i = 0; i + 1 < atoms.size(); i += 2) {
        const bool isPlain = atoms[i] != owner->atoms.multiple && atoms[i + 1] != XCB_ATOM_NONE;
        if (!isPlain || !convert(requestor, atoms[i], atoms[i + 1])) atoms[i + 1] = XCB_ATOM_NONE;
    }
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, requestor, property, owner->atoms.atomPair, 32,
        static_cast<std::uint32_t>(atoms.size()), atoms.data());
    return true;
}

bool X11Pasteboard::convert(xcb_window_t requestor, xcb_atom_t target, xcb_atom_t property)
{
    const auto& atoms = owner->atoms;
    auto* c = owner->connection.get();
    if (target == atoms.multiple) return convertMultiple(requestor, property);
    if (target == atoms.targets) {
        const xcb_atom_t offered[] = {atoms.targets, atoms.multiple, atoms.timestamp, atoms.utf8String,
            atoms.utf8Mime, atoms.plainMime, atoms.text, XCB_ATOM_STRING};
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, requestor, property, XCB_ATOM_ATOM, 32,
            static_cast<std::uint32_t>(std::size(offered)), offered);
        return true;
    }
    if (target == atoms.timestamp) {
        xcb_change_property(
            c, XCB_PROP_MODE_REPLACE, requestor, property, XCB_ATOM_INTEGER, 32, 1, &*ownedSince);
        return true;
    }
    const bool isText = target == atoms.utf8String || target == atoms.utf8Mime || target == atoms.plainMime
        || target == atoms.text || target == XCB_ATOM_STRING;
    if (!isText) return false;
    deliver(requestor, property, target == atoms.text ? atoms.utf8String : target);
    return true;
}

void X11Pasteboard::deliver(xcb_window_t requestor, xcb_atom_t property, xcb_atom_t type)
{
    auto* c = owner->connection.get();
    auto content = type == XCB_ATOM_STRING ? latin1(text) : text;
    if (content.size() <= largestPiece) {
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, requestor, property, type, 8,
            static_cast<std::uint32_t>(content.size()), content.data());
        return;
    }
    if (transfers.size() >= mostTransfers) transfers.erase(transfers.begin());
    const std::uint32_t watched = XCB_EVENT_MASK_PROPERTY_CHANGE | XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    xcb_change_window_attributes(c, requestor, XCB_CW_EVENT_MASK, &watched);
    const auto size = static_cast<std::uint32_t>(content.size());
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, requestor, property, owner->atoms.incr, 32, 1, &size);
    transfers[{requestor, property}] = {type, std::move(content), 0};
}

// The next piece, or after the last one an empty one, which ends it (ICCCM 2.7.2).
void X11Pasteboard::sendPiece(const TransferKey& key)
{
    const auto found = transfers.find(key);
    if (found == transfers.end()) return;
    auto& transfer = found->second;
    const auto count = std::min(largestPiece, transfer.text.size() - transfer.sent);
    xcb_change_property(owner->connection.get(), XCB_PROP_MODE_REPLACE, key.first, key.second, transfer.type,
        8, static_cast<std::uint32_t>(count), transfer.text.data() + transfer.sent);
    transfer.sent += count;
    if (count == 0) transfers.erase(found);
}

} // namespace pelorin
