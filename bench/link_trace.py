#!/usr/bin/python3
"""Reads a trace of support/link_emulator (--trace FILE: "seconds connection
up|down in|out bytes" per chunk) and tells what a connection did on the link.

Usage:
  link_trace.py window TRACE RTT_MS [CONNECTION]
      per direction: bytes, the time from first to last byte, the rate, and the
      bytes that entered the link per round trip while it was busy (the window
      the sender kept in flight): median, 90th percentile and most.
  link_trace.py turns TRACE RTT_MS [CONNECTION]
      the conversation as flights: bytes one side sent without waiting for the
      other, with the time they left and arrived, in round trips from the
      connection's first byte; then how many times the client waited for the
      server (its flights that began after an answer had arrived).
CONNECTION: a connection number of the trace (default: the first).
"""

import bisect
import statistics
import sys


def read(path, connection):
    events = []
    with open(path, encoding="utf-8") as f:
        for line in f:
            seconds, conn, direction, event, size = line.split()
            if connection is None:
                connection = conn
            if conn == connection:
                events.append((float(seconds), direction, event, int(size)))
    return events


def window(events, rtt):
    for direction in ("up", "down"):
        entered = [(t, n) for t, d, e, n in events if d == direction and e == "in"]
        if not entered:
            continue
        times = [t for t, _ in entered]
        total = sum(n for _, n in entered)
        cumulative = []
        running = 0
        for _, n in entered:
            running += n
            cumulative.append(running)
        span = times[-1] - times[0]
        # Bytes that entered in the round trip ending at each chunk, over the
        # middle 80 % of the transfer (start and end are not steady).
        per_rtt = []
        for i, t in enumerate(times):
            if not total * 0.1 <= cumulative[i] <= total * 0.9:
                continue
            j = bisect.bisect_left(times, t - rtt)
            before = cumulative[j - 1] if j > 0 else 0
            per_rtt.append(cumulative[i] - before)
        rate = total / span / 1e6 if span > 0 else 0
        print(f"{direction}: {total} bytes in {span:.3f} s ({rate:.1f} MB/s)")
        if per_rtt and total >= 1 << 20:  # a direction that carried data, not only answers
            per_rtt.sort()
            p90 = per_rtt[int(len(per_rtt) * 0.9)]
            print(f"  entering per round trip: median {statistics.median(per_rtt) / 1048576:.2f} MiB, "
                  f"90th percentile {p90 / 1048576:.2f} MiB, most {per_rtt[-1] / 1048576:.2f} MiB")


def turns(events, rtt):
    flights = []  # direction, first in, last in, last out, bytes
    for t, d, e, n in events:
        if e != "in":
            continue
        if flights and flights[-1][0] == d and t - flights[-1][2] < rtt / 4:
            flights[-1][2] = t
            flights[-1][4] += n
        else:
            flights.append([d, t, t, None, n])
    outs = {d: [(t, n) for t, dd, e, n in events if dd == d and e == "out"] for d in ("up", "down")}
    for f in flights:
        # A flight has arrived when as many bytes went out as came in up to it.
        sent = sum(g[4] for g in flights if g[0] == f[0] and g[1] <= f[1])
        running = 0
        for t, n in outs[f[0]]:
            running += n
            if running >= sent:
                f[3] = t
                break
    start = events[0][0]
    waits = 0
    print(f"{'left (RTT)':>10} {'arrived':>8}  direction  bytes")
    for i, (d, first, _, arrived, size) in enumerate(flights):
        if d == "up" and any(g[0] == "down" and g[3] is not None and g[3] <= first for g in flights[:i]):
            # Began after something from the server had arrived since the previous client flight.
            previous_up = max((g[1] for g in flights[:i] if g[0] == "up"), default=-1)
            if any(g[0] == "down" and g[3] is not None and previous_up < g[3] <= first for g in flights[:i]):
                waits += 1
        arrived_text = f"{(arrived - start) / rtt:8.2f}" if arrived is not None else "       -"
        print(f"{(first - start) / rtt:10.2f} {arrived_text}  {d:9}  {size}")
    end = max(t for t, _, _, _ in events)
    print(f"client flights after an answer: {waits}; first to last byte: {(end - start) / rtt:.2f} round trips")


def main():
    if len(sys.argv) not in (4, 5) or sys.argv[1] not in ("window", "turns"):
        sys.exit(__doc__)
    events = read(sys.argv[2], sys.argv[4] if len(sys.argv) == 5 else None)
    if not events:
        sys.exit(f"link_trace.py: no events in '{sys.argv[2]}'")
    rtt = float(sys.argv[3]) / 1000
    (window if sys.argv[1] == "window" else turns)(events, rtt)


if __name__ == "__main__":
    main()
