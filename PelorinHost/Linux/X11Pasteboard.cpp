#include "PelorinHost/Linux/X11Pasteboard.h"

#include "PelorinCore/Utf8.h"

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>
#include <xcb/xfixes.h>

namespace pelorin {
namespace {

// A window that never reads its pieces would be waited for as long as we live.
constexpr std::size_t mostTransfers = 16;
constexpr std::size_t largestPiece = 65'536;
constexpr std::uint32_t mostInMultiple = 64; // pairs of atoms; an application asks for a few

// The session waits meanwhile. A server that takes longer is stopped or as good as.
constexpr std::chrono::milliseconds patience{200};

constexpr std::chrono::seconds ownersPatience{5}; // for an application to answer, or to send its next piece
constexpr std::chrono::seconds retryPeriod{5}; // where there is no server
constexpr std::size_t mostTypes = 256;

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
    xcb_atom_t content; // the property that owners answer us in
};

// Nothing when the server does not answer.
std::optional<Atoms> internAtoms(const X11Connection& connection)
{
    auto* c = connection.get();
    constexpr std::array<std::string_view, 12> names{"CLIPBOARD", "TARGETS", "TIMESTAMP", "UTF8_STRING",
        "text/plain;charset=utf-8", "text/plain", "TEXT", "INCR", "PELORIN_TIME", "MULTIPLE", "ATOM_PAIR",
        "PELORIN_CONTENT"};
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
        atoms[9], atoms[10], atoms[11]};
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

std::string utf8FromLatin1(const std::string& latin1)
{
    std::string result;
    for (const char c : latin1) {
        const auto byte = static_cast<std::uint8_t>(c);
        if (byte >= 0x80) result += static_cast<char>(0xC0 | byte >> 6);
        result += byte < 0x80 ? c : static_cast<char>(0x80 | (byte & 0x3F));
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
    ++changes;
    readEvents(); // those that came with the reply wake nobody
    return true;
}

bool X11Pasteboard::connect()
{
    readable = {};
    transfers.clear();
    deferred.clear();
    reading.reset();
    nextTry = queue->now() + retryPeriod;
    auto connection = X11Connection::open(display);
    if (!connection) {
        log.warning("no clipboard: {}", connection.error().description);
        return false;
    }
    // Answered before the atoms are, and so without a wait when it is looked at.
    xcb_prefetch_extension_data(connection->get(), &xcb_xfixes_id);
    const auto atoms = internAtoms(*connection);
    if (!atoms) {
        log.warning("no clipboard: the X server does not answer");
        return false;
    }
    owner = std::make_unique<Owner>(std::move(*connection), *atoms);
    auto* c = owner->connection.get();
    if (owner->connection.extension(&xcb_xfixes_id)) {
        xcb_xfixes_query_version(c, 1, 0);
        xcb_xfixes_select_selection_input(
            c, owner->window, atoms->clipboard, XCB_XFIXES_SELECTION_EVENT_MASK_SET_SELECTION_OWNER);
        owner->connection.flush();
    }
    readable = queue->whenReadable(owner->connection.fileDescriptor(), [this] { readEvents(); });
    return true;
}

int X11Pasteboard::changeCount()
{
    queue->assertCurrent();
    const bool isUsable = owner && !owner->connection.isBroken();
    if (!isUsable && queue->now() >= nextTry) {
        owner.reset();
        connect();
    }
    if (owner) readEvents();
    return changes;
}

void X11Pasteboard::ownerChanged(const xcb_generic_event_t& event)
{
    const auto* fixes = owner->connection.extension(&xcb_xfixes_id);
    if (!fixes || (event.response_type & 0x7F) != fixes->first_event + XCB_XFIXES_SELECTION_NOTIFY) return;
    const auto& change = reinterpret_cast<const xcb_xfixes_selection_notify_event_t&>(event);
    if (change.selection != owner->atoms.clipboard || change.owner == owner->window) return;
    ++changes;
    lastChange = change.timestamp;
}

// ---- what others copied

void X11Pasteboard::readText(std::size_t mostBytes, std::function<bool(const Types&)> wants,
    std::function<void(std::optional<std::string>)> done)
{
    queue->assertCurrent();
    reading = Reading{mostBytes, std::move(wants), std::move(done), nullptr, {}};
    if (owner && !owner->connection.isBroken())
        return ask(owner->atoms.targets, mostTypes * sizeof(xcb_atom_t));
    finishReading(std::nullopt);
}

void X11Pasteboard::ask(xcb_atom_t target, std::size_t mostBytes)
{
    reading->read = std::make_unique<X11SelectionRead>(owner->connection, owner->atoms.content,
        owner->atoms.incr, X11SelectionRead::Question{owner->atoms.clipboard, target, lastChange, mostBytes});
    reading->silence = queue->after(ownersPatience, [this] { finishReading(std::nullopt); });
}

void X11Pasteboard::go(X11SelectionRead::Progress progress)
{
    if (progress == X11SelectionRead::Progress::failed) return finishReading(std::nullopt);
    reading->silence = queue->after(ownersPatience, [this] { finishReading(std::nullopt); });
    if (progress != X11SelectionRead::Progress::done) return;

    auto answer = reading->read->takeAnswer();
    if (const auto wants = std::exchange(reading->wants, nullptr)) {
        std::vector<xcb_atom_t> offered(answer.format == 32 ? answer.bytes.size() / sizeof(xcb_atom_t) : 0);
        std::copy_n(answer.bytes.data(), offered.size() * sizeof(xcb_atom_t),
            reinterpret_cast<char*>(offered.data()));
        const xcb_atom_t target = textTarget(offered);
        if (target == XCB_ATOM_NONE || !wants(namesOf(offered))) return finishReading(std::nullopt);
        return ask(target, reading->mostBytes);
    }
    std::string& found = answer.bytes;
    while (found.ends_with('\0')) found.pop_back(); // some programs count the end of a string in
    if (answer.type == XCB_ATOM_STRING || (!isUtf8(found) && answer.type == owner->atoms.plainMime))
        found = utf8FromLatin1(found);
    const bool isGood = answer.format == 8 && isUtf8(found) && found.size() <= reading->mostBytes;
    finishReading(isGood ? std::optional(std::move(found)) : std::nullopt);
}

xcb_atom_t X11Pasteboard::textTarget(const std::vector<xcb_atom_t>& offered) const
{
    const auto& atoms = owner->atoms;
    const xcb_atom_t best[]
        = {atoms.utf8String, atoms.utf8Mime, atoms.plainMime, static_cast<xcb_atom_t>(XCB_ATOM_STRING)};
    const auto* found = std::ranges::find_first_of(best, offered);
    return found == std::end(best) ? static_cast<xcb_atom_t>(XCB_ATOM_NONE) : *found;
}

Pasteboard::Types X11Pasteboard::namesOf(const std::vector<xcb_atom_t>& atoms)
{
    std::vector<xcb_get_atom_name_cookie_t> asked;
    asked.reserve(atoms.size());
    for (const auto atom : atoms) asked.push_back(xcb_get_atom_name(owner->connection.get(), atom));
    Types names;
    for (const auto& cookie : asked) {
        const auto reply = owner->connection.reply<xcb_get_atom_name_reply_t>(
            cookie, patience, [this](const xcb_generic_event_t& event) { deferred.push_back(event); });
        // One that has no name is nobody's type.
        if (reply)
            names.emplace_back(xcb_get_atom_name_name(reply.get()),
                static_cast<std::size_t>(xcb_get_atom_name_name_length(reply.get())));
    }
    return names;
}

void X11Pasteboard::finishReading(std::optional<std::string> found)
{
    auto finished = std::exchange(reading, std::nullopt);
    // Posted, since who is told may destroy us.
    queue->post(
        [alive = lifetime.watch(), done = std::move(finished->done), text = std::move(found)]() mutable {
            if (alive) done(std::move(text));
        });
}

// ---- events

void X11Pasteboard::readEvents()
{
    auto* c = owner->connection.get();
    while (const XcbReply<xcb_generic_event_t> event{xcb_poll_for_event(c)}) deferred.push_back(*event);
    while (!deferred.empty()) {
        const auto event = deferred.front();
        deferred.pop_front();
        handle(event);
        if (!deferred.empty()) continue;
        owner->connection.flush();
        // A flush may read as well, and what it read wakes nobody.
        while (const XcbReply<xcb_generic_event_t> read{xcb_poll_for_queued_event(c)})
            deferred.push_back(*read);
    }
    if (!owner->connection.isBroken()) return;
    readable = {};
    ownedSince.reset();
    transfers.clear();
    if (reading) finishReading(std::nullopt);
}

void X11Pasteboard::handle(const xcb_generic_event_t& event)
{
    ownerChanged(event);
    if (reading && reading->read) {
        const auto later = [this](const xcb_generic_event_t& other) { deferred.push_back(other); };
        const auto progress = reading->read->handle(event, later);
        if (progress != X11SelectionRead::Progress::none) return go(progress);
    }
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
