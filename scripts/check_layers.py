#!/usr/bin/env python3
"""Checks the include layering of docs/ARCHITECTURE.md.

A folder of src/ may include its own headers and those of folders on lower layers; tools/,
hosts/ and examples/ include only the public headers (include/) and their own files. Prints one
line per offending include and exits 1 when there is any.

    python3 scripts/check_layers.py [ROOT]
"""
import pathlib
import re
import sys

# Layer of each src folder: an include must point to a lower layer or the same folder.
LAYERS = {
    "runtime": 0,
    "image": 1,
    "solver": 2, "resample": 2,
    "matting": 3, "editor": 3,
    "foreground": 4, "grabcut": 4, "flows": 4, "subject": 4,
    "keepcut": 5, "strokes": 5,
    "workflow": 6,
}
# Known exceptions, each with its reason (docs/ARCHITECTURE.md, "Layers").
EXCEPTIONS = {
    # The set-up call picks the image kernels' code path for the processor once.
    ("src/runtime/environment.cpp", "image/dispatch.h"),
}
PUBLIC = {"qxiveilon31.h", "qxworkflow.h"}
HOST_DIRS = ("tools", "hosts", "examples")
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"')
SOURCES = {".c", ".cc", ".cpp", ".h", ".hpp"}


def offences(root):
    for path in sorted(root.rglob("*")):
        if path.suffix not in SOURCES or not path.is_file():
            continue
        rel = path.relative_to(root)
        top = rel.parts[0]
        if top not in ("src",) + HOST_DIRS:
            continue
        for number, line in enumerate(path.read_text(errors="replace").splitlines(), 1):
            match = INCLUDE.match(line)
            if not match:
                continue
            target = match.group(1)
            where = f"{rel}:{number}: includes \"{target}\""
            if target in PUBLIC or (path.parent / target).is_file():
                continue  # the public interface, or a file beside the includer
            if top in HOST_DIRS:
                yield f"{where}: {top}/ may include only the public headers"
                continue
            if len(rel.parts) < 3 or rel.parts[1] not in LAYERS:
                yield f"{where}: {rel.parent} has no layer in scripts/check_layers.py"
                continue
            folder = rel.parts[1]
            other = target.split("/")[0]
            if "/" not in target or other not in LAYERS:
                yield f"{where}: not a header of a src folder"
            elif other != folder and LAYERS[other] >= LAYERS[folder] and \
                    (str(rel), target) not in EXCEPTIONS:
                yield (f"{where}: {folder} (layer {LAYERS[folder]}) may not include "
                       f"{other} (layer {LAYERS[other]})")


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else
                        pathlib.Path(__file__).resolve().parent.parent)
    found = list(offences(root))
    for line in found:
        print(line)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
