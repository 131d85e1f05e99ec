#!/usr/bin/env python3
"""Writes the seed corpus of the archive-reader fuzzer.

usage: make_seeds.py OUTDIR [--tool PATH-TO-ziputil]

Each seed is a small archive showing the fuzzer one feature of the format:
stored and deflated entries, empty entries and archives, comments, Zip64
records, streamed entries (data descriptors), folder entries, many entries,
odd names, methods the library decodes itself (xz and zstd built here;
Deflate64, bzip2, LZMA and WinZip AES from 7-Zip when it is installed), a method
it refuses, junk before the archive, and a few damaged ones. With --tool, the
project's own program also adds archives it writes itself, among them
encrypted ones, AES and traditional, and zstd ones (password "fuzz", the
password the fuzzer tries). The output is the same on every run, but for the
random salts of AES entries.
"""

import io
import lzma
import os
import shutil
import struct
import subprocess
import sys
import tempfile
import warnings
import zipfile

FIXED_TIME = (2024, 5, 1, 12, 30, 44)
TEXT = b"".join(b"line %d: the quick brown fox jumps over the lazy dog\n" % i for i in range(200))


class Unseekable(io.RawIOBase):
    """A write-only stream without tell/seek, so zipfile streams its entries (bit 3, data descriptors)."""

    def __init__(self):
        self.data = bytearray()

    def writable(self):
        return True

    def write(self, b):
        self.data += b
        return len(b)


def info(name, method=zipfile.ZIP_DEFLATED, date_time=FIXED_TIME, comment=b"", extra=b""):
    zi = zipfile.ZipInfo(name, date_time=date_time)
    zi.compress_type = method
    zi.comment = comment
    zi.extra = extra
    zi.external_attr = 0o644 << 16
    return zi


def archive(entries, comment=b"", prefix=b"", **kwargs):
    """entries: (ZipInfo or name, bytes) pairs."""
    buffer = io.BytesIO(prefix)
    buffer.seek(0, io.SEEK_END)
    with zipfile.ZipFile(buffer, "a" if prefix else "w", **kwargs) as zf:
        for entry, data in entries:
            if isinstance(entry, str):
                entry = info(entry)
            zf.writestr(entry, data)
        zf.comment = comment
    return buffer.getvalue()


def streamed(entries):
    out = Unseekable()
    with zipfile.ZipFile(out, "w") as zf:
        for entry, data in entries:
            with zf.open(info(entry) if isinstance(entry, str) else entry, "w") as f:
                f.write(data)
    return bytes(out.data)


def zip64_everywhere():
    """Every record in its Zip64 form: sizes and offsets in Zip64 extra fields, Zip64 end record and locator."""
    saved = zipfile.ZIP64_LIMIT, zipfile.ZIP_FILECOUNT_LIMIT
    zipfile.ZIP64_LIMIT, zipfile.ZIP_FILECOUNT_LIMIT = 0, 0
    try:
        buffer = io.BytesIO()
        with zipfile.ZipFile(buffer, "w") as zf:
            for entry, data in (("a.txt", TEXT[:300]), ("b/c.bin", bytes(range(256))), ("empty", b"")):
                with zf.open(info(entry), "w", force_zip64=True) as f:
                    f.write(data)
        return buffer.getvalue()
    finally:
        zipfile.ZIP64_LIMIT, zipfile.ZIP_FILECOUNT_LIMIT = saved


def renamed(data, placeholder, raw):
    """Replaces a placeholder name (same length) in every header: names zipfile would not write."""
    assert len(placeholder) == len(raw) and data.count(placeholder) >= 2
    return data.replace(placeholder, raw)


def patched(data, at, fmt, value):
    data = bytearray(data)
    data[at:at + struct.calcsize(fmt)] = struct.pack(fmt, value)
    return bytes(data)


