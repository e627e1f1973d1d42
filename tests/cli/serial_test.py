#!/usr/bin/env python3
"""Whole runs of `qortool list-serial` and `qortool ttyinfo`: on invented hosts, on this host's ports compared with the
kernel's data, with a recorded adapter, and on ports that only another user may open.

usage: serial_test.py --tool PATH [--instrumented]
"""

import argparse
import grp
import os
import pty
import re
import shutil
import subprocess
import sys
import tempfile
import termios
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from name_space import name_space  # noqa: E402  # in tests/support
from tool import NOBODY, Tool, add_options, as_nobody, copy_programs, public_folder  # noqa: E402  # in tests/support

# In a name space of its own, the run sees these folders as its /sys and /dev.
MOUNTED = ["sh", "-c", 'mount --bind "$0/sys" /sys && mount --bind "$0/dev" /dev && exec "$@"']

ADAPTER = """\
P: /devices/pci0000:00/0000:00:14.0/usb1/1-2/1-2.3
N: bus/usb/001/007
E: SUBSYSTEM=usb
E: DEVTYPE=usb_device
E: BUSNUM=001
E: DEVNUM=007
A: busnum=1
A: devpath=2.3
A: idVendor=0403
A: idProduct=6001
A: manufacturer=FTDI
A: product=FT232R USB UART
A: serial=A50285BI

P: /devices/pci0000:00/0000:00:14.0/usb1/1-2/1-2.3/1-2.3:1.0
E: SUBSYSTEM=usb
E: DEVTYPE=usb_interface
A: bInterfaceNumber=00

P: /devices/pci0000:00/0000:00:14.0/usb1/1-2/1-2.3/1-2.3:1.0/ttyUSB0
E: SUBSYSTEM=usb-serial
A: port_number=0

P: /devices/pci0000:00/0000:00:14.0/usb1/1-2/1-2.3/1-2.3:1.0/ttyUSB0/tty/ttyUSB0
N: ttyUSB0
E: DEVNAME=/dev/ttyUSB0
E: SUBSYSTEM=tty
E: MAJOR=188
E: MINOR=0
A: dev=188:0
L: device=../../../ttyUSB0
"""

options = None
tool = None


def run(*words, command=(), program=None, **more):
    """Returns (exit code, standard output, standard error)."""
    done = subprocess.run([*command, *([program] if program else tool.command), "--quiet", *words], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, env=tool.environment(), timeout=250, **more)
    return done.returncode, done.stdout, done.stderr


class MadeUpHosts(unittest.TestCase):
    def setUp(self):
        self.space = name_space()
        if self.space is None:
            self.skipTest("this system has no name spaces for us")
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        for name in ("sys", "dev"):
            (self.folder / name).mkdir()

    def run_there(self, *words):
        return run(*words, command=[*self.space, *MOUNTED, str(self.folder)])

    def add(self, name, device, bus=None):
        place = self.folder / "sys/devices" / device
        terminal = place / "tty" / name
        terminal.mkdir(parents=True)
        (terminal / "dev").write_text("250:0\n")
        (terminal / "device").symlink_to("../..")
        if bus is not None and not (place / "subsystem").exists():
            (self.folder / "sys/bus" / bus).mkdir(parents=True, exist_ok=True)
            (place / "subsystem").symlink_to(os.path.relpath(self.folder / "sys/bus" / bus, place))
        kernel = self.folder / "sys/class/tty"
        kernel.mkdir(parents=True, exist_ok=True)
        (kernel / name).symlink_to(os.path.relpath(terminal, kernel))
        (self.folder / "dev" / name).write_text("")

    def test_no_ports(self):
        (self.folder / "sys/class/tty").mkdir(parents=True)
        self.assertEqual(self.run_there("list-serial"), (0, "Getting ports...\nNo serial ports found\n", ""))

    def test_no_sysfs(self):
        self.assertEqual(self.run_there("list-serial"),
                         (1, "Getting ports...\n", "FAILED to enumerate serial ports - Cannot list the serial "
                          "ports: '/sys/class/tty': No such file or directory.\n"))

    def test_one_port(self):
        self.add("ttyS4", "pci0000:00/0000:00:16.3", "pci")
        self.assertEqual(self.run_there("list-serial"),
                         (0, "Getting ports...\n\nPorts found:\n\nttyS4                           PCI 0000:00:16.3\n"
                          "\nDone, found 1 ports\n", ""))

    def test_order_widths_and_what_is_not_known(self):
        longer = "ttyOfAMakerWhoLikesLongNames10"
        self.add(longer + "0", "serial/b", "spi")
        self.add(longer, "serial/a", "spi")
        self.add("ttyUSB10", "nowhere/d")
        self.add("ttyUSB9", "nowhere/c")
        self.assertEqual(self.run_there("list-serial"),
                         (0, "Getting ports...\n\nPorts found:\n\n"
                          "ttyOfAMakerWhoLikesLongNames10  spi a\n"
                          "ttyOfAMakerWhoLikesLongNames100  spi b\n"
                          "ttyUSB9                         \n"
                          "ttyUSB10                        \n"
                          "\nDone, found 4 ports\n", ""))

    def test_a_port_of_the_host_around_the_container(self):
        self.add("ttyS4", "pci0000:00/0000:00:16.3", "pci")
        (self.folder / "dev/ttyS4").unlink()
        self.assertIn("ttyS4                           PCI 0000:00:16.3, no file /dev/ttyS4\n", self.run_there("list-serial")[1])
        self.assertEqual(self.run_there("ttyinfo", "ttyS4"),
                         (1, "", "FAILED to open serial port ttyS4\nThe serial port 'ttyS4' cannot be opened from here: its "
                          "device file '/dev/ttyS4' is missing.\n"))

    def test_a_port_without_a_uart(self):
        if os.geteuid() != 0:
            self.skipTest("only root can make device files")
        self.add("ttyS5", "platform/serial8250", "platform")
        (self.folder / "sys/class/tty/ttyS5/type").write_text("0\n")
        (self.folder / "dev/ttyS5").unlink()
        os.mknod(self.folder / "dev/ttyS5", 0o20600, os.makedev(4, 127))
        self.assertEqual(self.run_there("list-serial"), (0, "Getting ports...\nNo serial ports found\n", ""))
        self.assertEqual(self.run_there("ttyinfo", "ttyS5"),
                         (1, "", "FAILED to open serial port ttyS5\nThe serial port 'ttyS5' has no hardware behind it.\n"))


