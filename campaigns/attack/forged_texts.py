"""The texts of forgeries: paths, serials, digests, and ways to change a record."""

import re

from common import products

COMPONENT = products.COMPONENTS.encode()
VST3 = products.VST3.encode()
SUPPORT = products.SUPPORT.encode()
UP = b"../" * 12
LONG_LINE = b"x" * (1 << 20)
OTHER_ID = b"another-transaction"

PATHS = {
    "dot-dot-etc": UP + b"etc/neighbour.conf",
    "absolute": b"/etc/neighbour.conf",
    "absolute-library": b"/Library/Neighbour/state",
    "through-library": b"Library/" + UP + b"etc/neighbour.conf",
    "through-bundle": COMPONENT + b"/TP Alpha.component/Contents/../../../../../../Music/Song.txt",
    "to-other-home": COMPONENT + b"/TP Alpha.component/../../../../../../other/Documents/letter",
    "out-of-bundle": COMPONENT + b"/TP Alpha.component/../Other Maker.component/Contents/Info.plist",
    "single-dot": COMPONENT + b"/TP Alpha.component/./Contents/Info.plist",
    "leading-dot": b"./" + COMPONENT + b"/TP Alpha.component/Contents/Info.plist",
    "two-slashes": COMPONENT + b"//TP Alpha.component/Contents/Info.plist",
    "trailing-slash": COMPONENT + b"/TP Alpha.component/Contents/",
    "trailing-dot-dot": COMPONENT + b"/TP Alpha.component/Contents/..",
    "bundle-itself": COMPONENT + b"/TP Alpha.component",
    "destination-itself": COMPONENT,
    "other-maker": COMPONENT + b"/Other Maker.component/Contents/Info.plist",
    "neighbour": COMPONENT + b"/Neighbour.component/Contents/Info.plist",
    "other-support": b"Library/Application Support/Other Maker/state",
    "own-settings": SUPPORT + b"/settings.ini",
    "own-metadata": SUPPORT + b"/Maintenance/maintenance.lock",
    "own-index": SUPPORT + b"/installed-products.json",
    "account-file": b"Music/Song.txt",
    "receipt": b"Library/Receipts/com.tamarindpelican.pkg.common.receipt",
    "empty": b"",
    "dot": b".",
    "dot-dot": b"..",
    "root": b"/",
    "system-relative": b"etc/neighbour.conf",
    "nul": COMPONENT + b"/TP Alpha.component/Contents/Info.plist\0.txt",
    "nul-first": b"\0" + COMPONENT + b"/TP Alpha.component/Contents/Info.plist",
    "backslash": COMPONENT + b"\\TP Alpha.component\\Contents\\Info.plist",
    "carriage-return": COMPONENT + b"/TP Alpha.component/Contents/Info.plist\r",
    "not-ascii": COMPONENT + "/TP Älpha.component/Contents/Info.plist".encode(),
    "not-utf8": COMPONENT + b"/TP \xc0\xaf.component/Contents/Info.plist",
    "blank-name": COMPONENT + b"/TP .component/Contents/Info.plist",
    "dots-in-name": COMPONENT + b"/TP ...component/Contents/Info.plist",
    "long-name": COMPONENT + b"/TP " + b"n" * 300 + b".component/Contents/Info.plist",
    "long-path": COMPONENT + b"/TP Alpha.component" + b"/d" * 3000 + b"/Info.plist",
    "mebibyte": COMPONENT + b"/TP Alpha.component/" + LONG_LINE,
    "case": COMPONENT.lower() + b"/TP Alpha.component/Contents/Info.plist",
    "vst3-elsewhere": b"Library/Audio/Plug-Ins/VST3/TP Alpha.vst3/Contents/Info.plist",
    "vst3-traversal": VST3 + b"/TP Alpha.vst3/../../../Components/Other Maker.component/Contents/Info.plist",
    "file-below-file": COMPONENT + b"/TP Alpha.component/Contents/Info.plist/more",
}

