#!/usr/bin/env python3
"""Runs path-list in home folders of its own and compares the output byte for byte. Also compares it with `xdg-user-dir`
and `systemd-path`, which read the same files and variables.

usage: path_list_test.py --tool PATH
"""

import argparse
import os
import pwd
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from tool import Tool, add_options  # noqa: E402  # in tests/support

TAGS = """home desktop documents downloads music pictures videos public templates
          user-configuration user-data user-state user-cache user-runtime user-temporary user-logs user-fonts
          system-configuration system-data system-state system-cache system-logs system-temporary
          system-programs system-libraries
          qor-executable qor-library qor-catalogs qor-user-configuration qor-system-configuration""".split()
RUNTIME = TAGS.index("user-runtime")

# The key of each folder in user-dirs.dirs, and its name for systemd-path.
KEYS = {"desktop": "DESKTOP", "documents": "DOCUMENTS", "downloads": "DOWNLOAD", "music": "MUSIC",
        "pictures": "PICTURES", "videos": "VIDEOS", "public": "PUBLICSHARE", "templates": "TEMPLATES"}
SYSTEMD = {"home": "user", "desktop": "user-desktop", "documents": "user-documents", "downloads": "user-download",
           "music": "user-music", "pictures": "user-pictures", "videos": "user-videos", "public": "user-public",
           "templates": "user-templates", "user-configuration": "user-configuration", "user-data": "user-shared",
           "user-cache": "user-state-cache", "user-runtime": "user-runtime", "user-temporary": "temporary",
           "system-configuration": "system-configuration", "system-data": "system-shared",
           "system-state": "system-state-private", "system-cache": "system-state-cache",
           "system-logs": "system-state-logs", "system-programs": "system-binaries",
           "system-libraries": "system-library-arch"}

USER_DIRS = """# written by a desktop
XDG_DESKTOP_DIR="$HOME/Schreibtisch"
  XDG_DOCUMENTS_DIR = "/srv/documents/"
XDG_DOWNLOAD_DIR="$HOME/first"
XDG_DOWNLOAD_DIR="$HOME/Down \\"loads\\" \\$5"
XDG_MUSIC_DIR="$HOME/"
XDG_PICTURES_DIR="$HOME"
XDG_VIDEOS_DIR="relative"
XDG_TEMPLATES_DIR=$HOME/no-quotes
XDG_TEMPLATESX_DIR="$HOME/another"
"""
# Lines that other programs interpret as we do; the shell accepts more.
PLAIN_USER_DIRS = """XDG_DESKTOP_DIR="$HOME/Schreibtisch"
XDG_DOCUMENTS_DIR="/srv/documents"
XDG_DOWNLOAD_DIR="$HOME/Downloads"
XDG_VIDEOS_DIR="$HOME/Filme/Neue"
XDG_PUBLICSHARE_DIR="$HOME/Öffentlich"
"""


