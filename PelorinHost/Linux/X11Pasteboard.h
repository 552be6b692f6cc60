#pragma once

#include "PelorinHost/Linux/X11Connection.h"
#include "PelorinHost/Linux/X11SelectionRead.h"
#include "PelorinHost/Platform/Pasteboard.h"
#include "PelorinNet/Log.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <array>
#include <deque>
#include <map>
#include <optional>

namespace pelorin {

// The CLIPBOARD selection (ICCCM 2): we own it with our text until somebody else takes it, and hand the text
// to each application that asks, in pieces (INCR) when it is larger than one request may be. Who takes it we
// hear from XFIXES, and ask for its text when it is wanted. Connects when first used. Queue: the session's.
// Owned by the PhoneInput.
class X11Pasteboard final : public Pasteboard {
public:
    X11Pasteboard(QueueRef newQueue, std::string newDisplay);
    ~X11Pasteboard() override;

    bool setText(const std::string& newText) override;
    int changeCount() override;
    void readText(std::size_t mostBytes, std::function<bool(const Types&)> wants,
        std::function<void(std::optional<std::string>)> done) override;

private:
    struct Owner; // one connection with its window

    // One application being given a large text; it deletes the property when it has read a piece.
    struct Transfer {
        xcb_atom_t type = XCB_ATOM_NONE;
        std::string text;
        std::size_t sent = 0;
    };
    using TransferKey = std::pair<xcb_window_t, xcb_atom_t>; // requestor, property

    // A question about somebody else's content: first for its kinds, then for the text.
    struct Reading {
        std::size_t mostBytes = 0;
        std::function<bool(const Types&)> wants; // empty once it was asked
        std::function<void(std::optional<std::string>)> done;
        std::unique_ptr<X11SelectionRead> read;
        Subscription silence; // of the owner
    };

    bool connect();
    void ownerChanged(const xcb_generic_event_t& event);
    void ask(xcb_atom_t target, std::size_t mostBytes);
    void go(X11SelectionRead::Progress progress);
    xcb_atom_t textTarget(const std::vector<xcb_atom_t>& offered) const;
    Types namesOf(const std::vector<xcb_atom_t>& atoms);
    void finishReading(std::optional<std::string> found);
    void readEvents();
    void handle(const xcb_generic_event_t& event);
    void answer(const xcb_selection_request_event_t& request);
    bool convert(xcb_window_t requestor, xcb_atom_t target, xcb_atom_t property);
    bool convertMultiple(xcb_window_t requestor, xcb_atom_t property);
    void deliver(xcb_window_t requestor, xcb_atom_t property, xcb_atom_t type);
    void sendPiece(const TransferKey& key);

    const QueueRef queue;
    const std::string display;
    const Log log{"clipboard"};
    std::unique_ptr<Owner> owner;
    std::string text;
    std::optional<xcb_timestamp_t> ownedSince; // while the selection is ours
    int changes = 0;
    xcb_timestamp_t lastChange = XCB_CURRENT_TIME; // by somebody else
    SteadyTime nextTry; // to connect, for who only wants to know
    std::optional<Reading> reading;
    std::map<TransferKey, Transfer> transfers;
    std::deque<xcb_generic_event_t> deferred; // met while a question of ours was open
    Subscription readable; // after the owner, whose descriptor it watches
    Lifetime lifetime;
};

} // namespace pelorin
