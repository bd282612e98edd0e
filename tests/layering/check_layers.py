#!/usr/bin/env python3
"""Checks that every #include of the component runs down its layers.

    check_layers.py SOURCE_DIR

Layers, lowest first: the runtime (src/platform, include/vorn/rt and the
runtime's public headers), core, stream, parameters, files, schema, module.
A file of a layer may include its own layer's headers and lower layers'.
The public headers generated from the schema (vorn/enums.h, vorn/groups.h and
the headers that include them) may be used from the parameters up. The tools
reach the component through the public headers only; the type-library
generator belongs to the schema layer's build. Prints every offending
include as FILE:LINE and exits 1 when there is one.
"""
import os
import re
import sys

LAYERS = ["platform", "core", "stream", "parameters", "files", "schema", "module"]
RANK = {name: rank for rank, name in enumerate(LAYERS)}
# Public headers and the lowest layer that may include them.
GENERATED_API = {"vorn/enums.h", "vorn/groups.h", "vorn/parameter.h", "vorn/units.h", "vorn/vorndb.h"}
# Formats of the runtime that live among the public headers.
RUNTIME_FORMATS = {"vorn/typelib_format.h"}
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"')


def lowest_rank_for(header):
    """The lowest layer rank that may include `header`, or None when it is not
    a layer-qualified header of the project."""
    if header.startswith("vorn/rt/") or header == "vorn/platform.h" or header in RUNTIME_FORMATS:
        return RANK["platform"]
    if header in GENERATED_API:
        return RANK["parameters"]
    if header.startswith("vorn/"):
        return RANK["core"]
    top = header.split("/", 1)[0]
    if "/" in header and top in RANK:
        return RANK[top]
    return None


def sources(root):
    for base, _, files in os.walk(root):
        for name in sorted(files):
            if name.endswith((".h", ".cpp")):
                yield os.path.join(base, name)


def includes(path):
    with open(path, encoding="utf-8") as f:
        for number, line in enumerate(f, 1):
            match = INCLUDE.match(line)
            if match:
                yield number, match.group(1)


def check(source_dir):
    faults = []

    def judge(path, rank, public_only):
        for number, header in includes(path):
            needed = lowest_rank_for(header)
            if needed is None:
                continue  # a header beside the file
            if public_only and not header.startswith("vorn/"):
                faults.append("%s:%d: a tool includes the component's %s" % (path, number, header))
            elif needed > rank:
                faults.append("%s:%d: %s is above this layer" % (path, number, header))

    for layer in LAYERS:
        for path in sources(os.path.join(source_dir, "src", layer)):
            judge(path, RANK[layer], False)
    for path in sources(os.path.join(source_dir, "include", "vorn", "rt")):
        judge(path, RANK["platform"], False)
    for tool in ("vorndb", "vornregsvr"):
        for path in sources(os.path.join(source_dir, "tools", tool)):
            judge(path, len(LAYERS), True)
    # The type-library generator runs in the build of the schema layer.
    for path in sources(os.path.join(source_dir, "tools", "typelibgen")):
        judge(path, RANK["schema"], False)
    return faults


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    faults = check(sys.argv[1])
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
