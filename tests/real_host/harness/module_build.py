"""Builds the module for an installed host, plain or for a sanitizer."""

import os
import pathlib
import subprocess
from dataclasses import dataclass

SOURCES = pathlib.Path(__file__).resolve().parents[3]


@dataclass(frozen=True)
class Module:
    shipped: pathlib.Path
    relocated: pathlib.Path  # Reads its configuration under the current folder.


class BuildFailed(Exception):
    """The build failed; the text names its log."""


def environment_for(installation) -> dict:
    """The environment in which pkg-config finds this installation before any other."""
    folders = [str(folder) for folder in installation.prefix.glob("lib*/**/pkgconfig")]
    folders.append(os.environ.get("PKG_CONFIG_PATH", ""))
    return {**os.environ, "PKG_CONFIG_PATH": ":".join(filter(None, folders))}


def build_module(installation, sanitizer, folder: pathlib.Path) -> Module:
    """Builds in a folder of its own below `folder`; rebuilds only what has changed."""
    name = str(installation.prefix).strip("/").replace("/", "-")
    build = folder / (f"{name}-{sanitizer.name}" if sanitizer else name)
    build.mkdir(parents=True, exist_ok=True)
    compiler = ["-DCMAKE_CXX_COMPILER=g++", f"-DQUORVANE_SANITIZE={sanitizer.compiled_with}",
                "-DCMAKE_BUILD_TYPE=Debug"] if sanitizer else ["-DCMAKE_BUILD_TYPE=Release"]
    commands = (
        ["cmake", "-S", str(SOURCES), "-B", str(build), "-DQUORVANE_HOST=freeswitch",
         "-DQUORVANE_TOOLS=OFF", *compiler],
        ["cmake", "--build", str(build), "--parallel", str(os.cpu_count() or 1),
         "--target", "mod_quorvane", "mod_quorvane_relocated"])
    log = build / "build.log"
    with open(log, "wb") as output:
        for command in commands:
            if subprocess.run(command, stdout=output, stderr=output, check=False,
                              env=environment_for(installation)).returncode != 0:
                raise BuildFailed(
                    f"the module cannot be built for {installation.prefix}: see {log}")
    return Module(build / "mod_quorvane.so", build / "relocated" / "mod_quorvane.so")