class PathList(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.home = os.path.realpath(folder.name)

    def environment(self, **variables):
        return {**tool.environment(), "LC_ALL": "C.UTF-8", "HOME": self.home, **variables}

    def run_tool(self, environment, *words):
        done = subprocess.run([*tool.command, "--quiet", "path-list", *words], env=environment, cwd=self.home,
                              capture_output=True, timeout=120)
        self.assertEqual(done.returncode, 0)
        return done.stdout.decode(), done.stderr.decode()

    def paths(self, environment):
        """Returns {tag: path} of one run."""
        out, _ = self.run_tool(environment)
        return dict(re.findall(r"^    (\S+) *= (.*)$", out, re.M))

    def expected(self, **changes):
        """Returns the expected output for these environment variables, without a file of user folders."""
        home = self.home
        binaries = str(tool.path.parent)
        with open("/proc/self/maps") as maps:
            library = next(line.split()[-1] for line in maps if "/libc.so" in line or "/libc-" in line)
        paths = [home] * 9 + [
            f"{home}/.config", f"{home}/.local/share", f"{home}/.local/state", f"{home}/.cache", None, "/tmp",
            f"{home}/.local/state/log", f"{home}/.local/share/fonts",
            "/etc", "/usr/share", "/var/lib", "/var/cache", "/var/log", "/tmp", "/usr/bin",
            os.path.dirname(os.path.realpath(library)),
            binaries, binaries, f"{binaries}/qor", f"{home}/.config/qor", "/etc/qor"]
        paths = {**dict(zip(TAGS, paths)), **changes}
        text = "".join(f"    {tag:20} = {path}\n" for tag, path in paths.items() if path is not None)
        return f"Path definitions:\n\n{text}\nPath list complete.\n"

    def test_nothing_is_set(self):
        failure = (f"FAIL on code {RUNTIME} - There is no folder 'user-runtime' here: "
                   "XDG_RUNTIME_DIR is not set to an absolute path.\n")
        for words in [], ["foo"], ["--option", "-x"]:
            self.assertEqual(self.run_tool(self.environment(), *words), (self.expected(), failure))
        self.assertEqual(os.listdir(self.home), [])  # no folder was created

    def test_every_variable_is_set(self):
        variables = {"XDG_CONFIG_HOME": "/c/", "XDG_DATA_HOME": "/d//", "XDG_STATE_HOME": "/s", "XDG_CACHE_HOME": "/h",
                     "XDG_RUNTIME_DIR": "/r", "TMPDIR": "/"}
        expected = self.expected(**{
            "user-configuration": "/c", "user-data": "/d", "user-state": "/s", "user-cache": "/h", "user-runtime": "/r",
            "user-temporary": "/", "user-logs": "/s/log", "user-fonts": "/d/fonts", "qor-user-configuration": "/c/qor"})
        self.assertEqual(self.run_tool(self.environment(**variables)), (expected, ""))

    def test_empty_and_relative_variables_count_as_unset(self):
        names = ["XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_STATE_HOME", "XDG_CACHE_HOME", "XDG_RUNTIME_DIR", "TMPDIR"]
        for value in "", "relative/folder", "~/x", ".":
            out, err = self.run_tool(self.environment(**dict.fromkeys(names, value)))
            self.assertEqual(out, self.expected())
            self.assertIn(f"FAIL on code {RUNTIME} - ", err)

    def test_without_a_home_the_account_has_one(self):
        account = pwd.getpwuid(os.getuid()).pw_dir
        for home in None, "", "relative":
            environment = self.environment(HOME=home or "")
            if home is None:
                del environment["HOME"]
            paths = self.paths(environment)
            self.assertEqual((paths["home"], paths["music"]), (account, account))

    def test_a_root_as_home(self):
        paths = self.paths(self.environment(HOME="/"))
        self.assertEqual((paths["home"], paths["user-data"]), ("/", "/.local/share"))

    def write_user_dirs(self, text, folder=".config"):
        Path(self.home, folder).mkdir()
        Path(self.home, folder, "user-dirs.dirs").write_text(text)

    def test_the_users_file(self):
        self.write_user_dirs(USER_DIRS)
        paths = self.paths(self.environment())
        home = self.home
        self.assertEqual([paths[tag] for tag in TAGS[1:9]],
                         [f"{home}/Schreibtisch", "/srv/documents", f'{home}/Down "loads" $5', home, home, home, home, home])

    def test_the_users_file_that_cannot_be_used(self):
        self.write_user_dirs("XDG_MUSIC_DIR=\"\nXDG_VIDEOS_DIR\nXDG_\n=\n\0\n\xff\nXDG_MUSIC_DIR=\"/m\\")
        paths = self.paths(self.environment())
        # A last line without a line end counts too.
        self.assertEqual((paths["music"], paths["videos"]), ("/m\\", self.home))
        shutil.rmtree(Path(self.home, ".config"))
        Path(self.home, ".config/user-dirs.dirs").mkdir(parents=True)
        self.assertEqual(self.paths(self.environment())["music"], self.home)

    def test_beside_xdg_user_dir(self):
        for folder in ".config", "elsewhere":
            self.write_user_dirs(PLAIN_USER_DIRS, folder)
            environment = self.environment(XDG_CONFIG_HOME=f"{self.home}/{folder}")
            paths = self.paths(environment)
            for tag, key in KEYS.items():
                said = subprocess.run(["xdg-user-dir", key], env=environment, capture_output=True, text=True, check=True)
                self.assertEqual(paths[tag], said.stdout.rstrip("\n"), tag)

    def test_beside_systemd_path(self):
        self.write_user_dirs(PLAIN_USER_DIRS)
        Path(self.home, "tmp").mkdir()
        folders = {"XDG_DATA_HOME": f"{self.home}/data", "XDG_CACHE_HOME": f"{self.home}/cache",
                   "XDG_RUNTIME_DIR": f"{self.home}/run", "TMPDIR": f"{self.home}/tmp"}
        for variables in {"XDG_RUNTIME_DIR": "/run/user/0"}, folders:
            environment = self.environment(**variables)
            paths = self.paths(environment)
            said = subprocess.run(["systemd-path"], env=environment, capture_output=True, text=True, check=True).stdout
            theirs = dict(line.split(": ", 1) for line in said.splitlines())
            for tag, name in SYSTEMD.items():
                self.assertEqual(paths[tag], theirs[name], tag)

    def test_the_framework_is_elsewhere(self):
        elsewhere = Path(self.home, "elsewhere")
        elsewhere.mkdir()
        for name in "qortool", "libqor.so":
            shutil.copy(tool.path.parent / name, elsewhere)
        done = subprocess.run([elsewhere / "qortool", "--quiet", "path-list"], env=self.environment(),
                              capture_output=True, text=True)
        paths = dict(re.findall(r"^    (\S+) *= (.*)$", done.stdout, re.M))
        self.assertEqual([paths[tag] for tag in ("qor-executable", "qor-library", "qor-catalogs")],
                         [str(elsewhere), str(elsewhere), f"{elsewhere}/qor"])


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    add_options(parser)
    options, rest = parser.parse_known_args()
    tool = Tool(options.tool, options.runner)
    unittest.main(argv=[sys.argv[0], *rest])
