#!/usr/bin/env python3
"""Peak memory and time of a new ext4 UUID through postclone (`--enable fs-ids`) on a GPT disk whose
one partition holds ext4 with metadata checksums (no checksum seed, so every metadata block is
rewritten) and 100,000 or 1,000,000 files, as /usr/bin/time -v measures them, for each postclone
given. The run journal is off (--no-journal): it costs disk, not memory.

Usage: ext_uuid_memory_benchmark.py [--files N]... [--memory-limit MIB] POSTCLONE [POSTCLONE...]
"""

import argparse
import os
import re
import shutil
import subprocess
import tempfile

MIB = 1 << 20


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True)


def make_disk(work, files):
    """A GPT disk with one ext4 partition of `files` empty files in folders of 1000."""
    tree = os.path.join(work, "tree")
    for d in range(files // 1000):
        folder = os.path.join(tree, "d%d" % d)
        os.makedirs(folder)
        for f in range(1000):  # empty: what costs is the inodes and directories, not data
            open(os.path.join(folder, "f%d" % f), "w").close()
    # Inode tables for every file and room for the directories.
    part_mib = max(256, files * 3 // 1024)
    part = os.path.join(work, "root.fs")
    with open(part, "wb") as file:
        file.truncate(part_mib * MIB)
    run("mkfs.ext4", "-q", "-F", "-b", "4096", "-N", str(files + files // 10), "-O",
        "metadata_csum,^metadata_csum_seed", "-d", tree, part)
    shutil.rmtree(tree)
    disk = os.path.join(work, "disk.img")
    with open(disk, "wb") as file:
        file.truncate((part_mib + 2) * MIB)
    run("sgdisk", "-n", "1:2048:+%dM" % part_mib, disk)
    run("dd", "if=" + part, "of=" + disk, "bs=4M", "seek=1M", "oflag=seek_bytes", "conv=notrunc,sparse",
        "status=none")
    os.remove(part)
    return disk


def measure(postclone, disk, limit):
    command = ["/usr/bin/time", "-v", postclone, "--enable", "fs-ids"]
    options = run(postclone, "--help").stdout
    if "--no-journal" in options:
        command += ["--no-journal"]
    if limit and "--memory-limit" in options:
        command += ["--memory-limit", str(limit)]
    result = subprocess.run(command + [disk], capture_output=True, text=True)
    peak = int(re.search(r"Maximum resident set size \(kbytes\): (\d+)", result.stderr).group(1))
    wall = re.search(r"Elapsed \(wall clock\) time \(h:mm:ss or m:ss\): (\S+)", result.stderr).group(1)
    changed = "Ok" if result.returncode == 0 else "exit %d" % result.returncode
    return peak, wall, changed


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--files", type=int, action="append")
    parser.add_argument("--memory-limit", type=int, default=32)
    parser.add_argument("postclone", nargs="+")
    args = parser.parse_args()
    for files in args.files or [100000, 1000000]:
        with tempfile.TemporaryDirectory(prefix="postclone-ext-", dir=os.environ.get("TMPDIR")) as work:
            pristine = make_disk(work, files)
            for postclone in args.postclone:
                disk = os.path.join(work, "run.img")
                run("cp", "--sparse=always", pristine, disk)
                peak, wall, outcome = measure(os.path.abspath(postclone), disk, args.memory_limit)
                print("ext4 UUID, %7d files: peak %6.1f MiB, %8s, %s  (%s)" %
                      (files, peak / 1024.0, wall, outcome, postclone))


if __name__ == "__main__":
    main()
