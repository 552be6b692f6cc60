#pragma once

#include "PelorinHost/Linux/X11Connection.h"

#include <optional>

namespace pelorin {

// One question to the owner of a selection (ICCCM 2.4), answered at once or piece by piece (INCR, 2.7.2).
// Asked from a window of its own, so that an owner that is left in the middle notices, and what it still
// sends reaches nobody. Queue: the connection's. Owned by the X11Pasteboard.
class X11SelectionRead {
public:
    struct Question {
        xcb_atom_t selection = XCB_ATOM_NONE;
        xcb_atom_t target = XCB_ATOM_NONE;
        xcb_timestamp_t time = XCB_CURRENT_TIME; // of the event that led to it
        std::size_t mostBytes = 0; // a longer answer counts as none
    };
    struct Answer {
        xcb_atom_t type = XCB_ATOM_NONE;
        int format = 0; // bits of an item
        std::string bytes;
    };
    enum class Progress { none, some, done, failed };

    X11SelectionRead(
        const X11Connection& connection, xcb_atom_t property, xcb_atom_t incr, const Question& question);
    ~X11SelectionRead();
    X11SelectionRead(const X11SelectionRead&) = delete;
    X11SelectionRead& operator=(const X11SelectionRead&) = delete;

    // What an event of the connection brings; none for one that is not about this. Other events met while
    // asking the server go to later.
    Progress handle(const xcb_generic_event_t& event, const X11Connection::EventHandler& later);
    Answer takeAnswer() { return std::move(answer); } // once done

private:
    Progress takePiece(const X11Connection::EventHandler& later);

    const X11Connection& connection;
    const xcb_atom_t property;
    const xcb_atom_t incr;
    const std::size_t mostBytes;
    const xcb_window_t window;
    bool comesInPieces = false;
    Answer answer;
};

} // namespace pelorin
