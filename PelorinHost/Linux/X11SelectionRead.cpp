#include "PelorinHost/Linux/X11SelectionRead.h"

namespace pelorin {
namespace {

constexpr std::chrono::milliseconds patience{200}; // the property is the server's own; the session waits

} // namespace

X11SelectionRead::X11SelectionRead(
    const X11Connection& newConnection, xcb_atom_t newProperty, xcb_atom_t newIncr, const Question& question)
    : connection(newConnection),
      property(newProperty),
      incr(newIncr),
      mostBytes(question.mostBytes),
      window(xcb_generate_id(newConnection.get()))
{
    const std::uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb_create_window(connection.get(), 0, window, connection.root(), -1, -1, 1, 1, 0,
        XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT, XCB_CW_EVENT_MASK, &events);
    xcb_convert_selection(
        connection.get(), window, question.selection, question.target, property, question.time);
    connection.flush();
}

X11SelectionRead::~X11SelectionRead()
{
    xcb_destroy_window(connection.get(), window);
    connection.flush();
}

X11SelectionRead::Progress X11SelectionRead::handle(
    const xcb_generic_event_t& event, const X11Connection::EventHandler& later)
{
    switch (event.response_type & 0x7F) {
    case XCB_SELECTION_NOTIFY: {
        const auto& notice = reinterpret_cast<const xcb_selection_notify_event_t&>(event);
        if (notice.requestor != window || comesInPieces) return Progress::none;
        return notice.property == property ? takePiece(later) : Progress::failed;
    }
    case XCB_PROPERTY_NOTIFY: {
        const auto& change = reinterpret_cast<const xcb_property_notify_event_t&>(event);
        const bool isPiece = change.window == window && change.atom == property
            && change.state == XCB_PROPERTY_NEW_VALUE && comesInPieces;
        return isPiece ? takePiece(later) : Progress::none;
    }
    default:
        return Progress::none;
    }
}

X11SelectionRead::Progress X11SelectionRead::takePiece(const X11Connection::EventHandler& later)
{
    // Taking the whole of a property deletes it, by which the owner knows that the next piece may come. One
    // unit more than may be: so a longer one shows.
    const auto units = static_cast<std::uint32_t>((mostBytes - answer.bytes.size()) / 4 + 1);
    const auto piece = connection.reply<xcb_get_property_reply_t>(
        xcb_get_property(connection.get(), 1, window, property, XCB_GET_PROPERTY_TYPE_ANY, 0, units),
        patience, later);
    if (!piece) return Progress::failed;
    if (!comesInPieces && piece->type == incr) {
        comesInPieces = true;
        return Progress::some;
    }
    const auto size = static_cast<std::size_t>(xcb_get_property_value_length(piece.get()));
    if (piece->bytes_after > 0 || answer.bytes.size() + size > mostBytes) return Progress::failed;
    const bool isLast = !comesInPieces || size == 0;
    if (answer.type == XCB_ATOM_NONE) {
        answer.type = piece->type;
        answer.format = piece->format;
    }
    answer.bytes.append(static_cast<const char*>(xcb_get_property_value(piece.get())), size);
    return isLast ? Progress::done : Progress::some;
}

} // namespace pelorin
