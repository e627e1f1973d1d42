#!/usr/bin/env python3
"""Measures how long each side takes to notice that the other one is gone: frozen, unplugged, killed, or ended in order.

usage: dead_peer_test.py --tool QORTOOL --ticker TICKER {processes|unplugged}

The exit code is 77 if this system does not allow the network to be made.
"""

import argparse
import concurrent.futures
import os
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path += [str(HERE.parent), str(HERE.parent.parent / "support")]
import console_test  # noqa: E402  # for its console
import listening  # noqa: E402  # for its accounts
from tool import Tool  # noqa: E402

SKIPPED = 77
INSIDE = "QOR_TEST_INSIDE"
PROMPT = console_test.PROMPT
LOST = (0, "", "Debug connection lost\n")
WHOLE = "QOR_TEST_LOAD" in os.environ

SILENT = 20  # seconds after which a dead peer must be noticed
CLOSED = 1  # the same for a peer that ended
PATIENCE = 60  # of this test: a busy machine is not a failure

tool = None
ticker = None


class Impossible(Exception):
    """This system does not allow the network to be made."""


class Pair:
    """A listening process, and a console that is logged in to it or about to log in."""

    def __init__(self, host="localhost", listen=(), connect=(), log_in=True):
        self.folder = tempfile.TemporaryDirectory(prefix="qor.")
        path = Path(self.folder.name)
        users = path / "users"
        users.touch(mode=0o600)
        users.write_text(f"ann:{listening.verifier(b'secret')}\n")
        self.trace = path / "trace"
        self.environment = tool.environment() | {"XDG_CONFIG_HOME": str(path), "HOME": str(path)}
        self.host, self.connect = host, connect
        address = "0" if host == "localhost" else f"{host}:0"
        self.listener = subprocess.Popen([*listen, *ticker.command, "20", f"--qor-debug-listen={address}", f"--qor-debug-users={users}",
                                          f"--qor-debug-file={self.trace}", "--qor-debug=system.debug-control"],
                                         stdin=subprocess.DEVNULL, env=self.environment)
        self.port = self.wait_for("listening on ").rsplit(" port ", 1)[1]
        listening.trust(tool, users, host, self.port, self.environment)
        self.console = self.new_console(log_in)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for process in (self.listener, self.console.process):
            if process.poll() is None:
                process.kill()
                process.wait()
        self.console.limit.cancel()
        self.folder.cleanup()

    def new_console(self, log_in=True):
        console = console_test.Input([*self.connect, *tool.command, "--quiet", "debug-control", self.host, self.port], self.environment)
        if log_in:
            console.say("ann", "secret")
            assert console.until(PROMPT) == "Username: Password: " + PROMPT
        else:
            assert console.until("Username: ") == "Username: "
        return console

    def wait_for(self, words):
        """Returns the first line of the listener's trace that contains these words."""
        until = time.monotonic() + PATIENCE
        while time.monotonic() < until:
            lines = self.trace.read_text().splitlines() if self.trace.exists() else []
            for line in lines:
                if words in line:
                    return line
            time.sleep(0.01)
        raise AssertionError(f"no '{words}' in {self.trace.read_text()}")

    def serves_the_next_one(self):
        console = self.new_console()
        console.say("show-enabled")
        assert "system.debug-control" in console.until(PROMPT)
        console.end()


def figure(what, seconds, limit):
    print(f"{what} noticed after {seconds:.2f} s (at most {limit})", flush=True)
    assert not WHOLE or seconds <= limit, what


class Watch:
    def __init__(self):
        self.begin = time.monotonic()

    def seconds(self):
        return time.monotonic() - self.begin


# ---- frozen

def freeze(process):
    """Returns when the process has stopped: a signal that has been sent is not yet delivered."""
    process.send_signal(signal.SIGSTOP)
    os.waitid(os.P_PID, process.pid, os.WSTOPPED)


def frozen_listener():
    with Pair() as pair:
        watch = Watch()
        freeze(pair.listener)
        assert pair.console.end(close=False) == LOST
        figure("a frozen listener:", watch.seconds(), SILENT)
        pair.listener.send_signal(signal.SIGCONT)
        pair.wait_for("has left: ")
        pair.serves_the_next_one()


def frozen_listener_that_is_asked():
    with Pair() as pair:
        watch = Watch()
        freeze(pair.listener)
        pair.console.say("show-all")
        code, out, err = pair.console.end(close=False)
        # The command fails and the loss is reported. Their order, and whether a prompt appears, depends on the threads.
        assert code == 0 and out in ("", "Debug> ") and LOST[2] in err, (code, out, err)
        figure("a frozen listener that was asked for something:", watch.seconds(), SILENT)


def listener_frozen_before_the_login():
    with Pair(log_in=False) as pair:
        watch = Watch()
        freeze(pair.listener)
        pair.console.say("ann", "secret")
        code, _, err = pair.console.end(close=False)
        assert code == 1 and "was lost: it sent nothing for too long" in err, (code, err)
        figure("a listener that froze before the login:", watch.seconds(), SILENT)


