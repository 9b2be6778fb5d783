"""Measures the program side by side with its floor. Called by ./dev bench, inside a rehearsal root."""

import argparse
import hashlib
import json
import os
import shutil
import statistics
import subprocess
import sys
import time
from pathlib import Path

import scene
from floor import Floor, copies, count_syncs, hashes, logged_calls
from measure import Launcher
from report import write_report

MIB = 1 << 20


def median(values):
    return statistics.median(values)


def summary(runs, key="seconds"):
    values = [getattr(run, key) for run in runs]
    return {"median": median(values), "low": min(values), "high": max(values), "runs": len(values)}


def side_by_side(tool, floor, **more):
    ratios = [one.seconds / other.seconds for one, other in zip(tool, floor)]
    return {"tool": summary(tool), "floor": summary(floor), "own": summary(tool, "own"), "peak": max(run.peak for run in tool),
            "read": tool[-1].read, "calls": tool[-1].calls,
            "ratio": {"median": summary(tool)["median"] / summary(floor)["median"], "low": min(ratios), "high": max(ratios)},
            **more}


class Bench:
    def __init__(self, build, share, quick):
        self.build = Path(build)
        self.share = Path(share)
        self.quick = quick
        self.tool = self.build / "TamarindPelicanMaintenance"
        self.launcher = Launcher(self.build / "bench/launch")
        self.serial = 0
        self.results = {"machine": machine(), "quick": quick}
        self.begun = time.monotonic()

    def say(self, text):
        print(f"{time.monotonic() - self.begun:5.0f} s  {text}", flush=True)

    def floor(self, scope):
        root = scene.ROOT[scope] / "Library"
        return Floor(self.build / "bench/floor", self.launcher, root / ".floor/copies")

    def command(self, word, scope, identifier, expected=0):
        run = self.launcher.run(self.tool, word, scope, identifier)
        if run.status != expected:
            raise RuntimeError(f"{word} ended with {run.status}: {run.output}")
        return run

    def fresh(self, scope, packages, **options):
        self.serial += 1
        identifier = f"bench-{self.serial}"
        scene.publish(identifier, scope, packages, **options)
        return identifier

    # One scene, all commands.

    def inspections(self, scope, identifier, here, there, rounds):
        opposite = "user" if scope == "system" else "system"
        work = hashes(scope, here) + hashes(opposite, there)
        floor = self.floor(scope)
        self.command("inspect", scope, identifier)
        calls = logged_calls()
        pairs = []
        for number in range(rounds):
            both = [lambda: self.command("inspect", scope, identifier), lambda: floor.run(calls, work, 0)]
            measured = [both[k]() for k in ((0, 1) if number % 2 == 0 else (1, 0))]
            pairs.append(measured if number % 2 == 0 else measured[::-1])
        demanded = sum(file.size for package in here + there for file in package.files)
        return side_by_side([p[0] for p in pairs], [p[1] for p in pairs], demanded=demanded)

    def transactions(self, scope, everything, brought, rounds):
        """prepare-move, commit-move and rollback-move of the packages `brought`, which are installed already."""
        floor = self.floor(scope)
        place = floor.directory
        syncs = {}
        measured = {"prepare-move": [], "commit-move": [], "rollback-move": []}

        def both(word, identifier, work, discarded=()):
            run = self.command(word, scope, identifier)
            measured[word].append((run, floor.run(logged_calls(), work, syncs[word], discarded)))

        affected = [package for package in everything if package in brought]
        prepare = hashes(scope, everything, 4) + hashes(scope, affected) + \
            copies(scope, brought, place, "target") + copies(scope, affected, place, "owned")
        commit = hashes(scope, everything, 2) + hashes(scope, brought)
        changed = [package for package in brought if package.identifier.endswith(".au")]
        # The proofs read the two copies of each file, the restoration looks at each place twice.
        rollback = hashes(scope, brought, 4) + hashes(scope, changed) + copies(scope, changed, place, "restored")

        # Every file lies twice in a transaction, which goes when the transaction ends.
        snapshots = [scene.ROOT[scope] / file.path for package in brought for file in package.files] * 2

        identifier = self.fresh(scope, brought)
        for word in ("prepare-move", "commit-move"):
            syncs[word] = count_syncs([self.tool, word, scope, identifier])
        identifier = self.fresh(scope, brought)
        self.command("prepare-move", scope, identifier)
        self.tamper(scope, changed)
        syncs["rollback-move"] = count_syncs([self.tool, "rollback-move", scope, identifier])
        for _ in range(rounds):
            identifier = self.fresh(scope, brought)
            both("prepare-move", identifier, prepare)
            both("commit-move", identifier, commit, snapshots)
            identifier = self.fresh(scope, brought)
            self.command("prepare-move", scope, identifier)
            self.tamper(scope, changed)
            both("rollback-move", identifier, rollback, snapshots)
        return {word: side_by_side([p[0] for p in pairs], [p[1] for p in pairs], syncs=syncs[word])
                for word, pairs in measured.items()}

    def tamper(self, scope, packages):
        for package in packages:
            for file in package.files:
                with open(scene.ROOT[scope] / file.path, "r+b") as place:
                    place.write(b"#")

    # The bars, one after the other.

    def hashing(self):
        self.say("hashing a warm file of 1 GiB")
        size = 1 << (26 if self.quick else 30)
        path = self.share / "hashed"
        scene.File(str(path)[1:], size, "hashed").write(Path("/"))
        ways = {"program": [self.build / "bench/hash_file", "fastest", path],
                "openssl": ["/usr/bin/openssl", "dgst", "-sha256", path],
                "portable": [self.build / "bench/hash_file", "portable", path],
                "sha256sum": ["/usr/bin/sha256sum", path]}
        runs = {name: [] for name in ways}
        self.launcher.run(*ways["program"])
        for _ in range(3 if self.quick else 5):
            for name, arguments in ways.items():
                runs[name].append(self.launcher.run(*arguments))
        path.unlink()
        self.results["hashing"] = {"bytes": size, **{name: summary(all) for name, all in runs.items()}}

    def plans(self):
        self.say("plans and descriptors of all sizes")
        rounds = 5 if self.quick else 21
        place = Path("/bench-plan")
        place.mkdir()
        tool = shutil.copy(self.tool, place / "tool")
        results = self.results["plans"] = {}
        for name, files in (("ordinary", 24), ("accepted", 6150), ("largest", None)):
            packages, text = sized_plan(files)
            (place / "transaction-plan.tpmp").write_text(text)
            (place / "transaction-plan.tpmp").chmod(0o600)
            runs = []
            for _ in range(rounds):
                scene.clear()
                runs.append(self.launcher.run(tool, "begin-install", "system"))
            if {run.status for run in runs} != ({65} if name == "largest" else {0}):
                raise RuntimeError(f"begin-install of the {name} plan: {runs[0].output}")
            results[name] = {"bytes": len(text), "targets": text.count("\ntarget="), "own": summary(runs, "own"),
                             "seconds": summary(runs), "peak": max(run.peak for run in runs), "status": runs[0].status}
            if name == "largest":
                continue
            # What starting its pkgutil runs takes of a process, whichever it is.
            floor = self.floor("system")
            calls = logged_calls()
            runs = {count: [floor.run(calls[:count], [], 0) for _ in range(rounds)] for count in (0, len(calls))}
            results[name]["starting"] = summary(runs[len(calls)], "own")["median"] - summary(runs[0], "own")["median"]
            results[name]["calls"] = len(calls)
            scene.clear()
            size = scene.publish("sized", "system", packages)
            # Ends where the transaction should be, when everything up to there is done: no pkgutil run, no hash.
            loads = [self.command("commit-move", "system", "sized", 65) for _ in range(rounds)]
            results[name]["load"] = {"bytes": size, "own": summary(loads, "own"), "peak": max(run.peak for run in loads)}
        shutil.rmtree(place)

    def scenes(self):
        where = {"memory": None, "disk": self.share / "disk"}
        self.results["scenes"] = {}
        for disk, directory in where.items():
            for name, products, files, size in (("one plug-in", 1, 40, 64 * MIB), ("a full scope", 24, 20, 4 * MIB)):
                self.say(f"every command: {name}, {disk}")
                with mounted(directory):
                    scene.clear()
                    everything = [scene.common()]
                    for number in range(products):
                        everything += scene.product(f"p{number:02}", "1.0", files, size)
                    scene.install("system", everything)
                    rounds = 3 if self.quick else 7
                    brought = everything[:3]
                    brought = brought[1:] + brought[:1]
                    identifier = self.fresh("system", brought)
                    found = {"inspect": self.inspections("system", identifier, everything, [], rounds)}
                    found.update(self.transactions("system", everything, brought, rounds))
                    self.results["scenes"][f"{name}, {disk}"] = found
                    scene.clear()

    def curves(self):
        rounds = 3 if self.quick else 7
        curves = self.results["curves"] = {"packages": [], "products": [], "bytes": [], "files": []}
        for count in (2, 8, 24, 49):
            self.say(f"{count} packages in each scope")
            packages = ([scene.common()] if count % 2 else [])
            for number in range(count // 2):
                packages += scene.product(f"p{number:02}", "1.0", 8, 8 * 65536)
            shared = packages if count % 2 else [*packages, scene.common()]
            scene.clear()
            scene.install("user", packages)
            scene.install("system", packages)
            for file in shared[-1].files if not count % 2 else []:
                file.digest = "0" * 64
            for products in ((1, 8, 24) if count == 49 else (1,)):
                names = {f"p{number:02}" for number in range(products)}
                brought = [package for package in shared if package.product in names or package.product == "common"]
                identifier = self.fresh("system", brought, source="user")
                found = self.inspections("system", identifier, packages, packages, rounds)
                found.update(packages=count, products=products, allowed=2 * (1 + 2 * count), extra=2)
                if found["calls"] > found["allowed"] + found["extra"]:
                    raise RuntimeError("too many runs of pkgutil")
                if products == 1:
                    curves["packages"].append(found)
                if count == 49:
                    curves["products"].append(found)
        for size in (1, 16, 256) if self.quick else (1, 16, 256, 1024, 4096):
            self.say(f"{size} MiB")
            curves["bytes"].append({"bytes": size * MIB, **self.sized(10, size * MIB, size <= 1024, 2 if size > 256 else rounds)})
        for count in (10, 100, 1000) if self.quick else (10, 100, 1000, 7000):
            self.say(f"{count} files")
            curves["files"].append({"files": count, **self.sized(count, count * 4096, True, 3 if count == 7000 else rounds)})

    def sized(self, files, size, moved, rounds):
        scene.clear()
        everything = scene.product("p", "1.0", files, size) + [scene.common()]
        scene.install("system", everything)
        listed = [scene.Package(package.identifier, package.product, package.version, package.files[:2500]) for package in everything]
        identifier = self.fresh("system", listed)
        found = {"inspect": self.inspections("system", identifier, everything, [], rounds)}
        if moved and files < 5000:
            found.update(self.transactions("system", everything, everything, rounds))
        scene.clear()
        return found

    def memory(self):
        self.say("peak memory with a file of 2 GiB")
        size = (64 if self.quick else 2048) * MIB
        scene.clear()
        everything = scene.product("p", "1.0", 2, size * 2) + [scene.common()]
        everything[1].files[0].size = 4096
        place = Path("/bench-plan")
        place.mkdir()
        tool = shutil.copy(self.tool, place / "tool")
        for package in everything:
            for file in package.files:
                file.write(scene.ROOT["system"])
        (place / "transaction-plan.tpmp").write_text(scene.plan(everything))
        (place / "transaction-plan.tpmp").chmod(0o600)
        runs = {"begin-install": self.launcher.run(tool, "begin-install", "system")}
        for package in everything:
            package.register("system")
        shutil.rmtree("/" + scene.MAINTENANCE)
        (Path("/") / scene.MAINTENANCE / "Inbox").mkdir(parents=True)
        first = self.fresh("system", everything)
        for word in ("inspect", "prepare-move", "commit-move"):
            runs[word] = self.command(word, "system", first)
        second = self.fresh("system", everything)
        self.command("prepare-move", "system", second)
        self.tamper("system", everything[:1])
        runs["rollback-move"] = self.command("rollback-move", "system", second)
        third = self.fresh("system", everything)
        runs["uninstall-product"] = self.command("uninstall-product", "system", third)
        shutil.rmtree(place)
        scene.clear()
        self.results["memory"] = {"bytes": size, "commands": {word: {"peak": run.peak, "seconds": run.seconds}
                                                              for word, run in runs.items()}}

    def snapshots(self):
        self.say("ways to copy a file")
        size = (32 if self.quick else 256) * MIB
        ways = [("stream", 65536), ("kernel", 262144), ("share", 65536)]
        found = self.results["snapshots"] = {"bytes": size, "systems": {}}
        places = {"memory": None, "disk": self.share / "disk", "xfs": "mkfs.xfs", "btrfs": "mkfs.btrfs"}
        for name, what in places.items():
            with mounted(what, self.share, size):
                place = Path("/Library/bench-copies")
                place.mkdir()
                scene.File(str(place / "source")[1:], size, "source").write(Path("/"))
                os.sync()
                rows = found["systems"][f"{name} ({filesystem(place)})"] = {}
                for _ in range(2 if self.quick else 5):
                    for way, chunk in ways:
                        for hashed in ("hash", "plain"):
                            done = subprocess.run([self.build / "bench/copying", way, hashed, str(chunk), place / "source",
                                                   place / "copy"], capture_output=True, text=True)
                            if done.returncode == 0:
                                rows.setdefault(f"{way} {hashed}", []).append(float(done.stdout.split()[1]))
                            (place / "copy").unlink(missing_ok=True)
                for key, values in rows.items():
                    rows[key] = {"median": median(values), "low": min(values), "high": max(values)}
                shutil.rmtree(place)

    def pieces(self):
        self.say("microbenchmarks")
        done = subprocess.run([self.build / "bench/pieces", "--benchmark_format=json",
                               f"--benchmark_min_time={0.02 if self.quick else 0.3}"], capture_output=True, text=True, check=True)
        self.results["pieces"] = [{key: one.get(key) for key in ("name", "cpu_time", "time_unit", "bytes_per_second")}
                                  for one in json.loads(done.stdout)["benchmarks"]]


class mounted:
    """/Library on another file system: a directory of the disk, or a new one in a file; nothing stays as it is."""

    def __init__(self, what, share=None, size=0):
        self.what = what
        self.image = share / "image" if isinstance(what, str) else None
        self.size = size

    def __enter__(self):
        if self.what is None:
            return
        if self.image:
            with open(self.image, "wb") as image:
                image.truncate(max(4 * self.size, 1 << 30))
            subprocess.run([self.what, "-q", self.image], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            subprocess.run(["mount", "-o", "loop", self.image, "/Library"], check=True)
        else:
            self.what.mkdir(mode=0o755)
            subprocess.run(["mount", "--bind", self.what, "/Library"], check=True)
        Path("/Library/Application Support").mkdir()

    def __exit__(self, *_):
        if self.what is None:
            return
        subprocess.run(["umount", "/Library"], check=True)
        if self.image:
            self.image.unlink()
        else:
            shutil.rmtree(self.what)


def filesystem(place):
    return subprocess.run(["findmnt", "-no", "FSTYPE", "--target", place], capture_output=True, text=True, check=True).stdout.strip()


def sized_plan(files):
    """Packages with so many files, or as many as a plan of 1 MiB takes, and their plan."""
    count = files or 8400
    while True:
        packages = scene.product("a", "1.0", count, count) + [scene.common()]
        for package in packages:
            for file in package.files:
                file.digest = hashlib.sha256(file.path.encode()).hexdigest()
        text = scene.plan(packages)
        if len(text) <= 1048576:
            return packages, text
        count -= max(1, (len(text) - 1048576) // 150)


def machine():
    model = next((line.split(":")[1].strip() for line in open("/proc/cpuinfo") if line.startswith("model name")), "unknown")
    memory = int(next(line.split()[1] for line in open("/proc/meminfo") if line.startswith("MemTotal"))) // 1048576
    flags = next(line for line in open("/proc/cpuinfo") if line.startswith(("flags", "Features"))).split()
    return {"model": model, "processors": os.cpu_count(), "memory": memory, "kernel": os.uname().release,
            "extensions": any(flag in flags for flag in ("sha_ni", "sha2")), "load": os.getloadavg()[0],
            "day": time.strftime("%Y-%m-%d")}


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True)
    parser.add_argument("--share", required=True)
    parser.add_argument("--docs", required=True)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--only", action="append")
    options = parser.parse_args()
    bench = Bench(options.build, options.share, options.quick)
    parts = [bench.hashing, bench.pieces, bench.plans, bench.scenes, bench.curves, bench.memory, bench.snapshots]
    for part in parts:
        if not options.only or part.__name__ in options.only:
            part()
    bench.say("done")
    (bench.share / "results.json").write_text(json.dumps(bench.results, indent=1))
    return write_report(bench.results, None if options.quick or options.only else Path(options.docs))


if __name__ == "__main__":
    sys.exit(main())
