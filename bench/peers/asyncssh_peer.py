#!/usr/bin/python3
"""Benchmark peer: one file operation on a remote host over SFTP with asyncssh, timed.

Prints one JSON line: {"connect": s, "work": s, "count": n, "cipher": name}; on failure,
a message on stderr and exit status 1.
"""

import asyncio
import os
import posixpath
import warnings

import peercli

with warnings.catch_warnings():
    # Importing registers legacy ciphers, which the crypto backend reports as deprecated on stderr.
    warnings.simplefilter("ignore")
    import asyncssh

CIPHER = "aes128-gcm@openssh.com"


class AsyncsshPeer:
    def __init__(self):
        self._connection = None
        self._sftp = None

    async def open(self, args):
        self._connection = await asyncssh.connect(
            args.host,
            args.port,
            username=args.user,
            client_keys=[args.key],
            known_hosts=args.known_hosts,
            config=None,
            agent_path=None,
            password=None,
            preferred_auth="publickey",
            encryption_algs=[CIPHER],
            compression_algs=None,
            connect_timeout=peercli.CONNECT_TIMEOUT_SECONDS,
            login_timeout=peercli.CONNECT_TIMEOUT_SECONDS,
        )
        self._sftp = await self._connection.start_sftp_client()

    async def close(self):
        if self._sftp is not None:
            self._sftp.exit()
            await self._sftp.wait_closed()
        if self._connection is not None:
            self._connection.close()
            await self._connection.wait_closed()

    def cipher(self):
        return self._connection.get_extra_info("send_cipher")

    async def put(self, local_file, remote_file):
        await self._sftp.put(local_file, remote_file)
        return 1

    async def get(self, remote_file, local_file):
        await self._sftp.get(remote_file, local_file)
        return 1

    async def put_tree(self, local_dir, remote_dir):
        names = os.listdir(local_dir)
        with peercli.failing(f"cannot create '{remote_dir}'"):
            await self._make_remote_dir(remote_dir)
        return await self._copy_tree(self._sftp.put, local_dir, names, remote_dir)

    async def get_tree(self, remote_dir, local_dir):
        with peercli.failing(f"cannot list '{remote_dir}'"):
            names = [n for n in await self._sftp.listdir(remote_dir) if n not in (".", "..")]
        os.makedirs(local_dir, exist_ok=True)
        return await self._copy_tree(self._sftp.get, remote_dir, names, local_dir)

    async def stat(self, paths):
        found = []
        for path in paths:
            with peercli.failing(f"cannot stat '{path}'"):
                attributes = await self._sftp.stat(path)
            found.append((attributes.size, attributes.mtime))
        return len(found)

    async def exists(self, paths):
        found = 0
        for path in paths:
            with peercli.failing(f"cannot stat '{path}'"):
                if await self._sftp.exists(path):
                    found += 1
        return found

    async def walk(self, remote_dir):
        files = []
        await self._collect_files(remote_dir, files)
        return len(files)

    async def _copy_tree(self, copy, source, names, target):
        # Copying the contents into target, rather than source into it, keeps an existing
        # target from receiving the tree one level down, as target/<name of source>.
        copied = set()
        with peercli.failing(f"cannot copy '{source}' to '{target}'"):
            await copy(
                [posixpath.join(source, n) for n in names],
                target,
                recurse=True,
                progress_handler=lambda _source, target_file, _done, _total: copied.add(target_file),
            )
        return len(copied)

    async def _collect_files(self, folder, files):
        with peercli.failing(f"cannot list '{folder}'"):
            entries = await self._sftp.readdir(folder)
        for entry in entries:
            if entry.filename in (".", ".."):
                continue
            path = posixpath.join(folder, entry.filename)
            # readdir's attributes are the entries' own (lstat), so a link to a folder is not one.
            if entry.attrs.type == asyncssh.FILEXFER_TYPE_DIRECTORY:
                await self._collect_files(path, files)
            else:
                files.append(path)

    async def _make_remote_dir(self, path):
        try:
            await self._sftp.mkdir(path)
        except asyncssh.SFTPError:
            # The server says only "Failure" for an existing folder; that one is fine.
            if not await self._sftp.isdir(path):
                raise


if __name__ == "__main__":
    peercli.run(AsyncsshPeer(), __doc__, asyncio.new_event_loop().run_until_complete)
