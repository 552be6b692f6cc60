#!/usr/bin/python3
"""A desktop's tray, as far as one item of it: `serve` takes the item in, `menu` prints its state and its menu's texts as
JSON, `click TEXT` chooses an entry. The session bus is the meeting place."""
import json
import sys
import zlib

import dbus
import dbus.service
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

WATCHER = "org.kde.StatusNotifierWatcher"
ITEM = "org.kde.StatusNotifierItem"
MENU = "com.canonical.dbusmenu"
PROPERTIES = "org.freedesktop.DBus.Properties"


class Watcher(dbus.service.Object):
    def __init__(self, bus):
        self.items = []
        self.name = dbus.service.BusName(WATCHER, bus)
        super().__init__(bus, "/StatusNotifierWatcher")

    @dbus.service.method(WATCHER, in_signature="s", sender_keyword="sender")
    def RegisterStatusNotifierItem(self, item, sender=None):
        self.items.append(sender)

    @dbus.service.method("org.freedesktop.DBus.Introspectable", out_signature="s")
    def Introspect(self):  # the library's own leaves properties out
        return f"""<node><interface name="{WATCHER}">
            <method name="RegisterStatusNotifierItem"><arg type="s" direction="in"/></method>
            <property name="IsStatusNotifierHostRegistered" type="b" access="read"/>
            <signal name="StatusNotifierHostRegistered"/></interface></node>"""

    @dbus.service.method(PROPERTIES, in_signature="ss", out_signature="v")
    def Get(self, interface, name):
        return self.GetAll(interface)[name]

    @dbus.service.method(PROPERTIES, in_signature="s", out_signature="a{sv}")
    def GetAll(self, interface):
        return {
            "IsStatusNotifierHostRegistered": dbus.Boolean(True),
            "ProtocolVersion": dbus.Int32(0),
            "RegisteredStatusNotifierItems": dbus.Array(self.items, signature="s"),
        }


def entries(layout):
    """(id, text, is enabled) of every entry, groups opened."""
    number, properties, children = layout
    found = []
    if "label" in properties:
        found.append((int(number), str(properties["label"]), bool(properties.get("enabled", True))))
    for child in children:
        found += entries(child)
    return found


def main():
    DBusGMainLoop(set_as_default=True)
    bus = dbus.SessionBus()
    if sys.argv[1] == "serve":
        watcher = Watcher(bus)
        GLib.MainLoop().run()
        return watcher
    known = bus.get_object(WATCHER, "/StatusNotifierWatcher").Get(WATCHER, "RegisteredStatusNotifierItems",
                                                                  dbus_interface=PROPERTIES)
    if not known:
        return print("{}")
    item = bus.get_object(known[-1], "/StatusNotifierItem")
    state = item.GetAll(ITEM, dbus_interface=PROPERTIES)
    menu = dbus.Interface(bus.get_object(known[-1], state["Menu"]), MENU)
    found = entries(menu.GetLayout(0, -1, [])[1])
    if sys.argv[1] == "menu":
        icon = [list(map(int, picture[:2])) for picture in state["IconPixmap"]]
        drawn = zlib.crc32(bytes(state["IconPixmap"][-1][2])) if icon else 0
        return print(json.dumps({"icon": icon, "picture": drawn, "tip": str(state["ToolTip"][2]),
                                 "menu": [text for _, text, _ in found]}, ensure_ascii=False))
    number = next(number for number, text, enabled in found if text == sys.argv[2] and enabled)
    menu.Event(number, "clicked", "", 0)


main()
