#!/usr/bin/python3
"""Turns the timings of scripts/bench.sh into bench/results/<date>.md and one
PNG bar chart per workload (gnuplot).

Usage: report.py RESULTS.tsv MACHINE.tsv CIPHERS.tsv OUT_DIR [NAME [VALUES.tsv]]
RESULTS.tsv: workload, tool, round, seconds (counted rounds only). A latency
row's workload is NAME@LINK: "loopback", "50ms" (1 Gbit/s) or "50ms-100M".
NAME: the report's file name without .md (default: the date); the charts are
NAME-<workload>.png.
VALUES.tsv: workload, tool, round, key, value: what a step did besides taking
time (round 0 is the warm-up); the report shows the median of the counted
rounds.
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
    ("sftp-exists-1000", "existence of 1,000 remote paths (half of them missing), SFTP backend against the loops"),
    ("sftp-stat-1000", "size and time of 1,000 remote files, SFTP backend against the loops"),
    ("connect", "connection set-up"),
    ("noop-10k", "re-run of the upload of 10,000 files of 1-4 KiB in 100 folders, nothing changed"),
    ("changed-10k", "re-run of the upload of 10,000 files of 1-4 KiB in 100 folders, 100 of them changed"),
    ("resume-1g", "1 GiB file, re-run of an upload interrupted at about 512 MiB"),
    ("scale-100k", "100,000 files of 100 B in 500 folders, on disk: put, the same put again, get"),
    ("scale-200k", "200,000 files of 100 B in 1,000 folders, on disk: put, the same put again, get"),
    ("scale-1m", "1,000,000 files of 100 B in 1,000 folders, on disk: put, the same put again, get"),
])

# The latency rows, each run once per link; their workload is NAME@LINK.
LATENCY = collections.OrderedDict([
    ("lat-up-128m", "one 128 MiB file, upload"),
    ("lat-down-128m", "one 128 MiB file, download"),
    ("lat-small-300", "300 files of 2-6 KiB in one folder, upload"),
    ("lat-up-10k", "10,000 files of 1-4 KiB in 100 folders, upload"),
    ("lat-down-10k", "10,000 files of 1-4 KiB in 100 folders, download"),
    ("lat-noop-10k", "re-run of the upload of 10,000 files of 1-4 KiB in 100 folders, nothing changed"),
    ("lat-exists-200", "existence of 200 remote paths (half of them missing), connection set-up included"),
    ("lat-connect", "connection set-up, and the first answer"),
    ("lat-delta-up-64m", "64 MiB with 1 MiB changed over its old version, upload"),
    ("lat-delta-down-64m", "64 MiB with 1 MiB changed over its old version, download"),
])
# Bytes moved by a row, for a rate next to its times.
LATENCY_BYTES = {"lat-up-128m": 128 << 20, "lat-down-128m": 128 << 20}

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
    "sync": "wall time of the whole process (connection included). The destination holds the source's previous "
            "state, with equal bytes and modification times (whole seconds): for the no-op the tree stays in "
            "place and is checked before every step; for the changed tree the 100 old files are put back before "
            "every step (untimed). sshfa-filtered is the no-op through 8 filter rules that exclude nothing here "
            "(each name is matched against every rule). No-op floors, for reference: sshfa-empty-folder is `sshfa put` of an empty "
            "folder that is already there (connection, SFTP session, one listing), ssh-true the connection that "
            "rsync starts with",
    "latency-exists": "sshfa and paramiko: the library's own timing of connection set-up and the work (sshfa: "
                      "also the start of its persistent shell; the 200 paths in one call of the list form of "
                      "`exists`); sshfa-tool: `sshfa exists` of the 200 paths, the whole process; sftp-batch: one "
                      "`sftp -b` with an `ls` per path, the whole process; ssh-one-command: one `ssh` running a "
                      "loop of `test -e` on the far side, the whole process",
    "latency-connect": "sshfa: the library's constructor (connect and authenticate); sshfa-first-command: the "
                       "constructor and a first `exists`, which starts the persistent shell; sshfa-tool-exists: "
                       "`sshfa exists /`, the whole process (its `ssh -G` included); sshfa-tool-put-one: `sshfa put` "
                       "of one 2-6 KiB file, the whole process; ssh-true: `ssh host true`, the whole process; "
                       "paramiko: connect, authenticate and open SFTP",
    "scale": "wall time of the whole process (connection included), on disk; TOOL-put copies the tree into an "
             "empty folder, TOOL-noop runs the same put again, TOOL-get copies the tree back into an empty folder; "
             "tar-put and tar-get are a tar pipe over ssh. Peak memory: the client's maximum resident set "
             "(`/usr/bin/time -f %M`); for rsync and tar the local process only",
    "delta": "wall time of the whole process (connection included); before every step, untimed, the destination "
             "gets the old version back (an older modification time). sshfa: the default, which measures the "
             "link and sends a delta where that pays; sshfa-delta: `--delta`; sshfa-whole-file: `--whole-file`; "
             "rsync-a: `rsync -a` (a delta by its rolling checksum)",
    "resume": "wall time of the whole re-run (connection included); before every step, untimed, the same "
              "tool's upload into an empty folder is killed (SIGKILL) once its file there holds 512 MiB. "
              "sshfa-no-resume is the same re-run with `--no-resume` (it starts over), for reference",
}

# Columns from VALUES.tsv: key, heading, how to show a median.
VALUE_COLUMNS = [
    ("written", "files written in the destination", lambda v: f"{v:.0f}"),
    ("files", "copied (sshfa's count)", lambda v: f"{v:.0f}"),
    ("skipped", "skipped (sshfa's count)", lambda v: f"{v:.0f}"),
    ("bytes", "file data sent (sshfa's count)", lambda v: mib_text(v)),
    ("partial", "left by the interrupted run", lambda v: mib_text(v)),
    ("sent", "file data sent by the re-run", lambda v: mib_text(v)),
    ("reused", "taken from the old version (sshfa's count)", lambda v: mib_text(v)),
    ("share", "of the file", lambda v: f"{v * 100:.1f} %"),
    ("wire", "all bytes sent (rsync's count)", lambda v: mib_text(v)),
    ("resumed", "files resumed (sshfa's count)", lambda v: f"{v:.0f}"),
    ("leftover", "other files left in the folder", lambda v: f"{v:.0f}"),
    ("memory", "peak memory", lambda v: mib_text(v)),
    ("client-cpu", "client CPU per file", lambda v: f"{v:.0f} µs"),
    ("server-cpu", "server CPU per file (sshd and what it runs)", lambda v: f"{v:.0f} µs"),
]

KIND = {"upload-1g": "transfer", "download-1g": "transfer", "upload-10k": "transfer", "download-10k": "transfer",
        "small-1": "transfer", "small-300": "transfer",
        "stat-10k": "query", "exists-1000": "query-with-setup", "list-100k": "query", "connect": "connect",
        "sftp-exists-1000": "query", "sftp-stat-1000": "query",
        "noop-10k": "sync", "changed-10k": "sync", "resume-1g": "resume",
        "lat-up-128m": "transfer", "lat-down-128m": "transfer", "lat-small-300": "transfer",
        "lat-up-10k": "transfer", "lat-down-10k": "transfer", "lat-noop-10k": "sync",
        "lat-exists-200": "latency-exists", "lat-connect": "latency-connect",
        "lat-delta-up-64m": "delta", "lat-delta-down-64m": "delta",
        "scale-100k": "scale", "scale-200k": "scale", "scale-1m": "scale"}

# The file counts of the scale rows.
SCALE_FILES = {"scale-100k": 100_000, "scale-200k": 200_000, "scale-1m": 1_000_000}

# The same rows with the kernel's caches dropped before every step.
for _row in SCALE_FILES:
    WORKLOADS[_row + "-cold"] = WORKLOADS[_row] + "; caches dropped before every step"
    KIND[_row + "-cold"] = "scale"

# The link of the goals of the latency rows, and of the delta rows.
GOAL_LINK = "50ms"
DELTA_GOAL_LINK = "50ms-100M"


def link_text(link):
    """'50ms-100M' -> '50 ms round trip, 100 Mbit/s'."""
    if link == "loopback":
        return "loopback, no relay"
    rtt, _, rate = link.partition("-")
    rate = rate or "1G"
    unit = {"k": "kbit/s", "M": "Mbit/s", "G": "Gbit/s"}.get(rate[-1], "bit/s")
    return f"{rtt[:-2]} ms round trip, {rate.rstrip('kMG')} {unit}"


def split_row(workload):
    """'lat-up-128m@50ms' -> ('lat-up-128m', '50ms'); other workloads have no link."""
    base, _, link = workload.partition("@")
    return base, link or None


def title_of(workload):
    base, link = split_row(workload)
    if link is None:
        return WORKLOADS[base]
    return f"{LATENCY[base]}, {link_text(link)}"


def ordered_rows(times):
    """The workloads that ran: the loopback ones in their order, then the latency
    rows by workload, each in the order its links ran."""
    rows = [w for w in WORKLOADS if w in times]
    for base in LATENCY:
        rows += [w for w in times if split_row(w)[0] == base]
    return rows


def read_tsv(path):
    with open(path, encoding="utf-8") as f:
        return [line.rstrip("\n").split("\t") for line in f if line.strip()]


def mib_text(b):
    return f"{b / 1048576:.1f} MiB" if b >= 1048576 else f"{b / 1024:.1f} KiB" if b >= 1024 else f"{b:.0f} B"


def seconds_text(s):
    return f"{s * 1000:.1f} ms" if s < 1 else f"{s:.3f} s"


def goals(medians, values=None):
    """(goal, measured, met) for every goal whose workload ran; values:
    workload -> tool -> key -> median of the counted rounds."""
    rows = []
    values = values or {}

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
    for w, label in (("sftp-exists-1000", "`exists`"), ("sftp-stat-1000", "`getFileInfo`")):
        if ours(w) and peer(w, "paramiko"):
            faster = peer(w, "paramiko") / ours(w)
            rows.append((f"{label} of 1,000 paths on the SFTP backend: >= 5x faster than paramiko's loop",
                         f"{faster:.1f}x", faster >= 5))
    for direction, ours_tool, scp_tool in (("put", "sshfa-put", "scp-put"), ("get", "sshfa-get", "scp-get")):
        if peer("small-300", ours_tool) and peer("small-300", scp_tool):
            ratio = peer("small-300", ours_tool) / peer("small-300", scp_tool)
            rows.append((f"300 small files ({direction}): no slower than `scp -r`", f"ratio {ratio:.2f}",
                         ratio <= 1.0))
    if ours("connect") and peer("connect", "ssh-true"):
        ratio = ours("connect") / peer("connect", "ssh-true")
        rows.append(("connection set-up <= 0.25x of `ssh host true`", f"{ratio:.2f}x", ratio <= 0.25))
    for w, label, most in (("noop-10k", "no-op re-run", 1 / 3), ("changed-10k", "re-run with 1 % changed", 1 / 2)):
        if ours(w) and peer(w, "rsync-a"):
            ratio = ours(w) / peer(w, "rsync-a")
            rows.append((f"10,000 files, {label}: <= {'⅓' if most < 0.4 else '½'} of `rsync -a`'s time",
                         f"ratio {ratio:.3f} ({seconds_text(ours(w))} against {seconds_text(peer(w, 'rsync-a'))})",
                         ratio <= most + 1e-9))
    for w in ("upload-10k", "download-10k", "upload-1g", "download-1g", "noop-10k"):
        if ours(w) and peer(w, "sshfa-baseline"):
            change = ours(w) / peer(w, "sshfa-baseline") - 1
            rows.append((f"{w}: within 5 % of the baseline build, or faster", f"{change * 100:+.1f} %",
                         change <= 0.05))
    if ours("noop-10k") and peer("noop-10k", "sshfa-filtered"):
        extra = peer("noop-10k", "sshfa-filtered") / ours("noop-10k") - 1
        rows.append(("10,000 files, no-op re-run through 8 filter rules: adds < 5 %",
                     f"{extra * 100:+.1f} %", extra < 0.05))
    at = f"@{GOAL_LINK}"
    for w, label in (("lat-up-128m", "upload"), ("lat-down-128m", "download")):
        peers = [t for t in (peer(w + at, "scp"), peer(w + at, "sftp")) if t]
        if ours(w + at) and peers:
            faster = min(peers) / ours(w + at)
            rows.append((f"{link_text(GOAL_LINK)}: 128 MiB {label} >= 2x as fast as the faster of `scp` and `sftp`",
                         f"{faster:.2f}x ({128 * 1.048576 / ours(w + at):.1f} MB/s)", faster >= 2))
    if ours("lat-small-300" + at) and peer("lat-small-300" + at, "rsync-a"):
        faster = peer("lat-small-300" + at, "rsync-a") / ours("lat-small-300" + at)
        rows.append((f"{link_text(GOAL_LINK)}: 300 small files up >= 2x as fast as `rsync -a`", f"{faster:.2f}x",
                     faster >= 2))
    # The goal is the tool's: one round trip per batch (the library's list
    # form asks once per path, as paramiko's loop does).
    if peer("lat-exists-200" + at, "sshfa-tool") and peer("lat-exists-200" + at, "paramiko"):
        faster = peer("lat-exists-200" + at, "paramiko") / peer("lat-exists-200" + at, "sshfa-tool")
        rows.append((f"{link_text(GOAL_LINK)}: `exists` of 200 paths >= 20x as fast as paramiko's loop",
                     f"{faster:.2f}x", faster >= 20))
    for tool in ("sshfa-first-command", "sshfa-tool-exists"):
        if peer("lat-connect" + at, tool) and peer("lat-connect" + at, "ssh-true"):
            ratio = peer("lat-connect" + at, tool) / peer("lat-connect" + at, "ssh-true")
            rows.append((f"{link_text(GOAL_LINK)}: connection and first answer ({tool}) no slower than "
                         "`ssh host true`", f"ratio {ratio:.2f}", ratio <= 1.0))
    delta_at = f"@{DELTA_GOAL_LINK}"
    for w, label in (("lat-delta-up-64m", "upload"), ("lat-delta-down-64m", "download")):
        if ours(w + delta_at) and peer(w + delta_at, "sshfa-whole-file"):
            ratio = ours(w + delta_at) / peer(w + delta_at, "sshfa-whole-file")
            rows.append((f"{link_text(DELTA_GOAL_LINK)}: 64 MiB with 1 MiB changed ({label}) in <= 0.5x the time "
                         "of `--whole-file`", f"{ratio:.2f}x", ratio <= 0.5))
        if ours(w + delta_at) and peer(w + delta_at, "rsync-a"):
            ratio = ours(w + delta_at) / peer(w + delta_at, "rsync-a")
            rows.append((f"{link_text(DELTA_GOAL_LINK)}: 64 MiB with 1 MiB changed ({label}) no slower than "
                         "`rsync -a`", f"ratio {ratio:.2f}", ratio <= 1.0))
    resume = values.get("resume-1g", {}).get(OURS, {})
    if ours("resume-1g") and "share" in resume:
        share = resume["share"]
        rows.append(("1 GiB upload interrupted at about 50 %: the re-run sends <= 55 % of the file",
                     f"{share * 100:.1f} % ({mib_text(resume['sent'])})", share <= 0.55))
    return rows


def glance(times, medians):
    """Per latency workload, a table of every tool's median on every link."""
    lines = []
    for base, title in LATENCY.items():
        rows = [w for w in times if split_row(w)[0] == base]
        if not rows:
            continue
        tools = []
        for w in rows:
            tools += [t for t in times[w] if t not in tools]
        size = LATENCY_BYTES.get(base)
        lines += ["", f"### {title[0].upper() + title[1:]}", "",
                  "| link | " + " | ".join(tools) + " |", "|---|" + "---|" * len(tools)]
        for w in rows:
            cells = []
            for t in tools:
                m = medians[w].get(t)
                cell = "" if m is None else seconds_text(m)
                if m is not None and size:
                    cell += f" ({size / m / 1e6:.0f} MB/s)"
                cells.append(cell)
            lines.append(f"| {link_text(split_row(w)[1])} | " + " | ".join(cells) + " |")
    if lines:
        lines = ["", "## Latency rows at a glance", "", "Medians; for the 128 MiB file also the rate (MB/s, "
                 "10^6 bytes a second). Each row has a section of its own below, with its chart."] + lines
    return lines


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


