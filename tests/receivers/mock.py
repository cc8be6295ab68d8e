"""GeoClue and UPower for tests, driven by lines of Python on the standard input. What is called is printed."""
import os

import dbus
import dbus.mainloop.glib
from dbusmock.mockobject import DBusMockObject, objects
from gi.repository import GLib

dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
GEOCLUE, CLIENT = 'org.freedesktop.GeoClue2', '/org/freedesktop/GeoClue2/Client/1'
BATTERY = '/org/freedesktop/UPower/devices/DisplayDevice'
started = 'pass'  # what Start does


def own(name, path, interface):
    bus_name = dbus.service.BusName(name, dbus.SystemBus(), do_not_queue=True)
    objects[path] = DBusMockObject(bus_name, path, interface, {})
    return objects[path]


def fix(number, **values):
    path = dbus.ObjectPath('/org/freedesktop/GeoClue2/Location/%d' % number)
    manager.AddObject(path, GEOCLUE + '.Location', values, [])
    objects[CLIENT].EmitSignal(GEOCLUE + '.Client', 'LocationUpdated', 'oo', [dbus.ObjectPath('/'), path])


def at(seconds, microseconds):
    return dbus.Struct((dbus.UInt64(seconds), dbus.UInt64(microseconds)))


def change(path, interface, **values):
    objects[path].UpdateProperties(interface, values)


manager = own(GEOCLUE, '/org/freedesktop/GeoClue2/Manager', GEOCLUE + '.Manager')
manager.AddMethod('', 'GetClient', '', 'o', 'ret = dbus.ObjectPath("%s")' % CLIENT)
manager.AddObject(CLIENT, GEOCLUE + '.Client', {
    'DesktopId': '', 'Active': True, 'DistanceThreshold': dbus.UInt32(9),
    'TimeThreshold': dbus.UInt32(9), 'RequestedAccuracyLevel': dbus.UInt32(0)},
    [('Start', '', '', lambda client: exec(started)), ('Stop', '', '', '')])
own('org.freedesktop.UPower', '/org/freedesktop/UPower', 'org.freedesktop.UPower').AddTemplate('upower', {})
GLib.io_add_watch(0, GLib.IO_IN | GLib.IO_HUP, lambda *_: exec(os.read(0, 4096) or 'os._exit(0)', globals()) or True)
print('ready', flush=True)
GLib.MainLoop().run()
