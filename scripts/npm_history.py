#!/usr/bin/env python3
"""Writes a recorded path history, in the form of ../shared/replay/zstd-300.jsonl,
from the published versions of an npm package: a real tree's history where the
repository itself cannot be cloned.

usage: npm_history.py PKG LOW HIGH COUNT OUT.jsonl [--skip V,V,...]

Takes the stable (x.y.z) versions of PKG from LOW to HIGH, in version order (the
registry's dates are not always the release dates), samples COUNT of them evenly
(first and last included), fetches each with `npm pack` into
/tmp/npm-tarballs/PKG/, and lists its files (the tarball's leading folder,
normally `package/`, stripped). "commit" holds the version.
"""
import json
import os
import re
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor


def main():
    if len(sys.argv) not in (6, 8):
        sys.exit(__doc__)
    pkg, low, high, count, out = sys.argv[1:6]
    count = int(count)
    skip = set(sys.argv[7].split(",")) if len(sys.argv) == 8 and sys.argv[6] == "--skip" else set()

    def npm_json(*args):
        return json.loads(subprocess.check_output(["npm", "view", pkg, *args, "--json"], text=True))

    def key(version):
        return tuple(int(x) for x in version.split("."))

    times = npm_json("time")
    stable = [v for v in npm_json("versions") if re.fullmatch(r"\d+\.\d+\.\d+", v) and v not in skip]
    stable = sorted((v for v in stable if key(low) <= key(v) <= key(high)), key=key)
    if len(stable) > count:
        picked = sorted({round(i * (len(stable) - 1) / (count - 1)) for i in range(count)})
        stable = [stable[i] for i in picked]

    tarballs = f"/tmp/npm-tarballs/{pkg.replace('/', '_')}"
    os.makedirs(tarballs, exist_ok=True)

    def paths_of(version):
        tgz = os.path.join(tarballs, f"{pkg.lstrip('@').replace('/', '-')}-{version}.tgz")
        if not os.path.exists(tgz):
            subprocess.check_call(["npm", "pack", f"{pkg}@{version}", "--silent"], cwd=tarballs,
                                  stdout=subprocess.DEVNULL)
        paths = set()
        for entry in subprocess.check_output(["tar", "tzf", tgz], text=True).splitlines():
            parts = entry.split("/", 1)
            if not entry.endswith("/") and len(parts) == 2 and parts[1]:
                paths.add(parts[1])
        return paths

    with ThreadPoolExecutor(4) as pool:
        trees = list(pool.map(paths_of, stable))

    with open(out, "w") as f:
        before = set()
        for step, (version, now) in enumerate(zip(stable, trees)):
            f.write(json.dumps({"step": step, "commit": version, "date": times[version],
                                "added": sorted(now - before), "removed": sorted(before - now)}) + "\n")
            before = now
    for version, now in zip(stable, trees):
        print(version, times[version][:10], len(now))


if __name__ == "__main__":
    main()
