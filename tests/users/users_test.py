#!/usr/bin/env python3
"""Whole runs of userinfo and logon, compared with the host's own data on accounts.

    users_test.py --bin FOLDER --wrapper LIBNSS_WRAPPER [--instrumented]

userinfo runs with invented accounts (nss_wrapper) and is compared with `id` and `getent` in the same environment. logon
runs with real accounts, which useradd creates and userdel removes; these tests need root and are skipped without it.
"""

import argparse
import contextlib
import fcntl
import os
import pwd
import shutil
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from strange_files import KINDS, strange_file  # noqa: E402  # in tests/support
from tool import as_nobody, copy_programs, linked, public_folder  # noqa: E402  # in tests/support

HOST_FILE = Path("/etc/pam.d/qor")
PASSWORD = "Tr1cky pass{1}%s"

PASSWD = """\
root:x:0:0:root:/root:/bin/bash
alice:x:4001:4001:Alice Liddell,Room 7,+49 30 1,,:/home/alice:/bin/sh
research:x:4002:4001:R&D:/home/research:
silent:x:4003:4077::/home/silent:/bin/bash
service:x:4004:4001:A service:/:/usr/sbin/nologin
off:x:4005:4001:,only the rest:/:/bin/false
toor:x:0:0:Other root:/root:/bin/sh
many:x:4006:4001:Everywhere:/home/many:/bin/sh
falsehood:x:4007:4001:Not false:/:/opt/false/shell
umlaut:x:4008:4001:J\u00fcrgen \u00d6tzi:/:/bin/sh
"""
GROUP = """\
root:x:0:
people:x:4001:
zebra:x:4010:alice,research
Adam:x:4011:alice
""" + "".join(f"crowd{i:03}:x:{5000 + i}:alfons,many\n" for i in range(150)) + (
    "big:x:4012:" + ",".join(f"member{i}" for i in range(20000)) + ",research\n")

options = None


def lines(groups):
    first, *rest = groups
    return "".join([f"Groups              = [{first}]\n", *(f"                    = [{group}]\n" for group in rest)])


def report(name, description, groups, level=1, super_user=False):
    return (f"Username            = [{name}]\nUserDescription     = [{description}]\n"
            f"Is Super User       = [{'true' if super_user else 'false'}]\nAuth Level          = [{level}]\n" + lines(groups))


