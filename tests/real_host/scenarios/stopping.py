"""All ways to stop the host while calls are placed and ended without a pause."""

import contextlib
import random
import signal
import threading
import time

from harness.event_socket import EventSocketError
from harness.media_node import START, TERMINATE
from harness.suite import check, check_equal, eventually, scenario


class Load:
    """Places and ends tapped calls on several connections until the host refuses them."""

    def __init__(self, host, longest_s: float = 0.5):
        self._host, self._longest_s = host, longest_s
        self._over = threading.Event()
        self._threads = [threading.Thread(target=self._run, args=(seed,)) for seed in range(4)]

    def __enter__(self):
        for thread in self._threads:
            thread.start()
        return self

    def __exit__(self, *_):
        self._over.set()
        for thread in self._threads:
            thread.join()

    def stop_calling(self) -> None:
        self._over.set()

    def _run(self, seed: int) -> None:
        generator = random.Random(seed)
        try:
            with contextlib.closing(self._host.new_connection()) as connection:
                while not self._over.is_set():
                    answer = connection.api("originate {loopback_bowout=false}"
                                            "loopback/far/scenarios tap XML scenarios").strip()
                    time.sleep(generator.uniform(0, self._longest_s))
                    if answer.startswith("+OK "):
                        connection.api(f"uuid_kill {answer[4:]}")
        except (EventSocketError, OSError):
            pass


def check_all_ended(s) -> None:
    """Checks that every call with a start packet has exactly one terminate packet."""
    def open_calls():
        return [uuid for uuid, stream in s.node.streams().items()
                if len(stream.of_kind(START)) != len(stream.of_kind(TERMINATE))]
    check(s.node.streams(), "no call was tapped")
    check(eventually(lambda: not open_calls()), f"{len(open_calls())} calls without an end")
    check_equal(max(len(stream.of_kind(START)) for stream in s.node.streams().values()), 1,
                "starts of a call")


def stop_under_load(s, stop, timeout: float = 40) -> None:
    """`stop(host, load)` starts the shutdown of a busy host, which must end in an orderly way."""
    with s.own_host() as host:
        with Load(host) as load:
            time.sleep(1.5)
            stop(host, load)
            check_equal(host.wait_for_end(timeout), 0, "exit status of the host")
        check_all_ended(s)


def command(words: str):
    """Sends a command that the host may answer late or never, because it is about to end."""
    def send(host, load) -> None:
        host.new_connection().post(f"api {words}")
        load.stop_calling()
    return send


@scenario
def fsctl_shutdown_under_load_ends_every_stream(s):
    stop_under_load(s, command("fsctl shutdown"))


@scenario
def fsctl_shutdown_elegant_waits_for_the_calls_to_end(s):
    stop_under_load(s, command("fsctl shutdown elegant"))


@scenario
def fsctl_shutdown_asap_takes_no_more_calls_and_waits_for_the_rest(s):
    def stop(host, _load) -> None:  # The callers continue and are refused.
        host.new_connection().post("api fsctl shutdown asap")
    stop_under_load(s, stop)


@scenario
def the_signal_of_a_service_manager_under_load_ends_every_stream(s):
    def stop(host, load) -> None:
        host.send_signal(signal.SIGTERM)
        load.stop_calling()
    stop_under_load(s, stop)


@scenario
def a_shutdown_that_is_cancelled_leaves_calls_and_module_as_they_were(s):
    with s.own_host() as host:
        uuid = s.tap(host=host)
        s.node.wait_for(uuid, START)
        waiting = host.new_connection()
        waiting.post("api fsctl shutdown elegant")
        time.sleep(1)
        check("true" in host.api("fsctl shutdown_check"), "no shutdown is under way")
        host.api("fsctl shutdown cancel")
        waiting.read_answer()
        waiting.close()
        another = s.tap(host=host)
        s.node.wait_for(another, START)
        for call in (uuid, another):
            host.kill(call)
            s.node.wait_for(call, TERMINATE)
        check_equal(host.stop(), 0, "exit status of the host")
        check_all_ended(s)


@scenario
def fsctl_shutdown_restart_under_load_ends_every_stream_and_taps_again(s):
    with s.own_host() as host:
        with Load(host) as load:
            time.sleep(1.5)
            command("fsctl shutdown restart")(host, load)
            check(eventually(lambda: not host.answers(), timeout=40), "the host does not end")
        check_all_ended(s)
        host.reconnect()
        host.load_module()
        uuid = s.tap(host=host)
        s.node.wait_for(uuid, START)
        host.kill(uuid)
        s.node.wait_for(uuid, TERMINATE)
        check_equal(host.stop(), 0, "exit status of the host")


@scenario
def fsctl_shutdown_now_under_load_ends_the_process_at_once(s):
    with s.own_host() as host:
        with Load(host) as load:
            time.sleep(1.5)
            command("fsctl shutdown now")(host, load)
            check_equal(host.wait_for_end(20), 0, "exit status of the host")
        check(s.node.streams(), "no call was tapped")
