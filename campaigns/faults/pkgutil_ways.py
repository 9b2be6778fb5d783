"""The ways in which pkgutil can fail or lie at one of its calls."""

import os

CONTROL = "/etc/pkgutil-stand-in.conf"
FOREIGN = "/opt/campaign/foreign"

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


def behave():
    """From now on pkgutil is honest."""
    if os.path.exists(CONTROL):
        os.unlink(CONTROL)
