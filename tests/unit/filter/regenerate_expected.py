#!/usr/bin/python3
"""Regenerates the answers the filter tests compare with.

For every case of data/rsync-cases.txt: rsync -a ARGUMENTS src/ dst/, on a
tree made from data/tree.txt (dst first made from data/dest-tree.txt for a
--delete case); the answer is what dst then holds. For every case of
data/gitignore-cases.txt: git ls-files -co --exclude-standard in a fresh
repository holding the tree and the case's .gitignore files, without any
user or system configuration. Writes data/rsync-expected.txt and
data/gitignore-expected.txt. Everything is made in, and removed with, a
folder of its own from mkdtemp.

Usage: tests/unit/filter/regenerate_expected.py   (needs rsync and git)
"""

import os
import shutil
import subprocess
import sys
import tempfile

DATA = os.path.join(os.path.dirname(os.path.abspath(__file__)), "data")


def data_lines(name):
    with open(os.path.join(DATA, name), encoding="utf-8", newline="\n") as f:
        return [line.rstrip("\n") for line in f if not line.startswith("#")]


def read_tree(name):
    return [line.split("\t") for line in data_lines(name) if line]


def make_tree(root, entries):
    os.makedirs(root, exist_ok=True)
    for entry in entries:
        kind, path = entry[0], os.path.join(root, entry[1])
        if kind == "d":
            os.makedirs(path, exist_ok=True)
        elif kind == "f":
            with open(path, "w", encoding="utf-8") as f:
                f.write(entry[1] + "\n")
        elif kind == "l":
            os.symlink(entry[2], path)
        else:
            sys.exit(f"unknown entry type {kind!r} in {entry!r}")


def listing(root):
    """Every entry below root as (type, relative path), sorted by path bytes."""
    found = []
    for folder, folders, files in os.walk(root):
        for name in folders + files:
            path = os.path.join(folder, name)
            relative = os.path.relpath(path, root)
            kind = "l" if os.path.islink(path) else "d" if os.path.isdir(path) else "f"
            found.append((kind, relative))
    return sorted(found, key=lambda entry: entry[1].encode())


def rsync_case(scratch, source_tree, dest_tree, arguments):
    work = tempfile.mkdtemp(dir=scratch)
    source, destination = os.path.join(work, "src"), os.path.join(work, "dst")
    make_tree(source, source_tree)
    make_tree(destination, dest_tree if "--delete" in arguments else [])
    resolved = []
    for i, argument in enumerate(arguments):
        takes_file = i > 0 and arguments[i - 1] in ("--exclude-from", "--include-from")
        resolved.append(os.path.join(DATA, argument) if takes_file else argument)
    command = ["rsync", "-a", *resolved, source + "/", destination + "/"]
    # Deletion reports the folders it keeps for protected files; the listing tells more.
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return [f"{kind}\t{path}" for kind, path in listing(destination)]


def gitignore_cases():
    cases, current, folder = [], None, None
    for line in data_lines("gitignore-cases.txt"):
        if line.startswith("== "):
            words = line[3:].split()
            current = {"name": words[0], "options": words[1:], "files": {}}
            cases.append(current)
        elif line.startswith("@ "):
            folder = line[2:]
            current["files"][folder] = []
        elif line.startswith("|"):
            current["files"][folder].append(line[1:])
        elif line.startswith(":") and line.endswith("|"):
            current["files"][folder].append(line[1:-1])
        elif line:
            sys.exit(f"cannot read gitignore-cases.txt line {line!r}")
    return cases


def gitignore_case(scratch, source_tree, case):
    work = tempfile.mkdtemp(dir=scratch)
    tree = os.path.join(work, "tree")
    make_tree(tree, source_tree)
    end = "\r\n" if "crlf" in case["options"] else "\n"
    start = b"\xef\xbb\xbf" if "bom" in case["options"] else b""
    for folder, lines in case["files"].items():
        with open(os.path.join(tree, folder, ".gitignore"), "wb") as f:
            f.write(start + "".join(line + end for line in lines).encode())
    home = os.path.join(work, "home")
    os.makedirs(home)
    environment = {"PATH": os.environ["PATH"], "HOME": home, "XDG_CONFIG_HOME": home,
                   "GIT_CONFIG_NOSYSTEM": "1", "GIT_CONFIG_GLOBAL": "/dev/null", "LC_ALL": "C"}
    subprocess.run(["git", "init", "-q", tree], check=True, env=environment)
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "-z"], cwd=tree, env=environment,
                            check=True, capture_output=True).stdout.decode()
    return sorted((path for path in listed.split("\0") if path), key=str.encode)


def write(name, sections):
    with open(os.path.join(DATA, name), "w", encoding="utf-8", newline="\n") as f:
        f.write(f"# Written by regenerate_expected.py: {sections[0][0]}\n")
        for title, lines in sections[1:]:
            f.write(f"== {title}\n")
            f.writelines(line + "\n" for line in lines)


def main():
    for tool in ("rsync", "git"):
        if shutil.which(tool) is None:
            sys.exit(f"{tool} is not installed (scripts/install-deps.sh installs it)")
    version = subprocess.run(["rsync", "--version"], check=True, capture_output=True, text=True).stdout.split("\n")[0]
    git_version = subprocess.run(["git", "--version"], check=True, capture_output=True, text=True).stdout.strip()
    source_tree, dest_tree = read_tree("tree.txt"), read_tree("dest-tree.txt")
    scratch = tempfile.mkdtemp(prefix="sshfa-filter-expected-")
    try:
        rsync_sections = [(version, [])]
        for line in data_lines("rsync-cases.txt"):
            if line:
                name, *arguments = line.split("\t")
                rsync_sections.append((name, rsync_case(scratch, source_tree, dest_tree, arguments)))
        git_sections = [(git_version, [])]
        for case in gitignore_cases():
            git_sections.append((case["name"], gitignore_case(scratch, source_tree, case)))
    finally:
        shutil.rmtree(scratch)
    write("rsync-expected.txt", rsync_sections)
    write("gitignore-expected.txt", git_sections)
    print(f"{len(rsync_sections) - 1} rsync cases, {len(git_sections) - 1} gitignore cases")


if __name__ == "__main__":
    main()
