#!/usr/bin/python3
"""Turns the timings of scripts/bench.sh into bench/results/<date>.md and one
PNG bar chart per workload (gnuplot).

Usage: report.py RESULTS.tsv MACHINE.tsv CIPHERS.tsv OUT_DIR
RESULTS.tsv: workload, tool, round, seconds (counted rounds only).
"""

import collections
import datetime
import os
import statistics
import subprocess
import sys

OURS = "sshfa"

WORKLOADS = collections.OrderedDict([
    ("upload-1g", "1 GiB file, upload"),
    ("download-1g", "1 GiB file, download"),
    ("upload-10k", "10,000 files of 1-4 KiB in 100 folders, upload"),
    ("download-10k", "10,000 files of 1-4 KiB in 100 folders, download"),
    ("small-1", "one file of 12 KB, up (put) and down (get)"),
    ("small-300", "300 files of 12 KB in one folder, up (put) and down (get)"),
    ("stat-10k", "size and time of 10,000 remote files"),
    ("exists-1000", "existence of 1,000 remote paths (half of them missing), connection set-up included"),
    ("list-100k", "recursive listing of 100,000 remote files"),
    ("connect", "connection set-up"),
])

# What each tool's number is, per workload kind.
TIMED = {
    "transfer": "wall time of the whole process (connection included)",
    "query": "the library's own timing of the work alone; the ssh row is the wall time over a ControlMaster "
             "connection that is already up",
    "query-with-setup": "the library's own timing of connection set-up and the work (sshfa: also the start of its "
                        "persistent shell); the ssh row is the wall time over a ControlMaster connection that is "
                        "already up",
    "connect": "connect and authenticate (the Python libraries: and open SFTP); ssh: `ssh host true` in full; "
               "sshfa-first-command: the constructor and a first `exists`, which starts the persistent shell",
}

KIND = {"upload-1g": "transfer", "download-1g": "transfer", "upload-10k": "transfer", "download-10k": "transfer",
        "small-1": "transfer", "small-300": "transfer",
        "stat-10k": "query", "exists-1000": "query-with-setup", "list-100k": "query", "connect": "connect"}


def read_tsv(path):
    with open(path, encoding="utf-8") as f:
        return [line.rstrip("\n").split("\t") for line in f if line.strip()]


def seconds_text(s):
    return f"{s * 1000:.1f} ms" if s < 1 else f"{s:.3f} s"


def goals(medians):
    """(goal, measured, met) for every goal whose workload ran."""
    rows = []

    def ours(workload):
        return medians.get(workload, {}).get(OURS)

    def peer(workload, tool):
        return medians.get(workload, {}).get(tool)

    for w, label in (("upload-1g", "upload"), ("download-1g", "download")):
        if ours(w) and peer(w, "sftp"):
            ratio = ours(w) / peer(w, "sftp")
            rows.append((f"1 GiB {label}: ratio to `sftp` <= 1.0", f"{ratio:.2f} ({1024 / ours(w):.0f} MiB/s)",
                         ratio <= 1.0))
    for w, label in (("upload-10k", "upload"), ("download-10k", "download")):
        if ours(w) and peer(w, "scp-r"):
            faster = peer(w, "scp-r") / ours(w)
            rows.append((f"10,000 files {label}: >= 8x faster than `scp -r`", f"{faster:.1f}x", faster >= 8))
        if ours(w) and peer(w, "tar-pipe"):
            ratio = ours(w) / peer(w, "tar-pipe")
            rows.append((f"10,000 files {label}: no slower than the tar pipe", f"ratio {ratio:.2f}", ratio <= 1.0))
    if peer("small-300", "sshfa-put") and peer("small-300", "sshfa-get"):
        ratio = peer("small-300", "sshfa-put") / peer("small-300", "sshfa-get")
        rows.append(("300 small files: `put` <= 1.5x its `get`", f"{ratio:.2f}x", ratio <= 1.5))
    if ours("stat-10k"):
        per = ours("stat-10k") / 10000 * 1e6
        rows.append(("`getFileInfo` <= 20 µs per path", f"{per:.1f} µs", per <= 20))
    for tool in ("paramiko", "asyncssh"):
        if ours("exists-1000") and peer("exists-1000", tool):
            faster = peer("exists-1000", tool) / ours("exists-1000")
            rows.append((f"`exists` of 1,000 paths, set-up included: faster than {tool}'s `stat` loop",
                         f"{faster:.2f}x", faster > 1.0))
    for direction, ours_tool, scp_tool in (("put", "sshfa-put", "scp-put"), ("get", "sshfa-get", "scp-get")):
        if peer("small-300", ours_tool) and peer("small-300", scp_tool):
            ratio = peer("small-300", ours_tool) / peer("small-300", scp_tool)
            rows.append((f"300 small files ({direction}): no slower than `scp -r`", f"ratio {ratio:.2f}",
                         ratio <= 1.0))
    if ours("connect") and peer("connect", "ssh-true"):
        ratio = ours("connect") / peer("connect", "ssh-true")
        rows.append(("connection set-up <= 0.25x of `ssh host true`", f"{ratio:.2f}x", ratio <= 0.25))
    return rows


