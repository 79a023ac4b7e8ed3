"""Command line, timing and the one-line JSON report shared by the SFTP benchmark peers.

A peer is an object with open(args), close(), cipher() and one method per operation
(put, get, put_tree, get_tree, stat, exists, walk) returning the number of items handled.
"""

import argparse
import contextlib
import json
import os
import posixpath
import shlex
import sys
import time

# Operation name -> (names of its operands in command-line order, what it does).
OPERATIONS = {
    "connect": ((), "connect, authenticate and open SFTP only"),
    "put": (("local_file", "remote_file"), "upload one file"),
    "get": (("remote_file", "local_file"), "download one file"),
    "put-tree": (("local_dir", "remote_dir"), "upload a tree: REMOTE_DIR itself holds LOCAL_DIR's contents"),
    "get-tree": (("remote_dir", "local_dir"), "download a tree: LOCAL_DIR itself holds REMOTE_DIR's contents"),
    "stat": (("list_file",), "stat each remote path of LIST_FILE (UTF-8, one a line), in order"),
    "exists": (("list_file",), "count the remote paths of LIST_FILE that exist"),
    "walk": (("remote_dir",), "list every file below REMOTE_DIR, not following symlinks"),
}

# Operations whose operand is a file of remote paths, read before the clock starts.
PATH_LIST_OPERATIONS = ("stat", "exists")

CONNECT_TIMEOUT_SECONDS = 30


class PeerError(Exception):
    """A failure already described in words a user can act on."""


class _Parser(argparse.ArgumentParser):
    # A bad command line is a failure like any other: exit status 1, not argparse's 2.
    def error(self, message):
        self.print_usage(sys.stderr)
        self.exit(1, f"{self.prog}: error: {message}\n")


def parse_args(description):
    parser = _Parser(description=description, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--host", required=True)
    parser.add_argument("--port", required=True, type=int)
    parser.add_argument("--user", required=True)
    parser.add_argument("--key", required=True, help="private key file")
    parser.add_argument("--known-hosts", required=True, help="the only host keys trusted")
    operations = parser.add_subparsers(dest="op", required=True, metavar="OP")
    for name, (operands, purpose) in OPERATIONS.items():
        sub = operations.add_parser(name, help=purpose, description=purpose)
        for operand in operands:
            sub.add_argument(operand, metavar=operand.upper())
    return parser.parse_args()


def read_paths(list_file):
    """Remote paths of a UTF-8 file, one per line; blank lines are skipped."""
    with open(list_file, encoding="utf-8") as stream:
        # split("\n") rather than splitlines(): other line separators are valid in paths.
        return [line for line in stream.read().split("\n") if line]


def reason(exc, context=""):
    """Why exc happened, naming the path it carries unless context already names it."""
    text = getattr(exc, "strerror", None) or str(exc) or type(exc).__name__
    filename = getattr(exc, "filename", None)
    if filename is None:
        return text
    quoted = f"'{os.fsdecode(filename)}'"
    return text if quoted in context else f"{quoted}: {text}"


@contextlib.contextmanager
def failing(what):
    """Turns any failure inside into a PeerError saying `what` failed, and why."""
    try:
        yield
    except PeerError:
        raise
    except Exception as exc:
        raise PeerError(f"{what}: {reason(exc, what)}") from exc


def files_below(walk, source, target):
    """For walk(source) yielding (folder, file names) top-down, yields each folder's
    counterpart below target and the (source file, target file) pairs in it."""
    # Without trailing slashes, every folder walk yields starts with exactly source.
    source, target = posixpath.normpath(source), posixpath.normpath(target)
    for folder, names in walk(source):
        counterpart = target + folder[len(source) :]
        yield counterpart, [(posixpath.join(folder, n), posixpath.join(counterpart, n)) for n in names]


def run(peer, description, finish=lambda result: result):
    """Runs the command line's operation on peer and prints the report; exits 1 on failure.

    finish turns what a peer's method returns into its value (the asyncio peer's methods
    return coroutines, which finish runs to completion)."""
    args = parse_args(description)
    given = [getattr(args, name) for name in OPERATIONS[args.op][0]]
    operands = given
    try:
        if args.op in PATH_LIST_OPERATIONS:
            with failing("cannot read the path list"):
                operands = [read_paths(operands[0])]
        started = time.perf_counter()
        try:
            with failing(f"cannot connect to {args.user}@{args.host}:{args.port}"):
                finish(peer.open(args))
            connected = time.perf_counter()
            count = finish(getattr(peer, args.op.replace("-", "_"))(*operands)) if operands else 0
            done = time.perf_counter()
            cipher = peer.cipher()
        finally:
            finish(peer.close())
    except Exception as exc:
        command = shlex.join([args.op] + given)
        print(f"{os.path.basename(sys.argv[0])}: {command}: {reason(exc)}", file=sys.stderr)
        sys.exit(1)
    report = {"connect": connected - started, "work": done - connected, "count": count, "cipher": cipher}
    print(json.dumps(report))
