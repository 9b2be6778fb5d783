"""The ways in which pkgutil can fail or lie at one of its calls."""

import os
import re
import subprocess

CONTROL = "/etc/pkgutil-stand-in.conf"
FOREIGN = "/opt/campaign/foreign"
LOG = "/var/log/pkgutil-stand-in.log"

_FOREIGN = {
    "page": b"<!DOCTYPE html>\n<html><body>It works!</body></html>\n",
    "bytes": bytes(range(256)) * 3,
    "climbing": b"Library/../../../etc/passwd\n../../etc/shadow\n/etc/hosts\n",
    "others": b"com.example.other.one\ncom.example.other.two\n",
    "outside": b"version: 2.0\nlocation: Applications\n",
    "newer": b"package-id: com.tamarindpelican.pkg.common\nversion: 9999\nvolume: /\nlocation: /\ninstall-time: 1\n",
    "elsewhere": b"Library\nLibrary/Audio/Plug-Ins/Components/Other Maker.component/Contents/Info.plist\n",
    "empty-line": b"\n",
    "usage": b"Usage: pkgutil [OPTIONS] [COMMANDS] ...\n",
}

WAYS = {f"exit-{status}": f"exit={status}" for status in (1, 2, 64, 70, 77, 126, 127, 255)}
WAYS.update({f"silent-{status}": f"exit={status} cut=0" for status in (0, 1, 2, 255)})
WAYS.update({f"dies-of-{signal}": f"kill={signal}" for signal in ("KILL", "SEGV", "TERM", "PIPE")})
WAYS.update({f"dies-late-of-{signal}": f"kill-after={signal}" for signal in ("KILL", "SEGV")})
WAYS.update({f"cut-{length}": f"cut={length}" for length in (1, 7, 8, 31, 45, 100, 180)})
WAYS.update({f"foreign-{name}": f"replace={FOREIGN}/{name}" for name in _FOREIGN})
WAYS.update({
    "noise": 'stderr="objc[417]: Class Installer is implemented in both places"',
    "noise-and-exit-1": 'stderr="the database is locked" exit=1 cut=0',
    "long-line": "long-line=1048576",
    "deaf": "forget=no",
})


def prepare():
    """Writes the files that foreign output is taken from."""
    os.makedirs(FOREIGN, exist_ok=True)
    for name, content in _FOREIGN.items():
        with open(f"{FOREIGN}/{name}", "wb") as file:
            file.write(content)


def arrange(number, way):
    """From now on pkgutil behaves in that way at its call of that number."""
    with open(CONTROL, "w", encoding="ascii") as file:
        file.write(f"call={number} do {WAYS[way]}\n")
    with open(LOG, "w", encoding="ascii"):
        os.chmod(LOG, 0o666)


def behave():
    """From now on pkgutil is honest. Returns the arguments of every call since it was told not to be."""
    if os.path.exists(CONTROL):
        os.unlink(CONTROL)
    if not os.path.exists(LOG):
        return []
    with open(LOG, encoding="utf-8") as log:
        asked = [line.rstrip("\n").split("\t") for line in log]
    os.unlink(LOG)
    return asked


def could_be_true(way, number, asked):
    """Tells whether a dishonest answer could have been a true one and was the only answer to its question, so
    that nobody could have noticed. What the database holds must not have changed since."""
    if number > len(asked):
        return False
    question = asked[number - 1]
    return _is_well_formed(way, question) and _times_asked(question, asked) == 1


def _is_listing(question):
    return question[-1].startswith("--pkgs")


def _times_asked(question, asked):
    """A listing can take several calls; it begins with one that names a pattern."""
    if not _is_listing(question):
        return asked.count(question)
    volume = _volume(question)
    return sum(1 for other in asked if other[-1].startswith("--pkgs=") and _volume(other) == volume)


def _volume(question):
    return question[question.index("--volume") + 1]


def _is_well_formed(way, question):
    """Tells whether an answer has the status of success and whole lines, or says that there is nothing."""
    if way in ("silent-0", "silent-1"):
        return _is_listing(question)
    if way.startswith("foreign-"):
        return _FOREIGN[way.removeprefix("foreign-")].endswith(b"\n")
    cut = re.fullmatch("cut-([0-9]+)", way)
    if not cut:
        return False
    honest = subprocess.run(["/usr/sbin/pkgutil", *question], stdin=subprocess.DEVNULL, capture_output=True,
                            check=False)
    return honest.stdout[:int(cut[1])].endswith(b"\n")
