#!/usr/bin/python3
"""A stand-in for the desktop's camera portal, for tests on a private session bus.

Owns org.freedesktop.portal.Desktop and serves org.freedesktop.portal.Camera at
/org/freedesktop/portal/desktop: AccessCamera answers with a Request object that then emits
Response with the code given on the command line (0 granted, 1 refused, 2 ended), and
OpenPipeWireRemote hands out a new connection to the PipeWire daemon's socket
($PIPEWIRE_RUNTIME_DIR/pipewire-0, else $XDG_RUNTIME_DIR/pipewire-0).

Usage: mockportal.py RESPONSE. Prints "ready" once the name is owned; ends when its standard
input closes or on SIGTERM.
"""
import os
import signal
import socket
import sys

import dbus
import dbus.service
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

PORTAL = "org.freedesktop.portal.Desktop"
PATH = "/org/freedesktop/portal/desktop"
CAMERA = "org.freedesktop.portal.Camera"
REQUEST = "org.freedesktop.portal.Request"


class Request(dbus.service.Object):
    @dbus.service.method(REQUEST)
    def Close(self):
        self.remove_from_connection()

    @dbus.service.signal(REQUEST, signature="ua{sv}")
    def Response(self, code, results):
        pass


class Camera(dbus.service.Object):
    def __init__(self, bus, response):
        super().__init__(bus, PATH)
        self.bus = bus
        self.response = response

    @dbus.service.method(CAMERA, in_signature="a{sv}", out_signature="o", sender_keyword="sender")
    def AccessCamera(self, options, sender):
        token = str(options.get("handle_token", "t%d" % id(options)))
        path = "%s/request/%s/%s" % (PATH, sender[1:].replace(".", "_"), token)
        request = Request(self.bus, path)

        # The answer comes after the reply, as the user's would.
        def answer():
            request.Response(dbus.UInt32(self.response), dbus.Dictionary({}, signature="sv"))
            request.remove_from_connection()
            return False

        GLib.idle_add(answer)
        return dbus.ObjectPath(path)

    @dbus.service.method(CAMERA, in_signature="a{sv}", out_signature="h")
    def OpenPipeWireRemote(self, options):
        folder = os.environ.get("PIPEWIRE_RUNTIME_DIR") or os.environ["XDG_RUNTIME_DIR"]
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as remote:
            remote.connect(os.path.join(folder, "pipewire-0"))
            return dbus.types.UnixFd(remote)  # a duplicate travels


def main():
    DBusGMainLoop(set_as_default=True)
    bus = dbus.SessionBus()
    loop = GLib.MainLoop()
    camera = Camera(bus, int(sys.argv[1]))
    name = dbus.service.BusName(PORTAL, bus, do_not_queue=True)
    GLib.io_add_watch(sys.stdin.fileno(), GLib.IO_IN | GLib.IO_HUP,
                      lambda *_: loop.quit() or False)
    GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGTERM, lambda: loop.quit() or False)
    print("ready", flush=True)
    loop.run()
    del camera, name


if __name__ == "__main__":
    main()
