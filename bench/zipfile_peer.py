"""Python's zipfile as one of ziputil_bench's peers.

Started once by the benchmark program. It reads one JSON command a line from
standard input, does the setup the command needs untimed (opening the reader
that lookups share, loading the data to write), times the work itself with
time.perf_counter (wall) and time.process_time (CPU), and answers one line:
"ok WALL CPU" in seconds, or "error TEXT".
"""

import json
import sys
import time
import zipfile

readers = {}    # archive path -> open ZipFile shared by the lookups
blobs = {}      # data file path -> its bytes
manifests = {}  # manifest path -> [(name, bytes)]


def blob(path):
    if path not in blobs:
        with open(path, "rb") as f:
            blobs[path] = f.read()
    return blobs[path]


def entries(manifest, data):
    if manifest not in manifests:
        text = blob(data)
        items = []
        with open(manifest, encoding="utf-8") as f:
            for line in f:
                offset, length, name = line.rstrip("\n").split(" ", 2)
                items.append((name, text[int(offset):int(offset) + int(length)]))
        manifests[manifest] = items
    return manifests[manifest]


def check(condition, what):
    if not condition:
        raise RuntimeError(what)


def find(c):
    zf = readers.get(c["archive"])
    if zf is None:
        zf = readers[c["archive"]] = zipfile.ZipFile(c["archive"])
    getinfo, name, n, present = zf.getinfo, c["name"], c["n"], c["present"]

    def work():
        found = 0
        for _ in range(n):
            try:
                getinfo(name)
                found += 1
            except KeyError:
                pass
        check(found == (n if present else 0), "lookups found %d of %d" % (found, n))
    return work


def open_and_find(c):
    path, name, n = c["archive"], c["name"], c["n"]

    def work():
        for _ in range(n):
            zf = zipfile.ZipFile(path)
            zf.getinfo(name)
            zf.close()
    return work


def walk(c):
    path, n, count = c["archive"], c["n"], c["count"]

    def work():
        for _ in range(n):
            seen = 0
            total = 0
            with zipfile.ZipFile(path) as zf:
                for info in zf.infolist():
                    total += len(info.filename) + info.file_size
                    seen += 1
            check(seen == count, "walked %d entries of %d" % (seen, count))
    return work


def read_entry(zf, member):
    """Reads one entry in 64 KiB pieces; returns its size."""
    total = 0
    with zf.open(member) as f:
        while True:
            chunk = f.read(65536)
            if not chunk:
                return total
            total += len(chunk)


def read(c):
    path, name, size = c["archive"], c["name"], c["size"]

    def work():
        with zipfile.ZipFile(path) as zf:
            total = read_entry(zf, name)
        check(total == size, "read %d bytes of %d" % (total, size))
    return work


def read_all(c):
    path, size = c["archive"], c["size"]

    def work():
        with zipfile.ZipFile(path) as zf:
            total = sum(read_entry(zf, info) for info in zf.infolist())
        check(total == size, "read %d bytes of %d" % (total, size))
    return work


def write(c):
    data = memoryview(blob(c["data"]))
    out, name, level = c["out"], c["name"], c["level"]

    def work():
        with zipfile.ZipFile(out, "w", zipfile.ZIP_DEFLATED, compresslevel=level) as zf:
            with zf.open(name, "w") as f:
                for offset in range(0, len(data), 65536):
                    f.write(data[offset:offset + 65536])
    return work


def write_small(c):
    items = entries(c["manifest"], c["data"])
    out, level = c["out"], c["level"]

    def work():
        with zipfile.ZipFile(out, "w", zipfile.ZIP_DEFLATED, compresslevel=level) as zf:
            for name, data in items:
                zf.writestr(name, data)
    return work


COMMANDS = {"find": find, "open": open_and_find, "walk": walk, "read": read, "readall": read_all,
            "write": write, "small": write_small}


def main():
    print("ready Python %s" % sys.version.split()[0], flush=True)
    for line in sys.stdin:
        try:
            command = json.loads(line)
            work = COMMANDS[command["op"]](command)
            wall0, cpu0 = time.perf_counter(), time.process_time()
            work()
            cpu1, wall1 = time.process_time(), time.perf_counter()
            print("ok %.9f %.9f" % (wall1 - wall0, cpu1 - cpu0), flush=True)
        except Exception as e:  # the benchmark program reports it
            print("error %s: %s" % (type(e).__name__, str(e).replace("\n", " ")), flush=True)


if __name__ == "__main__":
    main()
