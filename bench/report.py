"""Prints the figures and bars, and writes docs/performance.md with its plots."""

import re

from plot import Series, plot

MIB = 1 << 20


def ms(seconds):
    return f"{seconds * 1000:.2f}" if seconds < 0.01 else f"{seconds * 1000:.1f}" if seconds < 1 else f"{seconds * 1000:.0f}"


def spread(one):
    return f"{ms(one['median'])} ({ms(one['low'])} to {ms(one['high'])})"


def table(head, rows):
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    return lines + ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows]


class Bars:
    """The figures that have to be reached, and what was measured."""

    def __init__(self):
        self.rows = []

    def add(self, what, measured, limit, text=None, least=False):
        met = measured >= limit if least else measured <= limit
        self.rows.append((what, text or f"{measured:.2f}", f"{'at least' if least else 'at most'} {limit:g}", "yes" if met else "**no**"))


def sized(count):
    return f"{count // MIB} MiB" if count < 1 << 30 else f"{count >> 30} GiB"


def hashing(found, bars):
    rows = [(name, spread(found[name]), f"{found['bytes'] / found[name]['median'] / 1e9:.2f}")
            for name in ("program", "openssl", "portable", "sha256sum")]
    middle = {name: found[name]["median"] for name in ("program", "openssl", "portable", "sha256sum")}
    bars.add("hashing a warm file, time of `openssl dgst -sha256`", middle["program"] / middle["openssl"], 1.05)
    bars.add("hashing a warm file, as fast as `sha256sum`", middle["sha256sum"] / middle["program"], 4, least=True)
    bars.add("portable hashing, as fast as `sha256sum`", middle["sha256sum"] / middle["portable"], 1, least=True)
    return table([f"{sized(found['bytes'])}, whole process", "ms", "GB/s"], rows)


def ratio(found):
    one = found["ratio"]
    return f"{one['median']:.2f} ({one['low']:.2f} to {one['high']:.2f})"


def scenes(found, bars):
    rows = []
    for scene, commands in found.items():
        for word, one in commands.items():
            rows.append((scene, word, spread(one["tool"]), spread(one["floor"]), ratio(one), ms(one["own"]["median"]), one["calls"],
                         one.get("syncs", 0)))
            if word == "inspect" or "disk" in scene:
                bars.add(f"{word}, time of the floor: {scene}", one["ratio"]["median"], 1.10 if word == "inspect" else 1.15)
    return table(["scene", "command", "program, ms", "floor, ms", "ratio", "own CPU, ms", "pkgutil runs", "syncs"], rows)


def plans(found, bars):
    rows = []
    for name, one in found.items():
        load = one.get("load")
        rows.append((name, f"{one['bytes']:,}", f"{one['targets']:,}", spread(one["own"]),
                     ms(one["starting"]) if load else "", f"{one['peak'] / MIB:.1f}",
                     f"{load['bytes']:,}" if load else "", spread(load["own"]) if load else ""))
    ordinary = found["ordinary"]
    bars.add("own CPU of a start that loads an ordinary descriptor, ms", ordinary["load"]["own"]["median"] * 1000, 3)
    bars.add(f"own CPU of begin-install of an ordinary plan, without starting {ordinary['calls']} pkgutil runs, ms",
             (ordinary["own"]["median"] - ordinary["starting"]) * 1000, 3)
    bars.add("own CPU of begin-install, plan of 1 MiB less one line, ms", found["largest"]["own"]["median"] * 1000, 60)
    bars.add("own CPU of begin-install, descriptor of 1 MiB, ms", found["accepted"]["own"]["median"] * 1000, 60)
    bars.add("own CPU of loading a descriptor of 1 MiB, ms", found["accepted"]["load"]["own"]["median"] * 1000, 60)
    bars.add("peak memory of begin-install of a large plan, MiB", max(one["peak"] for one in found.values()) / MIB, 12)
    return table(["plan", "bytes", "targets", "begin-install, own CPU, ms", "of it starting pkgutil, ms", "peak, MiB", "descriptor, bytes", "loading it, own CPU, ms"],
                 rows)