def scale_chart(medians, values, png):
    """Time and peak memory against the file count, a line per tool and step."""
    rows = [w for w in SCALE_FILES if w in medians]
    if len(rows) < 2:
        return False
    tools = [t for t in medians[rows[0]] if all(t in medians[w] for w in rows)]
    data = png + ".dat"
    with open(data, "w", encoding="utf-8") as f:
        for i, tool in enumerate(tools):
            f.write(f'# "{tool}"\n')
            for w in rows:
                memory = values.get(w, {}).get(tool, {}).get("memory", 0) / 1048576
                f.write(f"{SCALE_FILES[w]} {medians[w][tool]} {memory}\n")
            f.write("\n\n")
    plots = ", ".join(f'"{data}" index {i} using 1:{{col}} with linespoints title "{t}"'
                      for i, t in enumerate(tools))
    script = f"""
set terminal pngcairo size 1000,440 font ",10"
set output "{png}"
set multiplot layout 1,2 title "Trees of 100-byte files (lower is better)"
set logscale x
set xlabel "files"
set key top left
set grid
set ylabel "seconds"
plot {plots.format(col=2)}
set ylabel "peak memory, MiB"
plot {plots.format(col=3)}
unset multiplot
"""
    subprocess.run(["gnuplot"], input=script, text=True, check=True)
    os.remove(data)
    return True


