#!/usr/bin/env python3
"""What `postclone --preset 1` costs on a used-looking 4-partition GPT disk: a FAT32 EFI partition,
NTFS, ext4 with 100,000 files (fstab, grub.cfg and two 8 MiB initramfs images naming its UUID) and
XFS, each made by its own mkfs. The run is traced with strace; reported are the system calls, the
image's reads and writes (calls, bytes, the most reads and writes of one sector) and the sectors
whose content changed, for each postclone given (e.g. the one before a change and the one after).
Where a postclone has them, a dry run before the run must list exactly the sectors the run changes
and leave the image as it was, and postclone undo after it must give the image back byte for byte
(1 yes, 0 no, -1 not there).

Usage: preset_io_benchmark.py POSTCLONE [POSTCLONE...]
"""

import collections
import gzip
import io
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

SECTOR = 512
MIB = 1 << 20
# Partition sizes in MiB and their GPT type codes (sgdisk).
LAYOUT = [("efi", 64, "ef00"), ("ntfs", 128, "0700"), ("ext4", 640, "8300"), ("xfs", 320, "8300")]


def run(*command, **kwargs):
    return subprocess.run(command, check=True, capture_output=True, text=True, **kwargs)


def cpio_newc(members):
    """An uncompressed newc archive of (name, bytes) regular files."""
    out = io.BytesIO()
    for number, (name, data) in enumerate(members + [("TRAILER!!!", b"")], start=1):
        encoded = name.encode() + b"\0"
        mode = 0o100644 if name != "TRAILER!!!" else 0
        fields = [number, mode, 0, 0, 1, 0, len(data), 0, 0, 0, 0, len(encoded), 0]
        out.write(b"070701" + b"".join(b"%08X" % f for f in fields) + encoded)
        out.write(b"\0" * (-(110 + len(encoded)) % 4) + data + b"\0" * (-len(data) % 4))
    return out.getvalue()


def ext4_tree(root, uuid):
    """100,000 small files in 100 folders, and the boot files that name the root file system."""
    for d in range(100):
        folder = os.path.join(root, "srv", "d%d" % d)
        os.makedirs(folder)
        for f in range(1000):
            with open(os.path.join(folder, "f%d" % f), "w") as file:
                file.write(str(f))
    os.makedirs(os.path.join(root, "etc"))
    os.makedirs(os.path.join(root, "boot", "grub"))
    with open(os.path.join(root, "etc", "fstab"), "w") as fstab:
        fstab.write("UUID=%s / ext4 errors=remount-ro 0 1\n" % uuid)
    with open(os.path.join(root, "boot", "grub", "grub.cfg"), "w") as cfg:
        cfg.write("search --no-floppy --fs-uuid --set=root %s\n" % uuid)
        cfg.write("linux /boot/vmlinuz root=UUID=%s ro quiet\n" % uuid)
    for version in ("6.1.0-25-amd64", "6.1.0-26-amd64"):
        payload = os.urandom(8 * MIB - 4096)  # incompressible: the image stays 8 MiB
        members = [("conf/conf.d/resume", ("RESUME=UUID=%s\n" % uuid).encode()), ("lib/firmware.bin", payload)]
        with open(os.path.join(root, "boot", "initrd.img-" + version), "wb") as image:
            image.write(gzip.compress(cpio_newc(members), compresslevel=1))


def build_disk(work):
    disk = os.path.join(work, "disk.img")
    total = sum(size for _, size, _ in LAYOUT) + 2
    with open(disk, "wb") as file:
        file.truncate(total * MIB)
    command = ["sgdisk", "-o"]
    for number, (_, size, code) in enumerate(LAYOUT, start=1):
        command += ["-n", "%d:0:+%dM" % (number, size), "-t", "%d:%s" % (number, code)]
    run(*command, disk)
    starts = [int(run("sgdisk", "-i", str(n), disk).stdout.split("First sector: ")[1].split()[0])
              for n in range(1, len(LAYOUT) + 1)]
    uuid = "0f2b8ad1-7a58-4c1e-9d57-61a1c3e0a9b4"
    for (kind, size, _), start in zip(LAYOUT, starts):
        part = os.path.join(work, kind + ".part")
        with open(part, "wb") as file:
            file.truncate(size * MIB)
        # Made as in place, the way an installer makes them: the partition's start and the BIOS
        # geometry in the boot sectors.
        if kind == "efi":
            run("mkfs.fat", "-F", "32", "-s", "1", "-h", str(start), "-g", "255/63", part)
            run("mmd", "-i", part, "::/EFI", "::/EFI/debian")
            cfg = os.path.join(work, "efi-grub.cfg")
            with open(cfg, "w") as file:
                file.write("search.fs_uuid %s root\nset prefix=($root)'/boot/grub'\n" % uuid)
            run("mcopy", "-i", part, cfg, "::/EFI/debian/grub.cfg")
        elif kind == "ntfs":
            run("mkntfs", "-q", "-F", "-f", "-p", str(start), "-H", "255", "-S", "63", part)
        elif kind == "ext4":
            tree = os.path.join(work, "tree")
            ext4_tree(tree, uuid)
            run("mkfs.ext4", "-q", "-F", "-U", uuid, "-N", "120000", "-d", tree, part)
            shutil.rmtree(tree)
        else:
            run("mkfs.xfs", "-q", "-f", part)
        with open(part, "rb") as source, open(disk, "r+b") as target:
            target.seek(start * SECTOR)
            shutil.copyfileobj(source, target, 4 * MIB)
        os.remove(part)
    return disk


