#!/usr/bin/python3
"""An application with a clipboard, of a toolkit's own kind: clipboard_peer.py gtk|qt copy|conceal|paste|entry.

copy offers what comes in on standard input, and says "copied" once it does, until it is killed; conceal does so as
password managers do (qt only). paste prints the clipboard's text. entry shows a line to type into, says "ready" when it has the focus, and
prints what was typed once that ends in a full stop (gtk only)."""
import sys

toolkit, action = sys.argv[1:]
text = None if action in ("paste", "entry") else sys.stdin.buffer.read().decode()


def say(what):
    sys.stdout.buffer.write(what.encode())
    sys.stdout.flush()


if toolkit == "gtk":
    import gi

    gi.require_version("Gdk", "3.0")
    gi.require_version("Gtk", "3.0")
    from gi.repository import Gdk, Gtk

    clipboard = Gtk.Clipboard.get(Gdk.SELECTION_CLIPBOARD)
    if action == "entry":
        entry = Gtk.Entry()
        window = Gtk.Window()
        window.add(entry)
        entry.connect("focus-in-event", lambda *_: say("ready\n"))
        entry.connect("changed", lambda _: entry.get_text().endswith(".") and say(entry.get_text()))
        window.show_all()
        Gtk.main()
    elif text is None:
        say(clipboard.wait_for_text() or "")
    else:
        clipboard.set_text(text, -1)
        say("copied")
        Gtk.main()
else:
    from PyQt5.QtCore import QMimeData
    from PyQt5.QtWidgets import QApplication

    application = QApplication(["clipboard-peer"])
    clipboard = application.clipboard()
    if text is None:
        say(clipboard.text())
    else:
        data = QMimeData()
        data.setText(text)
        if action == "conceal":
            data.setData("x-kde-passwordManagerHint", b"secret")
        clipboard.setMimeData(data)
        application.processEvents()
        say("copied")
        application.exec_()
