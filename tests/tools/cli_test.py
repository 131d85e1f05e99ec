"""The installed ziputil program, run the way a user runs it.

ZIPUTIL_PROGRAM names the program under test. Every test works in its own
temporary folder on real files, and checks output and exit status.
"""
import atexit
import json
import os
import re
import shutil
import stat
import struct
import subprocess
import tempfile
import time
import unittest
import zipfile
import zlib

PROGRAM = os.environ.get("ZIPUTIL_PROGRAM", "ziputil")


# The program's environment: no password from the caller's.
ENVIRONMENT = {name: value for name, value in os.environ.items() if name != "ZIPUTIL_PASSWORD"}


def run(*args, cwd=None, stdin=None, timeout=120):
    """Runs the program; standard input is `stdin`'s bytes, or empty (never the caller's terminal)."""
    if stdin is None:
        return subprocess.run([PROGRAM, *args], cwd=cwd, stdin=subprocess.DEVNULL, capture_output=True,
                              timeout=timeout, env=ENVIRONMENT)
    return subprocess.run([PROGRAM, *args], cwd=cwd, input=stdin, capture_output=True, timeout=timeout,
                          env=ENVIRONMENT)


NOBODY = 65534
_program_for_nobody = None


def program_for_nobody():
    """The program as an ordinary user (65534) can run it, wherever the build lives.

    The installed tree may sit in a folder only its owner can enter (a checkout
    under root's home, or in a mktemp -d folder), so the program and the
    libraries beside it (bin/ and lib/ of the installed tree, which find each
    other through the relative run path) are copied once into a temporary
    folder that everybody may enter; the copy is checked to run as that user."""
    global _program_for_nobody
    if _program_for_nobody is None:
        installed = os.path.dirname(os.path.dirname(os.path.realpath(shutil.which(PROGRAM) or PROGRAM)))
        copy = tempfile.mkdtemp(prefix="ziputil-nobody-")
        os.chmod(copy, 0o755)
        shutil.copytree(os.path.join(installed, "bin"), os.path.join(copy, "bin"), symlinks=True)
        shutil.copytree(os.path.join(installed, "lib"), os.path.join(copy, "lib"), symlinks=True,
                        ignore=shutil.ignore_patterns("cmake", "pkgconfig"))
        for folder, names, _ in os.walk(copy):
            os.chmod(folder, 0o755)
        program = os.path.join(copy, "bin", os.path.basename(PROGRAM))
        check = subprocess.run(["setpriv", "--reuid=%d" % NOBODY, "--regid=%d" % NOBODY, "--clear-groups", program,
                                "--version"], cwd="/", capture_output=True, timeout=60)
        if check.returncode != 0:
            raise AssertionError("user %d cannot run the copy of the program in %s: exit %d, %r"
                                 % (NOBODY, copy, check.returncode, check.stderr))
        _program_for_nobody = program
    return _program_for_nobody


def run_as_nobody(*args, cwd):
    """Runs the program as user 65534 (root reads every file: an ordinary user does not)."""
    return subprocess.run(["setpriv", "--reuid=%d" % NOBODY, "--regid=%d" % NOBODY, "--clear-groups",
                           program_for_nobody(), *args], cwd=cwd, stdin=subprocess.DEVNULL, capture_output=True,
                          timeout=120, env=ENVIRONMENT)


@atexit.register
def remove_program_for_nobody():
    if _program_for_nobody is not None:
        shutil.rmtree(os.path.dirname(os.path.dirname(_program_for_nobody)), ignore_errors=True)


def unzip_tests_every_entry(archive):
    """Info-ZIP unzip -t finds every entry OK. With non-ASCII names it also
    warns 'mismatching "local" filename': entries made on host 0 (MS-DOS) get
    their central names converted from code page 437, the local names not."""
    result = subprocess.run(["unzip", "-t", archive], capture_output=True)
    lines = result.stdout.decode(errors="replace").splitlines()
    tested = [line for line in lines if line.strip().startswith("testing:")]
    problems = [line for line in lines if "bad" in line or "error:" in line]
    names = zipfile.ZipFile(archive).namelist()
    ok = len(tested) == len(names) and all(line.rstrip().endswith("OK") for line in tested) and not problems
    return ok and result.returncode in (0, 1), result.stdout.decode(errors="replace")


def make_zip(path, entries, compression=zipfile.ZIP_DEFLATED):
    """entries: list of (name, bytes or None for a folder entry)."""
    with zipfile.ZipFile(path, "w", compression) as z:
        for name, data in entries:
            if data is None:
                z.writestr(zipfile.ZipInfo(name), b"")
            else:
                z.writestr(name, data)


def deflated(data):
    compressor = zlib.compressobj(6, zlib.DEFLATED, -15)
    return compressor.compress(data) + compressor.flush()


def raw_entry(name, data, method=zipfile.ZIP_STORED, flags=0, crc=None, size=None, zip64=None):
    """One entry for raw_zip. name: str (stored as UTF-8) or bytes (stored as they are);
    data: the uncompressed bytes. crc and size default to those of data; zip64, a pair
    (uncompressed size, compressed size), goes into the central header's Zip64 field."""
    stored = deflated(data) if method == zipfile.ZIP_DEFLATED else data
    return {"name": name.encode() if isinstance(name, str) else name, "stored": stored, "method": method,
            "flags": flags, "crc": zlib.crc32(data) if crc is None else crc,
            "size": len(data) if size is None else size, "zip64": zip64}


def raw_zip(path, entries, central=None):
    """Writes a ZIP archive assembled byte by byte. central lists the central headers
    as (entry index, name or None for the entry's own); by default one per entry."""
    out = bytearray()
    offsets = []
    for e in entries:
        offsets.append(len(out))
        out += struct.pack("<IHHHHHIIIHH", 0x04034b50, 20, e["flags"], e["method"], 0, 0x21, e["crc"],
                           len(e["stored"]), e["size"], len(e["name"]), 0) + e["name"] + e["stored"]
    directory = bytearray()
    headers = central if central is not None else [(i, None) for i in range(len(entries))]
    for index, name in headers:
        e = entries[index]
        name = e["name"] if name is None else name
        compressed, size, extra = len(e["stored"]), e["size"], b""
        if e["zip64"]:
            extra = struct.pack("<HHQQ", 1, 16, *e["zip64"])
            compressed = size = 0xffffffff
        directory += struct.pack("<IHHHHHHIIIHHHHHII", 0x02014b50, 20, 20, e["flags"], e["method"], 0, 0x21,
                                 e["crc"], compressed, size, len(name), len(extra), 0, 0, 0, 0,
                                 offsets[index]) + name + extra
    end = struct.pack("<IHHHHIIH", 0x06054b50, 0, 0, len(headers), len(headers), len(directory), len(out), 0)
    with open(path, "wb") as f:
        f.write(bytes(out + directory + end))
    return path


class CliTestCase(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="ziputil cli #")
        self.addCleanup(shutil.rmtree, self.dir, True)

    def path(self, *parts):
        return os.path.join(self.dir, *parts)

    def write(self, relative, data):
        full = self.path(relative)
        os.makedirs(os.path.dirname(full), exist_ok=True)
        with open(full, "wb") as f:
            f.write(data)
        return full

    def run_with_terminal_stderr(self, *args):
        import pty
        master, slave = pty.openpty()
        try:
            result = subprocess.run([PROGRAM, *args], stdout=subprocess.PIPE, stderr=slave, timeout=120)
            os.close(slave)
            slave = None
            chunks = []
            while True:
                try:
                    data = os.read(master, 4096)
                except OSError:
                    break
                if not data:
                    break
                chunks.append(data)
            return result.returncode, b"".join(chunks)
        finally:
            if slave is not None:
                os.close(slave)
            os.close(master)

    def assertResult(self, result, status):
        self.assertEqual(result.returncode, status, msg=result.stderr.decode(errors="replace"))

    def sample_tree(self):
        files = {
            "tree/a.txt": b"alpha\n" * 100,
            "tree/empty.bin": b"",
            "tree/sub dir/b #1.txt": bytes(range(256)) * 40,
            "tree/sub dir/deeper/\u00e9t\u00e9.txt".encode().decode(): "summer".encode(),
        }
        for name, data in files.items():
            self.write(name, data)
        os.makedirs(self.path("tree", "empty folder"))
        return files


class UsageTest(CliTestCase):
    def test_help_lists_every_command(self):
        result = run("--help")
        self.assertResult(result, 0)
        for command in ("list", "cat", "extract", "add", "delete", "test"):
            self.assertIn(("ziputil " + command).encode(), result.stdout)

    def test_each_command_has_help(self):
        for command in ("list", "cat", "extract", "add", "delete", "test"):
            result = run(command, "--help")
            self.assertResult(result, 0)
            self.assertTrue(result.stdout.startswith(b"usage: ziputil " + command.encode()))

    def test_help_describes_names_and_checks(self):
        overview = run("--help").stdout
        self.assertIn(b"code page 437", overview)
        self.assertIn(b"^J for\na newline", overview)
        extract = run("extract", "--help").stdout
        for words in (b"temporary file", b"hard link", b"FIFO", b"earlier entry of the same run"):
            self.assertIn(words, extract)
        self.assertIn(b"CRC-32", run("test", "--help").stdout)
        self.assertIn(b"overlap", run("test", "--help").stdout)

    def test_version_is_the_librarys(self):
        with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "CMakeLists.txt")) as f:
            version = re.search(r"project\(ziputil VERSION ([0-9.]+)", f.read()).group(1)
        result = run("--version")
        self.assertResult(result, 0)
        self.assertEqual(result.stdout.decode(), "ziputil %s\n" % version)
        self.assertEqual(result.stderr, b"")

    def test_help_documents_every_exit_status(self):
        overview = run("--help").stdout.decode()
        for words in ("  0  success", "  1  failure", "  2  usage error", "128 plus the\nsignal's number"):
            self.assertIn(words, overview)

    def test_each_exit_status(self):
        archive = self.path("a.zip")
        make_zip(archive, [("a.txt", b"a")])
        self.assertResult(run("cat", archive, "a.txt"), 0)
        self.assertResult(run("cat", archive, "b.txt"), 1)
        self.assertResult(run("cat", archive), 2)
        self.assertResult(run("cat", archive, "a.txt", "--no-such-option"), 2)

    def test_usage_errors_exit_2(self):
        for args in ([], ["frobnicate"], ["list"], ["list", "a", "b"], ["cat", "a.zip"], ["add", "a.zip"],
                     ["list", "--bogus", "a.zip"], ["add", "--level", "10", "a.zip", "x"],
                     ["add", "--level"], ["list", "--level", "3", "a.zip"], ["add", "-j", "0", "a.zip", "x"],
                     ["add", "--jobs", "two", "a.zip", "x"], ["add", "-j"], ["list", "-u", "a.zip"],
                     ["extract", "-j", "2", "a.zip"], ["delete", "a.zip"], ["delete"], ["delete", "-", "x"],
                     ["delete", "--level", "3", "a.zip", "x"]):
            result = run(*args)
            self.assertEqual(result.returncode, 2, msg=args)
            self.assertEqual(result.stdout, b"", msg=args)
            self.assertNotEqual(result.stderr, b"", msg=args)


class ListTest(CliTestCase):
    def test_lists_entries_in_order_with_folder_slash(self):
        archive = self.path("in.zip")
        make_zip(archive, [("docs/", None), ("docs/readme.txt", b"hi"), ("z.txt", b""), ("a b#1%.txt", b"x"),
                           ("\\win\\path.txt", b"w")])
        result = run("list", archive)
        self.assertResult(result, 0)
        self.assertEqual(result.stdout.decode().splitlines(),
                         ["docs/", "docs/readme.txt", "z.txt", "a b#1%.txt", "win/path.txt"])

    def test_long_listing_gives_sizes_and_time(self):
        archive = self.path("in.zip")
        info = zipfile.ZipInfo("data.txt", date_time=(2021, 3, 4, 5, 6, 8))
        info.compress_type = zipfile.ZIP_DEFLATED
        with zipfile.ZipFile(archive, "w") as z:
            z.writestr(info, b"a" * 1000)
        compressed = zipfile.ZipFile(archive).getinfo("data.txt").compress_size
        result = run("list", "--long", archive)
        self.assertResult(result, 0)
        rule = "------------ ------------ ----- --------- --------- ---------------- ---------- ----"
        percent = "%d%%" % round(100 * (1000 - compressed) / 1000)
        self.assertEqual(result.stdout.decode().splitlines(), [
            "        Size   Compressed Ratio Method    Encrypted Date       Time  Mode       Name", rule,
            "%12d %12d %5s deflated  -         2021-03-04 05:06 -rw------- data.txt" % (1000, compressed, percent),
            rule, "%12d %12d %5s %47s 1 entry" % (1000, compressed, percent, "")])
        quiet = run("list", "--long", "-q", archive)
        self.assertEqual(quiet.stdout.decode().splitlines(), [
            "%12d %12d %5s deflated  -         2021-03-04 05:06 -rw------- data.txt" % (1000, compressed, percent)])
        raw = raw_zip(self.path("dos.zip"), [raw_entry("dos.txt", b"")])  # made on MS-DOS: no mode
        self.assertTrue(run("list", "-lq", raw).stdout.decode().endswith(" 1980-01-01 00:00            dos.txt\n"))

    def test_long_listing_shows_sizes_from_2_63_up_unsigned(self):
        archive = raw_zip(self.path("huge.zip"), [
            raw_entry("huge.bin", b"", zip64=(2 ** 63, 2 ** 63 + 5)),
            raw_entry("top.bin", b"", zip64=(2 ** 64 - 1, 2 ** 63 - 1)),
        ])
        result = run("list", "--long", archive)
        self.assertResult(result, 0)
        self.assertEqual([line.split()[:2] + line.split()[-1:] for line in result.stdout.decode().splitlines()[2:]],
                         [[str(2 ** 63), str(2 ** 63 + 5), "huge.bin"],
                          [str(2 ** 64 - 1), str(2 ** 63 - 1), "top.bin"],
                          ["-" * 12, "-" * 12, "----"],
                          [str(2 ** 63 + 2 ** 64 - 1), str(2 ** 64 + 4), "entries"]])  # totals past 64 bits

    def test_not_an_archive_names_the_uri(self):
        archive = self.write("plain #1.txt", b"this is not a zip archive" * 10)
        result = run("list", archive)
        self.assertResult(result, 1)
        self.assertEqual(result.stderr.decode(), "ziputil: File is not a valid ZIP archive. (%s)\n" % archive)

    def test_messages_name_local_paths_as_typed(self):
        self.write("caf\u00e9 100%/a b #1.zip", b"not an archive, but long enough to hold an end record? no" * 3)
        typed = "caf\u00e9 100%/a b #1.zip"
        for command in (["list"], ["test"], ["cat"], ["extract"], ["add"]):
            with self.subTest(command=command):
                extra = {"cat": ["x"], "add": ["caf\u00e9 100%"]}.get(command[0], [])
                result = run(*command, typed, *extra, cwd=self.dir)
                self.assertResult(result, 1)
                err = result.stderr.decode()
                self.assertTrue(err.endswith("(%s)\n" % typed), err)
                self.assertNotIn("%20", err)
                self.assertNotIn("%C3", err)
                self.assertNotIn("file:", err)
        uri = "file://" + self.path(typed).replace("%", "%25").replace(" ", "%20").replace("#", "%23")
        as_uri = run("list", uri)
        self.assertResult(as_uri, 1)
        self.assertTrue(as_uri.stderr.decode().endswith("(%s)\n" % uri))  # a URI when typed as one
        missing = run("list", "gone \u00fc.zip", cwd=self.dir)
        self.assertResult(missing, 1)
        self.assertTrue(missing.stderr.decode().endswith("(gone \u00fc.zip)\n"), missing.stderr)

    def test_missing_archive_fails_with_one_line(self):
        result = run("list", self.path("missing.zip"))
        self.assertResult(result, 1)
        lines = result.stderr.decode().splitlines()
        self.assertEqual(len(lines), 1)
        self.assertTrue(lines[0].startswith("ziputil: "))
        self.assertIn("No such file or directory", lines[0])
        self.assertTrue(lines[0].endswith("(%s)" % self.path("missing.zip")), lines[0])

    def test_archive_path_with_any_characters_and_file_uri(self):
        archive = self.path("w\u00e9ird #? %41 name.zip")
        make_zip(archive, [("x.txt", b"x")])
        self.assertEqual(run("list", archive).stdout, b"x.txt\n")
        uri = "file://" + archive.replace("%", "%25").replace(" ", "%20").replace("#", "%23").replace("?", "%3F")
        result = run("list", uri)
        self.assertResult(result, 0)
        self.assertEqual(result.stdout, b"x.txt\n")

    def test_relative_archive_path(self):
        make_zip(self.path("rel.zip"), [("r.txt", b"r")])
        result = run("list", "rel.zip", cwd=self.dir)
        self.assertResult(result, 0)
        self.assertEqual(result.stdout, b"r.txt\n")


