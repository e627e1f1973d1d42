#!/usr/bin/python3
"""Runs a command beside a mocked manager of services, on a bus of its own: mocked_manager.py COMMAND..."""

import contextlib
import os
import subprocess
import sys
import tempfile
from pathlib import Path

TEMPLATE = Path(__file__).resolve().parent / "manager_template.py"
NAME = "org.freedesktop.systemd1"
CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:dir={folder}</listen>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
    <allow user="*"/>
  </policy>
  <limit name="max_connections_per_user">100000</limit>
  <limit name="max_completed_connections">100000</limit>
  <limit name="max_match_rules_per_connection">100000</limit>
</busconfig>
"""


class Bus:
    """A bus without a manager."""

    def __init__(self):
        self.folder = tempfile.TemporaryDirectory(prefix="qor.")
        os.chmod(self.folder.name, 0o755)
        file = Path(self.folder.name, "bus.conf")
        file.write_text(CONFIGURATION.format(folder=self.folder.name))
        self.process = subprocess.Popen(["dbus-daemon", f"--config-file={file}", "--nofork", "--print-address"],
                                        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL,
                                        text=True)
        self.address = self.process.stdout.readline().strip()
        assert self.address, "dbus-daemon did not start"

    def end(self):
        self.process.terminate()
        self.process.communicate()
        self.folder.cleanup()


class Manager:
    """A mocked manager on this bus. It is there when the constructor returns."""

    def __init__(self, bus):
        self.bus = bus
        self.environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": bus.address,
                            "DBUS_SESSION_BUS_ADDRESS": bus.address}
        self.process = subprocess.Popen(
            ["/usr/bin/python3", "-m", "dbusmock", "--system", "--template", TEMPLATE, "--logfile", os.devnull],
            env=self.environment, stdin=subprocess.DEVNULL)
        # Its name is there before its methods are, and it answers in turn.
        while self.process.poll() is None and not self.answers():
            pass
        assert self.process.poll() is None, "the mocked manager did not start"

    def answers(self):
        done = subprocess.run(
            ["dbus-send", "--system", "--print-reply", f"--dest={NAME}", "/org/freedesktop/systemd1",
             "org.freedesktop.systemd1.Manager.Subscribe"], env=self.environment, capture_output=True)
        return done.returncode == 0

    def end(self):
        self.process.terminate()
        self.process.wait()


@contextlib.contextmanager
def running_bus():
    bus = Bus()
    try:
        yield bus
    finally:
        bus.end()


@contextlib.contextmanager
def running_manager():
    with running_bus() as bus:
        manager = Manager(bus)
        try:
            yield manager
        finally:
            manager.end()


def main():
    with running_manager() as manager:
        return subprocess.run(sys.argv[1:], env=manager.environment).returncode


if __name__ == "__main__":
    sys.exit(main())
