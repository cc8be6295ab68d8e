"""GeoClue and UPower on a bus of their own, which goes when the standard input ends. Prints the bus's address, then what
is called; runs the lines of Python that it is given."""
import os
import subprocess
import sys

import dbus
import dbus.mainloop.glib
from dbusmock.mockobject import DBusMockObject, objects
from gi.repository import GLib

daemon = subprocess.Popen(['dbus-daemon', '--session', '--nofork', '--print-address'], stdout=subprocess.PIPE, text=True)
address = os.environ['DBUS_SYSTEM_BUS_ADDRESS'] = daemon.stdout.readline().strip()
dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
bus = dbus.SystemBus()
GEOCLUE, CLIENT = 'org.freedesktop.GeoClue2', '/org/freedesktop/GeoClue2/Client/1'
BATTERY = '/org/freedesktop/UPower/devices/DisplayDevice'
END = 'daemon.kill(); daemon.wait(); os._exit(0)'
started = 'pass'  # what Start does


def own(name, path, interface):
    objects[path] = DBusMockObject(dbus.service.BusName(name, bus), path, interface, {})
    return objects[path]


def fix(number, **values):
    path = dbus.ObjectPath('/org/freedesktop/GeoClue2/Location/%d' % number)
    manager.AddObject(path, GEOCLUE + '.Location', values, [])
    objects[CLIENT].EmitSignal(GEOCLUE + '.Client', 'LocationUpdated', 'oo', [dbus.ObjectPath('/'), path])


def at(seconds, microseconds):
    return dbus.Struct((dbus.UInt64(seconds), dbus.UInt64(microseconds)))


def obey(*_):
    try:
        exec(os.read(0, 4096) or END, globals())
    except Exception as error:
        print(repr(error), file=sys.stderr)
        exec(END)
    return True


manager = own(GEOCLUE, '/org/freedesktop/GeoClue2/Manager', GEOCLUE + '.Manager')
manager.AddMethod('', 'GetClient', '', 'o', 'ret = dbus.ObjectPath("%s")' % CLIENT)
manager.AddObject(CLIENT, GEOCLUE + '.Client', {
    'DesktopId': '', 'Active': True, 'DistanceThreshold': dbus.UInt32(9),
    'TimeThreshold': dbus.UInt32(9), 'RequestedAccuracyLevel': dbus.UInt32(0)},
    [('Start', '', '', lambda client: exec(started)), ('Stop', '', '', '')])
own('org.freedesktop.UPower', '/org/freedesktop/UPower', 'org.freedesktop.UPower').AddTemplate('upower', {})
GLib.io_add_watch(0, GLib.IO_IN | GLib.IO_HUP, obey)
print(address, flush=True)
GLib.MainLoop().run()
