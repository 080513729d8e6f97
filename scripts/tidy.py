#!/usr/bin/env python3
"""Runs clang-tidy on the sources that changed since they were last found clean.

    scripts/tidy.py                  every source of the product
    scripts/tidy.py FILE...          only these files
    scripts/tidy.py --fresh ...      ignores the results of earlier runs

What clang-tidy finds in a file depends on the file, on what it includes, on how it is compiled,
on .clang-tidy, and on the versions of clang-tidy and of the libraries. If none of these has
changed, a clean file is still clean; stamps of clean files are kept in
${XDG_CACHE_HOME:-~/.cache}/quorvane/tidy. Exits with 1 if a file is not clean.

clang-tidy spends most of its time on the headers of libraries. The files of a folder are therefore
first checked as one source, with the headers once. If that is not clean, each of them is
checked by itself, and only what is found then counts.
"""
import argparse
import collections
import concurrent.futures
import hashlib
import json
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "tidy"
# The programs are checked without the analyzer: on their libraries' headers it would spend most
# of the time that all tests take.
ANALYZED = ("quorvane_lib", "module", "host")
NOT_ANALYZED = ("node", "tools")
INCLUDE = re.compile(r'^\s*#\s*include\s*[<"]([^>"]+)[>"]', re.MULTILINE)
INCLUDE_FOLDERS = (ROOT, ROOT / "include", ROOT / "host" / "include")
KEPT_FOR_DAYS = 60
# One source of fewer files than this saves nothing.
FEWEST_JOINED = 3
# Its header of the kernel and the C library's header of the same name define the same types.
NOT_JOINED = {ROOT / "node" / "web" / "sockets.cpp"}
# A name that a source takes from another namespace, outside functions.
TAKES_A_NAME = re.compile(r"^using (?!namespace)[\w:]+;", re.MULTILINE)


def cache_folder():
    base = os.environ.get("XDG_CACHE_HOME") or pathlib.Path.home() / ".cache"
    return pathlib.Path(base) / "quorvane" / "tidy"


def output_of(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True, cwd=ROOT).stdout


def configure():
    """Writes the compile commands of all files and the files that the build generates."""
    for command in (["cmake", "--preset", "tidy"],
                    ["cmake", "--build", BUILD, "--target", "build_identifier",
                     "quorvane_node_units_page"]):
        result = subprocess.run(command, cwd=ROOT, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True, check=False)
        if result.returncode != 0:
            sys.exit(result.stdout)


class Includes:
    """The project's files that a file includes, and the file itself."""

    def __init__(self):
        self.direct = {}

    def of(self, path):
        seen, waiting = set(), [path]
        while waiting:
            current = waiting.pop()
            if current not in seen:
                seen.add(current)
                waiting += self.directly(current)
        return sorted(seen)

    def directly(self, path):
        if path not in self.direct:
            names = INCLUDE.findall(path.read_text())
            candidates = [folder / name for name in names
                          for folder in (path.parent, *INCLUDE_FOLDERS)]
            self.direct[path] = [found for found in candidates if found.is_file()]
        return self.direct[path]


def environment_hash():
    """The hash of everything outside the project that a result depends on."""
    packages = shutil.which("dpkg-query")
    versions = output_of("dpkg-query", "-W", "-f", "${Package} ${Version}\\n",
                         "*-dev") if packages else str(time.time())
    text = output_of("clang-tidy", "--version") + versions
    text += (ROOT / ".clang-tidy").read_text()
    return hashlib.sha256(text.encode()).hexdigest()


def compile_commands():
    entries = json.loads((BUILD / "compile_commands.json").read_text())
    return {pathlib.Path(entry["file"]): entry["command"].replace(str(ROOT), ".")
            for entry in entries}


def key_of(path, arguments, environment, commands, includes):
    digest = hashlib.sha256()
    for part in (environment, str(path.relative_to(ROOT)), " ".join(arguments),
                 commands.get(path, "")):
        digest.update(part.encode() + b"\0")
    for included in includes.of(path):
        digest.update(str(included.relative_to(ROOT)).encode() + b"\0")
        digest.update(included.read_bytes() + b"\0")
    return digest.hexdigest()


def arguments_for(path):
    analyzed = path.relative_to(ROOT).parts[0] in ANALYZED
    return [] if analyzed else ["--checks=-clang-analyzer-*"]


