"""A private network of the suite, with a link on which no host answers: 10.9.0.0/24."""

import os
import subprocess
import sys

MARK = "QUORVANE_OWN_NETWORK"
NAMESPACES = ["unshare", "--net"] if os.geteuid() == 0 else ["unshare", "--net", "--map-root-user"]
LINK = ("ip link set lo up && ip link add link0 type veth peer name link1 && "
        "ip address add 10.9.0.1/24 dev link0 && ip link set link0 up && ip link set link1 up")


def enter() -> None:
    """Restarts this program in such a network, if that is allowed."""
    if MARK not in os.environ and subprocess.run(
            [*NAMESPACES, "sh", "-c", LINK], capture_output=True, check=False).returncode == 0:
        os.execvpe("unshare", [*NAMESPACES, "sh", "-c", f'{LINK} && exec "$0" "$@"',
                               sys.executable, *sys.argv], {**os.environ, MARK: "yes"})


def is_there() -> bool:
    return MARK in os.environ


def silence(number: int) -> None:
    """Makes 10.9.0.`number` answer no more, as at first. An earlier host's scenario may have made
    it answer."""
    subprocess.run(["ip", "neighbour", "delete", f"10.9.0.{number}", "dev", "link0"],
                   capture_output=True, check=False)  # It fails if nothing is known about it.


def answer_from(number: int) -> None:
    """Makes 10.9.0.`number` answer, so that datagrams for it leave the send buffers."""
    subprocess.run(["ip", "neighbour", "replace", f"10.9.0.{number}", "lladdr",
                    "02:00:00:00:00:01", "dev", "link0"], check=True)
