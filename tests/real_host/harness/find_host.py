"""Finds installed FreeSWITCH hosts: their programs and their folders of modules."""

import os
import pathlib
import shutil
import subprocess
from dataclasses import dataclass


@dataclass(frozen=True)
class Installation:
    program: pathlib.Path
    modules: pathlib.Path

    @property
    def prefix(self) -> pathlib.Path:
        return self.program.parent.parent

    def has_module(self, name: str) -> bool:
        return (self.modules / f"{name}.so").exists()


class NoInstallation(Exception):
    """The folder that was named is not an installation."""


def pkg_config(variable: str) -> str:
    """A variable of the package `freeswitch`; empty if pkg-config does not know the package."""
    try:
        answer = subprocess.run(
            ["pkg-config", f"--variable={variable}", "freeswitch"],
            capture_output=True, text=True, check=False)
    except FileNotFoundError:
        return ""
    return answer.stdout.strip()


def candidate_programs() -> list:
    prefix = os.environ.get("FREESWITCH_PREFIX")
    if prefix:  # If the user names one, no other is tried.
        return [pathlib.Path(prefix) / "bin" / "freeswitch"]
    found = [shutil.which("freeswitch")]
    if pkg_config("prefix"):
        found.append(f"{pkg_config('prefix')}/bin/freeswitch")
    return [pathlib.Path(program) for program in found if program]


def modules_of(program: pathlib.Path):
    prefix = program.resolve().parent.parent
    candidates = [prefix / "lib/freeswitch/mod", prefix / "mod"]
    if pkg_config("prefix") and pathlib.Path(pkg_config("prefix")).resolve() == prefix:
        candidates.insert(0, pathlib.Path(pkg_config("modulesdir") or "/nonexistent"))
    return next((folder for folder in candidates if folder.is_dir()), None)


def find_installation():
    """The installation to test with, or None."""
    for program in candidate_programs():
        if os.access(program, os.X_OK) and modules_of(program):
            return Installation(program, modules_of(program))
    return None


def named_installations() -> list:
    """The installations that FREESWITCH_PREFIXES names; raises NoInstallation."""
    found = []
    for prefix in filter(None, os.environ.get("FREESWITCH_PREFIXES", "").split(":")):
        program = pathlib.Path(prefix).resolve() / "bin" / "freeswitch"
        if not os.access(program, os.X_OK):
            raise NoInstallation(f"FREESWITCH_PREFIXES: there is no program {program}")
        if modules_of(program) is None:
            raise NoInstallation(f"FREESWITCH_PREFIXES: {prefix} has no folder of modules")
        found.append(Installation(program, modules_of(program)))
    return found