def seeds():
    s = {}
    s["empty-archive"] = archive([])
    s["stored"] = archive([(info("hello.txt", zipfile.ZIP_STORED), b"hello, world\n")])
    s["deflated"] = archive([("text/fox.txt", TEXT)])
    s["deflated-level9"] = archive([("fox9.txt", TEXT[:2000])], compresslevel=9)
    s["empty-entries"] = archive([(info("empty-stored", zipfile.ZIP_STORED), b""), ("empty-deflated", b"")])
    s["comments"] = archive([(info("c.txt", comment=b"entry comment", extra=b"\x55\x54\x05\x00\x01\x00\x00\x00\x00"),
                              b"commented\n")], comment=b"archive comment \xff\x00 with odd bytes")
    s["zip64-forced"] = zip64_everywhere()
    s["streamed"] = streamed([("s1.txt", TEXT[:500]), (info("s2.bin", zipfile.ZIP_STORED), bytes(range(200)))])
    s["folders"] = archive([(info("dir/", zipfile.ZIP_STORED), b""), ("dir/inner.txt", b"inside\n"),
                            (info("dir\\sub\\", zipfile.ZIP_STORED), b""), ("dir\\sub\\win.txt", b"backslashes\n")])
    s["many-entries"] = archive([(info("e%04d" % i, zipfile.ZIP_STORED if i % 2 else zipfile.ZIP_DEFLATED),
                                  b"%d" % i) for i in range(150)])
    s["duplicate-names"] = archive([("same.txt", b"first\n"), ("same.txt", b"second\n"), ("./same.txt", b"third\n")])
    s["odd-names"] = archive([("/leading/slash.txt", b"1"), ("c:drive.txt", b"2"), ("../up/../dots.txt", b"3"),
                              ("  blanks  ", b"4"), ("//", b"5"), ("a#b?c d%20e.txt", b"6"),
                              ("caf\u00e9-cp437.txt", b"7"), ("\u65e5\u672c-utf8.txt", b"8"),
                              ("\U0001F600-astral.txt", b"9")])
    s["raw-names"] = renamed(archive([("N1N1", b"invalid utf-8"), ("N2N2", b"embedded nul"),
                                      (info("N3N3", zipfile.ZIP_STORED), b"utf-8 flag on cp437 bytes")]),
                             b"N1N1", b"\xff\xfe\x80x")
    s["raw-names"] = renamed(s["raw-names"], b"N2N2", b"ab\x00c")
    s["raw-names"] = renamed(s["raw-names"], b"N3N3", b"\x82\xe9\xc3(")
    s["dates"] = archive([(info("old", date_time=(1980, 1, 1, 0, 0, 0)), b"a"),
                          (info("new", date_time=(2107, 12, 31, 23, 59, 58)), b"b")])
    if hasattr(zipfile, "ZIP_BZIP2"):
        try:
            s["other-methods"] = archive([(info("bz", zipfile.ZIP_BZIP2), TEXT[:400]),
                                          (info("xz", zipfile.ZIP_LZMA), TEXT[:400]), ("ok.txt", b"readable\n")])
        except RuntimeError:  # Python built without bz2 or lzma
            pass
    s["ratio"] = archive([("zeros", bytes(2 << 20))], compresslevel=9)  # 2 MiB from ~2 KiB: past the fuzzer's cap
    s["prefixed"] = archive([("after-junk.txt", b"self-extractor style\n")], prefix=b"#!/bin/sh\nexit 0\n" * 4)

    good = archive([(info("crc.txt", zipfile.ZIP_STORED), b"checked bytes\n"), ("crc2.txt", TEXT[:300])])
    central = good.index(b"PK\x01\x02")
    s["bad-crc"] = patched(patched(good, 14, "<I", 0xDEADBEEF), central + 16, "<I", 0xDEADBEEF)
    s["size-lies"] = patched(patched(good, 22, "<I", 5), central + 24, "<I", 5)
    s["truncated"] = good[:len(good) - 10]
    shared = archive([(info("one", zipfile.ZIP_STORED), b"shared local data\n")])
    cd = shared.index(b"PK\x01\x02")
    record = shared[cd:shared.index(b"PK\x05\x06")]
    end = bytearray(shared[shared.index(b"PK\x05\x06"):])
    struct.pack_into("<HHI", end, 8, 2, 2, 2 * len(record))
    s["overlapping"] = shared[:cd] + record + record.replace(b"one", b"two") + bytes(end)
    return s


def raw_method_entry(name, method, stored, data):
    """A one-entry archive whose data `stored` is recorded with `method` (version needed 6.3)."""
    import zlib
    crc = zlib.crc32(data)
    local = struct.pack("<IHHHHHIIIHH", 0x04034b50, 63, 0, method, 0x6000, 0x58a1, crc, len(stored), len(data),
                        len(name), 0) + name + stored
    central = struct.pack("<IHHHHHHIIIHHHHHII", 0x02014b50, 0x031e, 63, 0, method, 0x6000, 0x58a1, crc, len(stored),
                          len(data), len(name), 0, 0, 0, 0, 0o100644 << 16, 0) + name
    end = struct.pack("<IHHHHIIH", 0x06054b50, 0, 0, 1, 1, len(central), len(local), 0)
    return local + central + end


