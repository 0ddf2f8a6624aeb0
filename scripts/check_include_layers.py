#!/usr/bin/env python3
"""Checks the include graph of the tree against its layers.

Layers, lowest first: cloud_defs, services, smart_frame, gateway,
port/posix, apps. A file may include files of its own layer or of a lower
one, never of a higher one; no two files may include each other through
any chain (a loop); and the module's rooms keep their order (the report
room never includes the presence room, whose DP sync is built on it).

Usage: check_include_layers.py [ROOT]. Prints every breach and exits 1 on
any, else prints a one-line summary and exits 0.
"""
import os
import re
import subprocess
import sys

LAYERS = ["cloud_defs", "services", "smart_frame", "gateway", "port", "apps"]
# rooms of one layer that must not reach into another room of it
FORBIDDEN_ROOMS = [
    ("smart_frame/report/", "smart_frame/presence/"),
    ("smart_frame/inbound/", "smart_frame/presence/"),
    ("port/posix/runtime/", "port/posix/mqtt/"),
    ("port/posix/runtime/", "port/posix/lan/"),
    ("port/posix/runtime/", "port/posix/state/"),
    ("port/posix/log/", "port/posix/mqtt/"),
    ("port/posix/log/", "port/posix/lan/"),
    ("gateway/sync/", "gateway/registry/"),
    ("gateway/sync/", "gateway/edge/"),
]
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)


def layer_of(path):
    top = path.split("/", 1)[0]
    return LAYERS.index(top) if top in LAYERS else None


def main():
    root = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), ".."))
    os.chdir(root)
    try:
        listed = subprocess.check_output(["git", "ls-files", "-co", "--exclude-standard"], text=True).split()
    except (OSError, subprocess.CalledProcessError):
        listed = [os.path.relpath(os.path.join(d, f), root) for d, _, fs in os.walk(root) for f in fs]
    files = sorted(p for p in listed if p.endswith((".c", ".cpp", ".h")) and layer_of(p) is not None)
    known = set(files)
    edges = {}
    problems = []
    for path in files:
        with open(path, encoding="utf-8", errors="replace") as f:
            text = f.read()
        targets = []
        for inc in INCLUDE.findall(text):
            beside = os.path.normpath(os.path.join(os.path.dirname(path), inc))
            target = beside if beside in known else (inc if inc in known else None)
            if target is None:
                continue
            targets.append(target)
            if layer_of(target) > layer_of(path):
                problems.append(f"{path} includes {target}, a higher layer")
            for low, high in FORBIDDEN_ROOMS:
                if path.startswith(low) and target.startswith(high):
                    problems.append(f"{path} includes {target}: {low} stays below {high}")
        edges[path] = targets
    # loops: Tarjan's strongly connected components
    index, low, stack, on_stack, loops = {}, {}, [], set(), []
    counter = [0]

    def visit(v):
        index[v] = low[v] = counter[0]
        counter[0] += 1
        stack.append(v)
        on_stack.add(v)
        for w in edges.get(v, []):
            if w not in index:
                visit(w)
                low[v] = min(low[v], low[w])
            elif w in on_stack:
                low[v] = min(low[v], index[w])
        if low[v] == index[v]:
            component = []
            while True:
                w = stack.pop()
                on_stack.discard(w)
                component.append(w)
                if w == v:
                    break
            if len(component) > 1:
                loops.append(sorted(component))

    sys.setrecursionlimit(10000)
    for v in files:
        if v not in index:
            visit(v)
    for loop in loops:
        problems.append("include loop: " + " -> ".join(loop))
    for p in problems:
        print(p)
    if problems:
        return 1
    print(f"include layers hold: {len(files)} files, {sum(len(t) for t in edges.values())} includes, no loop")
    return 0


if __name__ == "__main__":
    sys.exit(main())