def curves(found, bars):
    rows = [(one["packages"], one["products"], one["calls"], f"{one['allowed']} + {one['extra']}", spread(one["tool"]), ratio(one))
            for one in found["packages"] + found["products"][1:]]
    for one in found["packages"] + found["products"][1:]:
        bars.add(f"runs of pkgutil by inspect, N = {one['packages']}, P = {one['products']}", one["calls"], one["allowed"] + one["extra"],
                 str(one["calls"]))
        bars.add(f"bytes read by inspect for each byte owned, N = {one['packages']}, P = {one['products']}",
                 one["read"] / one["demanded"], 1.1)
    lines = table(["packages in each scope", "products", "pkgutil runs", "allowed", "inspect, ms", "ratio to the floor"], rows) + [""]
    for axis in ("bytes", "files"):
        rows = []
        for one in found[axis]:
            size = sized(one["bytes"]) if axis == "bytes" else f"{one['files']:,}"
            for word, command in ((key, value) for key, value in one.items() if isinstance(value, dict)):
                rows.append((size, word, spread(command["tool"]), spread(command["floor"]), ratio(command), ms(command["own"]["median"])))
        lines += table([axis, "command", "program, ms", "floor, ms", "ratio", "own CPU, ms"], rows) + [""]
    return lines


def memory(found, bars):
    for word, one in found["commands"].items():
        bars.add(f"peak memory of {word}, file of {sized(found['bytes'])}, MiB", one["peak"] / MIB, 12)
    return table(["command", "peak, MiB", "ms"], [(word, f"{one['peak'] / MIB:.1f}", ms(one["seconds"]))
                                                   for word, one in found["commands"].items()])


def snapshots(found, _):
    ways = ["stream hash", "kernel hash", "share hash", "stream plain", "kernel plain", "share plain"]
    rows = [[system] + [spread(rows[way]) if way in rows else "not there" for way in ways] for system, rows in found["systems"].items()]
    return table([f"{sized(found['bytes'])}, with its sync, ms", *ways], rows)


def pieces(found, _):
    rows = []
    for one in found:
        if one["cpu_time"] is None:
            continue
        speed = f"{one['bytes_per_second'] / 1e9:.2f} GB/s" if one.get("bytes_per_second") else ""
        rows.append((f"`{one['name']}`", f"{one['cpu_time']:.1f} {one['time_unit']}", speed))
    return table(["piece", "CPU", ""], rows)


def machine(found):
    extensions = "with" if found["extensions"] else "without"
    return [f"{found['day']}, {found['processors']} processors \"{found['model']}\" ({extensions} SHA instructions), {found['memory']} GiB, "
            f"Linux {found['kernel']}, load {found['load']:.1f} when it began"]


def lines_of(found, axis, key, scale=1):
    series = []
    for word in ("inspect", "prepare-move", "commit-move", "rollback-move"):
        points = [(one[key] / scale, one[word]) for one in found[axis] if word in one]
        for name in ("tool", "floor"):
            if points:
                series.append(Series(f"{word}{'' if name == 'tool' else ', floor'}", [(x, one[name]["median"] * 1000) for x, one in points],
                                     word, name == "floor"))
    return series


def plots(found, directory):
    for axis, title in (("packages", "packages in each scope"), ("products", "products in the descriptor (49 packages)")):
        series = [Series("inspect", [(one[axis], one["tool"]["median"] * 1000) for one in found[axis]], "inspect", False),
                  Series("inspect, floor", [(one[axis], one["floor"]["median"] * 1000) for one in found[axis]], "inspect", True)]
        plot(directory / f"{axis}.svg", title, "ms", series)
    plot(directory / "bytes.svg", "MiB in 10 files", "ms", lines_of(found, "bytes", "bytes", MIB))
    plot(directory / "files.svg", "files of 4 KiB", "ms", lines_of(found, "files", "files"))


PARTS = {"hashing": hashing, "scenes": scenes, "plans": plans, "curves": curves, "memory": memory, "snapshots": snapshots, "pieces": pieces}


def write_report(results, docs):
    bars = Bars()
    texts = {name: write(results[name], bars) for name, write in PARTS.items() if name in results}
    texts["bars"] = table(["figure", "measured", "bar", "reached"], bars.rows)
    texts["machine"] = machine(results["machine"])
    for name, lines in texts.items():
        print(f"\n== {name}\n" + "\n".join(lines))
    if docs is not None:
        place = docs / "performance.md"
        text = place.read_text()
        for name, lines in texts.items():
            text = re.sub(rf"(<!-- {name} -->\n).*?(<!-- end -->)", lambda found: found[1] + "\n".join(lines).rstrip() + "\n" + found[2],
                          text, flags=re.S)
        place.write_text(text)
        plots(results["curves"], docs / "performance")
    missed = [row for row in bars.rows if row[3] != "yes"]
    print(f"\n{len(bars.rows) - len(missed)} of {len(bars.rows)} bars reached")
    return 0
