# SPDX-License-Identifier: Apache-2.0
"""Shells at a terminal of their own: types the beginning of a command line, presses the tab key, reads what they offer."""

import os
import pty
import select
import shutil
import signal
import subprocess
import time

LIMIT = 30  # seconds

# Each tells in files what was offered, one a line, and what the line is after the tab key; Ctrl-X writes the latter.
BASH = r"""
PS1='ready> '
bind 'set enable-bracketed-paste off'
bind 'set bell-style none'
bind 'set completion-query-items -1'
bind 'set page-completions off'
eval "$(vorlix completion bash)"
_recorded() { _vorlix "$@"; printf '%s\n' "${COMPREPLY[@]}" >"$OFFERS"; }
complete -F _recorded vorlix
_tell() { printf '%s' "$READLINE_LINE" >"$LINE.new"; mv "$LINE.new" "$LINE"; READLINE_LINE=; READLINE_POINT=0; }
bind -x '"\C-x":_tell'
"""

ZSH = r"""
PS1='ready> '
unsetopt beep
setopt no_list_beep
fpath=($INSTALLED $fpath)
autoload -Uz compinit && compinit -u -D
zstyle ':completion:*' list-prompt ''
LISTMAX=10000
[[ -n $INSTALLED ]] || source <(vorlix completion zsh)
compadd() {
  local -a hits
  if [[ " ${@[1,(i)(-|--)]} " != *\ -[OAD]* ]]; then
    builtin compadd -A hits "$@"
    (( $#hits )) && print -rl -- $hits >>$OFFERS
  fi
  builtin compadd "$@"
}
tell() { print -rn -- "$BUFFER" >$LINE.new; mv $LINE.new $LINE; BUFFER= }
zle -N tell
bindkey '^X' tell
"""


class Terminal:
    """bash or zsh at a terminal. The folder is for the shell's own files."""

    def __init__(self, shell, folder, environment, work, prefix=()):
        self.folder = folder
        self.offers_file, self.line_file = os.path.join(folder, "offers"), os.path.join(folder, "line")
        environment = {**environment, "OFFERS": self.offers_file, "LINE": self.line_file, "TERM": "dumb",
                       "ZDOTDIR": folder, "HISTFILE": "/dev/null", "COLUMNS": "200"}
        start = os.path.join(folder, {"bash": "bashrc", "zsh": ".zshrc"}[shell])
        with open(start, "w", encoding="utf-8") as file:
            file.write({"bash": BASH, "zsh": ZSH}[shell])
        os.chmod(start, 0o644)
        command = {"bash": ["bash", "--noprofile", "--rcfile", start, "-i"], "zsh": ["zsh", "-d", "-i"]}[shell]
        self.master, slave = pty.openpty()
        self.process = subprocess.Popen([*prefix, *command], stdin=slave, stdout=slave, stderr=slave, cwd=work,
                                        env=environment, start_new_session=True)
        os.close(slave)
        self.output = b""
        self.wait(lambda: b"ready> " in self.output, "the prompt")

    def read(self):
        if select.select([self.master], [], [], 0.02)[0]:
            self.output += os.read(self.master, 65536)

    def wait(self, is_there, what):
        end = time.monotonic() + LIMIT
        while not is_there():
            if time.monotonic() > end:
                raise AssertionError(f"no {what} after {LIMIT} seconds: {self.output.decode(errors='replace')}")
            self.read()

    def press_tab(self, line):
        """Returns what was offered, sorted, and what the line is then."""
        for path in (self.offers_file, self.line_file):
            if os.path.exists(path):
                os.unlink(path)
        os.write(self.master, line.encode() + b"\t\x18")
        self.wait(lambda: os.path.exists(self.line_file), "answer")
        with open(self.line_file, encoding="utf-8") as file:
            text = file.read()
        offers = []
        if os.path.exists(self.offers_file):
            with open(self.offers_file, encoding="utf-8") as file:
                offers = [offer for offer in file.read().split("\n") if offer]
        return sorted(set(offers)), text

    def close(self):
        os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()
        os.close(self.master)


class Fish:
    """Asks fish what it would offer."""

    def __init__(self, folder, environment, work, prefix=()):
        self.environment = {**environment, "XDG_CONFIG_HOME": folder, "XDG_DATA_HOME": folder, "XDG_CACHE_HOME": folder}
        self.work, self.prefix = work, prefix

    def press_tab(self, line):
        """Returns what is offered, sorted; and, as the line that fish would write, the only offer as it is quoted."""
        script = "vorlix completion fish | source; complete --escape -C (cat | string collect)"
        result = subprocess.run([*self.prefix, "fish", "-c", script], cwd=self.work, env=self.environment, input=line,
                                capture_output=True, text=True, timeout=LIMIT)
        if result.stderr:
            raise AssertionError(result.stderr)
        offers = [offer.split("\t") for offer in result.stdout.splitlines()]
        return sorted({offer[0] for offer in offers}), {offer[0]: "".join(offer[1:]) for offer in offers}

    def close(self):
        pass


def missing(shell):
    return "" if shutil.which(shell) else f"not installed: {shell}"