class Case(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        folder = public_folder()
        self.addCleanup(folder.cleanup)
        self.root = Path(folder.name).resolve()
        self.tool = options.bin / "qortool"

    def copy_programs(self):
        """Copies the programs into a folder of this test, where everybody may read them."""
        folder = self.root / "bin"
        folder.mkdir()
        self.tool = copy_programs(options.bin, folder)
        return folder

    def environment(self, preload=None, **more):
        wanted = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C", **more}
        wanted.update((name, value) for name, value in os.environ.items() if name.endswith("SAN_OPTIONS"))
        # A sanitizer intercepts calls of libcrypt, and looks for it only at the start.
        preloads = [str(preload)] * (preload is not None) + ["libcrypt.so.1"] * options.instrumented
        if preloads:
            # They come before the sanitizer's own library, which would be an error.
            before = wanted.get("ASAN_OPTIONS")
            wanted["ASAN_OPTIONS"] = ":".join(filter(None, [before, "verify_asan_link_order=0"]))
            # nss_wrapper unlocks mutexes whose locking the thread sanitizer did not see.
            before = wanted.get("TSAN_OPTIONS")
            wanted["TSAN_OPTIONS"] = ":".join(filter(None, [before, "report_mutex_bugs=0"]))
            wanted["LD_PRELOAD"] = ":".join(preloads)
        return wanted

    def run_program(self, *words, preload=None, variables=None, **more):
        """Returns (exit code, standard output, standard error)."""
        done = subprocess.run(words, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=120,
                              env=self.environment(preload, **(variables or {})), **more)
        return done.returncode, done.stdout, done.stderr


class Userinfo(Case):
    """Invented accounts."""

    def setUp(self):
        super().setUp()
        (self.root / "passwd").write_text(PASSWD)
        (self.root / "group").write_text(GROUP)
        self.invented = {"preload": options.wrapper, "variables": {
            "NSS_WRAPPER_PASSWD": str(self.root / "passwd"), "NSS_WRAPPER_GROUP": str(self.root / "group")}}

    def userinfo(self, name):
        return self.run_program(self.tool, "--quiet", "userinfo", name, **self.invented)

    def check(self, name, *fields, **more):
        self.assertEqual(self.userinfo(name), (0, "User information:\n" + report(name, *fields, **more), ""))

    def test_the_name_ends_at_a_comma_and_groups_are_sorted(self):
        self.check("alice", "Alice Liddell", ["Adam", "people", "zebra"])

    def test_an_ampersand_is_one_and_no_shell_is_the_usual_one(self):
        self.check("research", "R&D", ["big", "people", "zebra"])

    def test_no_description_and_a_group_without_a_name(self):
        self.check("silent", "", ["4077"])

    def test_who_may_not_log_in(self):
        self.check("service", "A service", ["people"], level=-1)
        self.check("off", "", ["people"], level=-1)
        self.check("falsehood", "Not false", ["people"])

    def test_number_0_is_the_super_user_by_whatever_name(self):
        self.check("root", "root", ["root"], level=2, super_user=True)
        self.check("toor", "Other root", ["root"], level=2, super_user=True)

    def test_more_groups_than_were_expected(self):
        self.check("many", "Everywhere", [f"crowd{i:03}" for i in range(150)] + ["people"])

    def test_names_beyond_ascii(self):
        self.check("umlaut", "J\u00fcrgen \u00d6tzi", ["people"])

    def test_an_entry_that_is_longer_than_was_expected(self):
        name = "x" * 100_000
        with (self.root / "passwd").open("a") as file:
            file.write(f"long:x:4009:4001:{name}:/:/bin/sh\n")
        self.check("long", name, ["people"])

    def test_as_others_see_them(self):
        """Compares with independent programs that read these files."""
        for name in (line.split(":")[0] for line in PASSWD.splitlines()):
            with self.subTest(name):
                _, text, _ = self.userinfo(name)
                groups = [line[23:-1] for line in text.splitlines()[5:]]
                _, others, _ = self.run_program("id", "-Gn", name, **self.invented)
                self.assertEqual(sorted(groups), sorted(others.split()))
                _, entry, _ = self.run_program("getent", "passwd", name, **self.invented)
                self.assertIn(f"UserDescription     = [{entry.split(':')[4].split(',')[0]}]\n", text)

    def test_every_account_of_this_host(self):
        for entry in pwd.getpwall():
            with self.subTest(entry.pw_name):
                code, text, problems = self.run_program(self.tool, "--quiet", "userinfo", entry.pw_name)
                self.assertEqual((code, problems), (0, ""))
                groups = [line[23:-1] for line in text.splitlines()[5:]]
                numbers = subprocess.run(["id", "-Gn", entry.pw_name], capture_output=True, text=True).stdout.split()
                self.assertEqual(groups, sorted(numbers))

    def test_no_list_of_all_accounts_is_asked_for(self):
        library = (options.bin / "libqor.so").read_bytes()
        self.assertIn(b"getgrgid_r", library)
        for function in (b"getgrent", b"getpwent", b"setgrent", b"setpwent"):
            self.assertNotIn(function, library)

    def test_pam_is_not_loaded(self):
        _, _, opened = self.run_program(self.tool, "userinfo", "root", variables={"LD_DEBUG": "files"})
        self.assertIn("libqor", opened)
        self.assertNotIn("pam", opened)


@contextlib.contextmanager
def account_tools():
    """useradd and similar tools give up while another one runs; other suites may run at the same time."""
    with open(Path(tempfile.gettempdir()) / "qor-account-tools.lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        yield


def change(*words, given=None):
    with account_tools():
        for attempt in range(20):
            done = subprocess.run(words, input=given, capture_output=True, text=True)
            if done.returncode == 0 or "try again later" not in done.stderr:
                break
            time.sleep(0.5)
    if done.returncode != 0:
        raise RuntimeError(f"{words}: {done.stderr}")


class LogonOfNobody(Case):
    def test_the_rights_come_before_the_words(self):
        self.copy_programs()
        for words in ([], ["root"], ["root", "x"], ["root", "x", "y"], ["--option"]):
            with self.subTest(words):
                self.assertEqual(self.run_program(self.tool, "--quiet", "logon", *words, **as_nobody()),
                                 (1, "", "You must be super-user to run this function\n"))
        if os.geteuid() == 0:  # a process may run as a user without an account
            as_number = {"user": 3_999_999, "group": 3_999_999, "extra_groups": []}
            self.assertEqual(self.run_program(self.tool, "--quiet", "logon", "root", "x", **as_number),
                             (1, "", "You must be super-user to run this function\n"))


@unittest.skipUnless(os.geteuid() == 0, "logon and useradd take root")
class Words(Case):
    def test_wrong_words(self):
        number = "Wrong number of arguments for the action 'logon'. 'qortool help' shows its usage.\n"
        option = "The action 'logon' has no option '--{}'. 'qortool help' shows its usage.\n"
        for words, expected in (([], number), (["root"], number), (["root", "x", "y"], number),
                                (["--ask", "root"], option.format("ask")), (["-p=x"], option.format("p"))):
            with self.subTest(words):
                self.assertEqual(self.run_program(self.tool, "--quiet", "logon", *words), (1, "", expected))


@unittest.skipUnless(os.geteuid() == 0, "logon and useradd take root")
class RealAccount(Case):
    REFUSED = "The user name or the password was refused."

    def setUp(self):
        super().setUp()
        if HOST_FILE.exists():
            self.skipTest(f"this host has rules of its own: {HOST_FILE}")
        self.user = f"qor{os.getpid()}"
        change("useradd", "--no-create-home", "--shell", "/bin/sh", "--comment", "Test Person,of qor", self.user)
        self.addCleanup(change, "userdel", self.user)
        change("chpasswd", given=f"{self.user}:{PASSWORD}\n")

    def logon(self, password=PASSWORD, name=None, tool=None, **more):
        return self.run_program(tool or self.tool, "--quiet", "logon", self.user if name is None else name, password, **more)

    def check_refused(self, reason, password=PASSWORD, **more):
        self.assertEqual(self.logon(password, **more), (1, "Logging on ...\n", reason + "\n"))

    def check_in(self, **more):
        self.assertEqual(self.logon(**more),
                         (0, "Logging on ...\nLogged on.\n" + report(self.user, "Test Person", [self.user]), ""))


class Logon(RealAccount):
    """Uses the service file that comes with the module."""

    def test_who_gets_in_and_who_does_not(self):
        self.check_in()
        self.check_refused(self.REFUSED, "wrong")
        self.check_refused(self.REFUSED, PASSWORD + "x")
        self.check_refused(self.REFUSED, "")
        self.check_refused(self.REFUSED, name="no such user")
        self.check_refused(self.REFUSED, name="")

    def test_with_all_that_is_said_when_not_quiet(self):
        code, text, problems = self.run_program(self.tool, "logon", self.user, PASSWORD)
        self.assertEqual((code, problems), (0, ""))
        self.assertEqual(text.splitlines()[2:4], ["Logging on ...", "Logged on."])
        self.assertEqual(text.splitlines()[-1], "The action has succeeded.")

    def test_in_german(self):
        self.assertEqual(self.logon("falsch", variables={"QOR_LANGUAGE": "de"})[1:],
                         ("Anmeldung l\u00e4uft ...\n", "Der Benutzername oder das Passwort wurde abgelehnt.\n"))

    def test_a_locked_account(self):
        change("usermod", "--lock", self.user)
        self.check_refused(f"The account '{self.user}' is locked.")
        self.check_refused(self.REFUSED, "wrong")  # only users who know the password are told that it is locked
        change("usermod", "--unlock", self.user)
        self.check_in()

    def test_an_expired_account(self):
        change("chage", "--expiredate", "1970-01-02", self.user)
        self.check_refused(f"The account '{self.user}' has expired.")
        self.check_refused(self.REFUSED, "wrong")

    def test_a_password_that_must_be_changed(self):
        reason = f"The password of '{self.user}' is correct, but must be changed before it can be used."
        change("chage", "--lastday", "0", self.user)
        self.check_refused(reason)
        self.check_refused(self.REFUSED, "wrong")
        change("chage", "--lastday", "2020-01-01", "--maxdays", "10", self.user)
        self.check_refused(reason)

    def test_a_password_that_was_not_changed_in_time(self):
        change("chage", "--lastday", "2020-01-01", "--maxdays", "10", "--inactive", "10", self.user)
        self.check_refused(f"The password of '{self.user}' has expired.")

    def test_an_account_without_a_password(self):
        change("passwd", "--delete", self.user)
        self.check_refused(self.REFUSED, "")
        self.check_refused(self.REFUSED, PASSWORD)

    def test_an_account_that_may_not_log_in(self):
        change("usermod", "--shell", "/usr/sbin/nologin", self.user)
        self.check_refused(f"The account '{self.user}' may not log on here.")
        self.check_refused(self.REFUSED, "wrong")

    def test_the_password_is_nowhere_afterwards(self):
        if options.instrumented:
            self.skipTest("a sanitizer has memory of its own that nobody can search")
        for password in (PASSWORD, PASSWORD + "!"):
            log = self.root / "log"
            variables = {"FIND_SECRET": password[::-1], "FIND_SECRET_LOG": str(log)}
            find_secret = linked(options.bin / "find_secret.so", self.root)
            self.logon(password, preload=find_secret, variables=variables)
            self.assertEqual(log.read_text(), "0\n")
            # The search works: without a logon, the password stays in place and is found.
            self.run_program(self.tool, "--quiet", "logon", self.user, password, "too many", variables=variables,
                             preload=find_secret)
            self.assertGreater(int(log.read_text()), 0)


class Rules(RealAccount):
    """Uses service files of the test, which are beside the module."""

    def setUp(self):
        super().setUp()
        self.bin = self.copy_programs()
        self.rules = self.bin / "qor" / "pam.d"
        self.record = self.root / "record"

    def rule(self, auth="required pam_permit.so", account="required pam_permit.so"):
        (self.rules / "qor").write_text(f"auth {auth}\naccount {account}\n")

    def asking(self, *words):
        return f"required {linked(options.bin / 'pam_asking.so', self.root)} {self.record} {' '.join(words)}"

    def recorded(self):
        return self.record.read_text().splitlines()

    def test_every_answer_of_the_account_check(self):
        for answer, reason in {
            "acct_expired": f"The account '{self.user}' has expired.",
            "new_authtok_reqd": f"The password of '{self.user}' is correct, but must be changed before it can be used.",
            "authtok_expired": f"The password of '{self.user}' has expired.",
            "perm_denied": f"The account '{self.user}' may not log on here.",
            "auth_err": f"The account '{self.user}' may not log on here.",
            "user_unknown": self.REFUSED,
            "authinfo_unavail": "The logon service of this host failed in pam_acct_mgmt: "
                                "Authentication service cannot retrieve authentication info.",
        }.items():
            with self.subTest(answer):
                self.rule(account=f"required pam_debug.so acct={answer}")
                self.check_refused(reason)

    def test_every_answer_of_authentication(self):
        for answer, reason in {
            "auth_err": self.REFUSED,
            "user_unknown": self.REFUSED,
            "maxtries": self.REFUSED,
            "perm_denied": f"The account '{self.user}' may not log on here.",
            "cred_insufficient": "The logon service of this host failed in pam_authenticate: "
                                 "Insufficient credentials to access authentication data.",
        }.items():
            with self.subTest(answer):
                self.rule(auth=f"required pam_debug.so auth={answer}")
                self.check_refused(reason)

    def test_only_one_question_is_answered(self):
        self.rule(auth=self.asking("info", "hidden", "error"))
        self.check_in()
        self.assertEqual(self.recorded()[1:], ["info", f"hidden {PASSWORD}", "error", "end"])
        for words, expected in ((["open"], ["open refused", "end"]),
                                (["hidden", "hidden"], [f"hidden {PASSWORD}", "hidden refused", "end"])):
            self.record.unlink()
            self.rule(auth=self.asking(*words))
            self.check_refused("The logon service of this host failed in pam_authenticate: Conversation error.")
            self.assertEqual(self.recorded()[1:], expected)

    def test_what_others_see_of_the_command_line(self):
        """When the first module is asked, the password is no longer in the process's arguments."""
        self.rule(auth=self.asking("hidden"))
        self.check_in()
        self.assertEqual(self.recorded()[0].rstrip("|"), f"words {self.tool}|--quiet|logon|{self.user}")
        # A user whose name equals the password, an option before, and an end of the options.
        self.record.unlink()
        self.run_program(self.tool, "--quiet", "logon", "--", PASSWORD, PASSWORD)
        self.assertNotIn(PASSWORD, self.recorded()[0])

    def test_seen_from_another_process(self):
        """A wrong password makes PAM wait, which leaves time to look."""
        shutil.copy(options.bin / "qor" / "pam.d" / "qor", self.rules)
        process = subprocess.Popen([self.tool, "--quiet", "logon", self.user, "seen from outside"],
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=self.environment())
        self.addCleanup(process.wait)
        seen = set()
        while process.poll() is None:
            seen.add(Path(f"/proc/{process.pid}/cmdline").read_bytes())
        last = f"{self.tool}\0--quiet\0logon\0{self.user}".encode()
        self.assertIn(last, {words.rstrip(b"\0") for words in seen})

    def test_without_rules(self):
        """The rules for services without their own do not apply to ours."""
        (self.rules / "other").write_text("auth required pam_permit.so\naccount required pam_permit.so\n")
        (self.rules / "qor").unlink()
        self.check_refused(f"The logon service is not configured: there is neither '{HOST_FILE}' nor '{self.rules / 'qor'}'.")

    def test_without_a_rule_for_accounts(self):
        (self.rules / "qor").write_text("auth required pam_permit.so\n")
        self.check_refused(f"The account '{self.user}' may not log on here.")
        (self.rules / "qor").write_text("account required pam_permit.so\n")
        self.check_refused(self.REFUSED)

    def test_with_rules_that_are_none(self):
        (self.rules / "qor").write_text("auth required /nowhere/pam_nothing.so\naccount required pam_permit.so\n")
        code, text, problem = self.logon()
        self.assertEqual((code, text), (1, "Logging on ...\n"))
        self.assertRegex(problem, "^The logon service of this host failed in pam_authenticate: .+\\.\n$")

    def test_a_host_without_pam(self):
        module = self.bin / "qor" / "qor-pam.so"
        module.write_bytes(module.read_bytes().replace(b"libpam.so.0", b"libpan.so.0"))
        code, text, problem = self.logon()
        self.assertEqual((code, text), (1, "Logging on ...\n"))
        self.assertRegex(problem, "^The module '.*/qor-pam.so' cannot be loaded: libpan.so.0: .+\\.\n$")

    def test_without_the_module(self):
        (self.bin / "qor" / "qor-pam.so").unlink()
        self.check_refused(f"The module '{self.bin}/qor/qor-pam.so' is missing. Install its package (on Debian "
                           "libqor-pam), or build the framework with what it needs.")

    def test_with_rules_that_are_no_file(self):
        for kind in KINDS:
            with self.subTest(kind=kind), strange_file(kind, self.rules / "qor"):
                if kind.startswith("link"):
                    reason = f"The logon service is not configured: there is neither '{HOST_FILE}' nor '{self.rules / 'qor'}'."
                else:
                    reason = f"Cannot read '{self.rules / 'qor'}': it is not a regular file."
                self.check_refused(reason)


def main():
    global options
    parser = argparse.ArgumentParser()
    parser.add_argument("--bin", type=Path, required=True)
    parser.add_argument("--wrapper", type=Path, required=True)
    parser.add_argument("--instrumented", action="store_true", help="the programs have a sanitizer in them")
    parser.add_argument("chosen", nargs="*", help="names of tests")
    options = parser.parse_args()
    options.bin = options.bin.resolve()
    return 0 if unittest.main(argv=[sys.argv[0], *options.chosen], verbosity=2, exit=False).result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
