#include "PelorinHost/Linux/X11Pasteboard.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace pelorin {
namespace {

// A window that never reads its pieces would be waited for as long as we live.
constexpr std::size_t mostTransfers = 16;
constexpr std::size_t largestPiece = 65'536;

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
};

Atoms internAtoms(xcb_connection_t* c)
{
    constexpr std::array<std::string_view, 9> names{"CLIPBOARD", "TARGETS", "TIMESTAMP", "UTF8_STRING",
        "text/plain;charset=utf-8", "text/plain", "TEXT", "INCR", "PELORIN_TIME"};
    std::array<xcb_intern_atom_cookie_t, names.size()> asked{};
    std::array<xcb_atom_t, names.size()> atoms{};
    for (std::size_t i = 0; i < names.size(); ++i)
        asked[i] = xcb_intern_atom(c, 0, static_cast<std::uint16_t>(names[i].size()), names[i].data());
    for (std::size_t i = 0; i < names.size(); ++i) {
        const XcbReply<xcb_intern_atom_reply_t> reply(xcb_intern_atom_reply(c, asked[i], nullptr));
        if (reply) atoms[i] = reply->atom;
    }
    return {atoms[0], atoms[1], atoms[2], atoms[3], atoms[4], atoms[5], atoms[6], atoms[7], atoms[8]};
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
    explicit Owner(X11Connection newConnection)
        : connection(std::move(newConnection)),
          atoms(internAtoms(connection.get())),
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
        xcb_change_property(
            connection.get(), XCB_PROP_MODE_APPEND, window, atoms.stamp, XCB_ATOM_STRING, 8, 0, "");
        connection.flush();
        while (const XcbReply<xcb_generic_event_t> event{xcb_wait_for_event(connection.get())}) {
            const auto& change = reinterpret_cast<const xcb_property_notify_event_t&>(*event);
            const bool isOurs = (event->response_type & 0x7F) == XCB_PROPERTY_NOTIFY
                && change.window == window && change.atom == atoms.stamp;
            if (isOurs) return change.time;
            handleOther(*event);
        }
        return std::nullopt;
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

    const auto time = owner->serverTime([this](const xcb_generic_event_t& event) { handle(event); });
    if (!time) return false;
    text = newText;
    xcb_set_selection_owner(c, owner->window, owner->atoms.clipboard, *time);
    const XcbReply<xcb_get_selection_owner_reply_t> now(
        xcb_get_selection_owner_reply(c, xcb_get_selection_owner(c, owner->atoms.clipboard), nullptr));
    if (!now || now->owner != owner->window) return false;
    ownedSince = time;
    readEvents(); // those that came with the reply wake nobody
    return true;
}

bool X11Pasteboard::connect()
{
    readable = {};
    transfers.clear();
    auto connection = X11Connection::open(display);
    if (!connection) {
        log.warning("no clipboard: {}", connection.error().description);
        return false;
    }
    owner = std::make_unique<Owner>(std::move(*connection));
    readable = queue->whenReadable(owner->connection.fileDescriptor(), [this] { readEvents(); });
    return true;
}

void X11Pasteboard::readEvents()
{
    while (const XcbReply<xcb_generic_event_t> event{xcb_poll_for_event(owner->connection.get())})
        handle(*event);
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

bool X11Pasteboard::convert(xcb_window_t requestor, xcb_atom_t target, xcb_atom_t property)
{
    const auto& atoms = owner->atoms;
    auto* c = owner->connection.get();
    if (target == atoms.targets) {
        const xcb_atom_t offered[] = {atoms.targets, atoms.timestamp, atoms.utf8String, atoms.utf8Mime,
            atoms.plainMime, atoms.text, XCB_ATOM_STRING};
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
