"""Runs of programs under qor-record for the tests here, and independent readings of their logs."""

import collections
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

import stacks_file

LEAK = re.compile(r"^LEAK at 0x([0-9a-f]+) size (\d+) ", re.MULTILINE)
SCRIPT_LEAK = re.compile(r"^0x([0-9a-f]+) +0x([0-9a-f]+)  at ", re.MULTILINE)

# The size of the block that c_library_tracing.c allocates first.
MARKER = 79123


class RecordedRuns(unittest.TestCase):
    """`options` has bin (the recorded programs), record (qor-record) and tool (qortool)."""

    options = None
    maxDiff = 4000

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.environment = {"PATH": "/usr/bin:/bin", "LC_ALL": "C", "PYTHONHASHSEED": "0", "PYTHONMALLOC": "malloc",
                            "HOME": str(self.folder)}

    def with_libraries(self, *libraries, **variables):
        """The beginning of a command that preloads these behind the recorder's own; they lie beside the programs unless the system
        has them. The recorder itself is without them: a sanitizer in it would not bear that."""
        found = [str(path) if (path := self.options.bin / name).exists() else name for name in libraries]
        self.environment.update({name: str(value) for name, value in variables.items()})
        return ["sh", "-c", 'LD_PRELOAD="$LD_PRELOAD:$0" exec "$@"', ":".join(found)]

    def start(self, *command, **more):
        return subprocess.Popen([self.options.record, "-o", "log", "--", *map(str, command)], cwd=self.folder,
                                env=self.environment, **more)

    def record(self, *command, code=0, **more):
        """Its standard output and error."""
        more = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "text": True, **more}
        with self.start(*command, **more) as process:
            out, errors = process.communicate()
        self.assertEqual(process.returncode, code, errors)
        return out, errors

    def recording(self, name="log.mtrace"):
        """The log with its stacks: one stack for each new block, and no loss."""
        recording = stacks_file.Recording(self.folder / name)
        self.assertEqual(len(recording.stacks.records), recording.blocks)
        self.assertEqual((recording.stacks.cut_off, recording.stacks.newer, recording.stacks.losses), (False, False, []))
        self.assertEqual(recording.stacks.faults[:10], [])
        return recording

    def counts(self, recording):
        """(allocations, reallocations, releases), as counting.c counts them."""
        codes = recording.codes
        return codes["+"], codes[">"], codes["-"] + codes["<"] - codes[">"]

    def logs(self):
        """Those of all processes, that of the program first; without that of the shell that has become the program."""
        process = stacks_file.Stacks(stacks_file.contents(self.folder / "log.stacks")).process
        return [path.name for path in sorted(self.folder.glob("log.mtrace*")) if path.name != f"log.mtrace.{process.pid}"]

    def by_tool(self, log):
        """{(address, size)} of the leaks that qortool reports; there must be no bad free."""
        done = subprocess.run([self.options.tool, "--quiet", "mtrace", log], cwd=self.folder, env=self.environment,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertNotIn("BAD FREE", done.stdout)
        self.assertNotIn("WARNING", done.stderr)
        return sorted((int(address, 16), int(size)) for address, size in LEAK.findall(done.stdout))

    def by_script(self, log):
        """The same, as the C library's script reports it."""
        done = subprocess.run(["mtrace", log], cwd=self.folder, env=self.environment, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True)
        self.assertIn(done.returncode, (0, 1), done.stderr)
        return (sorted((int(address, 16), int(size, 16)) for address, size in SCRIPT_LEAK.findall(done.stdout)),
                done.stdout)

    def by_both(self, log):
        leaks = self.by_tool(log)
        scripts, text = self.by_script(log)
        self.assertNotIn("was never alloc'd", text)
        self.assert_same(leaks, scripts)
        return leaks

    def assert_same(self, one, other):
        """For lists with thousands of members: names the first ones that differ."""
        if one != other:
            one, other = collections.Counter(one), collections.Counter(other)
            self.fail(f"{list((one - other).items())[:10]} is only in the first, {list((other - one).items())[:10]} in the second")


def parse(parser, argv=None):
    parser.add_argument("--bin", type=lambda path: pathlib.Path(path).resolve(), required=True,
                        help="the folder of the recorded programs")
    parser.add_argument("--record", type=lambda path: pathlib.Path(path).resolve(), required=True, help="qor-record")
    parser.add_argument("--tool", type=lambda path: pathlib.Path(path).resolve(), required=True, help="qortool")
    RecordedRuns.options, rest = parser.parse_known_args(argv)
    return rest


def longer():
    """Whether this is ./test load, which takes its time."""
    return bool(os.environ.get("QOR_TEST_LOAD"))
