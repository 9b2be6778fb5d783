"""Places packages and bystanders the way a package installer and the account itself would."""

import os
import stat

from common import products, scene


def make_directories(scope, path):
    """Creates the directories on the way to `path` that are missing, owned like the scope."""
    root = products.scope_root(scope)
    missing = []
    directory = os.path.dirname(path)
    while not os.path.isdir(directory):
        missing.append(directory)
        directory = os.path.dirname(directory)
    if not directory.startswith(root):
        raise ValueError(path + " is outside " + root)
    uid, gid = products.scope_owner(scope)
    for made in reversed(missing):
        os.mkdir(made)
        os.chown(made, uid, gid)
        os.chmod(made, 0o755)


def write(scope, relative, content, mode=0o644):
    """Writes a file of a scope, replacing what is there."""
    path = products.in_scope(scope, relative)
    make_directories(scope, path)
    if os.path.lexists(path):
        os.unlink(path)
    scene.put(path, scene.Entry(stat.S_IFREG | mode, *products.scope_owner(scope), content))


def receipt_path(scope, identifier):
    return f"{products.receipt_directory(scope)}/{identifier}.receipt"


def _receipt_text(package):
    paths = set(package.files)
    for path in package.files:
        parts = path.split("/")
        paths.update("/".join(parts[:i]) for i in range(1, len(parts)))
    listed = sorted(paths, key=lambda path: path.split("/"))
    return ("version=" + package.version + "\nlocation=/\ninstall-time=1688011857\n"
            + "".join(f"path={path}\n" for path in listed)).encode()


def _remove_dropped(scope, package):
    """Removes what the receipt lists and the new package lacks."""
    try:
        with open(receipt_path(scope, package.identifier), encoding="ascii") as receipt:
            listed = [line[5:].rstrip("\n") for line in receipt if line.startswith("path=")]
    except FileNotFoundError:
        return
    for relative in listed:
        path = products.in_scope(scope, relative)
        if relative not in package.files and os.path.isfile(path):
            os.unlink(path)


def place(scope, packages, files=None, receipts=True):
    """Installs packages: first all files, then all receipts. `files` limits how many files are placed."""
    placed = 0
    for package in packages:
        if files is None:
            _remove_dropped(scope, package)
        for relative, content in package.files.items():
            if files is None or placed < files:
                write(scope, relative, content)
            placed += 1
    if not receipts:
        return
    for package in packages:
        path = receipt_path(scope, package.identifier)
        make_directories(scope, path)
        if os.path.lexists(path):
            os.unlink(path)
        uid, gid = products.scope_owner(scope)
        scene.put(path, scene.Entry(stat.S_IFREG | 0o644, uid, gid, _receipt_text(package)))


BYSTANDERS = {
    "Library/Audio/Plug-Ins/Components/Other Maker.component/Contents/Info.plist": b"another maker's\n",
    "Library/Audio/Plug-Ins/VST3/Tamarind Pelican/TP Alpha.vst3/Contents/Resources/My Preset.txt": b"own preset\n",
    "Library/Application Support/Tamarind Pelican/settings.ini": b"own settings\n",
    "Library/Application Support/Other Maker/state": b"another maker's state\n",
}


def place_bystanders(scope):
    """Puts files beside the products that nothing of theirs may touch; returns their absolute paths."""
    paths = []
    for relative, content in BYSTANDERS.items():
        write(scope, relative, content, 0o600 if scope == "user" else 0o644)
        paths.append(products.in_scope(scope, relative))
    if scope == "user":
        write(scope, "Music/Song.txt", b"own song\n", 0o640)
        paths.append(products.in_scope(scope, "Music/Song.txt"))
    return paths


def files_of(scope, packages):
    """The absolute paths of everything that these packages place in a scope, receipts included."""
    paths = [products.in_scope(scope, path) for package in packages for path in package.files]
    return paths + [receipt_path(scope, package.identifier) for package in packages]