SERIALS = {
    "dot-dot": b"../../../target/0",
    "absolute": b"/etc/neighbour.conf",
    "slash": b"0/../1",
    "trailing-slash": b"0/",
    "dot": b".",
    "empty": b"",
    "letters": b"seven",
    "negative": b"-1",
    "plus": b"+1",
    "blank": b" 1",
    "hexadecimal": b"0x1",
    "twenty-one-digits": b"0" * 20 + b"1",
    "large": b"18446744073709551616",
    "nul": b"1\x00",
    "not-ascii": "١".encode(),
    "mebibyte": b"1" * (1 << 20),
}

DIGESTS = {
    "empty": b"",
    "short": b"a" * 63,
    "long": b"a" * 65,
    "upper": b"A" * 64,
    "letters": b"g" * 64,
    "blank": b" " * 64,
    "other": b"0" * 64,
    "nul": b"a" * 63 + b"\x00",
}

# Changes that any text can suffer.
TEXT_CHANGES = {
    "emptied": lambda text: b"",
    "cut": lambda text: text[:len(text) // 2],
    "without-end": lambda text: text[:-1],
    "nul-bytes": lambda text: b"\0" * len(text),
    "nul-inside": lambda text: text.replace(b"=", b"=\0", 1).replace(b"\t", b"\t\0", 1),
    "carriage-returns": lambda text: text.replace(b"\n", b"\r\n"),
    "doubled": lambda text: text + text,
    "blank-lines": lambda text: text.replace(b"\n", b"\n\n"),
    "line-feeds": lambda text: b"\n" * (1 << 20),
    "long-line": lambda text: text + LONG_LINE + b"\n",
    "long-first-line": lambda text: LONG_LINE + b"\n" + text,
    "oversized": lambda text: text + b"\n" * ((1 << 20) + 1),
    "byte-order-mark": lambda text: b"\xef\xbb\xbf" + text,
    "wide-characters": lambda text: text.decode("utf-8", "replace").encode("utf-16-be"),
    "reversed-lines": lambda text: b"".join(reversed(text.splitlines(keepends=True))),
    "noise": lambda text: bytes((i * 37 + 11) % 0xF0 for i in range(4096)),
}


def _field(key, value):
    return lambda text: re.sub(rb"(?m)^" + key + rb"=.*$", lambda _: key + b"=" + value, text)


STATE_CHANGES = {
    "other-transaction": _field(b"transaction", OTHER_ID),
    "dot-dot-transaction": _field(b"transaction", b"../../.."),
    "slash-transaction": _field(b"transaction", b"/etc"),
    "empty-transaction": _field(b"transaction", b""),
    "nul-transaction": _field(b"transaction", b"a\0b"),
    "other-generation": _field(b"generation", b"0" * 64),
    "short-generation": _field(b"generation", b"0" * 63),
    "upper-generation": _field(b"generation", b"A" * 64),
    "other-digest": _field(b"descriptorSha256", b"0" * 64),
    "other-canonical": _field(b"canonicalSha256", b"0" * 64),
    "from-system": _field(b"sourceScope", b"system"),
    "from-user": _field(b"sourceScope", b"user"),
    "from-dot-dot": _field(b"sourceScope", b"../.."),
    "to-system": _field(b"targetScope", b"system"),
    "to-root": _field(b"targetScope", b"/"),
    "other-schema": _field(b"schema", b"tamarind.pelican.macos-maintenance.prepared.v2"),
    "eighth-field": lambda text: text + b"extra=1\n",
    "repeated-field": lambda text: text + b"targetScope=system\n",
    "without-scope": lambda text: re.sub(rb"targetScope=.*\n", b"", text),
}

ATTEMPT_CHANGES = {
    "other-transaction": _field(b"transaction", OTHER_ID),
    "dot-dot-transaction": _field(b"transaction", b"../../../../x"),
    "slash-transaction": _field(b"transaction", b"/etc/neighbour"),
    "long-transaction": _field(b"transaction", b"a" * 129),
    "other-sku": _field(b"sku", b"another"),
    "other-revision": _field(b"packageRevision", b"999999999"),
    "odd-revision": _field(b"packageRevision", b"99999999999999999999999999"),
    "other-plan": _field(b"planSha256", b"0" * 64),
    "other-digest": _field(b"descriptorSha256", b"0" * 64),
    "short-digest": _field(b"descriptorSha256", b"0" * 63),
    "to-system": _field(b"targetScope", b"system"),
    "to-root": _field(b"targetScope", b"/"),
    "true": lambda text: text,
}

DESCRIPTOR_CHANGES = {
    "from-system": _field(b"sourceScope", b"system"),
    "from-user": _field(b"sourceScope", b"user"),
    "from-dot-dot": _field(b"sourceScope", b".."),
    "to-system": _field(b"targetScope", b"system"),
    "to-none": _field(b"targetScope", b"none"),
    "adopt": _field(b"decision", b"adopt"),
    "replace": _field(b"decision", b"replace"),
    "delete": _field(b"decision", b"delete"),
    "odd-sku": _field(b"sku", b"../../x"),
    "odd-revision": _field(b"packageRevision", b"0"),
    "huge-version": lambda text: text.replace(b"\t2.0", b"\t" + b"9" * 400),
    "overflowing-version": lambda text: text.replace(b"\t2.0", b"\t18446744073709551616.0"),
    "odd-product": lambda text: text.replace(b"product=tp-alpha", b"product=../x"),
    "slash-product": lambda text: text.replace(b"tp-alpha", b"tp/alpha"),
    "long-product": lambda text: text.replace(b"tp-alpha", b"a" * 129),
    "other-product": lambda text: text.replace(b"tp-alpha", b"mangrove-reverb"),
    "repeated-product": lambda text: re.sub(rb"(product=.*\n)", rb"\1\1", text),
    "repeated-target": lambda text: re.sub(rb"(target=tp-alpha.*\n)", rb"\1\1", text, count=1),
    "swapped-packages": lambda text: text.replace(b".vst3\t2", b".swap\t2").replace(b".au\t2", b".vst3\t2")
    .replace(b".swap\t2", b".au\t2"),
    "without-common": lambda text: re.sub(rb"target=common.*\n", b"", text),
    "common-elsewhere": lambda text: text.replace(b"TamarindPelicanUpdater", b"settings.ini"),
    "without-targets": lambda text: re.sub(rb"target=.*\n", b"", text),
    "no-digests": lambda text: re.sub(rb"[0-9a-f]{64}", b"", text),
    "other-digests": lambda text: re.sub(rb"[0-9a-f]{64}", b"0" * 64, text),
    "unknown-field": lambda text: text + b"remove=/etc\n",
    "many-targets": lambda text: text + b"".join(
        b"target=tp-alpha\tcom.tamarindpelican.pkg.tp-alpha.au\t2.0\t" + COMPONENT
        + b"/TP Alpha.component/Contents/%d\t" % i + b"0" * 64 + b"\n" for i in range(3000)),
}
INVOLVING_SYSTEM = {"descriptor-from-system"}

RECEIPT_CHANGES = {
    "no-version": _field(b"version", b""),
    "odd-version": _field(b"version", b"1.0/../.."),
    "huge-version": _field(b"version", b"9" * 1000),
    "overflowing-version": _field(b"version", b"18446744073709551616"),
    "long-version": _field(b"version", LONG_LINE),
    "location-etc": _field(b"location", b"/etc"),
    "location-dot-dot": _field(b"location", b"../.."),
    "location-library": _field(b"location", b"/Library"),
    "no-files": lambda text: re.sub(rb"path=.*\n", b"", text),
    "repeated-paths": lambda text: text + b"".join(
        b"path=" + COMPONENT + b"/TP Alpha.component/Contents/Info.plist\n" for _ in range(200)),
    "many-paths": lambda text: text + b"".join(
        b"path=" + COMPONENT + b"/TP Alpha.component/Contents/%d\n" % i for i in range(20000)),
    "emptied": lambda text: b"",
    "noise": TEXT_CHANGES["noise"],
    "others-files": lambda text: text + b"path=" + VST3 + b"/Mangrove Reverb.vst3/Contents/Info.plist\n",
    "own-tool": lambda text: text + b"path=" + SUPPORT + b"/TamarindPelicanMaintenance\n",
    "preset": lambda text: text + b"path=" + VST3 + b"/TP Alpha.vst3/Contents/Resources/My Preset.txt\n",
}

IDENTIFIERS = {
    "dot-dot": b"com.tamarindpelican.pkg.../../../../etc/passwd.vst3",
    "slash": b"com.tamarindpelican.pkg.a/b.vst3",
    "option": b"--forget",
    "blank": b"com.tamarindpelican.pkg.tp-alpha.vst3 ",
    "carriage-return": b"com.tamarindpelican.pkg.tp-alpha.vst3\r",
    "nul": b"com.tamarindpelican.pkg.tp-alpha\0.vst3",
    "foreign": b"com.apple.pkg.Core",
    "long": b"com.tamarindpelican.pkg." + b"a" * 200 + b".au",
    "mebibyte": LONG_LINE,
    "message": b"pkgutil: something went wrong",
    "unknown-product": b"com.tamarindpelican.pkg.nobody.vst3",
    "twice": b"com.tamarindpelican.pkg.common\ncom.tamarindpelican.pkg.common",
}

PKGUTIL_RULES = {
    "foreign-listing": "command=--pkgs,--pkgs= do replace=/opt/campaign/output",
    "foreign-files": "command=--files do replace=/opt/campaign/output",
    "foreign-description": "command=--pkg-info do replace=/opt/campaign/output",
    "long-line-files": "command=--files do long-line=1048576",
    "long-line-description": "command=--pkg-info do long-line=1048576",
    "padded-files": "command=--files do pad=262144",
    "padded-listing": "command=--pkgs,--pkgs= do pad=65536",
    "cut-files": "command=--files do cut=60",
    "cut-description": "command=--pkg-info do cut=20",
    "noise": 'do stderr="/etc/neighbour.conf"',
    "twins": "do twins=yes",
    "killed-forget": "command=--forget do kill=SEGV",
    "forget-does-nothing": "command=--forget do forget=no",
    "binary-for-files": "command=--files do replace=/usr/bin/true",
    "second-listing-differs": "command=--files nth=2- do replace=/opt/campaign/output",
}


def _lines(descriptor, key):
    return sorted(line[len(key) + 1:].split(b"\t") for line in descriptor.split(b"\n") if line.startswith(key + b"="))


def _value(text, key):
    found = re.search(rb"(?m)^" + key + rb"=(.*)$", text)
    return found[1] if found else b""


def prepared_text(identifier, descriptor):
    """The prepared state that binds a transaction to a descriptor."""
    keys = (b"sku", b"packageRevision", b"sourceScope", b"targetScope", b"decision")
    canonical = b"".join(value + b"\n" for value in (b"tamarind.pelican.macos-maintenance.v2",
                                                     *[_value(descriptor, key) for key in keys],
                                                     identifier.encode()))
    canonical += b"".join(b"product\t" + b"\t".join(fields) + b"\n" for fields in _lines(descriptor, b"product"))
    targets = sorted(_lines(descriptor, b"target"), key=lambda fields: fields[3:4])
    canonical += b"".join(b"target\t" + b"\t".join(fields) + b"\n" for fields in targets)
    return (b"schema=tamarind.pelican.macos-maintenance.prepared.v1\ntransaction=" + identifier.encode()
            + b"\ngeneration=" + b"5" * 64 + b"\ndescriptorSha256=" + products.sha256(descriptor).encode()
            + b"\ncanonicalSha256=" + products.sha256(canonical).encode()
            + b"\nsourceScope=" + _value(descriptor, b"sourceScope")
            + b"\ntargetScope=" + _value(descriptor, b"targetScope") + b"\n")


def attempt_text(identifier, plan, descriptor):
    """The pending attempt that binds a plan to a descriptor."""
    return (b"schema=tamarind.pelican.macos-maintenance-attempt.v1\nsku=suite\npackageRevision=200\nplanSha256="
            + products.sha256(plan).encode() + b"\ndescriptorSha256=" + products.sha256(descriptor).encode()
            + b"\ntransaction=" + identifier.encode() + b"\ntargetScope=user\n")
