"""Judges single files: a metadata file is complete, an owned file is one version of itself, at every moment."""

import re
import stat

from common import installation, products

HEX = "[0-9a-f]{64}"
ID = "[a-z0-9-]+"
STATE = re.compile(
    "schema=tamarind\\.pelican\\.macos-maintenance\\.prepared\\.v1\n"
    f"transaction={ID}\ngeneration={HEX}\ndescriptorSha256={HEX}\ncanonicalSha256={HEX}\n"
    "sourceScope=(?:none|user|system)\ntargetScope=(?:user|system)\n")
ATTEMPT = re.compile(
    "schema=tamarind\\.pelican\\.macos-maintenance-attempt\\.v1\n"
    f"sku={ID}\npackageRevision=[0-9]+\nplanSha256={HEX}\ndescriptorSha256={HEX}\ntransaction={ID}\n"
    "targetScope=(?:user|system)\n")
DESCRIPTOR = re.compile(
    "schema=tamarind\\.pelican\\.macos-maintenance\\.v2\nsku=.*\npackageRevision=.*\nsourceScope=.*\n"
    "targetScope=.*\ndecision=.*\n(?:product=.*\n)+(?:target=.*\n)+")
RECORD = re.compile(f"product={ID}\nversion=[0-9.]+\n")
ENTRY = f'{{"productId":"{ID}","scope":"(?:user|system)","version":"[0-9.]+"}}'
INDEX = re.compile(f'{{"products":\\[{ENTRY}(?:,{ENTRY})*\\],'
                   '"schema":"tamarind\\.pelican\\.installed-products\\.v1"}\n')
IDENTITY = re.compile("pkgutil=.*\nversion=.*\n(?:file=.*\n)+")
MANIFEST = re.compile(f"(?:Library/[^\t\n]+\t{HEX}\t[0-9]+\n|receipt\t[a-z0-9.-]+\t[0-9.]+\t[0-9]+\n)*")
ABSENT = re.compile("absent\n")
EMPTY = re.compile("")

# What stands where below a maintenance directory, and the whole text that it must have.
FORMS = [
    (re.compile("ActiveTransaction|Completed/[^/]+\\.record|Transactions/[^/]+/prepared"), STATE),
    (re.compile("PendingInstall"), ATTEMPT),
    (re.compile("Inbox/[^/]+\\.tpmt"), DESCRIPTOR),
    (re.compile("(?:Products|Transactions/[^/]+/metadata-(?:target|source)/Products)/[^/]+\\.record"), RECORD),
    (re.compile("Transactions/[^/]+/metadata-(?:target|source)/installed-products\\.json"), INDEX),
    (re.compile("Transactions/[^/]+/authority-(?:target|source)/manifest"), MANIFEST),
    (re.compile("Transactions/[^/]+/authority-(?:target|source)/receipts/[0-9]+"), IDENTITY),
    (re.compile("Transactions/[^/]+/target-absent/[0-9]+"), ABSENT),
    (re.compile("maintenance\\.lock"), EMPTY),
]
# The empty places that every command makes where they are missing.
LAYOUT = [products.SUPPORT, products.MAINTENANCE, products.MAINTENANCE + "/maintenance.lock"]
LAYOUT += [f"{products.MAINTENANCE}/{name}"
           for name in ("Inbox", "Transactions", "Products", "NativeReceipts", "Completed")]
COPIES = re.compile("Transactions/[^/]+/(?:target|authority-(?:target|source)/files)/[0-9]+")
TEMPORARY = re.compile("\\..+\\.new\\.[0-9]+")


def is_temporary(path):
    """Tells whether a path has the form of a file that is not published yet."""
    return TEMPORARY.fullmatch(path.rsplit("/", 1)[-1]) is not None


class Judge:
    """Knows every version of every owned file that a scenario can come across."""

    def __init__(self, packages, damaged=()):
        self._known = {path: set() for package in packages for path in package.files}
        for package in packages:
            for path, content in package.files.items():
                self._known[path].add(content)
        for path, content in damaged:
            self._known[path].add(content)
        self._contents = set().union(*self._known.values())

    def faults(self, found):
        """Returns one line for each file of a scene that is not whole or not rightly owned."""
        lines = []
        for scope in ("user", "system"):
            for path, entry in found.items():
                relative = self._relative(scope, path)
                if relative is not None:
                    fault = self._fault(scope, relative, entry)
                    if fault:
                        lines.append(f"{fault}: {path}")
        return lines

    @staticmethod
    def _relative(scope, path):
        root = products.scope_root(scope).rstrip("/") + "/"
        if scope == "system" and path.startswith(products.HOME + "/"):
            return None
        return path[len(root):] if path.startswith(root) else None

    def _fault(self, scope, relative, entry):
        inside = relative.removeprefix(products.MAINTENANCE + "/")
        if relative == products.MAINTENANCE or inside != relative:
            if entry.uid != products.scope_owner(scope)[0]:
                return "wrongly owned"
            if stat.S_IMODE(entry.mode) & 0o022:
                return "writable by others"
        if entry.content is None or is_temporary(relative):
            return None
        if relative == products.SUPPORT + "/installed-products.json":
            return self._form(INDEX, entry)
        if relative in self._known:
            return None if entry.content in self._known[relative] else "neither the old nor the new version"
        if relative in installation.BYSTANDERS or inside == relative:
            return None
        return self._metadata_fault(inside, entry)

    def _metadata_fault(self, inside, entry):
        if COPIES.fullmatch(inside):
            return None if entry.content in self._contents else "not a whole copy"
        for place, form in FORMS:
            if place.fullmatch(inside):
                return self._form(form, entry)
        return "unknown metadata"

    @staticmethod
    def _form(form, entry):
        if isinstance(entry.content, bytes) and form.fullmatch(entry.content.decode("utf-8", "replace")):
            return None if stat.S_IMODE(entry.mode) == 0o600 else "not private"
        return "not whole"
