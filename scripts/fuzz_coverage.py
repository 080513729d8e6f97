#!/usr/bin/env python3
"""Measures which lines and branches of the module and its library the fuzz targets reach.

    scripts/fuzz_coverage.py                 all targets
    scripts/fuzz_coverage.py TARGET...       only these

    --seconds N   fuzzes each target for N seconds (20) from its committed inputs and from what
                  earlier runs of scripts/fuzz.sh found; 0: only runs these inputs
    --missed      also prints the lines that were not reached, and those with a branch that was
                  not taken

The targets are built with clang's coverage, without sanitizers, in build/fuzz-coverage. Prints
one row per source file of module/, quorvane_lib/ and include/.
"""
import argparse
import collections
import os
import pathlib
import re
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "fuzz-coverage"
FOLDERS = ("module", "quorvane_lib", "include/quorvane")
FLAGS = "-fprofile-instr-generate -fcoverage-mapping"

File = collections.namedtuple("File", "lines branches")  # line: count; (line, ...): count


def run(command, **options):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          errors="replace", check=False, **options)
    if done.returncode != 0:
        raise SystemExit(f"fuzz_coverage: {' '.join(map(str, command))[:300]} failed:\n"
                         f"{done.stdout[-3000:]}")
    return done.stdout


def tool(name):
    """llvm-cov or llvm-profdata, of the same version as clang."""
    version = re.search(r"version (\d+)", run(["clang++", "--version"])).group(1)
    found = shutil.which(f"{name}-{version}") or shutil.which(name)
    if not found:
        raise SystemExit(f"fuzz_coverage: {name} is missing: scripts/setup.sh installs it")
    return found


def build(targets):
    run(["cmake", "--preset", "fuzz", "-B", BUILD, "-DQUORVANE_SANITIZE=",
         f"-DCMAKE_CXX_FLAGS={FLAGS}"], cwd=ROOT)
    run(["cmake", "--build", BUILD, "--target", *(f"fuzz_{name}" for name in targets)], cwd=ROOT)


def fuzz(name, seconds):
    program = BUILD / "fuzz" / f"fuzz_{name}"
    # The inputs that this run finds are not kept.
    found = BUILD / "found" / name
    shutil.rmtree(found, ignore_errors=True)
    found.mkdir(parents=True)
    inputs = [folder for folder in (ROOT / "fuzz" / "corpus" / name,
                                    ROOT / "build" / "fuzz" / "found" / name) if folder.is_dir()]
    options = [f"-max_len={program.with_suffix('.max_length').read_text()}"]
    options.append(f"-max_total_time={seconds}" if seconds else "-runs=0")
    dictionary = ROOT / "fuzz" / f"fuzz_{name}.dict"
    if dictionary.is_file():
        options.append(f"-dict={dictionary}")
    more = ROOT / "fuzz" / f"fuzz_{name}.options"
    if more.is_file():
        options += more.read_text().split()
    # One file for the program and one for the module that it loads.
    environment = dict(os.environ, LLVM_PROFILE_FILE=str(BUILD / "profiles" / f"{name}-%m.profraw"))
    run([program, found, *inputs, *options, f"-artifact_prefix={found}/"], cwd=program.parent,
        env=environment)


def read_report(text):
    """The files of an lcov report; a line or branch that is compiled several times counts once."""
    files = {}
    for line in text.splitlines():
        kind, _, rest = line.partition(":")
        if kind == "SF":
            name = os.path.relpath(rest, ROOT)
            files[name] = current = File({}, {})
        elif kind == "DA":
            number, count = rest.split(",")[:2]
            current.lines[int(number)] = max(int(count), current.lines.get(int(number), 0))
        elif kind == "BRDA":
            number, block, branch, count = rest.split(",")
            place = (int(number), block, branch)
            taken = 0 if count == "-" else int(count)
            current.branches[place] = max(taken, current.branches.get(place, 0))
    return {name: file for name, file in sorted(files.items()) if name.startswith(FOLDERS)}


def share(counts):
    reached = sum(count > 0 for count in counts)
    return f"{reached}/{len(counts)}" + (f" ({100 * reached / len(counts):.1f} %)" if counts else "")


def missed(name, file):
    source = (ROOT / name).read_text(encoding="utf-8").splitlines()
    for number in sorted(number for number, count in file.lines.items() if count == 0):
        yield f"{name}:{number}: not reached: {source[number - 1].strip()}"
    half = {place[0] for place, count in file.branches.items() if count == 0}
    for number in sorted(half):
        if file.lines.get(number, 1) > 0:
            yield f"{name}:{number}: a branch not taken: {source[number - 1].strip()}"


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("targets", nargs="*", metavar="TARGET")
    parser.add_argument("--seconds", type=int, default=20)
    parser.add_argument("--missed", action="store_true")
    arguments = parser.parse_args()
    known = sorted(path.name for path in (ROOT / "fuzz" / "corpus").iterdir())
    for name in arguments.targets:
        if name not in known:
            parser.error(f"no target '{name}'; there are: {' '.join(known)}")
    targets = arguments.targets or known
    cov, profdata = tool("llvm-cov"), tool("llvm-profdata")

    build(targets)
    profiles = BUILD / "profiles"
    shutil.rmtree(profiles, ignore_errors=True)
    for name in targets:
        fuzz(name, arguments.seconds)
    merged = BUILD / "merged.profdata"
    run([profdata, "merge", "-sparse", *profiles.iterdir(), "-o", merged])
    objects = [BUILD / "fuzz" / f"fuzz_{name}" for name in targets]
    module = BUILD / "relocated" / "mod_quorvane.so"
    objects += [module] if module.is_file() else []
    report = run([cov, "export", "-format=lcov", f"-instr-profile={merged}", objects[0],
                  *(f"-object={path}" for path in objects[1:])])
    files = read_report(report)
    print("| File | Lines | Branches |\n|---|---|---|")
    for name, file in files.items():
        print(f"| `{name}` | {share(file.lines.values())} | {share(file.branches.values())} |")
    if arguments.missed:
        for name, file in files.items():
            print(*missed(name, file), sep="\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