class ThisHost(unittest.TestCase):
    def listed(self):
        code, out, err = run("list-serial")
        self.assertEqual((code, err), (0, ""))
        lines = re.findall(r"^(\S+) {2,}(.*)$", out, re.M)
        expected = f"\nDone, found {len(lines)} ports\n" if lines else "No serial ports found\n"
        self.assertTrue(out.endswith(expected), out)
        return dict(lines)

    def test_the_uarts_are_those_of_the_driver(self):
        try:
            text = Path("/proc/tty/driver/serial").read_text()
        except OSError as reason:
            self.skipTest(f"the driver's own list cannot be read: {reason}")
        theirs = {f"ttyS{number}" for number, uart in re.findall(r"^(\d+): uart:(\S+)", text, re.M) if uart != "unknown"}
        self.assertEqual({name for name in self.listed() if re.fullmatch(r"ttyS\d+", name)}, theirs)

    def test_no_port_is_what_the_kernel_has_as_a_console_or_a_pseudo_terminal(self):
        try:
            table = Path("/proc/tty/drivers").read_text()
        except OSError as reason:
            self.skipTest(f"the table of drivers cannot be read: {reason}")
        files = [line.split()[1] for line in table.splitlines() if not line.endswith(" serial")]
        for name in self.listed():
            self.assertNotIn("/dev/" + re.sub(r"\d+$", "", name), files)

    def test_each_uart_that_is_listed_can_be_asked_for(self):
        for name, location in self.listed().items():
            # A device at an adapter may restart when its port is opened.
            if not re.fullmatch(r"ttyS\d+", name):
                continue
            code, out, err = run("ttyinfo", name)
            if code == 0:
                self.assertEqual((out, err), (f"Port name = '{name}'\nLocation = '{location}'\n", ""))
            else:
                self.assertRegex(err, rf"\AFAILED to open serial port {name}\n.*{name}.*\n\Z")


class PseudoTerminals(unittest.TestCase):
    def setUp(self):
        ends = pty.openpty()
        for end in ends:
            self.addCleanup(os.close, end)
        self.end = ends[1]
        self.name = os.ttyname(self.end)

    def test_one_is_opened_by_its_path_and_left_as_it_was(self):
        before = termios.tcgetattr(self.end)
        self.assertEqual(run("ttyinfo", self.name),
                         (0, f"Port name = '{self.name[5:]}'\nLocation = 'pseudo-terminal'\n", ""))
        self.assertEqual(termios.tcgetattr(self.end), before)

    def refused(self, mode, group):
        if os.geteuid() != 0:
            self.skipTest("only root can give a port to others")
        os.chown(self.name, 0, group)
        os.chmod(self.name, mode)

        with public_folder() as folder:
            program = str(copy_programs(tool.path.parent, Path(folder)))
            code, out, err = run("ttyinfo", self.name, program=program, cwd=folder, **as_nobody())
        self.assertEqual((code, out), (1, ""))
        lead, reason = err.splitlines()
        self.assertEqual(lead, f"FAILED to open serial port {self.name}")
        return reason

    def test_one_that_a_group_may_open(self):
        group = next(group for group in grp.getgrall() if group.gr_gid not in (0, NOBODY))
        self.assertEqual(self.refused(0o660, group.gr_gid),
                         f"You do not have permission to open the serial port '{self.name}'. Members of the group "
                         f"'{group.gr_name}' do; log in again after joining it.")

    def test_one_of_a_group_without_a_name(self):
        self.assertIn("the group '54321'", self.refused(0o660, 54321))

    def test_one_that_its_owner_alone_may_open(self):
        self.assertEqual(self.refused(0o620, 5), f"You do not have permission to open the serial port '{self.name}'. Only the user 'root' does.")


class RecordedAdapter(unittest.TestCase):
    def test_its_port_is_found(self):
        if options.instrumented:
            self.skipTest("a sanitizer's library wants the place of umockdev's")
        if shutil.which("umockdev-run") is None:
            self.skipTest("there is no umockdev")
        with tempfile.TemporaryDirectory(prefix="qor.") as folder:
            record = Path(folder) / "adapter.umockdev"
            record.write_text(ADAPTER)
            # The program accepts only ASCII words, but the path of the build may have other characters.
            program = str(copy_programs(tool.path.parent, Path(folder)))
            code, out, err = run("list-serial", command=["umockdev-run", "--device", str(record), "--"], program=program)
        self.assertEqual((code, err), (0, ""))
        self.assertIn("\nttyUSB0                         USB bus 1, port 2.3: FTDI FT232R USB UART, serial A50285BI\n", out)


def main():
    global options, tool
    parser = argparse.ArgumentParser()
    add_options(parser)
    parser.add_argument("--instrumented", action="store_true")
    options, rest = parser.parse_known_args()
    tool = Tool(options.tool, options.runner)
    unittest.main(argv=[sys.argv[0], *rest])


if __name__ == "__main__":
    main()