def frozen_console():
    with Pair() as pair:
        watch = Watch()
        freeze(pair.console.process)
        line = pair.wait_for("has left: ")
        figure("a frozen console:", watch.seconds(), SILENT)
        assert line.endswith("has left: it was silent for too long"), line
        pair.serves_the_next_one()
        pair.console.process.send_signal(signal.SIGCONT)
        assert pair.console.end(close=False) == LOST


# ---- gone

def ended_listener(how, words):
    with Pair() as pair:
        watch = Watch()
        pair.listener.send_signal(how)
        assert pair.console.end(close=False) == LOST
        figure(words, watch.seconds(), CLOSED)


def ended_console(how, words):
    with Pair() as pair:
        watch = Watch()
        how(pair.console)
        pair.wait_for("has left: ")
        figure(words, watch.seconds(), CLOSED)
        pair.serves_the_next_one()


# ---- unplugged

def run(*words):
    done = subprocess.run(words, capture_output=True, text=True, timeout=PATIENCE, check=False)
    if done.returncode != 0:
        raise Impossible(f"{' '.join(words)}: {done.stderr.strip()}")


class Cable:
    """A network namespace at the other end of a virtual cable."""

    def __init__(self, number):
        self.near, self.far = f"near{number}", f"far{number}"
        self.here, self.there = f"10.77.{number}.1", f"10.77.{number}.2"
        self.holder = subprocess.Popen(["unshare", "--net", "sh", "-c", "echo; exec sleep 600"], stdout=subprocess.PIPE)
        self.holder.stdout.readline()
        self.enter = ["nsenter", f"--net=/proc/{self.holder.pid}/ns/net"]
        run("ip", "link", "add", self.near, "type", "veth", "peer", "name", self.far, "netns", str(self.holder.pid))
        run("ip", "addr", "add", f"{self.here}/24", "dev", self.near)
        run("ip", "link", "set", self.near, "up")
        run(*self.enter, "ip", "addr", "add", f"{self.there}/24", "dev", self.far)
        run(*self.enter, "ip", "link", "set", self.far, "up")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.holder.kill()
        self.holder.wait()
        self.holder.stdout.close()

    def cut(self):
        run(*self.enter, "ip", "link", "set", self.far, "down")

    def mend(self):
        run(*self.enter, "ip", "link", "set", self.far, "up")

    def lose_all(self):
        """The link stays up, but packets do not arrive."""
        nobody = ("lladdr", "02:00:00:00:00:99", "nud", "permanent")
        run("ip", "neigh", "replace", self.there, "dev", self.near, *nobody)
        run(*self.enter, "ip", "neigh", "replace", self.here, "dev", self.far, *nobody)


def unplugged(number, cut, words):
    with Cable(number) as cable, Pair(host=cable.there, listen=cable.enter) as pair:
        watch = Watch()
        cut(cable)
        with concurrent.futures.ThreadPoolExecutor() as pool:
            def console():
                assert pair.console.end(close=False) == LOST
                return watch.seconds()

            def listener():
                pair.wait_for("has left: ")
                return watch.seconds()
            for who, when in (("console", pool.submit(console)), ("listener", pool.submit(listener))):
                figure(f"{words}: the {who}", when.result(), SILENT)
        if cut is Cable.cut:
            cable.mend()
            pair.serves_the_next_one()


PROCESSES = [
    (frozen_listener,), (frozen_listener_that_is_asked,), (listener_frozen_before_the_login,), (frozen_console,),
    (ended_listener, signal.SIGKILL, "a killed listener:"), (ended_listener, signal.SIGTERM, "a listener that ends:"),
    (ended_console, lambda console: console.process.kill(), "a killed console:"),
    (ended_console, lambda console: console.process.stdin.close(), "a console that ends:"),
]
UNPLUGGED = [(unplugged, 1, Cable.cut, "a cut link"), (unplugged, 2, Cable.lose_all, "a link that loses everything")]


def enter_own_network():
    """Restarts this test in a network namespace of its own."""
    if INSIDE in os.environ:
        run("ip", "link", "set", "lo", "up")
        return
    enter = ["unshare", "--net"] if os.geteuid() == 0 else ["unshare", "--map-root-user", "--net"]
    run(*enter, "true")
    os.execvpe(enter[0], [*enter, sys.executable, *sys.argv], {**os.environ, INSIDE: "1"})


def main():
    global tool, ticker
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool", required=True)
    parser.add_argument("--ticker", required=True)
    parser.add_argument("which", choices=("processes", "unplugged"))
    options = parser.parse_args()
    tool, ticker = Tool(options.tool), Tool(options.ticker)
    listening.tool = tool
    try:
        if options.which == "unplugged":
            enter_own_network()
        # The tests only wait and need no processor, so all run in parallel.
        with concurrent.futures.ThreadPoolExecutor(max_workers=len(PROCESSES)) as pool:
            for each in [pool.submit(*case) for case in (PROCESSES if options.which == "processes" else UNPLUGGED)]:
                each.result()
    except Impossible as reason:
        print(f"skipped: {reason}")
        return SKIPPED
    return 0


if __name__ == "__main__":
    sys.exit(main())