class NamesTest(CliTestCase):
    """Stored names as users see them: legacy code page 437 names decoded, control
    characters escaped, and one output path per extract run."""

    HIGH = bytes(range(0x80, 0x100))  # every byte that code page 437 gives a non-ASCII character

    def test_legacy_names_read_as_code_page_437(self):
        archive = raw_zip(self.path("dos.zip"), [
            raw_entry(b"caf\x82 " + self.HIGH[:64] + b".txt", b"first half"),
            raw_entry(b"d\x81r/", b""),
            raw_entry(b"d\x81r/" + self.HIGH[64:] + b"x", b"second half"),
            raw_entry("caf\u00e9 utf8.txt".encode(), b"valid UTF-8 without the flag stays UTF-8"),
        ])
        first = "caf\u00e9 " + self.HIGH[:64].decode("cp437") + ".txt"
        second = "d\u00fcr/" + self.HIGH[64:].decode("cp437") + "x"
        result = run("list", archive)
        self.assertResult(result, 0)
        self.assertEqual(result.stdout.decode().splitlines(), [first, "d\u00fcr/", second, "caf\u00e9 utf8.txt"])
        out = self.path("out")
        self.assertResult(run("extract", archive, "-d", out), 0)
        for name, data in ((first, b"first half"), (second, b"second half")):
            with open(os.path.join(out, name), "rb") as f:
                self.assertEqual(f.read(), data)
        self.assertEqual(sorted(os.listdir(out)), sorted([first, "d\u00fcr", "caf\u00e9 utf8.txt"]))
        cat = run("cat", archive, second)
        self.assertResult(cat, 0)
        self.assertEqual(cat.stdout, b"second half")
        self.assertResult(run("test", archive), 0)

    def test_broken_utf8_under_the_flag_shows_replacement_characters(self):
        archive = raw_zip(self.path("broken.zip"), [raw_entry(b"ok\xff\xc3\xa9.txt", b"x", flags=0x800)])
        result = run("list", archive)
        self.assertResult(result, 0)
        self.assertEqual(result.stdout.decode(), "ok\ufffd\u00e9.txt\n")

    def test_entries_landing_on_one_path_are_refused(self):
        out = self.path("out")
        archive = raw_zip(self.path("twins.zip"), [
            raw_entry(b"caf\x82.txt", b"code page 437"),
            raw_entry("caf\u00e9.txt", b"UTF-8", flags=0x800),
            raw_entry(b"dir/a:b.txt", b"with colon"),
            raw_entry(b"dir\\ab.txt", b"backslash, no colon"),
            raw_entry(b"dir/ab.txt ", b"trailing blank"),
            raw_entry(b"other.txt", b"other"),
        ])
        result = run("extract", archive, "-d", out)
        self.assertResult(result, 1)
        err = result.stderr.decode().splitlines()
        self.assertEqual(err, [
            'ziputil: refusing to extract "caf\u00e9.txt": another entry was already extracted to %s/caf\u00e9.txt'
            % out,
            'ziputil: refusing to extract "dir/ab.txt": another entry was already extracted to %s/dir/ab.txt' % out,
            'ziputil: refusing to extract "dir/ab.txt": another entry was already extracted to %s/dir/ab.txt' % out,
        ])
        for name, data in (("caf\u00e9.txt", b"code page 437"), ("dir/ab.txt", b"with colon"),
                           ("other.txt", b"other")):
            with open(os.path.join(out, name), "rb") as f:
                self.assertEqual(f.read(), data, msg=name)
        self.assertEqual(sorted(os.listdir(out)), ["caf\u00e9.txt", "dir", "other.txt"])
        self.assertEqual(os.listdir(os.path.join(out, "dir")), ["ab.txt"])

    def test_an_earlier_run_is_overwritten_with_o_without_complaint(self):
        archive = self.path("again.zip")
        make_zip(archive, [("a.txt", b"a"), ("d/b.txt", b"b")])
        out = self.path("out")
        self.assertResult(run("extract", archive, "-d", out), 0)
        result = run("extract", "-o", archive, "-d", out)
        self.assertResult(result, 0)
        self.assertEqual(result.stderr, b"")

    CONTROLS = ["new\nline.txt", "tab\there", "bell\x07", "del\x7f", "c1 \u0085\u009f x", "esc\x1b[2J",
                "nul\x00byte"]
    # A name ends at its first NUL byte, as the library names the entry.
    SHOWN = ["new^Jline.txt", "tab^Ihere", "bell^G", "del^?", "c1 \\u0085\\u009f x", "esc^[[2J", "nul"]

    def control_archive(self, extra=()):
        return raw_zip(self.path("ctl.zip"), [raw_entry(name, name.encode() * 3, zipfile.ZIP_DEFLATED, flags=0x800)
                                              for name in self.CONTROLS] + list(extra))

    def test_control_characters_in_names_are_escaped(self):
        archive = self.control_archive()
        result = run("list", archive)
        self.assertResult(result, 0)
        self.assertEqual(result.stdout.decode().splitlines(), self.SHOWN)
        result = run("list", "--long", archive)
        self.assertResult(result, 0)
        self.assertEqual([line[80:] for line in result.stdout.decode().splitlines()[2:-2]], self.SHOWN)
        for raw in (result.stdout, run("list", archive).stdout):
            self.assertFalse(any(b < 0x20 and b != 0x0a or b == 0x7f for b in raw), raw)
            self.assertNotIn("\u0085".encode(), raw)

    def test_a_newline_cannot_forge_a_listing_line(self):
        archive = self.path("forged.zip")
        make_zip(archive, [("harmless.txt\n     1000         10 2020-01-01 00:00  forged.txt", b"x")])
        for args in (["list"], ["list", "--long", "-q"]):
            result = run(*args, archive)
            self.assertResult(result, 0)
            lines = result.stdout.decode().splitlines()
            self.assertEqual(len(lines), 1, lines)
            # (colons go from names, like any other cleaning of the stored name)
            self.assertTrue(lines[0].endswith("harmless.txt^J     1000         10 2020-01-01 0000  forged.txt"))

    def test_messages_escape_names(self):
        bad = raw_entry("bad\nentry.txt", b"0123456789", crc=0x12345678)
        archive = self.control_archive([bad, raw_entry("../up\rhere", b"u")])
        result = run("test", archive)
        self.assertResult(result, 1)
        self.assertEqual(result.stderr.count(b"\n"), 1, result.stderr)
        self.assertIn(b'bad entry "bad^Jentry.txt": ', result.stderr)
        result = run("extract", archive, "-d", self.path("out"))
        self.assertResult(result, 1)
        self.assertEqual(result.stderr.count(b"\n"), 2, result.stderr)
        self.assertIn(b'"bad^Jentry.txt": ', result.stderr)
        self.assertIn(b'refusing to extract "../up^Mhere": ', result.stderr)
        self.assertEqual(run("cat", archive, "none\x1b").stderr.count(b"\x1b"), 0)

    def test_progress_line_escapes_names(self):
        archive = self.control_archive()
        status, terminal = self.run_with_terminal_stderr("test", archive)
        self.assertEqual(status, 0)
        self.assertIn(b"testing 1: new^Jline.txt", terminal.replace(b"\x1b[K", b""))
        self.assertNotIn(b"\x1b[2J", terminal)
        self.assertNotIn(b"new\r\nline", terminal)


class CatTest(CliTestCase):
    def test_entry_name_is_literal(self):
        archive = self.path("in.zip")
        make_zip(archive, [("dir/a b#1?x=%41.txt", b"literal"), ("dir/a b", b"other")])
        result = run("cat", archive, "dir/a b#1?x=%41.txt")
        self.assertResult(result, 0)
        self.assertEqual(result.stdout, b"literal")

    def test_binary_bytes_are_exact(self):
        data = os.urandom(300000)
        archive = self.path("in.zip")
        make_zip(archive, [("blob.bin", data)])
        result = run("cat", archive, "blob.bin")
        self.assertResult(result, 0)
        self.assertEqual(result.stdout, data)

    def test_missing_entry_fails(self):
        archive = self.path("in.zip")
        make_zip(archive, [("a.txt", b"a")])
        result = run("cat", archive, "b.txt")
        self.assertResult(result, 1)
        self.assertEqual(result.stdout, b"")
        self.assertIn(b"b.txt", result.stderr)

    def test_password_entry(self):
        self.write("secret.txt", b"top secret\n")
        archive = self.path("enc.zip")
        subprocess.run(["zip", "-q", "-P", "pw", archive, "secret.txt"], cwd=self.dir, check=True)
        result = run("cat", "--password", "pw", archive, "secret.txt")
        self.assertResult(result, 0)
        self.assertEqual(result.stdout, b"top secret\n")
        # A wrong password is refused at once, or (about 1 time in 100: the encryption header
        # checks one byte) found out by the entry's CRC-32 after the bytes; either way status 1.
        for password in ("nope", "Nope", "pw2"):
            wrong = run("cat", "--password", password, archive, "secret.txt")
            self.assertResult(wrong, 1)
            self.assertNotEqual(wrong.stdout, b"top secret\n")
            self.assertTrue(wrong.stderr.startswith(b"ziputil: "))


class ExtractTest(CliTestCase):
    def test_tree_comes_out_byte_exact(self):
        files = self.sample_tree()
        archive = self.path("tree.zip")
        subprocess.run(["zip", "-q", "-r", archive, "tree"], cwd=self.dir, check=True)
        out = self.path("out")
        result = run("extract", archive, "-d", out)
        self.assertResult(result, 0)
        for name, data in files.items():
            with open(os.path.join(out, name), "rb") as f:
                self.assertEqual(f.read(), data, msg=name)
        self.assertTrue(os.path.isdir(os.path.join(out, "tree", "empty folder")))

    def test_default_folder_is_current(self):
        archive = self.path("in.zip")
        make_zip(archive, [("d/f.txt", b"f")])
        work = self.path("work")
        os.makedirs(work)
        self.assertResult(run("extract", archive, cwd=work), 0)
        with open(os.path.join(work, "d", "f.txt"), "rb") as f:
            self.assertEqual(f.read(), b"f")

    def test_dot_dot_entry_is_refused_and_others_extracted(self):
        archive = self.path("evil.zip")
        make_zip(archive, [("good.txt", b"good"), ("../evil.txt", b"evil"), ("a/../../evil2.txt", b"evil"),
                           ("after.txt", b"after")])
        out = self.path("out")
        result = run("extract", archive, "-d", out)
        self.assertResult(result, 1)
        err = result.stderr.decode()
        self.assertIn('"../evil.txt"', err)
        self.assertIn('"a/../../evil2.txt"', err)
        self.assertFalse(os.path.exists(self.path("evil.txt")))
        self.assertFalse(os.path.exists(self.path("evil2.txt")))
        for name, data in (("good.txt", b"good"), ("after.txt", b"after")):
            with open(os.path.join(out, name), "rb") as f:
                self.assertEqual(f.read(), data)

    def test_symbolic_link_inside_folder_is_not_followed(self):
        outside = self.path("outside")
        os.makedirs(outside)
        out = self.path("out")
        os.makedirs(out)
        os.symlink(outside, os.path.join(out, "link"))
        os.symlink(os.path.join(outside, "file.txt"), os.path.join(out, "filelink"))
        archive = self.path("link.zip")
        make_zip(archive, [("link/x.txt", b"x"), ("filelink", b"y"), ("ok.txt", b"ok")])
        result = run("extract", archive, "-d", out)
        self.assertResult(result, 1)
        err = result.stderr.decode()
        self.assertIn('"link/x.txt"', err)
        self.assertIn('"filelink"', err)
        self.assertEqual(os.listdir(outside), [])
        with open(os.path.join(out, "ok.txt"), "rb") as f:
            self.assertEqual(f.read(), b"ok")

    def test_corrupt_entry_fails_with_status_1(self):
        archive = self.path("in.zip")
        make_zip(archive, [("a.txt", os.urandom(5000))])
        data = bytearray(open(archive, "rb").read())
        data[100:120] = bytes(b ^ 0x5A for b in data[100:120])  # inside the entry's data
        open(archive, "wb").write(bytes(data))
        result = run("extract", archive, "-d", self.path("out"))
        self.assertResult(result, 1)
        self.assertIn(b'"a.txt"', result.stderr)


# Compiled at test time and preloaded into the program: before the first file is
# created for writing, the folder ZIPUTIL_SWAP_FOLDER is moved to ZIPUTIL_SWAP_AWAY and a
# symbolic link to ZIPUTIL_SWAP_TARGET takes its place, as a hostile process racing the
# extraction would do.
SWAP_SHIM = r"""
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

static void swap_once(int flags) {
    static int done;
    const char *folder = getenv("ZIPUTIL_SWAP_FOLDER");
    if (done || !folder || !(flags & O_CREAT)) return;
    done = 1;
    if (rename(folder, getenv("ZIPUTIL_SWAP_AWAY")) != 0 || symlink(getenv("ZIPUTIL_SWAP_TARGET"), folder) != 0)
        _exit(99);
}

#define MODE(flags) mode_t mode = 0; \
    if ((flags) & O_CREAT) { va_list ap; va_start(ap, flags); mode = (mode_t)va_arg(ap, int); va_end(ap); }

int open(const char *path, int flags, ...) {
    MODE(flags) swap_once(flags);
    return ((int (*)(const char *, int, ...))dlsym(RTLD_NEXT, "open"))(path, flags, mode);
}
int open64(const char *path, int flags, ...) {
    MODE(flags) swap_once(flags);
    return ((int (*)(const char *, int, ...))dlsym(RTLD_NEXT, "open64"))(path, flags, mode);
}
int openat(int folder, const char *path, int flags, ...) {
    MODE(flags) swap_once(flags);
    return ((int (*)(int, const char *, int, ...))dlsym(RTLD_NEXT, "openat"))(folder, path, flags, mode);
}
int openat64(int folder, const char *path, int flags, ...) {
    MODE(flags) swap_once(flags);
    return ((int (*)(int, const char *, int, ...))dlsym(RTLD_NEXT, "openat64"))(folder, path, flags, mode);
}
"""


