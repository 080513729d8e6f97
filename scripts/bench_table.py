"""Prints the results of the benchmarks and their goals as one table, for scripts/bench.sh."""

import argparse
import json
import pathlib

PROGRAMS = ("bench_media_path", "bench_without_system_call", "bench_host")
LINES = 64  # Lines per iteration of dropped_line.


def read(folder):
    """The median of each benchmark's runs, by program and name."""
    results = {}
    for program in PROGRAMS:
        document = json.loads((folder / f"{program}.json").read_text())
        runs = [run for run in document["benchmarks"] if run["aggregate_name"] == "median"]
        results[program] = {short_name(run["run_name"]): run for run in runs}
    return results


def short_name(name):
    return name.split("/iterations")[0].replace("/real_time", "")


def cost(run):
    """Nanoseconds per frame if the benchmark reports them itself, otherwise per iteration."""
    return run.get("ns_frame", run["cpu_time"])


def goals(results, instructions):
    """Rows of name, value, unit, limit, and whether the limit is a minimum."""
    path, cpu, host = (results[program] for program in PROGRAMS)
    one = cpu["media_data_round_robin/1"]["cpu_time"]
    many = cpu["media_data_round_robin/10000"]["cpu_time"]
    legs = cost(cpu["media_data_two_legs/threads:2"])

    def host_ratio(name):
        return host[f"{name}/10000"]["cpu_time"] / host[f"{name}/10"]["cpu_time"]

    def growth(name):
        return host[f"{name}/10000"]["cpu_time"] - host[f"{name}/10"]["cpu_time"]

    def ratio(name):
        return path[name]["ratio"]

    def dropped(level):
        return cpu[f"dropped_line<log::{level}>"]["cpu_time"] / LINES

    rows = [
        ("media_data over bare sendto, 320 bytes", ratio("media_data_over_bare_sendto"), "x",
         1.03, False),
        ("the same out of cold caches", ratio("cold_media_data_over_bare_sendto"), "x",
         None, False),
        ("media_data without the system call", cpu["media_data/320"]["cpu_time"], "ns", 60, False),
        ("frame at 10,000 contexts over 1", ratio("many_contexts_over_one/10000"), "x", 1.1, False),
        ("the same without the system call", many / one, "x", None, False),
        ("two legs on two threads, without the system call, over one", legs / one, "x",
         None, False),
        ("two threads, two calls, over one", ratio("two_threads_two_calls"), "x", 1.9, True),
        ("two threads of bare sendto, one socket, over one", ratio("two_threads_bare_sendto"), "x",
         None, True),
        ("the same, two sockets", ratio("two_threads_bare_sendto_two_sockets"), "x", None, True),
        ("two threads, two legs of a call, over one", ratio("two_threads_two_legs"), "x",
         None, True),
        ("a dropped DEBUG line", dropped("DEBUG"), "ns", 1, False),
        ("a dropped TRACE line", dropped("TRACE"), "ns", 1, False),
        ("API features at 10,000 contexts over 10", host_ratio("api_features"), "x", 1.2, False),
        ("the same, always of one call", host_ratio("api_features_of_one_call"), "x", None, False),
        ("what the host's finding a session grows by", growth("locate_session"), "ns", None, False),
        ("what API features grows by, that included", growth("api_features"), "ns", None, False),
    ]
    if instructions:
        rows.insert(3, ("instructions a frame, 320 bytes", int(instructions), "", 300, False))
    return rows


def verdict(value, limit, least):
    if limit is None:
        return ""
    return "pass" if (value >= limit if least else value <= limit) else "MISSED"


def print_goals(rows):
    print(f"\n{'goal':60} {'measured':>12} {'limit':>12}  verdict")
    for what, value, unit, limit, least in rows:
        bound = "" if limit is None else f"{'>=' if least else '<='} {limit} {unit}"
        print(f"{what:60} {value:9.2f} {unit:2} {bound:>12}  {verdict(value, limit, least)}")


def print_others(results):
    print(f"\n{'benchmark':60} {'ns':>12}")
    for program in PROGRAMS:
        for name, run in sorted(results[program].items()):
            print(f"{name:60} {cost(run):12.1f}")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("folder", type=pathlib.Path,
                        help="holds the JSON files of the benchmarks; results.json is written here")
    parser.add_argument("instructions",
                        help="the number of instructions per frame; empty if it was not counted")
    arguments = parser.parse_args()
    folder = arguments.folder
    results = read(folder)
    rows = goals(results, arguments.instructions)
    print_others(results)
    print_goals(rows)
    summary = [
        {"goal": what, "value": value, "unit": unit, "limit": limit,
         "verdict": verdict(value, limit, least)}
        for what, value, unit, limit, least in rows
    ]
    written = json.dumps({"goals": summary, "benchmarks": results}, indent=1)
    (folder / "results.json").write_text(written)
    print(f"\nall of it: {folder / 'results.json'}")


if __name__ == "__main__":
    main()
