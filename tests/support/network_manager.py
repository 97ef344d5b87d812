"""Plays NetworkManager on a private system bus.

usage: network_manager.py DIRECTORY

The bus listens on DIRECTORY/bus. Prints "ready" when it does, then obeys one command a line on standard input and
answers each with "done" or "failed: why":

    appear STATE CONNECTIVITY METERED   take the name, with these values (NetworkManager's numbers)
    set PROPERTY VALUE                  change one and tell
    vanish                              leave the bus
    stop-bus                            end the bus itself

It ends, with all that it started, at the end of its input.
"""

import ctypes
import os
import signal
import subprocess
import sys

import dbus
import dbusmock

NAME = "org.freedesktop.NetworkManager"
PATH = "/org/freedesktop/NetworkManager"
CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path={socket}</listen>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
"""


def die_with_parent():
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG: a killed test leaves no bus behind


class Network:
    def __init__(self, directory):
        socket = os.path.join(directory, "bus")
        config = os.path.join(directory, "bus.conf")
        with open(config, "w", encoding="utf-8") as file:
            file.write(CONFIG.format(socket=socket))
        os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=" + socket
        log = os.path.join(directory, "bus.log")
        with open(log, "w", encoding="utf-8") as file:
            self.bus = subprocess.Popen(
                ["dbus-daemon", "--nofork", "--print-address=1", "--config-file=" + config],
                stdout=subprocess.PIPE, stderr=file, preexec_fn=die_with_parent)
        if not self.bus.stdout.readline():
            with open(log, encoding="utf-8") as file:
                sys.exit("dbus-daemon did not start: " + file.read())
        self.server = None
        self.mock = None

    def appear(self, state, connectivity, metered):
        self.server = dbusmock.DBusTestCase.spawn_server(NAME, PATH, NAME, system_bus=True,
                                                          stdout=subprocess.DEVNULL)
        connection = dbusmock.DBusTestCase.get_dbus(system_bus=True)
        self.mock = dbus.Interface(connection.get_object(NAME, PATH), dbusmock.MOCK_IFACE)
        values = {"State": dbus.UInt32(state), "Connectivity": dbus.UInt32(connectivity),
                  "Metered": dbus.UInt32(metered)}
        self.mock.AddProperties(NAME, values)
        self.mock.UpdateProperties(NAME, values)

    def set(self, name, value):
        self.mock.UpdateProperties(NAME, {name: dbus.UInt32(value)})

    def vanish(self):
        self.server.terminate()
        self.server.wait()
        self.server = None

    def stop_bus(self):
        self.bus.terminate()
        self.bus.wait()

    def close(self):
        if self.server:
            self.vanish()
        self.stop_bus()


def obey(network, line):
    words = line.split()
    getattr(network, words[0].replace("-", "_"))(*words[1:])


def main():
    network = Network(sys.argv[1])
    try:
        print("ready", flush=True)
        for line in sys.stdin:
            try:
                obey(network, line)
                print("done", flush=True)
            except Exception as error:  # told to the test, which fails with it
                print("failed:", str(error).replace("\n", " "), flush=True)
    finally:
        network.close()


main()