def check(path, arguments, commands):
    """Returns what clang-tidy says about the file; None if it is clean.

    The compile commands are in the folder `commands`.
    """
    result = subprocess.run(["clang-tidy", "-p", commands, "--quiet", *arguments, path], cwd=ROOT,
                            capture_output=True, text=True, check=False)
    if result.returncode == 0:
        return None
    return result.stdout or result.stderr


def options_of_files():
    """How each file that the build compiles is compiled: the command without the file's names."""
    options = {}
    for entry in json.loads((BUILD / "compile_commands.json").read_text()):
        command = shlex.split(entry["command"])
        if "-o" in command:
            output = command.index("-o")
            del command[output:output + 2]
        command.remove(entry["file"])
        options[pathlib.Path(entry["file"])] = tuple(command)
    return options


def groups_of(files, options):
    """The files in groups that are checked together, those that take longest first.

    A group has the files of a folder that are compiled in the same way. A name that one source
    takes from another namespace, and does not use, would not be noticed if a later source used it.
    So each source that takes names is the last of its group.
    """
    alike, groups = collections.defaultdict(list), []
    for path in files:
        if path in NOT_JOINED or path not in options:
            groups.append([path])
        else:
            alike[path.parent, options[path]].append(path)
    for sources in alike.values():
        last = [path for path in sources if TAKES_A_NAME.search(path.read_text())]
        others = [path for path in sources if path not in last]
        count = max(1, len(last))
        joined = [others[i::count] + last[i:i + 1] for i in range(count)]
        groups += [part for group in joined
                   for part in ([group] if len(group) >= FEWEST_JOINED else [[p] for p in group])]
    # The analyzer takes about three times as long.
    return sorted(groups, key=lambda group: len(group) * (1 if arguments_for(group[0]) else 3),
                  reverse=True)


def joined_is_clean(group, options):
    """Whether clang-tidy finds nothing in the texts of these files, one after the other."""
    with tempfile.TemporaryDirectory(dir=BUILD) as folder:
        source = pathlib.Path(folder) / "joined.cpp"
        source.write_text("\n".join(path.read_text() for path in group))
        (source.parent / "compile_commands.json").write_text(json.dumps(
            [{"directory": str(BUILD), "file": str(source),
              "arguments": [*options[group[0]], str(source)]}]))
        return check(source, arguments_for(group[0]), source.parent) is None


def check_group(group, options):
    """Returns what clang-tidy says about each file of the group; None if it is clean."""
    if len(group) > 1 and joined_is_clean(group, options):
        return dict.fromkeys(group)
    return {path: check(path, arguments_for(path), BUILD) for path in group}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--fresh", action="store_true",
                        help="check everything, whatever was found clean before")
    parser.add_argument("files", nargs="*", type=pathlib.Path,
                        help="check only these files (default: all sources)")
    options = parser.parse_args()

    configure()
    patterns = [f"{folder}/*.cpp" for folder in (*ANALYZED, *NOT_ANALYZED)]
    files = [path.resolve() for path in options.files] or \
        [ROOT / name for name in output_of("git", "ls-files", "--", *patterns).split()]
    files = [path for path in files if path.is_file()]

    cache = cache_folder()
    cache.mkdir(parents=True, exist_ok=True)
    environment, commands, includes = environment_hash(), compile_commands(), Includes()
    waiting = {}
    for path in files:
        stamp = cache / key_of(path, arguments_for(path), environment, commands, includes)
        if not options.fresh and stamp.exists():
            stamp.touch()
        else:
            waiting[path] = stamp
    print(f"tidy: {len(files) - len(waiting)} files unchanged since they were found clean, "
          f"{len(waiting)} to check", flush=True)

    unclean, done, how_compiled = [], 0, options_of_files()
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        checks = [pool.submit(check_group, group, how_compiled)
                  for group in groups_of(waiting, how_compiled)]
        for future in concurrent.futures.as_completed(checks):
            for path, findings in future.result().items():
                done += 1
                if findings is None:
                    waiting[path].touch()
                else:
                    unclean.append(path.relative_to(ROOT))
                    print(findings)
            print(f"tidy: {done} of {len(waiting)} checked", flush=True)

    for stamp in cache.iterdir():
        if time.time() - stamp.stat().st_mtime > KEPT_FOR_DAYS * 86400:
            stamp.unlink(missing_ok=True)
    for path in sorted(unclean):
        print(f"not clean: {path}; again with: scripts/tidy.py {path}")
    sys.exit(1 if unclean else 0)


if __name__ == "__main__":
    main()
