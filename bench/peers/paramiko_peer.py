#!/usr/bin/python3
"""Benchmark peer: one file operation on a remote host over SFTP with paramiko, timed.

Prints one JSON line: {"connect": s, "work": s, "count": n, "cipher": name}; on failure,
a message on stderr and exit status 1.
"""

import os
import posixpath
import stat

import paramiko

import peercli

WANTED_CIPHER = "aes128-gcm@openssh.com"
# paramiko has no GCM cipher; its CTR mode of the same key size is the nearest.
CIPHER = WANTED_CIPHER if WANTED_CIPHER in paramiko.Transport._preferred_ciphers else "aes128-ctr"


class ParamikoPeer:
    def __init__(self):
        self._client = None
        self._sftp = None

    def open(self, args):
        self._client = paramiko.SSHClient()
        self._client.load_host_keys(args.known_hosts)
        self._client.set_missing_host_key_policy(paramiko.RejectPolicy())
        self._client.connect(
            args.host,
            port=args.port,
            username=args.user,
            key_filename=args.key,
            allow_agent=False,
            look_for_keys=False,
            compress=False,
            timeout=peercli.CONNECT_TIMEOUT_SECONDS,
            banner_timeout=peercli.CONNECT_TIMEOUT_SECONDS,
            auth_timeout=peercli.CONNECT_TIMEOUT_SECONDS,
            disabled_algorithms={"ciphers": [c for c in paramiko.Transport._preferred_ciphers if c != CIPHER]},
        )
        self._sftp = self._client.open_sftp()

    def close(self):
        if self._sftp is not None:
            self._sftp.close()
        if self._client is not None:
            self._client.close()

    def cipher(self):
        return self._client.get_transport().local_cipher

    def put(self, local_file, remote_file):
        self._sftp.put(local_file, remote_file)
        return 1

    def get(self, remote_file, local_file):
        self._sftp.get(remote_file, local_file, prefetch=True)
        return 1

    def put_tree(self, local_dir, remote_dir):
        return self._copy_tree(_local_folders, self._make_remote_dir, self._sftp.put, local_dir, remote_dir)

    def get_tree(self, remote_dir, local_dir):
        return self._copy_tree(self._remote_folders, _make_local_dir, self._sftp.get, remote_dir, local_dir)

    def stat(self, paths):
        found = []
        for path in paths:
            with peercli.failing(f"cannot stat '{path}'"):
                attributes = self._sftp.stat(path)
            found.append((attributes.st_size, attributes.st_mtime))
        return len(found)

    def exists(self, paths):
        found = 0
        for path in paths:
            with peercli.failing(f"cannot stat '{path}'"):
                try:
                    self._sftp.stat(path)
                except FileNotFoundError:
                    continue
            found += 1
        return found

    def walk(self, remote_dir):
        files = [posixpath.join(folder, name) for folder, names in self._remote_folders(remote_dir) for name in names]
        return len(files)

    def _copy_tree(self, folders, make_dir, copy, source, target):
        copied = 0
        for counterpart, pairs in peercli.files_below(folders, source, target):
            with peercli.failing(f"cannot create '{counterpart}'"):
                make_dir(counterpart)
            for source_file, target_file in pairs:
                with peercli.failing(f"cannot copy '{source_file}' to '{target_file}'"):
                    copy(source_file, target_file)
                copied += 1
        return copied

    def _remote_folders(self, top):
        """Like os.walk over SFTP: (folder, names of its non-folders), top-down, symlinks not followed."""
        with peercli.failing(f"cannot list '{top}'"):
            entries = self._sftp.listdir_attr(top)
        # listdir_attr's attributes are the entries' own (lstat), so a link to a folder is not one.
        folders = [e.filename for e in entries if stat.S_ISDIR(e.st_mode)]
        yield top, [e.filename for e in entries if not stat.S_ISDIR(e.st_mode)]
        for folder in folders:
            yield from self._remote_folders(posixpath.join(top, folder))

    def _make_remote_dir(self, path):
        try:
            self._sftp.mkdir(path)
        except OSError as error:
            # The server says only "Failure" for an existing folder; that one is fine.
            try:
                is_dir = stat.S_ISDIR(self._sftp.stat(path).st_mode)
            except OSError:
                is_dir = False
            if not is_dir:
                raise error


def _local_folders(top):
    for folder, _, names in os.walk(top, onerror=_raise):
        yield folder, names


def _raise(error):
    raise error


def _make_local_dir(path):
    os.makedirs(path, exist_ok=True)


if __name__ == "__main__":
    peercli.run(ParamikoPeer(), __doc__)