def method_seeds(out):
    """Entries of the methods the library decodes itself: xz (Python's lzma), zstd (the zstd tool), and
    Deflate64, bzip2, LZMA and WinZip AES entries from 7-Zip, when those tools are installed."""
    seeds = {"xz": raw_method_entry(b"x.txt", 95, lzma.compress(TEXT[:2000], format=lzma.FORMAT_XZ), TEXT[:2000])}
    if shutil.which("zstd"):
        packed = subprocess.run(["zstd", "-q", "-c", "-3"], input=TEXT[:2000], capture_output=True, check=True).stdout
        seeds["zstd"] = raw_method_entry(b"z.txt", 93, packed, TEXT[:2000])
    for name, data in seeds.items():
        with open(os.path.join(out, name), "wb") as f:
            f.write(data)
    if not shutil.which("7z"):
        return
    work = tempfile.mkdtemp(prefix="ziputil-seeds-")
    try:
        path = os.path.join(work, "t.txt")
        with open(path, "wb") as f:
            f.write(TEXT[:3000])
        os.utime(path, (1714566600, 1714566600))
        runs = {"7z-deflate64": ["-mm=Deflate64"], "7z-bzip2": ["-mm=BZip2"], "7z-lzma": ["-mm=LZMA"],
                "7z-aes256-deflate": ["-pfuzz", "-mem=AES256", "-mm=Deflate"],
                "7z-aes128-lzma": ["-pfuzz", "-mem=AES128", "-mm=LZMA"]}
        for seed, options in runs.items():
            target = os.path.join(work, seed + ".zip")
            subprocess.run(["7z", "a", "-tzip", *options, target, "t.txt"], cwd=work, check=True,
                           stdout=subprocess.DEVNULL)
            shutil.copyfile(target, os.path.join(out, seed))
    finally:
        shutil.rmtree(work)


def tool_seeds(tool, out):
    """Archives written by the project's own program: stored, deflated, encrypted, a folder tree."""
    work = tempfile.mkdtemp(prefix="ziputil-seeds-")
    try:
        files = {"a.txt": TEXT[:1500], "b.bin": bytes(range(256)) * 4, "tree/empty": b"", "tree/sub/c.txt": b"c\n"}
        for name, data in files.items():
            path = os.path.join(work, name)
            os.makedirs(os.path.dirname(path), exist_ok=True)
            with open(path, "wb") as f:
                f.write(data)
            os.utime(path, (1714566600, 1714566600))
        runs = {  # seed: (options, paths)
            "tool-stored": (["--level", "0"], ["a.txt", "b.bin"]),
            "tool-deflated": ([], ["a.txt", "tree"]),
            "tool-encrypted-stored": (["--password", "fuzz", "--level", "0"], ["a.txt"]),
            "tool-encrypted-deflated": (["--password", "fuzz"], ["a.txt", "b.bin"]),  # AES-256
            "tool-zipcrypto": (["--password", "fuzz", "--encryption", "zipcrypto"], ["a.txt"]),
            "tool-zstd": (["--method", "zstd"], ["a.txt", "tree"]),
            "tool-aes128-zstd": (["--password", "fuzz", "--encryption", "aes128", "--method", "zstd"], ["a.txt"]),
        }
        for seed, (options, paths) in runs.items():
            target = os.path.join(work, seed + ".zip")
            subprocess.run([tool, "add", *options, target, *paths], cwd=work, check=True)
            shutil.copyfile(target, os.path.join(out, seed))
    finally:
        shutil.rmtree(work)


def main():
    args = sys.argv[1:]
    tool = None
    if "--tool" in args:
        at = args.index("--tool")
        tool = args[at + 1]
        del args[at:at + 2]
    if len(args) != 1:
        sys.exit(__doc__)
    out = args[0]
    warnings.simplefilter("ignore")  # zipfile warns about the duplicate names it is asked to write
    if os.path.isdir(out):
        shutil.rmtree(out)
    os.makedirs(out)
    for name, data in seeds().items():
        with open(os.path.join(out, name), "wb") as f:
            f.write(data)
    method_seeds(out)
    if tool:
        tool_seeds(tool, out)


if __name__ == "__main__":
    main()