class ExtractSafetyTest(CliTestCase):
    """Extraction never damages existing files and never writes outside DIR."""

    def leftovers(self, folder):
        found = []
        for root, dirs, files in os.walk(folder):
            found += [os.path.join(root, name) for name in files + dirs if name.startswith(".ziputil-")]
        return found

    def precious(self, relative, data=b"precious, must survive\n"):
        path = self.write(relative, data)
        os.chmod(path, 0o640)
        return path, data

    def assertUntouched(self, path, data):
        with open(path, "rb") as f:
            self.assertEqual(f.read(), data, msg=path)
        self.assertEqual(os.stat(path).st_mode & 0o777, 0o640, msg=path)

    def test_unreadable_entries_leave_existing_files_untouched(self):
        cases = {
            "crc.zip": raw_zip(self.path("crc.zip"), [raw_entry("t.txt", b"0123456789" * 300, zipfile.ZIP_DEFLATED,
                                                                crc=0x1234)]),
            "stored-crc.zip": raw_zip(self.path("stored-crc.zip"), [raw_entry("t.txt", b"0123456789", crc=0x1234)]),
            "short.zip": raw_zip(self.path("short.zip"), [raw_entry("t.txt", b"abc" * 500, zipfile.ZIP_DEFLATED,
                                                                    size=2000)]),
        }
        cases["ppmd.zip"] = raw_zip(self.path("ppmd.zip"), [raw_entry("t.txt", b"not decoded " * 100, 98)])
        cases["bad-bzip2.zip"] = raw_zip(self.path("bad-bzip2.zip"), [raw_entry("t.txt", b"not bzip2 data " * 90, 12)])
        self.write("src/t.txt", b"encrypted contents\n" * 100)
        encrypted = self.path("enc.zip")
        subprocess.run(["zip", "-q", "-P", "right", encrypted, "t.txt"], cwd=self.path("src"), check=True)
        out = self.path("out")
        path, data = self.precious("out/t.txt")
        runs = [[archive] for archive in cases.values()] + \
            [["--password", "wrong", encrypted], [encrypted], ["--password", "wrong", self.path("stored-crc.zip")]]
        for args in runs:
            with self.subTest(args=args):
                result = run("extract", "-o", *args, "-d", out)
                self.assertResult(result, 1)
                self.assertTrue(result.stderr.startswith(b'ziputil: bad entry "t.txt": '), result.stderr)
                self.assertEqual(result.stderr.count(b"\n"), 1)
                self.assertUntouched(path, data)
                self.assertEqual(os.listdir(out), ["t.txt"])
        self.assertResult(run("extract", "-o", "-P", "right", encrypted, "-d", out), 0)
        with open(path, "rb") as f:
            self.assertEqual(f.read(), b"encrypted contents\n" * 100)

    def test_special_files_at_the_target_are_refused_unopened(self):
        import socket
        out = self.path("out")
        os.makedirs(os.path.join(out, "folder"))
        os.mkfifo(os.path.join(out, "pipe"))
        server = socket.socket(socket.AF_UNIX)
        self.addCleanup(server.close)
        server.bind(os.path.join(out, "sock"))
        names = ["pipe", "sock", "folder"]
        if os.getuid() == 0:
            os.mknod(os.path.join(out, "null"), 0o666 | 0o020000, os.makedev(1, 3))
            names.append("null")
        archive = self.path("special.zip")
        make_zip(archive, [(name, b"written into a special file") for name in names] + [("ok.txt", b"ok")])
        result = run("extract", archive, "-d", out, timeout=30)  # opening the FIFO for writing would wait for a reader
        self.assertResult(result, 1)
        err = result.stderr.decode()
        for name in names:
            self.assertIn('refusing to extract "%s": %s/%s is ' % (name, out, name), err)
        self.assertEqual(len(err.splitlines()), len(names), err)
        import stat
        self.assertTrue(stat.S_ISFIFO(os.lstat(os.path.join(out, "pipe")).st_mode))
        self.assertTrue(stat.S_ISSOCK(os.lstat(os.path.join(out, "sock")).st_mode))
        self.assertEqual(os.listdir(os.path.join(out, "folder")), [])
        with open(os.path.join(out, "ok.txt"), "rb") as f:
            self.assertEqual(f.read(), b"ok")

    def test_hard_link_keeps_the_file_it_links_to(self):
        outside, data = self.precious("outside/victim.txt", b"victim's own bytes\n")
        out = self.path("out")
        os.makedirs(out)
        os.link(outside, os.path.join(out, "a.txt"))
        archive = self.path("link.zip")
        make_zip(archive, [("a.txt", b"from the archive")])
        self.assertResult(run("extract", "-o", archive, "-d", out), 0)
        with open(os.path.join(out, "a.txt"), "rb") as f:
            self.assertEqual(f.read(), b"from the archive")
        self.assertUntouched(outside, data)
        self.assertEqual(os.stat(outside).st_nlink, 1)

    def test_symbolic_links_in_place_of_folders_are_refused(self):
        outside = self.path("outside")
        os.makedirs(outside)
        out = self.path("out")
        os.makedirs(os.path.join(out, "a", "b"))
        os.symlink(outside, os.path.join(out, "a", "b", "link"))
        os.symlink("../../..", os.path.join(out, "a", "up"))
        archive = self.path("links.zip")
        make_zip(archive, [("a/b/link/x.txt", b"x"), ("a/b/link/", None), ("a/b/link/deeper/y.txt", b"y"),
                           ("a/up/outside/z.txt", b"z"), ("a/b/ok.txt", b"ok")])
        result = run("extract", archive, "-d", out)
        self.assertResult(result, 1)
        err = result.stderr.decode()
        for name in ("a/b/link/x.txt", "a/b/link/", "a/b/link/deeper/y.txt", "a/up/outside/z.txt"):
            self.assertIn('refusing to extract "%s": it would be written through the symbolic link ' % name, err)
        self.assertEqual(os.listdir(outside), [])
        with open(os.path.join(out, "a", "b", "ok.txt"), "rb") as f:
            self.assertEqual(f.read(), b"ok")

    def test_folder_swapped_for_a_symbolic_link_during_extraction(self):
        compiler = shutil.which("cc")
        if not compiler:
            self.skipTest("no C compiler to build the preloaded swapper")
        shim_folder = tempfile.mkdtemp(prefix="ziputil-shim-")  # LD_PRELOAD splits paths at blanks
        self.addCleanup(shutil.rmtree, shim_folder, True)
        shim_source = os.path.join(shim_folder, "swap.c")
        with open(shim_source, "w") as f:
            f.write(SWAP_SHIM)
        shim = os.path.join(shim_folder, "swap.so")
        subprocess.run([compiler, "-shared", "-fPIC", "-o", shim, shim_source, "-ldl"], check=True)
        outside = self.path("outside")
        os.makedirs(outside)
        out = self.path("out")
        archive = self.path("race.zip")
        make_zip(archive, [("sub/", None), ("sub/victim.txt", b"first"), ("sub/second.txt", b"second")])
        env = dict(os.environ, LD_PRELOAD=shim, ZIPUTIL_SWAP_FOLDER=os.path.join(out, "sub"),
                   ZIPUTIL_SWAP_AWAY=os.path.join(out, "moved"), ZIPUTIL_SWAP_TARGET=outside,
                   ASAN_OPTIONS=(os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0").lstrip(":"))
        result = subprocess.run([PROGRAM, "extract", archive, "-d", out], env=env, capture_output=True, timeout=120)
        self.assertTrue(os.path.islink(os.path.join(out, "sub")), "the swap did not happen")
        self.assertEqual(os.listdir(outside), [])
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertIn(b'refusing to extract "sub/second.txt": it would be written through the symbolic link',
                      result.stderr)
        with open(os.path.join(out, "moved", "victim.txt"), "rb") as f:  # where the folder went
            self.assertEqual(f.read(), b"first")
        self.assertEqual(self.leftovers(out), [])

    def test_new_files_follow_the_umask(self):
        archive = raw_zip(self.path("modes.zip"), [raw_entry("d/f.txt", b"f")])  # made on MS-DOS: no mode
        for mask, mode in ((0o022, 0o644), (0o077, 0o600), (0o002, 0o664)):
            out = self.path("out%o" % mask)
            result = subprocess.run([PROGRAM, "extract", archive, "-d", out], capture_output=True, timeout=120,
                                    preexec_fn=lambda: os.umask(mask))
            self.assertResult(result, 0)
            self.assertEqual(os.stat(os.path.join(out, "d", "f.txt")).st_mode & 0o777, mode)

    def test_killed_extract_leaves_the_old_file_and_no_temporary(self):
        archive = self.path("big.zip")
        with zipfile.ZipFile(archive, "w", zipfile.ZIP_DEFLATED) as z:
            with z.open("big.bin", "w", force_zip64=True) as entry:
                chunk = b"\0" * (1 << 20)
                for _ in range(512):
                    entry.write(chunk)
        path, data = self.precious("out/big.bin")
        out = self.path("out")
        process = subprocess.Popen([PROGRAM, "extract", "-o", archive, "-d", out], stderr=subprocess.PIPE)
        seen = False
        deadline = time.monotonic() + 60
        while process.poll() is None and time.monotonic() < deadline:
            if self.leftovers(out) or os.stat(path).st_size != len(data):  # at work, on a copy or on the file
                seen = True
                process.terminate()
                break
            time.sleep(0.0005)
        process.communicate(timeout=120)
        if not seen:
            self.skipTest("the extraction ended before it was seen at work")
        self.assertEqual(process.returncode, -15)
        self.assertUntouched(path, data)
        self.assertEqual(self.leftovers(out), [])


class AddTest(CliTestCase):
    def test_new_archive_from_folder_is_valid_for_other_tools(self):
        files = self.sample_tree()
        archive = self.path("new.zip")
        result = run("add", archive, "./tree", cwd=self.dir)
        self.assertResult(result, 0)
        ok, report = unzip_tests_every_entry(archive)
        self.assertTrue(ok, report)
        with zipfile.ZipFile(archive) as z:
            self.assertIsNone(z.testzip())
            names = z.namelist()
            for name, data in files.items():
                self.assertEqual(z.read(name), data)
                self.assertEqual(z.getinfo(name).compress_type, zipfile.ZIP_DEFLATED)
            self.assertIn("tree/", names)
            self.assertIn("tree/empty folder/", names)
            self.assertEqual(names[0], "tree/")

    def test_names_made_relative_and_times_local(self):
        full = self.write("f.txt", b"content")
        stamp = time.mktime((2020, 6, 7, 8, 9, 10, 0, 0, -1))
        os.utime(full, (stamp, stamp))
        archive = self.path("t.zip")
        self.assertResult(run("add", archive, full), 0)
        with zipfile.ZipFile(archive) as z:
            info = z.infolist()[0]
        self.assertEqual(info.filename, full.lstrip("/"))
        self.assertEqual(info.date_time, (2020, 6, 7, 8, 9, 10))
        self.assertTrue(info.flag_bits & 0x800)

    def test_levels(self):
        self.write("big.txt", b"compressible text " * 5000)
        sizes = {}
        for level, method in (("0", zipfile.ZIP_STORED), ("1", zipfile.ZIP_DEFLATED), ("9", zipfile.ZIP_DEFLATED)):
            archive = self.path("l%s.zip" % level)
            self.assertResult(run("add", "--level", level, archive, "big.txt", cwd=self.dir), 0)
            with zipfile.ZipFile(archive) as z:
                info = z.getinfo("big.txt")
                self.assertEqual(info.compress_type, method)
                self.assertEqual(z.read("big.txt"), b"compressible text " * 5000)
                sizes[level] = info.compress_size
            self.assertResult(run("test", archive), 0)
        self.assertEqual(sizes["0"], 90000)  # stored: the bytes as they are
        self.assertLess(sizes["9"], 2000)

    def test_appends_to_existing_archive(self):
        archive = self.path("old.zip")
        make_zip(archive, [("old.txt", b"old")])
        self.write("new.txt", b"new")
        self.assertResult(run("add", archive, "new.txt", cwd=self.dir), 0)
        with zipfile.ZipFile(archive) as z:
            self.assertEqual(z.namelist(), ["old.txt", "new.txt"])
            self.assertEqual(z.read("old.txt"), b"old")
            self.assertEqual(z.read("new.txt"), b"new")
        self.assertEqual(run("cat", archive, "new.txt").stdout, b"new")

    def test_not_an_archive_is_left_untouched(self):
        target = self.write("notes.txt", b"precious notes, not a zip\n" * 50)
        before = open(target, "rb").read()
        self.write("x.txt", b"x")
        result = run("add", target, "x.txt", cwd=self.dir)
        self.assertResult(result, 1)
        self.assertIn(b"ziputil: ", result.stderr)
        self.assertEqual(open(target, "rb").read(), before)

    def test_missing_source_fails(self):
        result = run("add", self.path("a.zip"), self.path("nothing here"))
        self.assertResult(result, 1)
        self.assertIn(b"nothing here", result.stderr)

    def test_password_round_trip(self):
        self.write("s.txt", b"secret")
        archive = self.path("p.zip")
        self.assertResult(run("add", "--password", "pw", archive, "s.txt", cwd=self.dir), 0)
        with zipfile.ZipFile(archive) as z:
            self.assertTrue(z.getinfo("s.txt").flag_bits & 1)
        self.assertEqual(run("cat", "-P", "pw", archive, "s.txt").stdout, b"secret")
        self.assertResult(run("cat", "-P", "wrong", archive, "s.txt"), 1)

    def test_archive_inside_added_folder_is_skipped(self):
        self.write("d/a.txt", b"a")
        archive = self.path("d", "self.zip")
        self.assertResult(run("add", archive, "d", cwd=self.dir), 0)
        with zipfile.ZipFile(archive) as z:
            self.assertEqual(z.namelist(), ["d/", "d/a.txt"])


def snapshot(root):
    """Everything below root that extraction restores: kind, permission bits, whole-second
    modification time, and the bytes of a file or the target of a link."""
    found = {}
    for folder, dirs, files in os.walk(root):
        for name in dirs + files:
            full = os.path.join(folder, name)
            st = os.lstat(full)
            kind = stat.S_IFMT(st.st_mode)
            if stat.S_ISLNK(st.st_mode):
                content = os.readlink(full)
            elif stat.S_ISREG(st.st_mode):
                with open(full, "rb") as f:
                    content = f.read()
            else:
                content = None
            found[os.path.relpath(full, root)] = (kind, stat.S_IMODE(st.st_mode), int(st.st_mtime), content)
    return found


def unix_entry(name, data, mode):
    """A ZipInfo made on Unix with mode (st_mode bits) and its bytes."""
    info = zipfile.ZipInfo(name, (2021, 3, 4, 5, 6, 8))
    info.create_system = 3
    info.external_attr = mode << 16
    return info, data


class MetadataTest(CliTestCase):
    """What add stores beside the bytes, and what extract restores."""

    def metadata_tree(self):
        """A folder with modes, even-second times, empty folders, links and non-ASCII names."""
        root = self.path("tree")
        files = {"caf\u00e9 #1.txt": (b"coffee\n", 0o640), "run.sh": (b"#!/bin/sh\necho hi\n", 0o755),
                 "sub/\u00fc ber/n\u00e4he.bin": (bytes(range(256)) * 9, 0o600), "ro.txt": (b"read only", 0o444),
                 "sub/empty.txt": (b"", 0o644)}
        for name, (data, mode) in files.items():
            full = self.write(os.path.join("tree", name), data)
            os.chmod(full, mode)
        os.makedirs(os.path.join(root, "empty"))
        os.makedirs(os.path.join(root, "private", "inner empty"))
        os.chmod(os.path.join(root, "private"), 0o700)
        os.chmod(os.path.join(root, "private", "inner empty"), 0o750)
        os.symlink("caf\u00e9 #1.txt", os.path.join(root, "to file"))
        os.symlink("../run.sh", os.path.join(root, "sub", "up to run"))
        os.symlink("sub", os.path.join(root, "to folder"))
        os.symlink("not there", os.path.join(root, "dangling"))
        stamp = time.mktime((2019, 7, 14, 10, 20, 30, 0, 0, -1))
        for folder, dirs, names in os.walk(root, topdown=False):
            for name in dirs + names:
                stamp += 2
                os.utime(os.path.join(folder, name), (stamp, stamp), follow_symlinks=False)
        os.utime(root, (stamp + 2, stamp + 2))
        return root

    def test_folder_survives_add_then_extract_exactly(self):
        root = self.metadata_tree()
        before = snapshot(root)
        archive = self.path("meta.zip")
        self.assertResult(run("add", archive, "tree", cwd=self.dir), 0)
        with zipfile.ZipFile(archive) as z:
            for info in z.infolist():
                self.assertEqual(info.create_system, 3, info.filename)
            link = z.getinfo("tree/to file")
            self.assertTrue(stat.S_ISLNK(link.external_attr >> 16))
            self.assertEqual(z.read(link), "caf\u00e9 #1.txt".encode())
            self.assertEqual(stat.S_IMODE(z.getinfo("tree/run.sh").external_attr >> 16), 0o755)
            self.assertIn("tree/private/inner empty/", z.namelist())
        out = self.path("out")
        result = run("extract", archive, "-d", out)
        self.assertResult(result, 0)
        self.assertEqual(result.stderr, b"")
        after = snapshot(os.path.join(out, "tree"))
        self.assertEqual(after, before)
        self.assertEqual(int(os.stat(os.path.join(out, "tree")).st_mtime), int(os.stat(root).st_mtime))

    def test_folder_round_trips_through_info_zip_unzip(self):
        root = self.metadata_tree()
        before = snapshot(root)
        archive = self.path("meta.zip")
        self.assertResult(run("add", archive, "tree", cwd=self.dir), 0)
        listing = subprocess.run(["unzip", "-Z", archive], capture_output=True)
        self.assertEqual(listing.returncode, 0, listing.stderr)
        lines = listing.stdout.decode().splitlines()

        def line_of(name):
            matching = [line for line in lines if line.endswith(" " + name)]
            self.assertEqual(len(matching), 1, (name, lines))
            return matching[0]
        self.assertTrue(line_of("tree/caf\u00e9 #1.txt").startswith("-rw-r----- "))
        self.assertTrue(line_of("tree/run.sh").startswith("-rwxr-xr-x "))
        self.assertTrue(line_of("tree/private/").startswith("drwx------ "))
        self.assertTrue(line_of("tree/to file").startswith("lrwxrwxrwx "))
        self.assertIn(" unx ", line_of("tree/to file"))
        tested = subprocess.run(["unzip", "-t", archive], capture_output=True)
        self.assertEqual(tested.returncode, 0, tested.stdout)
        self.assertNotIn(b"mismatching", tested.stdout + tested.stderr)
        out = self.path("by unzip")
        unpacked = subprocess.run(["unzip", "-q", "-d", out, archive], capture_output=True)
        self.assertEqual(unpacked.returncode, 0, unpacked.stdout + unpacked.stderr)
        self.assertNotIn(b"mismatching", unpacked.stdout + unpacked.stderr)

        def but_link_times(found):  # Info-ZIP unzip leaves a link's own time as it was made
            return {name: (k, m, None if stat.S_ISLNK(k) else t, c) for name, (k, m, t, c) in found.items()}
        self.assertEqual(but_link_times(snapshot(os.path.join(out, "tree"))), but_link_times(before))

        # and back: an archive of that folder made by Info-ZIP zip comes out the same through ziputil
        again = self.path("again.zip")
        subprocess.run(["zip", "-q", "-r", "-y", again, "tree"], cwd=out, check=True)
        out2 = self.path("out2")
        self.assertResult(run("extract", again, "-d", out2), 0)
        self.assertEqual(but_link_times(snapshot(os.path.join(out2, "tree"))), but_link_times(before))

    def test_aes_by_default_opens_in_7z_and_bsdtar(self):
        data = b"the secret contents\n" * 50
        self.write("s/secret.txt", data)
        archive = self.path("aes.zip")
        self.assertResult(run("add", "--password", "right pw", archive, "s", cwd=self.dir), 0)
        objects = [json.loads(line) for line in run("list", "--json", archive).stdout.decode().splitlines()]
        self.assertEqual([(o["name"], o["method"], o["realMethod"], o["encryption"]) for o in objects],
                         [("s/", 0, 0, "none"), ("s/secret.txt", 99, 8, "AES-256")])
        tested = subprocess.run(["7z", "t", "-pright pw", archive], capture_output=True)
        self.assertEqual(tested.returncode, 0, tested.stdout)
        self.assertEqual(subprocess.run(["7z", "t", "-pwrong", archive], capture_output=True).returncode, 2)
        extracted = subprocess.run(["bsdtar", "-xOf", archive, "--passphrase", "right pw", "s/secret.txt"],
                                   capture_output=True)
        self.assertEqual(extracted.stdout, data, extracted.stderr)
        self.assertEqual(run("cat", "-P", "right pw", archive, "s/secret.txt").stdout, data)
        for encryption, expected in (("aes128", "AES-128"), ("aes192", "AES-192")):
            other = self.path(encryption + ".zip")
            self.assertResult(run("add", "-P", "pw", "--encryption", encryption, other, "s", cwd=self.dir), 0)
            self.assertEqual(json.loads(run("list", "--json", other).stdout.decode().splitlines()[1])["encryption"],
                             expected)
            self.assertEqual(subprocess.run(["7z", "t", "-ppw", other], capture_output=True).returncode, 0)
        self.assertResult(run("add", "-P", "pw", "--encryption", "rot13", self.path("x.zip"), "s", cwd=self.dir), 2)

    def test_zstd_entries_round_trip(self):
        data = b"zstd compresses this line well\n" * 2000
        self.write("z/a.txt", data)
        archive = self.path("z.zip")
        self.assertResult(run("add", "--method", "zstd", "--level", "19", archive, "z", cwd=self.dir), 0)
        objects = [json.loads(line) for line in run("list", "--json", archive).stdout.decode().splitlines()]
        self.assertEqual([(o["name"], o["method"]) for o in objects], [("z/", 0), ("z/a.txt", 93)])
        self.assertLess(objects[1]["compressedSize"], len(data) // 20)
        self.assertEqual(run("cat", archive, "z/a.txt").stdout, data)
        self.assertResult(run("test", archive), 0)
        for bad in (["--method", "zstd", "--level", "0"], ["--level", "12"], ["--method", "lzma"]):
            self.assertResult(run("add", *bad, self.path("bad.zip"), "z", cwd=self.dir), 2)
        self.assertFalse(os.path.exists(self.path("bad.zip")))

    def test_zipcrypto_archive_opens_in_other_tools(self):
        data = b"the secret contents\n" * 50
        self.write("s/secret.txt", data)
        self.write("s/small.txt", b"x")
        archive = self.path("enc.zip")
        self.assertResult(run("add", "--password", "right pw", "--encryption", "zipcrypto", archive, "s",
                              cwd=self.dir), 0)
        unzipped = subprocess.run(["unzip", "-p", "-P", "right pw", archive, "s/secret.txt"], capture_output=True)
        self.assertEqual(unzipped.returncode, 0, unzipped.stderr)
        self.assertEqual(unzipped.stdout, data)
        wrong = subprocess.run(["unzip", "-p", "-P", "wrong", archive, "s/secret.txt"], capture_output=True)
        self.assertNotEqual(wrong.returncode, 0)
        with zipfile.ZipFile(archive) as z:
            z.setpassword(b"right pw")
            self.assertEqual(z.read("s/secret.txt"), data)
            self.assertEqual(z.read("s/small.txt"), b"x")
            self.assertTrue(z.getinfo("s/secret.txt").flag_bits & 0x9 == 0x9)  # encrypted, streamed
        seven = subprocess.run(["7z", "x", "-so", "-pright pw", archive, "s/secret.txt"], capture_output=True)
        self.assertEqual(seven.returncode, 0, seven.stderr)
        self.assertEqual(seven.stdout, data)
        tested = subprocess.run(["7z", "t", "-pright pw", archive], capture_output=True)
        self.assertEqual(tested.returncode, 0, tested.stdout)
        bsdtar = subprocess.run(["bsdtar", "-x", "-O", "--passphrase", "right pw", "-f", archive, "s/secret.txt"],
                                capture_output=True)
        self.assertEqual(bsdtar.returncode, 0, bsdtar.stderr)
        self.assertEqual(bsdtar.stdout, data)
        self.assertEqual(run("cat", "-P", "right pw", archive, "s/secret.txt").stdout, data)

    def test_link_loops_are_stored_as_links_without_hanging(self):
        os.makedirs(self.path("d", "sub"))
        os.symlink("loop2", self.path("d", "loop1"))
        os.symlink("loop1", self.path("d", "loop2"))
        os.symlink("..", self.path("d", "sub", "parent"))  # a walk that followed links would never end
        os.symlink(self.path("d"), self.path("top link"))
        archive = self.path("loops.zip")
        self.assertResult(run("add", archive, "d", "top link", cwd=self.dir, timeout=30), 0)
        with zipfile.ZipFile(archive) as z:
            self.assertEqual(z.namelist(), ["d/", "d/loop1", "d/loop2", "d/sub/", "d/sub/parent", "top link"])
            self.assertEqual(z.read("d/loop1"), b"loop2")
            self.assertEqual(z.read("d/sub/parent"), b"..")
            self.assertEqual(z.read("top link"), self.path("d").encode())
            for name in ("d/loop1", "d/sub/parent", "top link"):
                self.assertEqual(z.getinfo(name).external_attr >> 16, 0o120777)

    def test_links_leading_outside_are_refused_by_name(self):
        archive = self.path("links.zip")
        entries = [unix_entry("file.txt", b"inside", 0o100644),
                   unix_entry("sub/ok", b"../file.txt", 0o120777),
                   unix_entry("sub/dot", b"./../sub/./", 0o120777),
                   unix_entry("up", b"../outside", 0o120777),
                   unix_entry("sub/deep", b"../../x", 0o120777),
                   unix_entry("abs", b"/etc/passwd", 0o120777),
                   unix_entry("self", b".", 0o120777),
                   unix_entry("via", b"self/../escape", 0o120777),
                   unix_entry("empty", b"", 0o120777),
                   unix_entry("nul", b"a\0b", 0o120777),
                   unix_entry("after.txt", b"after", 0o100600)]
        with zipfile.ZipFile(archive, "w") as z:
            for info, data in entries:
                z.writestr(info, data)
        out = self.path("out")
        result = run("extract", archive, "-d", out)
        self.assertResult(result, 1)
        lines = sorted(result.stderr.decode().splitlines())
        self.assertEqual(lines, sorted([
            'ziputil: refusing to extract "up": its link target ../outside leads outside the target folder',
            'ziputil: refusing to extract "sub/deep": its link target ../../x leads outside the target folder',
            'ziputil: refusing to extract "abs": its link target /etc/passwd is an absolute path',
            'ziputil: refusing to extract "via": its link target self/../escape has ".." after a name',
            'ziputil: refusing to extract "empty": its link target is empty',
            'ziputil: refusing to extract "nul": its link target holds a NUL byte']))
        self.assertEqual(os.readlink(os.path.join(out, "sub", "ok")), "../file.txt")
        self.assertEqual(os.readlink(os.path.join(out, "sub", "dot")), "./../sub/./")
        self.assertEqual(os.readlink(os.path.join(out, "self")), ".")
        for name in ("up", "abs", "via", "empty", "nul"):
            self.assertFalse(os.path.lexists(os.path.join(out, name)), name)
        self.assertFalse(os.path.lexists(os.path.join(out, "sub", "deep")))
        with open(os.path.join(out, "sub", "ok"), "rb") as f:
            self.assertEqual(f.read(), b"inside")
        self.assertEqual(os.stat(os.path.join(out, "after.txt")).st_mode & 0o7777, 0o600)

    def test_set_id_and_sticky_bits_are_never_restored(self):
        archive = self.path("setid.zip")
        entries = [unix_entry("suid", b"#!/bin/sh\n", 0o104755), unix_entry("sgid", b"x", 0o102750),
                   unix_entry("sticky/", b"", 0o041777), unix_entry("sticky/f", b"f", 0o100640)]
        with zipfile.ZipFile(archive, "w") as z:
            for info, data in entries:
                z.writestr(info, data)
        out = self.path("out")
        self.assertResult(run("extract", archive, "-d", out), 0)
        self.assertEqual(os.stat(os.path.join(out, "suid")).st_mode & 0o7777, 0o755)
        self.assertEqual(os.stat(os.path.join(out, "sgid")).st_mode & 0o7777, 0o750)
        self.assertEqual(os.stat(os.path.join(out, "sticky")).st_mode & 0o7777, 0o777)
        self.assertEqual(os.stat(os.path.join(out, "sticky", "f")).st_mode & 0o7777, 0o640)
        self.assertEqual(os.stat(os.path.join(out, "suid")).st_mtime, time.mktime((2021, 3, 4, 5, 6, 8, 0, 0, -1)))

    def test_a_link_target_that_cannot_be_read_is_named(self):
        archive = self.path("long.zip")
        with zipfile.ZipFile(archive, "w") as z:
            z.writestr(*unix_entry("long", b"a/" * 3000, 0o120777))
        result = run("extract", archive, "-d", self.path("out"))
        self.assertResult(result, 1)
        self.assertEqual(result.stderr, b'ziputil: refusing to extract "long": its link target is too long\n')


class SelectionTest(CliTestCase):
    """extract ARCHIVE [ENTRY|PATTERN...] [-d DIR] [-x PATTERN...] and what it does with existing files."""

    def archive(self):
        archive = self.path("sel.zip")
        make_zip(archive, [("docs/", None), ("docs/a.txt", b"a"), ("docs/b.md", b"b"), ("docs/sub/c.txt", b"c"),
                           ("caf\u00e9 #1.txt", b"coffee"), ("top.txt", b"top"), ("[x].txt", b"bracket")])
        return archive

    def extracted(self, out):
        found = []
        for folder, dirs, files in os.walk(out):
            found += [os.path.relpath(os.path.join(folder, name), out) + ("/" if name in dirs else "")
                      for name in dirs + files]
        return sorted(found)

    def test_entries_and_patterns_select(self):
        archive = self.archive()
        cases = [
            (["top.txt"], ["top.txt"]),
            (["caf\u00e9 #1.txt"], ["caf\u00e9 #1.txt"]),
            (["*.txt"], ["[x].txt", "caf\u00e9 #1.txt", "docs/", "docs/a.txt", "docs/sub/", "docs/sub/c.txt",
                         "top.txt"]),
            (["docs/*.md", "t?p.*"], ["docs/", "docs/b.md", "top.txt"]),
            (["docs/"], ["docs/"]),
            (["[[]x].txt"], ["[x].txt"]),
        ]
        for index, (patterns, expected) in enumerate(cases):
            with self.subTest(patterns=patterns):
                out = self.path("out%d" % index)
                result = run("extract", archive, *patterns, "-d", out)
                self.assertResult(result, 0)
                self.assertEqual(result.stderr, b"")
                self.assertEqual(self.extracted(out), expected)

    def test_exclusions_leave_entries_out(self):
        archive = self.archive()
        out = self.path("out")
        result = run("extract", archive, "-x", "*.txt", "*/sub/", "-d", out)
        self.assertResult(result, 0)
        self.assertEqual(self.extracted(out), ["docs/", "docs/b.md"])
        out2 = self.path("out2")
        self.assertResult(run("extract", archive, "docs/*", "--exclude", "*/sub/*", "-d", out2), 0)
        self.assertEqual(self.extracted(out2), ["docs/", "docs/a.txt", "docs/b.md"])
        with open(os.path.join(out2, "docs", "b.md"), "rb") as f:
            self.assertEqual(f.read(), b"b")

    def test_a_pattern_matching_nothing_is_named(self):
        archive = self.archive()
        out = self.path("out")
        result = run("extract", archive, "top.txt", "nothing*", "doc", "-d", out)
        self.assertResult(result, 1)
        self.assertEqual(result.stderr.decode().splitlines(),
                         ['ziputil: no entry matches "nothing*"', 'ziputil: no entry matches "doc"'])
        self.assertEqual(self.extracted(out), ["top.txt"])

    def test_existing_files_are_kept_and_named_by_default(self):
        archive = self.archive()
        out = self.path("out")
        self.write("out/top.txt", b"mine")
        self.write("out/docs/a.txt", b"mine too")
        result = run("extract", archive, "-d", out)
        self.assertResult(result, 1)
        self.assertEqual(sorted(result.stderr.decode().splitlines()), [
            'ziputil: refusing to extract "docs/a.txt": %s/docs/a.txt exists (-o replaces it, -n keeps it '
            'without a word)' % out,
            'ziputil: refusing to extract "top.txt": %s/top.txt exists (-o replaces it, -n keeps it without a '
            'word)' % out])
        for name, data in (("top.txt", b"mine"), ("docs/a.txt", b"mine too"), ("docs/b.md", b"b"),
                           ("docs/sub/c.txt", b"c")):
            with open(os.path.join(out, name), "rb") as f:
                self.assertEqual(f.read(), data, name)

    def test_n_keeps_existing_files_quietly(self):
        archive = self.archive()
        out = self.path("out")
        self.write("out/top.txt", b"mine")
        result = run("extract", "-n", archive, "-d", out)
        self.assertResult(result, 0)
        self.assertEqual(result.stderr, b"")
        with open(os.path.join(out, "top.txt"), "rb") as f:
            self.assertEqual(f.read(), b"mine")
        with open(os.path.join(out, "docs", "a.txt"), "rb") as f:
            self.assertEqual(f.read(), b"a")

    def test_o_replaces_files_and_links_through_a_rename(self):
        archive = self.path("links.zip")
        with zipfile.ZipFile(archive, "w") as z:
            z.writestr(*unix_entry("f.txt", b"new", 0o100644))
            z.writestr(*unix_entry("l", b"f.txt", 0o120777))
        out = self.path("out")
        old = self.write("out/f.txt", b"old")
        keep = self.path("kept")
        os.link(old, keep)
        os.symlink("elsewhere", os.path.join(out, "l"))
        refused = run("extract", archive, "-d", out)
        self.assertResult(refused, 1)
        self.assertIn(b'refusing to extract "l": %s/l exists' % out.encode(), refused.stderr)
        self.assertEqual(os.readlink(os.path.join(out, "l")), "elsewhere")
        self.assertResult(run("extract", "-qo", archive, "-d", out), 0)
        self.assertEqual(os.readlink(os.path.join(out, "l")), "f.txt")
        with open(os.path.join(out, "f.txt"), "rb") as f:
            self.assertEqual(f.read(), b"new")
        with open(keep, "rb") as f:  # renamed over, never written into
            self.assertEqual(f.read(), b"old")
        self.assertEqual(sorted(os.listdir(out)), ["f.txt", "l"])

    def test_usage_errors(self):
        archive = self.archive()
        for args in (["-n", "-o", archive], ["-x", "-d", "out", archive], [archive, "-x"], [archive, "-d"],
                     [archive, "-d", "-"], ["--bogus", archive]):
            with self.subTest(args=args):
                result = run("extract", *args, cwd=self.dir)
                self.assertResult(result, 2)
                self.assertTrue(result.stderr.startswith(b"ziputil extract: "), result.stderr)
        self.assertFalse(os.path.exists(self.path("-")))
        self.assertFalse(os.path.exists(self.path("out")))


class QuietVerboseTest(CliTestCase):
    """-q and -v on every command, and add's lists of paths."""

    def test_quiet_prints_only_errors(self):
        self.write("d/a.txt", b"a")
        self.write("d/b.txt", b"b")
        archive = self.path("q.zip")
        for args in (["add", "-q", archive, "d"], ["test", "-q", archive], ["extract", "-q", archive, "-d", "out"]):
            with self.subTest(args=args):
                result = run(*args, cwd=self.dir)
                self.assertResult(result, 0)
                self.assertEqual((result.stdout, result.stderr), (b"", b""))
        self.assertEqual(run("list", "-q", archive).stdout, b"d/\nd/a.txt\nd/b.txt\n")
        self.assertEqual(run("cat", "-q", archive, "d/a.txt").stdout, b"a")
        failing = run("extract", "-q", archive, "-d", "out", cwd=self.dir)  # the files are there now
        self.assertResult(failing, 1)
        self.assertEqual(failing.stdout, b"")
        self.assertEqual(len(failing.stderr.splitlines()), 2)
        code, output = self.run_with_terminal_stderr("test", "-q", archive)
        self.assertEqual((code, output), (0, b""))  # no progress line either

    def test_verbose_names_every_entry(self):
        self.write("d/a.txt", b"a")
        self.write("d/b.txt", b"bb")
        archive = self.path("v.zip")
        added = run("add", "-v", archive, "d", cwd=self.dir)
        self.assertResult(added, 0)
        self.assertEqual(added.stdout, b"adding: d/\nadding: d/a.txt\nadding: d/b.txt\n")
        tested = run("test", "-v", archive)
        self.assertResult(tested, 0)
        self.assertEqual(tested.stdout.decode().splitlines(),
                         ["testing: d/ OK", "testing: d/a.txt OK", "testing: d/b.txt OK",
                          "No errors in 3 entries of %s" % archive])
        self.write("out/d/a.txt", b"mine")
        extracted = run("extract", "-vn", archive, "-d", "out", cwd=self.dir)
        self.assertResult(extracted, 0)
        self.assertEqual(extracted.stdout, b"extracting: d/\nkeeping: d/a.txt\nextracting: d/b.txt\n")
        cat = run("cat", "-v", archive, "d/b.txt")
        self.assertEqual((cat.stdout, cat.stderr), (b"bb", b"ziputil: d/b.txt: 2 bytes\n"))
        listed = run("list", "-v", archive).stdout.decode().splitlines()
        self.assertTrue(listed[-3].startswith("           2            4 "), listed)  # the long form
        self.assertEqual(run("list", "-q", "-v", archive).returncode, 2)

    def test_files_from_a_list_and_from_standard_input(self):
        for name in ("a.txt", "b c.txt", "d/e.txt", "f.txt"):
            self.write(name, name.encode())
        with open(self.path("list"), "wb") as f:
            f.write(b"a.txt\n\nb c.txt\r\nd\n")
        archive = self.path("l.zip")
        self.assertResult(run("add", "-@", "list", archive, "f.txt", cwd=self.dir), 0)
        with zipfile.ZipFile(archive) as z:
            self.assertEqual(z.namelist(), ["f.txt", "a.txt", "b c.txt", "d/", "d/e.txt"])
        piped = self.path("p.zip")
        self.assertResult(run("add", "--files-from", "-", piped, cwd=self.dir, stdin=b"d/e.txt\na.txt"), 0)
        with zipfile.ZipFile(piped) as z:
            self.assertEqual(z.namelist(), ["d/e.txt", "a.txt"])

    def test_files_from_errors(self):
        missing = run("add", "-@", "no list", self.path("x.zip"), cwd=self.dir)
        self.assertResult(missing, 1)
        self.assertEqual(missing.stderr, b"ziputil: cannot read the list no list: No such file or directory\n")
        empty = run("add", "-@", "-", self.path("x.zip"), stdin=b"\n\n")
        self.assertResult(empty, 1)
        self.assertEqual(empty.stderr, b"ziputil: nothing to add: the lists name no path\n")
        self.assertFalse(os.path.exists(self.path("x.zip")))
        self.assertResult(run("add", "-@"), 2)
        self.assertResult(run("extract", "-@", "list", self.path("x.zip")), 2)


class StandardStreamTest(CliTestCase):
    """"-" as ARCHIVE: standard input for list, cat, test and extract; standard output for add."""

    def sample(self):
        archive = self.path("s.zip")
        make_zip(archive, [("d/", None), ("d/a.txt", b"alpha"), ("b.txt", b"beta" * 1000)])
        with open(archive, "rb") as f:
            return archive, f.read()

    def test_reading_commands_take_a_pipe_or_a_file_on_standard_input(self):
        archive, data = self.sample()
        for how in ("pipe", "file"):
            with self.subTest(how=how):
                def go(*args):
                    if how == "pipe":
                        return run(*args, stdin=data, cwd=self.dir)
                    with open(archive, "rb") as f:
                        return subprocess.run([PROGRAM, *args], stdin=f, capture_output=True, cwd=self.dir,
                                              timeout=120)
                listed = go("list", "-")
                self.assertResult(listed, 0)
                self.assertEqual(listed.stdout, b"d/\nd/a.txt\nb.txt\n")
                self.assertEqual(go("cat", "-", "d/a.txt").stdout, b"alpha")
                tested = go("test", "-")
                self.assertResult(tested, 0)
                self.assertEqual(tested.stdout, b"No errors in 3 entries of standard input\n")
                out = self.path("out-" + how)
                self.assertResult(go("extract", "-", "b.txt", "-d", out), 0)
                self.assertEqual(os.listdir(out), ["b.txt"])
                with open(os.path.join(out, "b.txt"), "rb") as f:
                    self.assertEqual(f.read(), b"beta" * 1000)
        self.assertEqual(sorted(os.listdir(self.dir)), ["out-file", "out-pipe", "s.zip"])  # no file named "-"

    def test_errors_name_standard_input(self):
        for data in (b"not an archive at all", b""):
            for command in ("list", "test"):
                with self.subTest(command=command, data=data):
                    result = run(command, "-", stdin=data, cwd=self.dir)
                    self.assertResult(result, 1)
                    self.assertTrue(result.stderr.endswith(b" (standard input)\n"), result.stderr)
                    self.assertEqual(result.stderr.count(b"\n"), 1)
        self.assertEqual(os.listdir(self.dir), [])

    def test_add_writes_a_new_archive_to_standard_output(self):
        self.write("d/a.txt", b"alpha")
        self.write("b.txt", b"beta")
        result = run("add", "-v", "-", "d", "b.txt", cwd=self.dir)
        self.assertResult(result, 0)
        self.assertEqual(result.stderr, b"adding: d/\nadding: d/a.txt\nadding: b.txt\n")  # not into the archive
        with open(self.path("out.zip"), "wb") as f:
            f.write(result.stdout)
        with zipfile.ZipFile(self.path("out.zip")) as z:
            self.assertEqual(z.namelist(), ["d/", "d/a.txt", "b.txt"])
            self.assertEqual(z.read("d/a.txt"), b"alpha")
        self.assertFalse(os.path.exists(self.path("-")))
        ok, report = unzip_tests_every_entry(self.path("out.zip"))
        self.assertTrue(ok, report)
        again = run("list", "-", stdin=result.stdout)
        self.assertEqual(again.stdout, b"d/\nd/a.txt\nb.txt\n")

    def test_terminals_are_refused(self):
        import pty
        self.write("a.txt", b"a")
        for args, message in ((["add", "-", "a.txt"], b"ziputil: will not write an archive to a terminal\n"),
                              (["list", "-"], b"ziputil: will not read an archive from a terminal\n")):
            with self.subTest(args=args):
                master, slave = pty.openpty()
                try:
                    result = subprocess.run([PROGRAM, *args], stdin=slave, stdout=slave, stderr=subprocess.PIPE,
                                            cwd=self.dir, timeout=60)
                finally:
                    os.close(slave)
                    os.close(master)
                self.assertEqual(result.returncode, 1)
                self.assertEqual(result.stderr, message)
        self.assertEqual(os.listdir(self.dir), ["a.txt"])


class PasswordTest(CliTestCase):
    """Passwords from a file, the environment or the terminal; --password stays."""

    def encrypted(self):
        self.write("src/secret.txt", b"top secret\n")
        self.write("src/plain.txt", b"plain\n")
        archive = self.path("enc.zip")
        subprocess.run(["zip", "-q", "-P", "right pw", archive, "secret.txt"], cwd=self.path("src"), check=True)
        subprocess.run(["zip", "-q", archive, "plain.txt"], cwd=self.path("src"), check=True)
        return archive

    def without_password_variable(self):
        return {name: value for name, value in os.environ.items() if name != "ZIPUTIL_PASSWORD"}

    def test_password_file(self):
        archive = self.encrypted()
        with open(self.path("pw"), "wb") as f:
            f.write(b"right pw\nsecond line ignored\n")
        result = run("cat", "--password-file", self.path("pw"), archive, "secret.txt")
        self.assertResult(result, 0)
        self.assertEqual(result.stdout, b"top secret\n")
        piped = run("test", "--password-file", "-", archive, stdin=b"right pw\r\n")
        self.assertResult(piped, 0)
        wrong = run("cat", "--password-file", "-", archive, "secret.txt", stdin=b"wrong pw")
        self.assertResult(wrong, 1)
        missing = run("cat", "--password-file", self.path("none"), archive, "secret.txt")
        self.assertResult(missing, 1)
        self.assertEqual(missing.stderr, b"ziputil: cannot read the password file %s: No such file or directory\n"
                         % self.path("none").encode())
        for args in (["--password", "x", "--password-file", self.path("pw"), archive, "secret.txt"],
                     ["--password-file", "-", "-", "secret.txt"], ["--password-file"]):
            with self.subTest(args=args):
                usage = run("cat", *args)
                self.assertResult(usage, 2)
                self.assertTrue(usage.stderr.startswith(b"ziputil cat: "), usage.stderr)

    def test_password_from_the_environment(self):
        archive = self.encrypted()
        env = dict(self.without_password_variable(), ZIPUTIL_PASSWORD="right pw")
        result = subprocess.run([PROGRAM, "cat", archive, "secret.txt"], env=env, capture_output=True, timeout=60)
        self.assertEqual((result.returncode, result.stdout), (0, b"top secret\n"), result.stderr)
        overridden = subprocess.run([PROGRAM, "cat", "-P", "other", archive, "secret.txt"], env=env,
                                    capture_output=True, timeout=60)
        self.assertEqual(overridden.returncode, 1)
        made = self.path("made.zip")
        added = subprocess.run([PROGRAM, "add", made, "src/plain.txt"], env=env, capture_output=True,
                               cwd=self.dir, timeout=60)
        self.assertEqual(added.returncode, 0, added.stderr)
        with zipfile.ZipFile(made) as z:
            self.assertTrue(z.getinfo("src/plain.txt").flag_bits & 1)
        # AES-256, which Python cannot read: 7-Zip reads it with the password from the environment
        extracted = subprocess.run(["7z", "x", "-so", "-pright pw", made, "src/plain.txt"], capture_output=True)
        self.assertEqual(extracted.stdout, b"plain\n", extracted.stderr)

    def run_on_terminal(self, args, typed):
        """Runs with standard input on a pseudo-terminal; types `typed` once the prompt shows.
        Returns the result, the prompt seen and what the terminal echoed."""
        import pty
        import select
        master, slave = pty.openpty()
        process = subprocess.Popen([PROGRAM, *args], stdin=slave, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                   env=self.without_password_variable())
        os.close(slave)
        try:
            seen = b""
            deadline = time.monotonic() + 30
            while not seen.endswith(b": ") and time.monotonic() < deadline:
                ready, _, _ = select.select([process.stderr], [], [], 1)
                if ready:
                    chunk = os.read(process.stderr.fileno(), 4096)
                    if not chunk:
                        break
                    seen += chunk
            if seen.endswith(b": "):
                time.sleep(0.2)  # echo is off by the time the prompt is out; allow for the flush of input
                os.write(master, typed)
            stdout, stderr = process.communicate(timeout=60)
            echoed = b""
            while select.select([master], [], [], 0.2)[0]:
                try:
                    chunk = os.read(master, 4096)
                except OSError:
                    break
                if not chunk:
                    break
                echoed += chunk
            return process.returncode, stdout, seen + stderr, echoed
        finally:
            if process.poll() is None:
                process.kill()
                process.wait()
            os.close(master)

    def test_prompt_on_the_terminal_without_echo(self):
        archive = self.encrypted()
        code, stdout, stderr, echoed = self.run_on_terminal(["cat", archive, "secret.txt"], b"right pw\n")
        self.assertEqual(code, 0, stderr)
        self.assertEqual(stdout, b"top secret\n")
        self.assertEqual(stderr, b"Password for %s: \n" % archive.encode())
        self.assertNotIn(b"right pw", echoed)
        out = self.path("out")
        code, stdout, stderr, echoed = self.run_on_terminal(["extract", archive, "-d", out], b"right pw\n")
        self.assertEqual(code, 0, stderr)
        self.assertEqual(stderr.count(b"Password for"), 1)  # asked once for the run
        with open(os.path.join(out, "secret.txt"), "rb") as f:
            self.assertEqual(f.read(), b"top secret\n")
        code, stdout, stderr, echoed = self.run_on_terminal(["test", archive], b"wrong pw\n")
        self.assertEqual(code, 1)
        self.assertIn(b'bad entry "secret.txt"', stderr)

    def test_no_prompt_without_an_encrypted_entry_or_a_terminal(self):
        archive = self.encrypted()
        code, stdout, stderr, echoed = self.run_on_terminal(["cat", archive, "plain.txt"], b"")
        self.assertEqual((code, stdout, stderr), (0, b"plain\n", b""))
        result = subprocess.run([PROGRAM, "cat", archive, "secret.txt"], stdin=subprocess.DEVNULL,
                                capture_output=True, env=self.without_password_variable(), timeout=60)
        self.assertEqual(result.returncode, 1)
        self.assertNotIn(b"Password for", result.stderr)

    def test_help_says_what_password_exposes(self):
        overview = run("--help").stdout
        self.assertIn(b"visible to other users of the machine in the process list", overview)
        self.assertIn(b"ZIPUTIL_PASSWORD", overview)


class ListFormsTest(CliTestCase):
    """list's long form (header, modes, totals) and --json."""

    def archive(self):
        archive = self.path("forms.zip")
        with zipfile.ZipFile(archive, "w", zipfile.ZIP_DEFLATED) as z:
            z.writestr(*unix_entry("d/", b"", 0o040750))
            info, data = unix_entry("d/run \"x\".sh", b"#!/bin/sh\n" * 100, 0o100755)
            info.compress_type = zipfile.ZIP_DEFLATED
            info.comment = "a comment\twith a tab".encode()
            z.writestr(info, data)
            z.writestr(*unix_entry("d/link", b"run.sh", 0o120777))
            z.writestr(zipfile.ZipInfo("plain.txt", (1999, 12, 31, 23, 59, 58)), b"")
        return archive

    def test_long_form_shows_modes_and_totals(self):
        archive = self.archive()
        lines = run("list", "-l", archive).stdout.decode().splitlines()
        self.assertEqual(len(lines), 8, lines)
        self.assertTrue(lines[2].endswith(" 2021-03-04 05:06 drwxr-x--- d/"), lines[2])
        self.assertTrue(lines[3].endswith(" -rwxr-xr-x d/run \"x\".sh"), lines[3])
        self.assertTrue(lines[4].endswith(" lrwxrwxrwx d/link"), lines[4])
        self.assertTrue(lines[5].endswith(" 1999-12-31 23:59 -rw------- plain.txt"), lines[5])  # zipfile's 0600
        with zipfile.ZipFile(archive) as z:
            size = sum(i.file_size for i in z.infolist())
            compressed = sum(i.compress_size for i in z.infolist())
        self.assertEqual(lines[7].split(), [str(size), str(compressed), "%d%%" % round(100 - 100 * compressed / size),
                                            "4", "entries"])
        self.assertEqual(run("list", "-v", archive).stdout.decode().splitlines(), lines)

    def test_json_gives_every_field(self):
        archive = self.archive()
        result = run("list", "--json", archive)
        self.assertResult(result, 0)
        objects = [json.loads(line) for line in result.stdout.decode().splitlines()]
        self.assertEqual(len(objects), 4)
        with zipfile.ZipFile(archive) as z:
            infos = z.infolist()
        script = objects[1]
        self.assertEqual(script, {
            "name": "d/run \"x\".sh", "rawName": "d/run \"x\".sh", "nameUTF8": False, "directory": False,
            "size": 1000, "compressedSize": infos[1].compress_size, "method": 8, "methodName": "deflated",
            "realMethod": 8, "realMethodName": "deflated",
            "crc32": "%08x" % infos[1].CRC, "time": "2021-03-04T05:06:08", "versionMadeBy": infos[1].create_system << 8
            | infos[1].create_version, "system": 3, "externalAttributes": 0o100755 << 16, "mode": 0o100755,
            "modeText": "-rwxr-xr-x", "link": False, "encrypted": False, "encryption": "none", "comment": "a comment\twith a tab",
            "extra": ""})
        self.assertEqual((objects[0]["name"], objects[0]["directory"], objects[0]["modeText"]),
                         ("d/", True, "drwxr-x---"))
        self.assertEqual((objects[2]["link"], objects[2]["target"], objects[2]["method"]), (True, "run.sh", 0))
        self.assertEqual((objects[3]["mode"], objects[3]["modeText"], objects[3]["time"]),
                         (0o600, "-rw-------", "1999-12-31T23:59:58"))  # zipfile writes no file type
        raw = raw_zip(self.path("dos.zip"), [raw_entry("dos.txt", b"")])  # made on MS-DOS: no mode
        dos = json.loads(run("list", "--json", raw).stdout)
        self.assertEqual((dos["mode"], dos["modeText"], dos["system"], dos["time"]),
                         (None, None, 0, "1980-01-01T00:00:00"))

    def test_json_of_an_archive_made_by_add(self):
        self.write("t/a b.txt", b"hello")
        os.symlink("a b.txt", self.path("t", "l"))
        archive = self.path("made.zip")
        self.assertResult(run("add", "--password", "pw", archive, "t", cwd=self.dir), 0)
        objects = [json.loads(line) for line in run("list", "--json", archive).stdout.decode().splitlines()]
        self.assertEqual([(o["name"], o["method"], o["encrypted"], o["system"], o["link"]) for o in objects],
                         [("t/", 0, False, 3, False), ("t/a b.txt", 99, True, 3, False), ("t/l", 99, True, 3, True)])
        self.assertNotIn("target", objects[2])  # encrypted and no password given
        with_password = run("list", "--json", "-P", "pw", archive).stdout.decode().splitlines()
        self.assertEqual(json.loads(with_password[2])["target"], "a b.txt")

    def test_names_in_json_are_escaped(self):
        archive = raw_zip(self.path("ctl.zip"), [raw_entry(b"new\nline\x7f\xff.txt", b"x")])
        line = run("list", "--json", archive).stdout
        self.assertEqual(line.count(b"\n"), 1)
        self.assertEqual(json.loads(line)["rawName"], "new\nline\x7f\ufffd.txt")


SOURCE = os.path.dirname(os.path.abspath(__file__))
MAN_PAGE = os.path.join(SOURCE, "..", "..", "tools", "ziputil.1")
COMPLETION = os.path.join(SOURCE, "..", "..", "tools", "ziputil.bash-completion")

# Every option, with a command that takes it and arguments that make it valid there.
OPTIONS = {
    "-h": ("list", []), "--help": ("list", []), "-q": ("list", []), "--quiet": ("list", []),
    "-v": ("list", []), "--verbose": ("list", []), "-P": ("list", ["pw"]), "--password": ("list", ["pw"]),
    "--password-file": ("list", ["PWFILE"]), "-l": ("list", []), "--long": ("list", []), "--json": ("list", []),
    "-d": ("extract", ["out"]), "--folder": ("extract", ["out"]), "-x": ("extract", ["none"]),
    "--exclude": ("extract", ["none"]), "-n": ("extract", []), "--never-overwrite": ("extract", []),
    "-o": ("extract", []), "--overwrite": ("extract", []), "--level": ("add", ["5", "LIST"]),
    "-@": ("add", ["LIST"]), "--files-from": ("add", ["LIST"]), "-u": ("add", ["LIST"]),
    "--update": ("add", ["LIST"]), "-j": ("add", ["2", "LIST"]), "--jobs": ("add", ["2", "LIST"]),
    "--method": ("add", ["zstd", "LIST"]), "--encryption": ("add", ["zipcrypto", "LIST"]),
}


class DocumentationTest(CliTestCase):
    """The man page and the bash completion cover every option, and are installed."""

    def test_every_option_is_real_and_in_the_help(self):
        archive = self.path("a.zip")
        make_zip(archive, [("a.txt", b"a")])
        self.write("pw", b"pw\n")
        self.write("LIST", b"pw\n")
        overview = run("--help").stdout.decode()
        for option, (command, values) in OPTIONS.items():
            with self.subTest(option=option):
                args = [a.replace("PWFILE", self.path("pw")).replace("LIST", self.path("LIST")) for a in values]
                operands = {"add": [self.path("new.zip")], "extract": [archive]}.get(command, [archive])
                result = run(command, *operands, option, *args, cwd=self.dir)
                self.assertNotIn(b"unknown option", result.stderr)
                self.assertIn(result.returncode, (0, 1), result.stderr)
                help_text = overview + run(command, "--help").stdout.decode()
                self.assertRegex(help_text, r"(?<![\w-])%s(?![\w-])" % re.escape(option))
        usage = "".join(run(command, "--help").stdout.decode().splitlines()[0]
                        for command in ("list", "cat", "extract", "add", "delete", "test"))
        self.assertEqual(set(re.findall(r"(?<![\w-])(--?[A-Za-z@][\w-]*)", usage)) - set(OPTIONS), set())

    def test_man_page_covers_every_option_command_and_status(self):
        with open(MAN_PAGE) as f:
            text = f.read().replace("\\-", "-")
        for option in list(OPTIONS) + ["--version", "--"]:
            self.assertRegex(text, r"(?<![\w-])%s(?![\w-])" % re.escape(option), option)
        for word in ("list", "cat", "extract", "add", "delete", "test", "ZIPUTIL_PASSWORD", "EXIT STATUS",
                     "PATTERNS"):
            self.assertIn(word, text)
        for status in ("0", "1", "2"):
            self.assertIn(".TP\n.B %s\n" % status, text)
        if shutil.which("groff"):
            checked = subprocess.run(["groff", "-man", "-ww", "-z", MAN_PAGE], capture_output=True)
            self.assertEqual((checked.returncode, checked.stderr), (0, b""))

    def complete(self, *words):
        """What the completion offers for the command line `words` (the last is being typed)."""
        script = 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _ziputil; ' \
                 'printf "%s\\n" "${COMPREPLY[@]}"'
        result = subprocess.run(["bash", "-c", script, "bash", COMPLETION, *words], capture_output=True,
                                cwd=self.dir, timeout=30)
        self.assertEqual(result.returncode, 0, result.stderr)
        return sorted(line for line in result.stdout.decode().splitlines() if line)

    def test_bash_completion_offers_commands_options_and_files(self):
        with open(COMPLETION) as f:
            words = set(re.findall(r"(?<![\w-])(--?[A-Za-z@][\w-]*)", f.read()))
        self.assertEqual(set(OPTIONS) - words, set())
        self.assertEqual(self.complete("ziputil", "ex"), ["extract"])
        self.assertEqual(self.complete("ziputil", ""), ["--help", "--version", "add", "cat", "delete", "extract",
                                                         "list", "test"])
        self.assertEqual(self.complete("ziputil", "de"), ["delete"])
        self.assertEqual(self.complete("ziputil", "add", "--u"), ["--update"])
        self.assertEqual(self.complete("ziputil", "add", "--j"), ["--jobs"])
        self.assertEqual(self.complete("ziputil", "delete", "--l"), [])
        self.assertEqual(self.complete("ziputil", "extract", "--o"), ["--overwrite"])
        self.assertEqual(self.complete("ziputil", "list", "--j"), ["--json"])
        self.assertEqual(self.complete("ziputil", "cat", "--l"), [])
        self.assertEqual(self.complete("ziputil", "add", "--level", ""), [str(n) for n in range(10)])
        self.write("one.zip", b"")
        self.write("notes.txt", b"")
        os.makedirs(self.path("folder"))
        self.assertEqual(self.complete("ziputil", "list", ""), ["folder", "one.zip"])
        self.assertEqual(self.complete("ziputil", "add", "one.zip", "n"), ["notes.txt"])
        self.assertEqual(self.complete("ziputil", "extract", "one.zip", "-d", ""), ["folder"])

    def test_installed_beside_the_program(self):
        prefix = os.path.dirname(os.path.dirname(shutil.which(PROGRAM) or PROGRAM))
        if not os.path.isdir(os.path.join(prefix, "share")):
            self.skipTest("the program under test is not an installed one")
        for installed, source in ((os.path.join(prefix, "share", "man", "man1", "ziputil.1"), MAN_PAGE),
                                  (os.path.join(prefix, "share", "bash-completion", "completions", "ziputil"),
                                   COMPLETION)):
            with open(installed, "rb") as a, open(source, "rb") as b:
                self.assertEqual(a.read(), b.read(), installed)


def leftovers(folder, archive_name):
    """Sibling copies the program left behind (after being killed)."""
    return [name for name in os.listdir(folder) if name.startswith(archive_name + ".tmp-")]


class AddIntegrityTest(CliTestCase):
    """Adding never loses or silently corrupts the archive it adds to."""

    def old_archive(self, entries=3):
        archive = self.path("old.zip")
        make_zip(archive, [("old%d.txt" % i, ("old entry %d\n" % i).encode() * (i + 1)) for i in range(entries)])
        with open(archive, "rb") as f:
            return archive, f.read()

    def assertOldEntriesIntact(self, archive, entries):
        with zipfile.ZipFile(archive) as z:
            self.assertIsNone(z.testzip())
            for i in range(entries):
                self.assertEqual(z.read("old%d.txt" % i), ("old entry %d\n" % i).encode() * (i + 1))
        ok, report = unzip_tests_every_entry(archive)
        self.assertTrue(ok, report)
        self.assertResult(run("test", archive), 0)

    def test_damaged_archives_are_refused_untouched(self):
        archive, good = self.old_archive()
        self.write("new.txt", b"new")
        last = good.rindex(b"PK\x01\x02")  # the last central header
        damaged = {
            "end record cut short by 10": good[:-10],
            "end record cut short by 14": good[:-14],
            "stray end signature": good + b"PK\x05\x06",
            "central header without signature": good[:last] + b"X" + good[last + 1:],
            "central header name running past the directory": good[:last + 28] + b"\xff\x00" + good[last + 30:],
        }
        for what, data in damaged.items():
            with self.subTest(what):
                with open(archive, "wb") as f:
                    f.write(data)
                result = run("add", archive, "new.txt", cwd=self.dir)
                self.assertResult(result, 1)
                self.assertIn(b"Damaged archive: ", result.stderr)
                self.assertEqual(result.stderr.count(b"\n"), 1, result.stderr)
                with open(archive, "rb") as f:
                    self.assertEqual(f.read(), data)
                self.assertEqual(leftovers(self.dir, "old.zip"), [])

    def test_unreadable_input_is_named_and_skipped(self):
        archive, _ = self.old_archive()
        self.write("in/a.txt", b"readable a")
        self.write("in/secret.txt", b"cannot be read")
        self.write("in/z.txt", b"readable z")
        os.chmod(self.path("in", "secret.txt"), 0)
        if os.getuid() == 0:  # root reads everything: run the program as an ordinary user
            for path in (self.dir, self.path("in")):
                os.chmod(path, 0o777)
            os.chmod(archive, 0o666)
            result = run_as_nobody("add", archive, "in", cwd=self.dir)
        else:
            result = run("add", archive, "in", cwd=self.dir)
        self.assertResult(result, 1)
        self.assertIn(b"skipping in/secret.txt: cannot read it: Permission denied", result.stderr)
        with zipfile.ZipFile(archive) as z:
            self.assertEqual(z.namelist(), ["old0.txt", "old1.txt", "old2.txt", "in/", "in/a.txt", "in/z.txt"])
            self.assertEqual(z.read("in/z.txt"), b"readable z")
        self.assertOldEntriesIntact(archive, 3)

    def test_special_files_are_skipped(self):
        archive, _ = self.old_archive()
        self.write("x.txt", b"x")
        os.mkfifo(self.path("pipe"))  # opening it for reading would wait for a writer
        result = run("add", archive, "x.txt", "pipe", "/dev/zero", cwd=self.dir)
        self.assertResult(result, 1)
        self.assertIn(b"skipping pipe: not a regular file", result.stderr)
        self.assertIn(b"skipping /dev/zero: not a regular file", result.stderr)
        with zipfile.ZipFile(archive) as z:
            self.assertEqual(z.namelist(), ["old0.txt", "old1.txt", "old2.txt", "x.txt"])
        self.assertOldEntriesIntact(archive, 3)

    def test_failed_read_of_an_input_changes_nothing(self):
        # /proc/self/mem opens, but reading its first page fails (EIO).
        archive, old = self.old_archive()
        self.write("x.txt", b"x")
        result = run("add", archive, "x.txt", "/proc/self/mem", cwd=self.dir)
        self.assertResult(result, 1)
        self.assertIn(b"cannot read /proc/self/mem: Input/output error", result.stderr)
        with open(archive, "rb") as f:
            self.assertEqual(f.read(), old)
        self.assertEqual(leftovers(self.dir, "old.zip"), [])
        fresh = self.path("fresh.zip")
        self.assertResult(run("add", fresh, "x.txt", "/proc/self/mem", cwd=self.dir), 1)
        self.assertFalse(os.path.exists(fresh))  # the archive it had created is gone again

    def test_killed_add_leaves_old_or_complete_new_archive(self):
        entries = 2000
        archive, old = self.old_archive(entries)
        # Incompressible data, so that the entry takes a while to deflate.
        big = self.write("big.bin", os.urandom(24 << 20))
        pristine = self.path("pristine.zip")
        shutil.copyfile(archive, pristine)
        start = time.monotonic()
        self.assertResult(run("add", "--level", "1", archive, "big.bin", cwd=self.dir), 0)
        duration = time.monotonic() - start
        points = 24
        seen = {"old": 0, "new": 0}
        for k in range(points):
            shutil.copyfile(pristine, archive)
            process = subprocess.Popen([PROGRAM, "add", "--level", "1", archive, "big.bin"], cwd=self.dir,
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            # Kill points spread over the whole run, the last ones close to its end.
            time.sleep(duration * (k + 0.5) / points * 1.05)
            process.kill()
            process.wait()
            with open(archive, "rb") as f:
                data = f.read()
            if data == old:
                seen["old"] += 1
            else:
                seen["new"] += 1
                with zipfile.ZipFile(archive) as z:
                    self.assertEqual(len(z.namelist()), entries + 1)
                    with open(big, "rb") as f:
                        self.assertEqual(z.read("big.bin"), f.read())
            self.assertOldEntriesIntact(archive, entries)
            for name in leftovers(self.dir, "old.zip"):
                os.remove(self.path(name))
        print("kill points: %d, old archive kept: %d, new archive complete: %d, run %.2f s"
              % (points, seen["old"], seen["new"], duration))
        self.assertGreater(seen["old"], 0)  # some kills came before the move (how many depends on the load)

    def mount_small_disk(self, size):
        disk = self.path("disk")
        os.mkdir(disk)
        result = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=%d" % size, "tmpfs", disk], capture_output=True)
        if result.returncode != 0:
            self.skipTest("cannot mount a small file system here: " + result.stderr.decode(errors="replace"))
        self.addCleanup(subprocess.run, ["umount", disk])
        return disk

    def test_full_disk_keeps_the_old_archive(self):
        disk = self.mount_small_disk(1 << 20)
        archive = os.path.join(disk, "old.zip")
        make_zip(archive, [("old%d.txt" % i, os.urandom(20000)) for i in range(8)], zipfile.ZIP_STORED)
        with open(archive, "rb") as f:
            old = f.read()
        outcomes = {"refused": 0, "added": 0}
        # Inputs around the room left, so that the disk fills at every stage of the add.
        for size in list(range(100 << 10, 600 << 10, 100 << 10)) + list(range(600 << 10, 900 << 10, 8 << 10)):
            data = os.urandom(size)
            self.write("in.bin", data)
            result = run("add", "--level", "0", archive, self.path("in.bin"), cwd=self.dir)
            with open(archive, "rb") as f:
                now = f.read()
            if result.returncode == 0:
                outcomes["added"] += 1
                with zipfile.ZipFile(archive) as z:
                    self.assertIsNone(z.testzip())
                    self.assertEqual(z.read(self.path("in.bin").lstrip("/")), data)
                with open(archive, "wb") as f:
                    f.write(old)
            else:
                outcomes["refused"] += 1
                self.assertResult(result, 1)
                self.assertIn(b"No space left on device", result.stderr)
                self.assertEqual(now, old)
            self.assertEqual(leftovers(disk, "old.zip"), [])
        print("full disk: %s" % outcomes)
        self.assertGreater(outcomes["refused"], 10)
        self.assertGreater(outcomes["added"], 10)


class ProgressTest(CliTestCase):
    def test_progress_line_only_on_a_terminal(self):
        self.sample_tree()
        archive = self.path("p.zip")
        status, terminal = self.run_with_terminal_stderr("add", archive, self.path("tree"))
        self.assertEqual(status, 0)
        self.assertIn(b"\radding", terminal.replace(b"\x1b[K", b""))
        piped = run("test", archive)
        self.assertResult(piped, 0)
        self.assertEqual(piped.stderr, b"")
        status, terminal = self.run_with_terminal_stderr("test", archive)
        self.assertEqual(status, 0)
        self.assertIn(b"testing 1", terminal)


class TestCommandTest(CliTestCase):
    def test_good_archive_passes(self):
        archive = self.path("ok.zip")
        make_zip(archive, [("a.txt", b"a" * 1000), ("d/", None), ("e.txt", b"")])
        result = run("test", archive)
        self.assertResult(result, 0)
        self.assertIn(b"No errors in 3 entries", result.stdout)

    def test_crc_mismatch_names_the_entry(self):
        archive = self.path("bad.zip")
        make_zip(archive, [("good.txt", b"good"), ("bad.txt", b"0123456789")], zipfile.ZIP_STORED)
        data = bytearray(open(archive, "rb").read())
        at = data.index(b"0123456789")
        data[at] = ord("X")
        open(archive, "wb").write(bytes(data))
        result = run("test", archive)
        self.assertResult(result, 1)
        err = result.stderr.decode()
        self.assertIn('"bad.txt"', err)
        self.assertNotIn('"good.txt"', err)
        self.assertIn(b"1 of 2 entries", result.stdout)



class CheckedReadingTest(CliTestCase):
    """test, cat and extract read through the library's checks: the archive's layout
    first, then each entry's size, end and CRC-32 when a read reaches its end."""

    def assertRefusedEntries(self, archive, refused, good):
        """refused: the shown names and the words of the entries the layout check refuses, in order;
        good: (name, bytes) of the others, which test, cat and extract still read."""
        lines = b"".join(b'ziputil: bad entry "%s": %s\n' % (name.encode(), why.encode()) for name, why in refused)
        tested = run("test", archive)
        self.assertResult(tested, 1)
        self.assertEqual(tested.stderr, lines)
        self.assertEqual(tested.stdout, b"%d of %d entries of %s are bad\n"
                         % (len(refused), len(refused) + len(good), archive.encode()))
        out = self.path("out")
        extracted = run("extract", archive, "-d", out)
        self.assertResult(extracted, 1)
        self.assertEqual(extracted.stderr, lines)
        self.assertEqual(sorted(os.listdir(out)), sorted(name for name, _ in good))
        for name, data in good:
            with open(os.path.join(out, name), "rb") as f:
                self.assertEqual(f.read(), data)
            catted = run("cat", archive, name)
            self.assertResult(catted, 0)
            self.assertEqual(catted.stdout, data)
        name, why = refused[0]
        catted = run("cat", archive, name)
        self.assertResult(catted, 1)
        self.assertEqual(catted.stdout, b"")
        self.assertEqual(catted.stderr, b'ziputil: bad entry "%s": %s\n' % (name.encode(), why.encode()))
        listed = run("list", archive)
        self.assertResult(listed, 0)
        self.assertEqual(len(listed.stdout.splitlines()), len(refused) + len(good))

    def test_entries_sharing_their_data_are_refused(self):
        # The small-archive-inflates-to-gigabytes construction: many central entries, one local record. Every
        # entry sharing it is refused; the entry beside them is read.
        archive = raw_zip(self.path("bomb.zip"), [raw_entry("a.txt", b"\0" * 100000, zipfile.ZIP_DEFLATED),
                                                  raw_entry("ok.txt", b"fine")],
                          central=[(0, None)] * 5 + [(1, None)])
        refused = [("a.txt", "its record overlaps that of entry %d" % other) for other in (2, 1, 1, 1, 1)]
        self.assertRefusedEntries(archive, refused, [("ok.txt", b"fine")])

    def test_local_name_disagreeing_with_central_name_is_refused(self):
        archive = raw_zip(self.path("masked.zip"), [raw_entry("a.txt", b"harmless"), raw_entry("evil", b"payload")],
                          central=[(0, None), (1, b"b.sh")])
        self.assertRefusedEntries(archive, [("b.sh", "its local header disagrees with its central header on the name")],
                                  [("a.txt", b"harmless")])

    def test_an_archive_comment_cut_short_is_read_as_far_as_it_goes(self):
        archive = self.path("comment.zip")
        with zipfile.ZipFile(archive, "w") as z:
            z.writestr("a.txt", b"alpha\n")
            z.writestr("b.txt", b"bravo\n")
            z.comment = b"the whole comment"
        with open(archive, "rb") as f:
            data = f.read()
        with open(archive, "wb") as f:
            f.write(data[:-5])
        self.assertEqual(zipfile.ZipFile(archive).comment, b"the whole co")  # as Python reads it
        tested = run("test", archive)
        self.assertResult(tested, 0)
        self.assertEqual(tested.stdout, b"No errors in 2 entries of %s\n" % archive.encode())
        catted = run("cat", archive, "b.txt")
        self.assertResult(catted, 0)
        self.assertEqual(catted.stdout, b"bravo\n")
        extracted = run("extract", archive, "-d", self.path("out"))
        self.assertResult(extracted, 0)
        self.assertEqual(sorted(os.listdir(self.path("out"))), ["a.txt", "b.txt"])

    def test_a_name_ends_at_its_first_nul_byte(self):
        # The library names the entry "te"; the program shows and matches that name.
        archive = raw_zip(self.path("nul.zip"), [raw_entry(b"te\0t", b"nul name\n"), raw_entry("ok.txt", b"ok\n")])
        listed = run("list", archive)
        self.assertResult(listed, 0)
        self.assertEqual(listed.stdout, b"te\nok.txt\n")
        catted = run("cat", archive, "te")
        self.assertResult(catted, 0)
        self.assertEqual(catted.stdout, b"nul name\n")
        self.assertResult(run("cat", archive, "te^@t"), 1)
        tested = run("test", "-v", archive)
        self.assertResult(tested, 0)
        self.assertEqual(tested.stdout.splitlines()[0], b"testing: te OK")
        entries = [json.loads(line) for line in run("list", "--json", archive).stdout.splitlines()]
        self.assertEqual(entries[0]["name"], "te")
        self.assertEqual(entries[0]["rawName"], "te\u0000t")
        extracted = run("extract", archive, "te", "-d", self.path("out"))
        self.assertResult(extracted, 0)
        with open(self.path("out", "te"), "rb") as f:
            self.assertEqual(f.read(), b"nul name\n")

    def test_entry_shorter_than_its_size_is_bad_everywhere(self):
        data = b"x" * 1000
        archive = raw_zip(self.path("short.zip"), [raw_entry("a.txt", data, zipfile.ZIP_DEFLATED, size=1500),
                                                   raw_entry("ok.txt", b"fine")])
        message = b'ziputil: bad entry "a.txt": ZIP entry is shorter than its stored size: 1000 of 1500 bytes\n'
        tested = run("test", archive)
        self.assertResult(tested, 1)
        self.assertEqual(tested.stderr, message)
        extracted = run("extract", archive, "-d", self.path("out"))
        self.assertResult(extracted, 1)
        self.assertEqual(extracted.stderr, message)
        with open(self.path("out", "ok.txt"), "rb") as f:
            self.assertEqual(f.read(), b"fine")
        cat = run("cat", archive, "a.txt")
        self.assertResult(cat, 1)
        self.assertEqual(cat.stderr, message)

    def test_data_going_on_past_the_size_is_bad(self):
        archive = raw_zip(self.path("long.zip"), [raw_entry("a.txt", b"y" * 1000, zipfile.ZIP_DEFLATED, size=600,
                                                            crc=zlib.crc32(b"y" * 600))])
        for args in (["test", archive], ["extract", archive, "-d", self.path("out")]):
            result = run(*args)
            self.assertResult(result, 1)
            self.assertEqual(result.stderr, b'ziputil: bad entry "a.txt": ZIP entry\'s data does not end at its '
                                            b'stored size of 600 bytes\n')

    def test_unsupported_method_is_named(self):
        archive = raw_zip(self.path("ppmd.zip"), [raw_entry("ok.txt", b"fine", zipfile.ZIP_DEFLATED),
                                                  raw_entry("b.txt", b"PPMd data " * 100, 98)])
        message = b'ziputil: bad entry "b.txt": compression method 98 (PPMd) is not supported\n'
        tested = run("test", archive)
        self.assertResult(tested, 1)
        self.assertEqual(tested.stderr, message)
        self.assertIn(b"1 of 2 entries", tested.stdout)
        cat = run("cat", archive, "b.txt")
        self.assertResult(cat, 1)
        self.assertEqual(cat.stdout, b"")
        self.assertEqual(cat.stderr, message)

    def test_wrong_password_is_named(self):
        self.write("secret.txt", b"top secret\n" * 100)
        archive = self.path("enc.zip")
        subprocess.run(["zip", "-q", "-P", "right", archive, "secret.txt"], cwd=self.dir, check=True)
        self.assertResult(run("test", "--password", "right", archive), 0)
        result = run("test", "--password", "wrong", archive)
        self.assertResult(result, 1)
        self.assertEqual(result.stderr.count(b"\n"), 1)
        self.assertTrue(result.stderr.startswith(b'ziputil: bad entry "secret.txt": '), result.stderr)
        result = run("test", archive)
        self.assertResult(result, 1)
        self.assertEqual(result.stderr, b'ziputil: bad entry "secret.txt": the entry is encrypted: give its '
                                        b'password with --password-file, ZIPUTIL_PASSWORD or --password\n')

    def test_stored_encrypted_entries_are_checked(self):
        self.write("a.txt", b"first stored entry\n" * 50)
        self.write("b.txt", b"second stored entry\n" * 50)
        archive = self.path("enc0.zip")
        subprocess.run(["zip", "-q", "-0", "-P", "pw", archive, "a.txt", "b.txt"], cwd=self.dir, check=True)
        self.assertResult(run("test", "-P", "pw", archive), 0)
        self.assertResult(run("extract", "-P", "pw", archive, "-d", self.path("out")), 0)
        with open(self.path("out", "b.txt"), "rb") as f:
            self.assertEqual(f.read(), b"second stored entry\n" * 50)
        with zipfile.ZipFile(archive) as z:
            info = z.getinfo("b.txt")
        with open(archive, "r+b") as f:
            f.seek(info.header_offset + 26)
            name_length, extra_length = struct.unpack("<HH", f.read(4))
            f.seek(info.header_offset + 30 + name_length + extra_length + 12 + 500)  # inside the data
            byte = f.read(1)
            f.seek(-1, os.SEEK_CUR)
            f.write(bytes([byte[0] ^ 0x20]))
        result = run("test", "-P", "pw", archive)
        self.assertResult(result, 1)
        self.assertTrue(result.stderr.startswith(b'ziputil: bad entry "b.txt": ZIP entry\'s CRC-32 does not match'),
                        result.stderr)
        cat = run("cat", "-P", "pw", archive, "b.txt")
        self.assertResult(cat, 1)
        self.assertLess(len(cat.stdout), len(b"second stored entry\n" * 50))

    def test_streamed_archive_with_data_descriptors_passes(self):
        class Unseekable:
            def __init__(self, f):
                self.f = f

            def write(self, data):
                return self.f.write(data)

            def flush(self):
                self.f.flush()

        archive = self.path("streamed.zip")
        with open(archive, "wb") as raw:
            with zipfile.ZipFile(Unseekable(raw), "w", zipfile.ZIP_DEFLATED) as z:
                for i in range(3):
                    with z.open("s%d.txt" % i, "w") as entry:
                        entry.write(b"streamed %d\n" % i * 1000)
        with zipfile.ZipFile(archive) as z:
            self.assertTrue(all(info.flag_bits & 8 for info in z.infolist()))
        self.assertResult(run("test", archive), 0)
        self.assertResult(run("extract", archive, "-d", self.path("out")), 0)
        with open(self.path("out", "s2.txt"), "rb") as f:
            self.assertEqual(f.read(), b"streamed 2\n" * 1000)


def stored_entries(archive):
    """Each entry as it is stored, by name: its central-directory metadata (the extra field without
    Zip64 records, which writers add as they need them) and its stored bytes (compressed, encrypted)."""
    def without_zip64(extra):
        kept, at = b"", 0
        while at + 4 <= len(extra):
            ident, size = struct.unpack("<HH", extra[at:at + 4])
            if ident != 1:
                kept += extra[at:at + 4 + size]
            at += 4 + size
        return kept
    found = {}
    with open(archive, "rb") as f:
        data = f.read()
    with zipfile.ZipFile(archive) as z:
        for info in z.infolist():
            at = info.header_offset
            name_length, extra_length = struct.unpack("<HH", data[at + 26:at + 30])
            start = at + 30 + name_length + extra_length
            found[info.orig_filename] = {
                "date_time": info.date_time, "compress_type": info.compress_type, "comment": info.comment,
                "extra": without_zip64(info.extra), "create_system": info.create_system,
                "external_attr": info.external_attr, "internal_attr": info.internal_attr,
                "flag_bits": info.flag_bits & ~0x8, "CRC": info.CRC, "compress_size": info.compress_size,
                "file_size": info.file_size, "stored": data[start:start + info.compress_size]}
    return found


class ReplaceTest(CliTestCase):
    """add replaces an entry of the same name instead of adding a second one."""

    def old_archive(self):
        """An archive made by Python: deflated, stored and commented entries, a folder, and one
        stored as "/sub\\a.txt", which the library's lookups take for "sub/a.txt"."""
        archive = self.path("old.zip")
        with zipfile.ZipFile(archive, "w") as z:
            z.writestr(zipfile.ZipInfo("keep/deflated.txt", (2019, 1, 2, 3, 4, 6)), b"kept text\n" * 300,
                       zipfile.ZIP_DEFLATED)
            z.writestr(zipfile.ZipInfo("a.txt", (2019, 1, 2, 3, 4, 8)), b"old a", zipfile.ZIP_DEFLATED)
            stored = zipfile.ZipInfo("keep/stored.bin", (2018, 5, 6, 7, 8, 10))
            stored.comment = b"a comment"
            stored.external_attr = 0o100600 << 16
            stored.create_system = 3
            z.writestr(stored, bytes(range(256)) * 8, zipfile.ZIP_STORED)
            z.writestr(zipfile.ZipInfo("/sub\\a.txt", (2019, 1, 2, 3, 4, 8)), b"old sub a", zipfile.ZIP_DEFLATED)
            z.writestr(zipfile.ZipInfo("sub/"), b"")
            z.comment = b"archive comment"
        return archive

    def test_entries_of_the_same_name_are_replaced_and_others_kept_as_stored(self):
        archive = self.old_archive()
        before = stored_entries(archive)
        self.write("a.txt", b"new a")
        self.write("sub/a.txt", b"new sub a")
        self.write("fresh.txt", b"fresh")
        result = run("add", "-v", archive, "a.txt", "sub", "fresh.txt", cwd=self.dir)
        self.assertResult(result, 0)
        self.assertEqual(result.stdout, b"replacing: a.txt\nreplacing: sub/\nreplacing: sub/a.txt\n"
                                        b"adding: fresh.txt\n")
        with zipfile.ZipFile(archive) as z:
            self.assertEqual(z.namelist(), ["keep/deflated.txt", "keep/stored.bin", "a.txt", "sub/", "sub/a.txt",
                                            "fresh.txt"])
            self.assertIsNone(z.testzip())
            self.assertEqual(z.read("a.txt"), b"new a")
            self.assertEqual(z.read("sub/a.txt"), b"new sub a")
            self.assertEqual(z.comment, b"archive comment")
        after = stored_entries(archive)
        for name in ("keep/deflated.txt", "keep/stored.bin"):
            self.assertEqual(after[name], before[name], name)
        ok, report = unzip_tests_every_entry(archive)
        self.assertTrue(ok, report)
        self.assertEqual(run("cat", archive, "sub/a.txt").stdout, b"new sub a")
        self.assertEqual(leftovers(self.dir, "old.zip"), [])

    def test_duplicates_in_the_archive_all_give_way(self):
        archive = self.path("dup.zip")
        with zipfile.ZipFile(archive, "w") as z:
            z.writestr("x.txt", b"first")
            z.writestr("y.txt", b"y")
            with self.assertWarns(UserWarning):
                z.writestr("x.txt", b"second")
        self.write("x.txt", b"third")
        self.assertResult(run("add", archive, "x.txt", cwd=self.dir), 0)
        with zipfile.ZipFile(archive) as z:
            self.assertEqual(z.namelist(), ["y.txt", "x.txt"])
            self.assertEqual(z.read("x.txt"), b"third")

    def test_a_name_given_twice_is_added_once(self):
        self.write("d/a.txt", b"a")
        archive = self.path("twice.zip")
        result = run("add", archive, "d/a.txt", "d", "./d/a.txt", cwd=self.dir)
        self.assertResult(result, 0)
        with zipfile.ZipFile(archive) as z:
            self.assertEqual(z.namelist(), ["d/a.txt", "d/"])
        self.assertResult(run("add", archive, "d", cwd=self.dir), 0)  # again: replaced, not doubled
        with zipfile.ZipFile(archive) as z:
            self.assertEqual(sorted(z.namelist()), ["d/", "d/a.txt"])

    def test_encrypted_entries_are_kept_without_the_password(self):
        self.write("secret.txt", b"secret words")
        self.write("plain.txt", b"plain v1")
        archive = self.path("enc.zip")
        self.assertResult(run("add", "-P", "pw", "--encryption", "zipcrypto", archive, "secret.txt", cwd=self.dir), 0)
        self.assertResult(run("add", archive, "plain.txt", cwd=self.dir), 0)
        self.write("plain.txt", b"plain v2")
        self.assertResult(run("add", archive, "plain.txt", cwd=self.dir), 0)  # no password needed
        with zipfile.ZipFile(archive) as z:
            self.assertEqual(z.namelist(), ["secret.txt", "plain.txt"])
            self.assertEqual(z.read("secret.txt", pwd=b"pw"), b"secret words")
            self.assertEqual(z.read("plain.txt"), b"plain v2")
        self.assertEqual(subprocess.run(["unzip", "-tq", "-P", "pw", archive], capture_output=True).returncode, 0)

    def test_a_failure_leaves_the_old_archive_with_its_entries(self):
        archive = self.old_archive()
        with open(archive, "rb") as f:
            old = f.read()
        self.write("a.txt", b"new a")
        result = run("add", archive, "a.txt", "/proc/self/mem", cwd=self.dir)
        self.assertResult(result, 1)
        self.assertIn(b"cannot read /proc/self/mem: Input/output error", result.stderr)
        with open(archive, "rb") as f:
            self.assertEqual(f.read(), old)
        self.assertEqual(leftovers(self.dir, "old.zip"), [])


class UpdateTest(CliTestCase):
    """add -u: only files newer than their entries, and new files."""

    def test_only_newer_files_and_new_files_are_added(self):
        stamp = time.mktime((2022, 3, 4, 5, 6, 10, 0, 0, -1))  # an even second: kept exactly
        for name in ("same.txt", "older.txt", "odd.txt", "newer.txt"):
            os.utime(self.write(name, b"v1 " + name.encode()), (stamp, stamp))
        archive = self.path("u.zip")
        self.assertResult(run("add", archive, "same.txt", "older.txt", "odd.txt", "newer.txt", cwd=self.dir), 0)
        before = stored_entries(archive)
        for name, delta in (("same.txt", 0), ("older.txt", -60), ("odd.txt", 1), ("newer.txt", 2)):
            os.utime(self.write(name, b"v2 " + name.encode()), (stamp + delta, stamp + delta))
        self.write("new.txt", b"new")
        result = run("add", "-u", "-v", archive, "same.txt", "older.txt", "odd.txt", "newer.txt", "new.txt",
                     cwd=self.dir)
        self.assertResult(result, 0)
        self.assertEqual(result.stdout, b"unchanged: same.txt\nunchanged: older.txt\nunchanged: odd.txt\n"
                                        b"replacing: newer.txt\nadding: new.txt\n")
        with zipfile.ZipFile(archive) as z:
            self.assertEqual(z.namelist(), ["same.txt", "older.txt", "odd.txt", "newer.txt", "new.txt"])
            self.assertEqual(z.read("odd.txt"), b"v1 odd.txt")  # one second newer: the same DOS time
            self.assertEqual(z.read("newer.txt"), b"v2 newer.txt")
            self.assertEqual(z.read("new.txt"), b"new")
        after = stored_entries(archive)
        for name in ("same.txt", "older.txt", "odd.txt"):
            self.assertEqual(after[name], before[name])
        ok, report = unzip_tests_every_entry(archive)
        self.assertTrue(ok, report)

    def test_nothing_newer_leaves_the_entries_and_says_nothing_without_v(self):
        self.write("d/a.txt", b"a")
        archive = self.path("same.zip")
        self.assertResult(run("add", archive, "d", cwd=self.dir), 0)
        before = stored_entries(archive)
        result = run("add", "--update", archive, "d", cwd=self.dir)
        self.assertResult(result, 0)
        self.assertEqual((result.stdout, result.stderr), (b"", b""))
        self.assertEqual(stored_entries(archive), before)

    def test_update_of_a_new_archive_adds_everything(self):
        self.write("a.txt", b"a")
        archive = self.path("n.zip")
        self.assertResult(run("add", "-u", archive, "a.txt", cwd=self.dir), 0)
        with zipfile.ZipFile(archive) as z:
            self.assertEqual(z.read("a.txt"), b"a")


class DeleteTest(CliTestCase):
    """delete removes entries and copies the rest as it is stored."""

    def archive(self):
        archive = self.path("del.zip")
        with zipfile.ZipFile(archive, "w", zipfile.ZIP_DEFLATED) as z:
            for name in ("a.txt", "b.txt", "docs/one.md", "docs/two.md", "docs/keep.txt"):
                z.writestr(zipfile.ZipInfo(name, (2020, 1, 2, 3, 4, 6)), (name + "\n").encode() * 50,
                           zipfile.ZIP_DEFLATED)
            z.writestr(zipfile.ZipInfo("docs/"), b"")
            z.comment = b"kept comment"
        with open(archive, "rb") as f:
            return archive, f.read()

    def test_names_and_patterns_are_deleted_the_rest_kept_as_stored(self):
        archive, _ = self.archive()
        before = stored_entries(archive)
        result = run("delete", archive, "a.txt", "docs/*.md")
        self.assertResult(result, 0)
        self.assertEqual(result.stdout.decode(), "3 entries deleted from %s\n" % archive)
        self.assertEqual(result.stderr, b"")
        with zipfile.ZipFile(archive) as z:
            self.assertEqual(z.namelist(), ["b.txt", "docs/keep.txt", "docs/"])
            self.assertIsNone(z.testzip())
            self.assertEqual(z.comment, b"kept comment")
        after = stored_entries(archive)
        for name in after:
            self.assertEqual(after[name], before[name], name)
        ok, report = unzip_tests_every_entry(archive)
        self.assertTrue(ok, report)
        self.assertEqual(subprocess.run(["7z", "t", archive], capture_output=True).returncode, 0)
        self.assertEqual(leftovers(self.dir, "del.zip"), [])

    def test_a_folder_entry_matches_with_its_slash(self):
        archive, _ = self.archive()
        result = run("delete", "-v", archive, "docs/", "b.txt")
        self.assertResult(result, 0)
        self.assertEqual(result.stdout.decode(), "deleting: b.txt\ndeleting: docs/\n"
                                                 "2 entries deleted from %s\n" % archive)
        with zipfile.ZipFile(archive) as z:
            self.assertEqual(z.namelist(), ["a.txt", "docs/one.md", "docs/two.md", "docs/keep.txt"])

    def test_an_operand_matching_nothing_is_named(self):
        archive, _ = self.archive()
        result = run("delete", "-q", archive, "a.txt", "nothing*")
        self.assertResult(result, 1)
        self.assertEqual(result.stdout, b"")
        self.assertEqual(result.stderr, b'ziputil: no entry matches "nothing*"\n')
        with zipfile.ZipFile(archive) as z:
            self.assertNotIn("a.txt", z.namelist())
            self.assertEqual(len(z.namelist()), 5)

    def test_nothing_matching_leaves_the_archive_untouched(self):
        archive, old = self.archive()
        mtime = os.stat(archive).st_mtime_ns
        result = run("delete", archive, "x.txt", "*.png")
        self.assertResult(result, 1)
        self.assertEqual(result.stdout, b"")
        self.assertEqual(result.stderr.decode(), 'ziputil: no entry matches "x.txt"\n'
                                                 'ziputil: no entry matches "*.png"\n'
                                                 'ziputil: nothing to delete: %s is left as it was\n' % archive)
        with open(archive, "rb") as f:
            self.assertEqual(f.read(), old)
        self.assertEqual(os.stat(archive).st_mtime_ns, mtime)
        self.assertEqual(leftovers(self.dir, "del.zip"), [])

    def test_deleting_every_entry_leaves_an_empty_archive(self):
        archive, _ = self.archive()
        self.assertResult(run("delete", "-q", archive, "*"), 0)
        with zipfile.ZipFile(archive) as z:
            self.assertEqual(z.namelist(), [])
        self.assertResult(run("test", archive), 0)

    def test_encrypted_entries_are_copied_without_the_password(self):
        self.write("s.txt", b"secret")
        self.write("t.txt", b"other")
        archive = self.path("enc.zip")
        self.assertResult(run("add", "-P", "pw", archive, "s.txt", "t.txt", cwd=self.dir), 0)  # AES-256
        with open(archive, "rb") as f:
            original = f.read()
        self.assertResult(run("delete", archive, "t.txt"), 0)
        with zipfile.ZipFile(archive) as z:
            self.assertEqual(z.namelist(), ["s.txt"])
            info = z.getinfo("s.txt")
        with open(archive, "rb") as f:
            copied = f.read()
        at = info.header_offset
        n, e = struct.unpack_from("<HH", copied, at + 26)
        self.assertIn(b"\x01\x99\x07\x00", copied[at + 30 + n:at + 30 + n + e])  # the AES field kept
        data = copied[at + 30 + n + e:at + 30 + n + e + info.compress_size]
        self.assertIn(data, original)  # the encrypted data byte for byte
        extracted = subprocess.run(["7z", "x", "-so", "-ppw", archive, "s.txt"], capture_output=True)
        self.assertEqual(extracted.stdout, b"secret", extracted.stderr)

    def test_errors(self):
        missing = run("delete", self.path("none.zip"), "a")
        self.assertResult(missing, 1)
        self.assertTrue(missing.stderr.startswith(b"ziputil: "), missing.stderr)
        self.assertIn(b"none.zip", missing.stderr)
        self.assertFalse(os.path.exists(self.path("none.zip")))
        text = self.write("notes.txt", b"not an archive\n" * 20)
        refused = run("delete", text, "a")
        self.assertResult(refused, 1)
        with open(text, "rb") as f:
            self.assertEqual(f.read(), b"not an archive\n" * 20)
        archive, old = self.archive()
        damaged = old[:-10]
        with open(archive, "wb") as f:
            f.write(damaged)
        result = run("delete", archive, "a.txt")
        self.assertResult(result, 1)
        self.assertEqual(result.stderr.count(b"\n"), 1, result.stderr)
        with open(archive, "rb") as f:
            self.assertEqual(f.read(), damaged)
        self.assertEqual(leftovers(self.dir, "del.zip"), [])
        stdin = run("delete", "-", "a.txt", stdin=old)
        self.assertResult(stdin, 2)
        self.assertEqual(stdin.stdout, b"")
        self.assertIn(b'delete cannot work on standard input or output ("-")', stdin.stderr)
        self.assertFalse(os.path.exists(self.path("-")))


class ParallelAddTest(CliTestCase):
    """add compresses several files at once; the archive is the same whatever the number of jobs."""

    def many_files(self):
        import random
        rng = random.Random(7)
        words = [("word%d" % i).encode() for i in range(500)]
        stamp = time.mktime((2023, 7, 8, 9, 10, 12, 0, 0, -1))
        for i in range(120):
            size = rng.randrange(0, 40000)
            data = b" ".join(rng.choice(words) for _ in range(size // 6))
            path = self.write("src/d%d/f%03d.txt" % (i % 7, i), data)
            os.utime(path, (stamp + i * 2, stamp + i * 2))
        self.write("src/random.bin", os.urandom(300000))
        self.write("src/large.txt", b"a line of a large text file\n" * (680 * 1024))  # over 16 MiB
        os.symlink("d0/f000.txt", self.path("src", "link"))
        os.makedirs(self.path("src", "empty"))
        os.chmod(self.path("src", "d1", "f001.txt"), 0o751)
        for folder, dirs, files in os.walk(self.path("src")):
            for name in dirs + files + ["."]:
                os.utime(os.path.join(folder, name), (stamp, stamp), follow_symlinks=False)

    def test_one_job_and_many_make_the_same_archive(self):
        self.many_files()
        for level in ("0", "6", "9"):
            made = {}
            for jobs in ("1", "4", None):
                archive = self.path("j%s-%s.zip" % (jobs, level))
                args = ["add", "--level", level] + (["-j", jobs] if jobs else []) + [archive, "src"]
                self.assertResult(run(*args, cwd=self.dir), 0)
                with open(archive, "rb") as f:
                    made[jobs] = f.read()
            self.assertEqual(made["1"], made["4"], level)
            self.assertEqual(made["1"], made[None], level)
        archive = self.path("j4-6.zip")
        ok, report = unzip_tests_every_entry(archive)
        self.assertTrue(ok, report)
        with zipfile.ZipFile(archive) as z:
            self.assertIsNone(z.testzip())
            with open(self.path("src", "large.txt"), "rb") as f:
                self.assertEqual(z.read("src/large.txt"), f.read())
            self.assertEqual(z.getinfo("src/d1/f001.txt").external_attr >> 16, 0o100751)
            self.assertEqual(z.read("src/link"), b"d0/f000.txt")
        self.assertEqual(subprocess.run(["7z", "t", archive], capture_output=True).returncode, 0)

    def test_verbose_lines_in_order(self):
        for name in ("a", "b", "c", "d", "e"):
            self.write("v/%s.txt" % name, name.encode() * 1000)
        archive = self.path("v.zip")
        result = run("add", "-v", "-j", "3", archive, "v", cwd=self.dir)
        self.assertResult(result, 0)
        self.assertEqual(result.stdout, b"adding: v/\n" + "".join("adding: v/%s.txt\n" % n for n in "abcde").encode())

    def test_unreadable_input_in_the_middle_is_named_and_skipped(self):
        for i in range(40):
            self.write("in/f%02d.txt" % i, ("file %d\n" % i).encode() * 2000)
        os.chmod(self.path("in", "f20.txt"), 0)
        os.mkfifo(self.path("in", "f30.pipe"))
        archive = self.path("s.zip")
        if os.getuid() == 0:  # root reads everything: run the program as an ordinary user
            os.chmod(self.dir, 0o777)
            os.chmod(self.path("in"), 0o777)
            result = run_as_nobody("add", "-j", "4", archive, "in", cwd=self.dir)
        else:
            result = run("add", "-j", "4", archive, "in", cwd=self.dir)
        self.assertResult(result, 1)
        self.assertEqual(result.stderr, b"ziputil: skipping in/f20.txt: cannot read it: Permission denied\n"
                                        b"ziputil: skipping in/f30.pipe: not a regular file\n")
        with zipfile.ZipFile(archive) as z:
            expected = ["in/"] + ["in/f%02d.txt" % i for i in range(40) if i != 20]
            self.assertEqual(sorted(z.namelist()), sorted(expected))
            self.assertIsNone(z.testzip())
            self.assertEqual(z.read("in/f39.txt"), b"file 39\n" * 2000)

    def test_failed_read_in_the_middle_changes_nothing(self):
        for i in range(20):
            self.write("in/f%02d.txt" % i, ("file %d\n" % i).encode() * 2000)
        archive = self.path("old.zip")
        make_zip(archive, [("old.txt", b"old")])
        with open(archive, "rb") as f:
            old = f.read()
        paths = ["in/f%02d.txt" % i for i in range(10)] + ["/proc/self/mem"] + \
                ["in/f%02d.txt" % i for i in range(10, 20)]
        result = run("add", "-j", "4", archive, *paths, cwd=self.dir)
        self.assertResult(result, 1)
        self.assertEqual(result.stderr, b"ziputil: cannot read /proc/self/mem: Input/output error\n")
        with open(archive, "rb") as f:
            self.assertEqual(f.read(), old)
        self.assertEqual(leftovers(self.dir, "old.zip"), [])
        fresh = self.path("fresh.zip")
        self.assertResult(run("add", "-j", "4", fresh, *paths, cwd=self.dir), 1)
        self.assertFalse(os.path.exists(fresh))

    def test_encrypted_entries_in_parallel_open_in_other_tools(self):
        for i in range(12):
            self.write("e/f%02d.txt" % i, ("entry %d\n" % i).encode() * 500)
        archive = self.path("e.zip")
        self.assertResult(run("add", "-j", "4", "-P", "pw", "--encryption", "zipcrypto", archive, "e", cwd=self.dir), 0)
        checked = subprocess.run(["unzip", "-t", "-P", "pw", archive], capture_output=True)
        self.assertEqual(checked.returncode, 0, checked.stdout)
        with zipfile.ZipFile(archive) as z:
            for i in range(12):
                self.assertTrue(z.getinfo("e/f%02d.txt" % i).flag_bits & 1)
                self.assertEqual(z.read("e/f%02d.txt" % i, pwd=b"pw"), ("entry %d\n" % i).encode() * 500)
        aes = self.path("aes.zip")
        self.assertResult(run("add", "-j", "4", "-P", "pw", aes, "e", cwd=self.dir), 0)
        tested = subprocess.run(["7z", "t", "-ppw", aes], capture_output=True)
        self.assertEqual(tested.returncode, 0, tested.stdout)
        self.assertIn(b"Files: 12", tested.stdout)


if __name__ == "__main__":
    unittest.main()
