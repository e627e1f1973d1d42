"""A fresh Debian in a folder of its own, and programs that run in it: in name spaces of their own, without an init
system, and with no file of the host in sight."""

import os
import shutil
import socket
import subprocess
import tarfile
import threading
import time
from pathlib import Path

# What is made once serves for some days; apt brings it up to date.
OLDEST = 7 * 24 * 3600

# Folders whose contents are those of apt and dpkg themselves.
OF_APT = ("var/lib/dpkg", "var/lib/apt", "var/cache", "var/log", "packages", "tmp", "etc/ld.so.cache")

ENTER = """
mount -t proc proc "$1/proc"
mount -t tmpfs tmpfs "$1/tmp"
exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 HOME=/tmp/home DEBIAN_FRONTEND=noninteractive \\
    chroot "$1" sh -c "$2"
"""


class NoRoom(Exception):
    """There cannot be such a Debian here; the text says why."""


def archive(suite, folder):
    """Returns the path of a tar with a minimal Debian."""
    if os.geteuid() != 0:
        raise NoRoom("making a Debian takes root")
    for program in "mmdebstrap", "unshare":
        if not shutil.which(program):
            raise NoRoom(f"there is no {program} here")
    if subprocess.run(["unshare", "--mount", "--pid", "--fork", "true"], capture_output=True).returncode != 0:
        raise NoRoom("this system forbids name spaces of one's own")
    path = folder / f"debian-{suite}.tar"
    if not path.exists() or time.time() - path.stat().st_mtime > OLDEST:
        folder.mkdir(parents=True, exist_ok=True)
        half = folder / f"debian-{suite}.{os.getpid()}.tar"
        try:
            done = subprocess.run(["mmdebstrap", "--quiet", "--variant=apt", "--dpkgopt=force-unsafe-io", suite, half],
                                  stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                  timeout=1500)
            if done.returncode != 0:
                reason = done.stdout.strip() or "mmdebstrap does not say why"
                raise NoRoom(f"no Debian {suite} can be made here: {reason}")
            half.rename(path)
        finally:
            half.unlink(missing_ok=True)
    return path


class Room:
    def __init__(self, suite, tars, folder):
        """Unpacks the Debian of `tars` to `folder`."""
        self.folder = Path(folder)
        with tarfile.open(archive(suite, tars)) as packed:
            packed.extractall(self.folder)
        shutil.copy("/etc/resolv.conf", self.folder / "etc/resolv.conf")
        (self.folder / "packages").mkdir()
        # What programs there write to the system's log.
        self.log = []
        place = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        place.bind(str(self.folder / "dev/log"))
        threading.Thread(target=self.listen, args=[place], daemon=True).start()

    def listen(self, place):
        while True:
            self.log.append(place.recv(65536).decode(errors="replace"))

    def run(self, script, text="", seconds=600):
        """Runs a script of sh, and ends what it has left running. Returns its exit code, and what it has printed."""
        inside = ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--propagation", "private"]
        done = subprocess.run([*inside, "sh", "-ec", ENTER, "sh", self.folder, script], input=text,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace",
                              timeout=seconds)
        return done.returncode, done.stdout

    def files(self):
        """Returns what there is, without what belongs to apt and dpkg themselves."""
        found = set()
        for folder, folders, names in os.walk(self.folder):
            inside = Path(folder).relative_to(self.folder).as_posix()
            folders[:] = [each for each in folders
                          if f"{inside}/{each}".removeprefix("./") not in ("proc", "sys", "dev")]
            found |= {f"{inside}/{each}".removeprefix("./") for each in folders + names}
        return {each for each in found if not each.startswith(OF_APT)}
