"""Shells under tmux, for tests of what a user sees when he types."""

import re
import shlex
import shutil
import subprocess
import time

PROMPT = "% "
LIMIT = 60  # seconds; only against waiting for ever


class Shell:
    """A shell in a terminal of its own. `prefix` is where the completions are installed."""

    def __init__(self, name, prefix, folder, bin_folder):
        self.name, self.folder, self.home = name, folder, folder / f"home of {name}"
        self.home.mkdir()
        self.tmux = ["tmux", "-S", str(self.home / "tmux"), "-f", "/dev/null"]
        self.data = f"{prefix}/share:/usr/share"
        start = getattr(self, f"start_{name}")(prefix)
        environment = {"HOME": str(self.home), "XDG_CONFIG_HOME": str(self.home / "config"), "XDG_DATA_DIRS": self.data,
                       "PATH": f"{bin_folder}:/usr/local/bin:/usr/bin:/bin", "LC_ALL": "C.UTF-8", "TERM": "screen",
                       "SHELL": "/bin/sh", "QOR_LANGUAGE": "en"}
        subprocess.run([*self.tmux, "new-session", "-d", "-x", "160", "-y", "150", start], cwd=folder, env=environment,
                       check=True)
        self.clear()

    def start_bash(self, prefix):
        (self.home / "rc").write_text(f"PS1='{PROMPT}'\nbind 'set page-completions off'\nbind 'set bell-style none'\n"
                                      "bind 'set completion-query-items 0'\n"
                                      ". /usr/share/bash-completion/bash_completion\n")
        return f"bash --noprofile --rcfile {shlex.quote(str(self.home / 'rc'))} -i"

    def start_zsh(self, prefix):
        (self.home / ".zshrc").write_text(f"PS1='%% '\nLISTMAX=1000\nunsetopt prompt_cr prompt_sp beep\n"
                                          f"fpath=({shlex.quote(str(prefix))}/share/zsh/site-functions $fpath)\n"
                                          "autoload -U compinit\ncompinit -u -D\n")
        return "zsh -d -i"

    def start_fish(self, prefix):
        (self.home / "config/fish").mkdir(parents=True)
        # Otherwise it begins to read all manual pages.
        (self.home / ".local/share/fish/generated_completions").mkdir(parents=True)
        (self.home / "config/fish/config.fish").write_text(
            f"set -g fish_greeting\nset -g fish_autosuggestion_enabled 0\n"
            f"function fish_prompt; echo -n '{PROMPT}'; end\n")
        return "fish -i"

    def close(self):
        subprocess.run([*self.tmux, "kill-server"], check=False)
        shutil.rmtree(self.home, ignore_errors=True)

    def key(self, *names):
        subprocess.run([*self.tmux, "send-keys", *names], check=True)

    def type(self, text):
        subprocess.run([*self.tmux, "send-keys", "-l", "--", text], check=True)

    def screen(self):
        shown = subprocess.run([*self.tmux, "capture-pane", "-p", "-J"], check=True, capture_output=True, text=True)
        return shown.stdout

    def line(self):
        """Returns what stands behind the last prompt."""
        lines = [line for line in self.screen().splitlines() if line.startswith(PROMPT.strip())]
        return lines[-1][len(PROMPT):].rstrip() if lines else None

    def wait(self, is_there, what):
        """Waits until the screen is as wanted and returns it."""
        end = time.monotonic() + LIMIT
        while not is_there(shown := self.screen()):
            if time.monotonic() > end:
                raise AssertionError(f"{self.name}: no {what!r} within {LIMIT} s:\n{shown.rstrip()}")
            time.sleep(0.02)
        return shown

    def clear(self):
        self.wait(lambda shown: shown.lstrip("\n").startswith(PROMPT.strip()), "prompt")
        self.key("C-u")
        self.key("C-l")
        self.wait(lambda shown: shown.strip() == PROMPT.strip(), "empty screen")

    def completed(self, text, wanted):
        """Types the text and Tab; waits until the line is the wanted one, a regular expression."""
        self.clear()
        self.type(text)
        self.wait(lambda _: self.line() == text.rstrip(), text)
        self.key("Tab")
        self.wait(lambda _: re.fullmatch(wanted, self.line() or ""), wanted)

    def ran(self, text, wanted):
        """Types the text, Tab and Enter; waits for the wanted output of the command, a regular expression."""
        self.clear()
        self.type(text)
        self.key("Tab")
        self.wait(lambda _: self.line() not in (None, "", text.rstrip()), f"more than {text}")
        self.key("Enter")
        self.wait(lambda shown: re.search(wanted, shown), wanted)

    def offered(self, text, wanted, unwanted=()):
        """Waits until all wanted words are offered for the text; none of the others may be."""
        self.clear()
        if self.name == "fish":  # its list shows only as much as it thinks one reads
            self.type(f"complete -C {shlex.quote(text)}")
            self.key("Enter")
        else:
            self.type(text)
            self.key(*(["Escape", "?"] if self.name == "bash" else ["C-d"]))
        shown = self.wait(lambda screen: set(wanted) <= set(self.words(screen, text)), f"{text}: {sorted(wanted)}")
        found = set(unwanted) & set(self.words(shown, text))
        if found:
            raise AssertionError(f"{self.name}: {text!r} offers {found}")

    @staticmethod
    def words(screen, text):
        lines = [line for line in screen.splitlines() if not line.startswith(PROMPT.strip())]
        return [re.sub(r"=$", "", word) for line in lines for word in line.split()]