def read_values(path):
    """workload -> tool -> key -> median over the counted rounds (round > 0)."""
    steps = collections.defaultdict(dict)
    if path and os.path.exists(path):
        for workload, tool, round_, key, value in read_tsv(path):
            if int(round_) > 0 and value != "":
                steps[workload, tool, round_][key] = float(value)
    collected = collections.defaultdict(lambda: collections.defaultdict(lambda: collections.defaultdict(list)))
    for (workload, tool, _), step in steps.items():
        if "sent" in step and step.get("size"):
            step["share"] = step["sent"] / step["size"]
        for key, value in step.items():
            collected[workload][tool][key].append(value)
    return {w: {t: {k: statistics.median(v) for k, v in keys.items()} for t, keys in tools.items()}
            for w, tools in collected.items()}


def main():
    results_path, machine_path, ciphers_path, out_dir = sys.argv[1:5]
    date = datetime.date.today().isoformat()
    name = sys.argv[5] if len(sys.argv) > 5 else date
    values = read_values(sys.argv[6] if len(sys.argv) > 6 else None)
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

    os.makedirs(out_dir, exist_ok=True)
    lines = [f"# Benchmarks of {date}", "",
             "Made by `scripts/bench.sh`: a private OpenSSH sshd on 127.0.0.1, every file on tmpfs, the tools run "
             f"in turn (A B C A B C ...), one checked warm-up round then {runs} counted rounds. "
             "A ratio is ours ÷ peer: below 1 means sshfa is faster." + (
                 " Latency rows (a workload at a link): the same sshd reached through `link_emulator`, a relay "
                 "of this repository (support/link_emulator): half the round trip each way, the rate limit "
                 "in each direction, a bottleneck queue of one bandwidth-delay product, and a new "
                 "connection's bytes held back for one round trip as by a TCP handshake; loopback rows reach "
                 "the sshd directly." if any("@" in w for w in times) else ""), "",
             "## Machine", "", "| | |", "|---|---|"]
    lines += [f"| {key} | {value} |" for key, value in machine]
    lines += ["", "Negotiated ciphers (sshd's log of each tool's warm-up; ControlMaster rows reuse one connection):",
              ""]
    lines += [f"- {tool}: {'over the ControlMaster connection' if c == 'none' else c}"
              for tool, c in sorted(ciphers.items())]

    goal_rows = goals(medians, values)
    if goal_rows:
        lines += ["", "## Goals", "", "| goal | measured | |", "|---|---|---|"]
        lines += [f"| {g} | {m} | {'met' if ok else '**missed**'} |" for g, m, ok in goal_rows]

    lines += glance(times, medians)

    for workload in ordered_rows(times):
        title = title_of(workload)
        tools = order[workload]
        ours = medians[workload].get(OURS)
        shown = values.get(workload, {})
        columns = [c for c in VALUE_COLUMNS if any(c[0] in keys for keys in shown.values())]
        lines += ["", f"## {title[0].upper() + title[1:]}", "",
                  f"Time: {TIMED[KIND[split_row(workload)[0]]]}.", "",
                  "| tool | median | min - max | sshfa ÷ tool |" + "".join(f" {c[1]} |" for c in columns),
                  "|---|---|---|---|" + "---|" * len(columns)]
        rows = []
        for tool in tools:
            v = times[workload][tool]
            med = medians[workload][tool]
            ratio = "" if tool == OURS or ours is None else f"{ours / med:.2f}"
            extra = ""
            for key, _, show in columns:
                got = shown.get(tool, {}).get(key)
                extra += f" {'' if got is None else show(got)} |"
            lines.append(f"| {tool} | {seconds_text(med)} | {seconds_text(min(v))} - {seconds_text(max(v))} "
                         f"| {ratio} |{extra}")
            rows.append((tool, med, min(v), max(v)))
        if columns:
            lines += ["", "Counts: median of the counted rounds."
                      + (" Files written in the destination: files whose inode or change time differs after the "
                         "step (written, replaced or given their times again)."
                         if any(c[0] == "written" for c in columns) else "")]
        png = f"{name}-{workload.replace('@', '-')}.png"
        chart(title, rows, os.path.join(out_dir, png))
        lines += ["", f"![{title}]({png})"]

    if scale_chart(medians, values, os.path.join(out_dir, f"{name}-scale.png")):
        lines += ["", "## Time and memory against the number of files", "", f"![scale]({name}-scale.png)"]

    report = os.path.join(out_dir, f"{name}.md")
    with open(report, "w", encoding="utf-8") as f:
        f.write("\n".join(lines) + "\n")
    print(report)


if __name__ == "__main__":
    main()
