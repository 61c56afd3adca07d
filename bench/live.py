#!/usr/bin/env python3
"""How navox-host does live: wake-ups while the module is silent, and the way of a burst to a program.

    scripts/build release navox-host && bench/live.py build/release/apps/navox-host

The second figure is the time from the completion of the bulk-in transfer on the bus, as the trace has it, to the moment
when a program has the bytes from its TCP connection.
"""

import argparse
import bisect
import json
import pathlib
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "tests" / "e2e"))
import navox  # noqa: E402
import silence_test  # noqa: E402

BURSTS_PER_SECOND = 50


def measure_silence(seconds, programs):
    with navox.Host("--rate", "0") as host:
        connections = [host.connect() for _ in range(programs)]
        for connection in connections:
            navox.receive(connection, len(navox.EMPTY_FIX))
        silence_test.settle(host)
        before = silence_test.switches(host.pid)
        time.sleep(seconds)
        after = silence_test.switches(host.pid)
        for connection in connections:
            connection.close()
    woken = sum(after.values()) - sum(before.values())
    print(f"silence: {woken} voluntary context switches of {len(after)} threads in {seconds} s, {programs} programs")


def write_log(path):
    with path.open("w") as out:
        for number in range(1000):
            text = f"GPGGA,{number // 60:04}{number % 60:02}.00,5128.7734,N,00000.1286,W,1,10,0.9,45.4,M,45.4,M,,"
            value = 0
            for character in text:
                value ^= ord(character)
            out.write(f"${text}*{value:02X}\r\n")


def completions(trace):
    """Unix times, in seconds, of the transfers that have ended."""
    events = json.loads(trace.read_text())["traceEvents"]
    clock = next(event for event in events if event["name"] == "Unix time")
    start = float(clock["args"]["detail"]) - clock["ts"] / 1e6
    return sorted(start + event["ts"] / 1e6 for event in events
                  if event["ph"] == "e" and event["name"] == "BULK_OR_INTERRUPT_TRANSFER")


def measure_latency(seconds):
    with tempfile.TemporaryDirectory() as name:
        log, trace = pathlib.Path(name) / "log", pathlib.Path(name) / "trace.json"
        write_log(log)
        arrivals = []
        with navox.Host("--quiet", "--replay", str(log), "--rate", str(BURSTS_PER_SECOND), "--trace", str(trace)) as host:
            with host.connect() as connection:
                navox.receive(connection, 2 * len(navox.EMPTY_FIX))  # the stream has begun
                end = time.time() + seconds
                while time.time() < end:
                    connection.recv(65536)
                    arrivals.append(time.time())
        ends = completions(trace)
        delays = sorted(arrival - ends[bisect.bisect(ends, arrival) - 1] for arrival in arrivals)
    p50, p99 = (1e6 * delays[int(len(delays) * share)] for share in (0.50, 0.99))
    print(f"latency: p50 {p50:.0f} us, p99 {p99:.0f} us over {len(delays)} bursts")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("host")
    parser.add_argument("--silence", type=float, default=30, help="seconds")
    parser.add_argument("--latency", type=float, default=40, help="seconds")
    parser.add_argument("--programs", type=int, default=8, help="that wait through the silence")
    arguments = parser.parse_args()
    navox.use_host(arguments.host)
    measure_silence(arguments.silence, arguments.programs)
    measure_latency(arguments.latency)


if __name__ == "__main__":
    main()
