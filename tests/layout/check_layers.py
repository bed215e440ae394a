#!/usr/bin/env python3
"""Fails when a room includes a room above it, or a file or folder outgrows
the layout's limits. Run from the source root; prints each breach."""
import os
import re
import sys

# Lowest first; a room may include its own headers and any room listed before it.
ROOMS = ["util", "model", "store", "store/sqlite", "store/postgres", "plan_record",
         "planner", "orchestrator"]
# The installed headers, by the room that implements them.
PUBLIC = {
    "errors": "util", "json": "util", "logger": "util", "regex": "util", "safe_fs": "util",
    "types": "model",
    "store": "store", "sqlite_store": "store/sqlite",
    "host": "plan_record", "page_retirement": "plan_record", "plan_record": "plan_record",
    "replan_carry": "plan_record", "steering": "plan_record",
    "planner": "planner", "orchestrator": "orchestrator",
}
# Two backends are siblings; the PostgreSQL one keeps its hash cache in SQLite.
ALLOWED = {("store/postgres", "store/sqlite")}
MAX_LINES = 450
MAX_FILES = 20
INCLUDE = re.compile(r'#include "([^"]+)"')


def room_of(path):
    best = None
    for room in ROOMS:
        if path == room or path.startswith(room + "/"):
            best = room
    return best


def target_room(include):
    if include.startswith("zenthar_kodrune/workers/wiki/"):
        name = include[len("zenthar_kodrune/workers/wiki/"):-len(".hpp")]
        return PUBLIC.get(name, "unknown public header " + name)
    if include.startswith("workers/wiki/"):
        return room_of(os.path.dirname(include[len("workers/wiki/"):]))
    return None


def main():
    breaches = []
    src = "src/workers/wiki"
    for folder, _, files in os.walk(src):
        relative = os.path.relpath(folder, src)
        room = room_of(relative)
        for name in files:
            if not name.endswith((".cpp", ".hpp")):
                continue
            path = os.path.join(folder, name)
            with open(path, encoding="utf-8") as f:
                text = f.read()
            for include in INCLUDE.findall(text):
                target = target_room(include)
                if target is None:
                    continue
                if target not in ROOMS:
                    breaches.append(f"{path}: {target}")
                elif ROOMS.index(target) > ROOMS.index(room) and (room, target) not in ALLOWED:
                    breaches.append(f"{path}: room {room} includes {include} of room {target}")
    for top in ("src", "tools", "include", "tests"):
        for folder, _, files in os.walk(top):
            sources = [n for n in files if n.endswith((".cpp", ".hpp"))]
            if len(sources) > MAX_FILES:
                breaches.append(f"{folder}: {len(sources)} files, more than {MAX_FILES}")
            for name in sources:
                path = os.path.join(folder, name)
                with open(path, encoding="utf-8") as f:
                    lines = sum(1 for _ in f)
                if lines > MAX_LINES:
                    breaches.append(f"{path}: {lines} lines, more than {MAX_LINES}")
    for breach in breaches:
        print(breach)
    return 1 if breaches else 0


if __name__ == "__main__":
    sys.exit(main())