def chart(title, rows, png):
    """A bar per tool: median, with the min-max spread as an error bar and the
    median written above; a log scale when the bars differ too much to see."""
    data = png + ".dat"
    scale, unit = (1000, "ms") if max(r[1] for r in rows) < 1 else (1, "s")
    with open(data, "w", encoding="utf-8") as f:
        for i, (tool, median, low, high) in enumerate(rows):
            f.write(f'{i} "{tool}" {median * scale} {low * scale} {high * scale} "{seconds_text(median)}"\n')
    lowest = min(r[1] for r in rows) * scale
    highest = max(r[3] for r in rows) * scale
    if highest / lowest > 30:
        axis = f"set logscale y\nset yrange [{lowest / 3}:{highest * 4}]\nset ylabel \"{unit} (log scale)\""
    else:
        axis = f"set yrange [0:{highest * 1.15}]\nset ylabel \"{unit}\""
    script = f"""
set terminal pngcairo size 900,480 font ",10"
set output "{png}"
set title "{title} (median, min-max; lower is better)"
{axis}
set style fill solid 0.7
set boxwidth 0.6
set xtics rotate by -30
set grid ytics
unset key
plot "{data}" using 1:3:xtic(2) with boxes lc rgb "#4a7ebb", \\
     "" using 1:3:4:5 with yerrorbars lc rgb "black" pt -1, \\
     "" using 1:5:6 with labels offset 0,0.8
"""
    subprocess.run(["gnuplot"], input=script, text=True, check=True)
    os.remove(data)


def main():
    results_path, machine_path, ciphers_path, out_dir = sys.argv[1:5]
    times = collections.defaultdict(lambda: collections.defaultdict(list))
    order = collections.defaultdict(list)
    for workload, tool, _, seconds in read_tsv(results_path):
        if tool not in order[workload]:
            order[workload].append(tool)
        times[workload][tool].append(float(seconds))
    machine = read_tsv(machine_path)
    ciphers = dict(read_tsv(ciphers_path))
    runs = dict(machine).get("runs", "?")
    medians = {w: {t: statistics.median(v) for t, v in tools.items()} for w, tools in times.items()}

    date = datetime.date.today().isoformat()
    os.makedirs(out_dir, exist_ok=True)
    lines = [f"# Benchmarks of {date}", "",
             "Made by `scripts/bench.sh`: a private OpenSSH sshd on 127.0.0.1, every file on tmpfs, the tools run "
             f"in turn (A B C A B C ...), one checked warm-up round then {runs} counted rounds. "
             "A ratio is ours ÷ peer: below 1 means sshfa is faster.", "",
             "## Machine", "", "| | |", "|---|---|"]
    lines += [f"| {key} | {value} |" for key, value in machine]
    lines += ["", "Negotiated ciphers (sshd's log of each tool's warm-up; ControlMaster rows reuse one connection):",
              ""]
    lines += [f"- {tool}: {'over the ControlMaster connection' if c == 'none' else c}"
              for tool, c in sorted(ciphers.items())]

    goal_rows = goals(medians)
    if goal_rows:
        lines += ["", "## Goals", "", "| goal | measured | |", "|---|---|---|"]
        lines += [f"| {g} | {m} | {'met' if ok else '**missed**'} |" for g, m, ok in goal_rows]

    for workload, title in WORKLOADS.items():
        if workload not in times:
            continue
        tools = order[workload]
        ours = medians[workload].get(OURS)
        lines += ["", f"## {title[0].upper() + title[1:]}", "",
                  f"Time: {TIMED[KIND[workload]]}.", "",
                  "| tool | median | min - max | sshfa ÷ tool |", "|---|---|---|---|"]
        rows = []
        for tool in tools:
            v = times[workload][tool]
            med = medians[workload][tool]
            ratio = "" if tool == OURS or ours is None else f"{ours / med:.2f}"
            lines.append(f"| {tool} | {seconds_text(med)} | {seconds_text(min(v))} - {seconds_text(max(v))} "
                         f"| {ratio} |")
            rows.append((tool, med, min(v), max(v)))
        png = f"{date}-{workload}.png"
        chart(title, rows, os.path.join(out_dir, png))
        lines += ["", f"![{title}]({png})"]

    report = os.path.join(out_dir, f"{date}.md")
    with open(report, "w", encoding="utf-8") as f:
        f.write("\n".join(lines) + "\n")
    print(report)


if __name__ == "__main__":
    main()