CALL = re.compile(r"^(?:\d+ +)?(\w+)\((\d+)?(.*)\) += (-?\d+)")


def traced_run(postclone, disk, work):
    trace = os.path.join(work, "trace")
    # The run journal (where this postclone keeps one) goes to the work folder.
    environment = dict(os.environ, POSTCLONE_JOURNAL_DIR=os.path.join(work, "journals"))
    subprocess.run(["strace", "-f", "-qq", "-o", trace, "-e", "signal=none", postclone, "--preset", "1", disk],
                   check=False, capture_output=True, env=environment)
    calls = collections.Counter()
    image_fds = set()
    reads = collections.Counter()
    writes = collections.Counter()
    read_calls = write_calls = bytes_read = bytes_written = syncs = 0
    with open(trace) as lines:
        for line in lines:
            match = CALL.match(line)
            if not match:
                continue
            name, fd, rest, result = match.group(1), match.group(2), match.group(3), int(match.group(4))
            calls[name] += 1
            if name in ("openat", "open") and disk in rest and result >= 0:
                image_fds.add(result)
            if fd is None or int(fd) not in image_fds:
                continue
            if name in ("pread64", "pwrite64") and result > 0:
                offset = int(rest.rsplit(",", 1)[1])
                sectors = range(offset // SECTOR, (offset + result + SECTOR - 1) // SECTOR)
                if name == "pread64":
                    read_calls += 1
                    bytes_read += result
                    reads.update(sectors)
                else:
                    write_calls += 1
                    bytes_written += result
                    writes.update(sectors)
            elif name in ("fsync", "fdatasync"):
                syncs += 1
            elif name == "close":
                image_fds.discard(int(fd))
    return {
        "system calls": sum(calls.values()),
        "image reads": read_calls,
        "bytes read": bytes_read,
        "sectors read twice or more": sum(1 for n in reads.values() if n > 1),
        "most reads of one sector": max(reads.values(), default=0),
        "image writes": write_calls,
        "sectors written": sum(writes.values()),
        "sectors written twice or more": sum(1 for n in writes.values() if n > 1),
        "most writes of one sector": max(writes.values(), default=0),
        "image syncs": syncs,
    }


def changed_sectors(before, after):
    changed = set()
    with open(before, "rb") as a, open(after, "rb") as b:
        offset = 0
        while True:
            x, y = a.read(4 * MIB), b.read(4 * MIB)
            if not x:
                return changed
            if x != y:
                changed.update((offset + i) // SECTOR for i in range(0, len(x), SECTOR) if x[i:i + SECTOR] != y[i:i + SECTOR])
            offset += len(x)


def dry_run_sectors(postclone, disk):
    """The sectors a dry run lists, or None for a postclone without one."""
    result = subprocess.run([postclone, "--dry-run", "--json", "--preset", "1", disk], capture_output=True, text=True)
    if result.returncode != 0 or '"dry_run"' not in result.stdout:
        return None
    listed = set()
    for step in json.loads(result.stdout)["steps"]:
        for target in step["would_change"]["sectors"]:
            for r in target["ranges"]:
                listed.update(range(r["first"], r["first"] + r["count"]))
    return listed


def undo_restores(postclone, disk, pristine, work):
    environment = dict(os.environ, POSTCLONE_JOURNAL_DIR=os.path.join(work, "journals"))
    result = subprocess.run([postclone, "undo", disk], capture_output=True, text=True, env=environment)
    if result.returncode != 0:
        return -1
    return 1 if not changed_sectors(pristine, disk) else 0


def main():
    postclones = sys.argv[1:]
    if not postclones:
        sys.exit(__doc__)
    with tempfile.TemporaryDirectory(prefix="postclone-bench-", dir=os.environ.get("TMPDIR")) as work:
        pristine = build_disk(work)
        results = []
        for postclone in postclones:
            disk = os.path.join(work, "run.img")
            shutil.copyfile(pristine, disk)
            listed = dry_run_sectors(postclone, disk)
            dry_run_wrote = len(changed_sectors(pristine, disk))
            figures = traced_run(os.path.abspath(postclone), disk, work)
            changed = changed_sectors(pristine, disk)
            figures["sectors changed"] = len(changed)
            figures["dry run: sectors listed"] = -1 if listed is None else len(listed)
            figures["dry run: listed = changed"] = -1 if listed is None else int(listed == changed)
            figures["dry run: sectors it changed"] = -1 if listed is None else dry_run_wrote
            figures["undo gives the image back"] = undo_restores(postclone, disk, pristine, work)
            shutil.rmtree(os.path.join(work, "journals"), ignore_errors=True)
            results.append(figures)
    width = max(len(p) for p in postclones)
    print("preset 1 on a 4-partition GPT disk (FAT32 EFI, NTFS, ext4 with 100,000 files, XFS):")
    for key in results[0]:
        print("  %-28s %s" % (key, "  ".join("%*d" % (max(width, 12), r[key]) for r in results)))
    print("  %-28s %s" % ("", "  ".join("%*s" % (max(width, 12), p) for p in postclones)))


if __name__ == "__main__":
    main()
