"""Processes that crash, each in another way: what they leave is read back with the programs of Breakpad."""
import ctypes
import fcntl
import os
import pathlib
import plistlib
import re
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from kel_client import wait_until
from kel_daemon import Program, SystemTest, program
from kel_dumps import FATAL, Dump, store_symbols

LIBC = next(line.split()[-1] for line in open("/proc/self/maps") if line.rstrip().endswith("libc.so.6"))
_libc = ctypes.CDLL(None, use_errno=True)
SYS_TGKILL = 234
CLONE_NEWNS, MS_REC, MS_PRIVATE, MS_BIND, MS_RDONLY = 0x20000, 0x4000, 1 << 18, 4096, 1
F_GETPIPE_SZ = 1032
CRASH_LINE = "crash of "
SANITIZERS = os.environ.get("KEL_SANITIZERS")

# Leaves its words, each ended by a NUL, in a file of its own beside itself.
REPORTER = '''#!/bin/sh
printf '%s\\0' "$@" >"$(dirname "$0")/words-$$"
'''


def mount(source, target, kind, flags):
    encoded = [text and text.encode() for text in (source, target, kind)]
    if _libc.mount(*encoded, flags, None):
        raise OSError(ctypes.get_errno(), "mount " + target)


class CrashTest(SystemTest):
    @classmethod
    def setUpClass(cls):
        cls.symbols = tempfile.mkdtemp(prefix="kel-symbols-")
        cls.addClassCleanup(shutil.rmtree, cls.symbols)
        stored = pathlib.Path(program("symbols"))
        if stored.exists():
            shutil.copytree(stored, cls.symbols, dirs_exist_ok=True)
        else:
            store_symbols(cls.symbols, program("KelDirectory"))
        store_symbols(cls.symbols, program("crash_victim"), LIBC)

    def setUp(self):
        self.directory = self.daemon()
        self.bin = self.directory.folder / "install/Contents/MacOS"
        self.bin.mkdir(parents=True)
        self.settings({})
        self.reporter(REPORTER)
        self.runs = 0

    def settings(self, more):
        (self.directory.folder / "config/com.tessaly.yar.plist").write_bytes(plistlib.dumps(
            {"LogLevel": 4, "InstallDir": str(self.directory.folder / "install"), **more}))

    def reporter(self, text, mode=0o755):
        path = self.bin / "YarCrashReporter"
        path.write_text(text)
        path.chmod(mode)
        return path

    def victim(self, *words, prepare=None):
        """Starts crash_victim; it ends with the test."""
        self.runs += 1
        output = self.directory.folder / f"victim-{self.runs}.txt"
        run = Program([program("crash_victim"), *map(str, words)], self.directory.environment, output,
                      expect_crash=True, prepare=prepare)
        self.directory.companions.append(run)
        return run

    def crashed(self, run, log="crash_victim.log"):
        """The dump and the fatal line of a run that ends in order: status 0 and the line once in each log."""
        self.assertEqual(run.wait(), 0, run.output())
        lines = [list(FATAL.finditer((self.directory.logs / name).read_text())) for name in (log, "errors.log")]
        self.assertEqual([len(found) for found in lines], [1, 1], run.output())
        self.assertEqual(lines[0][0]["dump"], lines[1][0]["dump"])
        path = pathlib.Path(lines[0][0]["dump"])
        self.addCleanup(path.unlink, missing_ok=True)
        for log_file in self.directory.logs.iterdir():
            log_file.unlink()
        self.assertEqual(path.stat().st_size // 1024, int(lines[0][0]["size"]))
        return Dump(path, self.symbols), lines[0][0]

    def full_pipe(self):
        """The writing end of a pipe that takes nothing more."""
        ends = os.pipe()
        for end in ends:
            self.addCleanup(os.close, end)
        os.write(ends[1], bytes(fcntl.fcntl(ends[1], F_GETPIPE_SZ)))
        return ends[1]

    def reported(self):
        """The words of each start of the reporter."""
        return [path.read_bytes().decode().split("\0")[:-1] for path in self.bin.glob("words-*")]


class AProcessThatCrashes(CrashTest):
    def test_leaves_a_dump_of_the_thread_and_function_whatever_the_way(self):
        ways = {  # way: (signal, functions on the crashed stack from the innermost, what the log says before)
            "fault": ("SIGSEGV", ["FaultOfVictim", "commonMain", "main"], None),
            "fault-in-log-lock": ("SIGSEGV", ["FaultOfVictim", "CBBLog::Impl::finishLine"], None),
            "fault-in-log-thread": ("SIGSEGV", ["FaultOfVictim", "CBBLog::Impl::loggerThread"], "still written"),
            "divide": ("SIGFPE", ["Victim::init"], None),
            "exception": ("SIGSEGV", ["ThrowOfVictim", "commonMain"], "uncaught std::runtime_error c++ exception: boom"),
            "exception-in-thread": ("SIGSEGV", ["ThrowOfVictim", "RunWork"],
                                    "uncaught std::runtime_error c++ exception: boom"),
            "exception-of-its-own": ("SIGSEGV", ["Victim::init"],
                                     "uncaught (anonymous namespace)::FailureOfVictim c++ exception: of its own"),
            "exception-unknown": ("SIGSEGV", ["Victim::init"], "uncaught unknown c++ exception"),
            "terminate": ("SIGSEGV", ["Victim::init"], "uncaught unknown c++ exception"),
            "abort": ("SIGSEGV", ["abort", "AbortOfVictim", "Victim::init"], None),
            "overflow": ("SIGSEGV", ["OverflowOfVictim", "OverflowOfVictim"], None),
            "overflow-in-thread": ("SIGSEGV", ["OverflowOfVictim", "OverflowOfVictim"], None),
            "heap": ("SIGSEGV", ["abort", "malloc", "CorruptHeapOfVictim", "RunWork"], None),
            "two-modules": ("SIGSEGV", ["FaultOfVictim", "commonMain"],
                            "YarModuleBase crash_victim trying to create multiple instances"),
        }
        if SANITIZERS:
            del ways["heap"]  # found before it does harm
        for way, (number, functions, text) in ways.items():
            with self.subTest(way):
                for words in self.bin.glob("words-*"):
                    words.unlink()
                run = self.victim(way)
                run.wait()
                log = (self.directory.logs / "crash_victim.log").read_text()
                dump, line = self.crashed(run)
                self.assertEqual(line["program"], "crash_victim")
                self.assertEqual(dump.signal, number)
                frames = iter(dump.crashed)
                for function in functions:
                    self.assertTrue(any(function in frame for frame in frames), (function, dump.crashed))
                if text:
                    self.assertIn(text + "\n", log)
                    self.assertLess(log.index(text), log.index(CRASH_LINE))
                self.assertEqual("abort() was called" in run.output(), "abort" in functions)
                self.assertEqual(self.reported(), [[line["dump"], "crash_victim"]])

    def test_crashes_on_sigusr1_in_a_thread_of_its_own(self):
        def block():
            signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGUSR1})
        for way, ready in (("run", "ready"), ("hang-in-log-lock", "hanging")):
            with self.subTest(way):
                run = self.victim(way, prepare=block)
                run.wait_for(ready)
                run.send_signal(signal.SIGUSR1)
                dump, _ = self.crashed(run)
                self.assertTrue(dump.has("generateCrash"), dump.crashed)
                self.assertNotEqual(dump.thread_id, run.process.pid)
                if way == "run":
                    self.assertIn("[INFO ] - USR1 signal received, generating crash\n", run.output())
                else:  # the thread that hangs stands in the dump where it hangs
                    self.assertTrue(any("CBBLog::Impl::finishLine" in frame for frame in dump.threads[0]), dump.threads[0])

    def test_ends_in_order_when_other_threads_fault_while_they_are_dumped(self):
        for _ in range(20):  # it takes a signal at one moment of a few
            run = self.victim("many-threads")
            run.wait_for("waiting")
            for thread in sorted(map(int, os.listdir(f"/proc/{run.process.pid}/task")))[-24:]:
                _libc.syscall(SYS_TGKILL, run.process.pid, thread, signal.SIGSEGV)
                time.sleep(0.0001)
            self.crashed(run)

    def test_does_without_the_reporter(self):
        cases = {"missing": lambda: (self.bin / "YarCrashReporter").unlink(),
                 "failing": lambda: self.reporter("#!/bin/sh\nkill -9 $$\n")}
        full = self.full_pipe()
        for name, prepare in cases.items():
            with self.subTest(name):
                prepare()
                self.crashed(self.victim("fault", prepare=lambda: os.dup2(full, 2)))  # where the shell would say so

    def test_waits_for_its_reporter_and_gives_it_a_clean_start(self):
        self.reporter('#!/bin/sh\ngrep -E "^Sig(Blk|Ign)" /proc/self/status >"$0.signals"\n'
                      'echo $$ >"$0.pid"\nwhile [ ! -e "$0.go" ]; do sleep 0.05; done\n')
        run = self.victim("fault")
        path = str(self.bin / "YarCrashReporter")
        wait_until(lambda: os.path.exists(path + ".pid"), "the reporter to run")
        self.assertNotIn(CRASH_LINE, (self.directory.logs / "errors.log").read_text())
        run.send_signal(signal.SIGTERM)  # does not end it in disorder either
        self.assertTrue(run.running())
        open(path + ".go", "w").close()
        self.crashed(run)
        status = pathlib.Path(path + ".signals").read_text()
        for mask in re.findall(r"[0-9a-f]{16}", status):
            self.assertEqual(int(mask, 16) & 0x7fffffff, 0, status)  # above are the C library's own

    def test_passes_the_reporter_the_stated_words(self):
        path = self.bin / "YarCrashReporter"
        cases = [
            (["app-data", "A Program", path, 'the "data" folder'],
             ["A Program", "-appData", "the  data  folder"]),
            (["app-data", "", path, "/data/of all"], ["Unknown", "-appData", "/data/of all"]),
            (["app-data", "Plain", path, ""], ["Plain"]),
            (["two-arguments", "A Program", path, "first word", "second word"],
             ["A Program", "first word", "second word"]),
            (["two-arguments", "A Program", path, "first", ""], ["A Program", "first", ""]),
            (["two-arguments", "A Program", path, "", "second"], ["A Program"]),
        ]
        for words, expected in cases:
            with self.subTest(words):
                _, line = self.crashed(self.victim(*words), "Other.log")
                self.assertEqual(line["program"], expected[0])
                self.assertEqual(self.reported(), [[line["dump"], *expected]])
                next(self.bin.glob("words-*")).unlink()

    def test_takes_the_reporter_beside_it_when_it_is_given_no_path(self):
        folder = self.directory.folder / "beside"
        folder.mkdir()
        shutil.copy(self.bin / "YarCrashReporter", folder)
        _, line = self.crashed(self.victim("two-arguments", "P", "", "a", "b", prepare=lambda: os.chdir(folder)),
                               "Other.log")
        words, = folder.glob("words-*")
        self.assertEqual(words.read_bytes().decode().split("\0")[:-1], [line["dump"], "P", "a", "b"])

    def test_leaves_out_the_log_or_the_reporter_where_that_is_switched_off(self):
        path = self.bin / "YarCrashReporter"
        self.crashed(self.victim("unreported", "P", path, "x"), "Other.log")
        self.assertEqual(self.reported(), [])
        self.assertEqual(self.victim("unlogged", "P", path, "x").wait(), 0)
        self.assertEqual(list(self.directory.logs.iterdir()), [])
        (dump, _), = self.reported()
        os.unlink(dump)

    @unittest.skipIf(SANITIZERS, "it is the sanitizer's")
    def test_is_the_system_s_again_when_the_handler_is_gone(self):
        run = self.victim("destroyed", "Gone", "", "x")
        self.assertEqual(run.wait(), -signal.SIGSEGV)


def fits_private_mounts():
    return subprocess.run(["unshare", "--mount", "true"], stderr=subprocess.DEVNULL).returncode == 0


class AProcessOnASickSystem(CrashTest):
    def crash_without_dump(self, run):
        self.assertEqual(run.wait(), 0, run.output())
        for name in ("crash_victim.log", "errors.log"):
            line, = FATAL.finditer((self.directory.logs / name).read_text())
            self.assertEqual(line["size"], "0")
        self.assertEqual(self.reported(), [[line["dump"], "crash_victim"]])

    def with_read_only_tmp(self):
        """What gives a child a /tmp without room for files; what the test needs in the old one is in it."""
        folders = [str(pathlib.Path(program("x")).resolve().parent), str(self.directory.folder)]

        def prepare():
            new = str(self.directory.folder / "tmp")
            os.mkdir(new)
            if _libc.unshare(CLONE_NEWNS):
                raise OSError(ctypes.get_errno(), "unshare")
            mount("none", "/", None, MS_REC | MS_PRIVATE)
            mount("tmpfs", new, "tmpfs", 0)
            for folder in folders:
                if folder.startswith("/tmp/"):
                    os.makedirs(new + folder[4:])
                    mount(folder, new + folder[4:], None, MS_BIND)
            mount("none", new, None, MS_RDONLY | 32)  # MS_REMOUNT
            mount(new, "/tmp", None, MS_BIND | MS_REC)
        return prepare

    @unittest.skipUnless(fits_private_mounts(), "may not mount")
    def test_logs_and_reports_without_a_folder_for_the_dump(self):
        self.crash_without_dump(self.victim("fault", prepare=self.with_read_only_tmp()))

    def test_logs_and_reports_when_files_may_not_grow(self):
        def prepare():
            resource.setrlimit(resource.RLIMIT_FSIZE, (16384, 16384))
        self.crash_without_dump(self.victim("fault", prepare=prepare))
        # The part that was written is found by the only name there is for it.
        text = (self.directory.logs / "errors.log").read_text()
        self.addCleanup(pathlib.Path(FATAL.search(text)["dump"]).unlink, missing_ok=True)

    def test_ends_in_order_without_logs(self):
        shutil.rmtree(self.directory.root)
        self.directory.root.write_text("in the way")
        run = self.victim("fault")
        self.assertEqual(run.wait(), 0)
        (path, name), = self.reported()
        self.assertEqual(name, "crash_victim")
        self.assertTrue(Dump(path, self.symbols).has("FaultOfVictim"))
        os.unlink(path)


class ADirectoryThatCrashes(CrashTest):
    def start(self):
        """Returns when the start is over and the main thread waits for signals, which is system call 128."""
        self.directory.start(expect_crash=True)
        run = self.directory.current
        state = pathlib.Path(f"/proc/{run.process.pid}/syscall")
        wait_until(lambda: state.read_text().split()[0] == "128", "the main thread to wait")
        return run

    def test_leaves_a_dump_whichever_of_its_threads_faults(self):
        seen = set()
        position = 0
        while True:
            run = self.start()
            threads = sorted(map(int, os.listdir(f"/proc/{run.process.pid}/task")))
            if position >= len(threads):
                run.kill()
                break
            self.assertEqual(_libc.syscall(SYS_TGKILL, run.process.pid, threads[position], signal.SIGSEGV), 0)
            dump, line = self.crashed(run, "KelDirectory.log")
            self.assertEqual((line["program"], dump.signal), ("KelDirectory", "SIGSEGV"))
            self.assertEqual(dump.thread_id, threads[position])
            seen.update(dump.crashed)
            position += 1
        for function in ("YarModuleBase::run", "CBBLog::Impl::loggerThread", "WorkerMain", "HousekeeperMain"):
            self.assertTrue(any(function in frame for frame in seen), (function, seen))

    def test_is_whole_again_after_a_crash_and_leaves_its_port_free(self):
        self.reporter('#!/bin/sh\nls -l /proc/$$/fd >"$0.open"\n')
        endpoint = self.satellite()
        run = self.start()
        with self.directory.client() as client:
            sat_id = client.register("Recorder", endpoint.port, [("Schedule", "Records")])
        run.send_signal(signal.SIGUSR1)
        self.crashed(run, "KelDirectory.log")
        self.assertNotIn("socket:", (self.bin / "YarCrashReporter.open").read_text())
        self.directory.start()
        with self.directory.client() as client:
            self.assertEqual(client.id_of("Recorder"), sat_id)


class TheReporter(CrashTest):
    def setUp(self):
        super().setUp()
        (self.bin / "YarCrashReporter").unlink()
        (self.bin / "YarCrashReporter").symlink_to(program("YarCrashReporter"))
        self.reports = self.directory.root / "Library/Tessaly/CrashReports"

    def test_keeps_the_dump_with_a_report_that_tells_the_stack_where_it_can(self):
        (self.directory.root / "Library").mkdir()
        own = self.directory.folder / "own"
        own.mkdir()
        for tool in (program("YarCrashReporter"), os.path.join(os.environ["KEL_BREAKPAD_TOOLS"], "minidump_stackwalk")):
            shutil.copy(tool, own)
        (own / "symbols").symlink_to(self.symbols)
        (self.bin / "YarCrashReporter").unlink()
        (self.bin / "YarCrashReporter").symlink_to(own / "YarCrashReporter")
        dump = pathlib.Path(self.crashed(self.victim("fault"))[1]["dump"])
        kept = {path.name for path in self.reports.iterdir()}
        self.assertEqual(kept, {dump.with_suffix(suffix).name for suffix in (".dmp", ".txt")})
        self.assertTrue(dump.exists())
        report = (self.reports / dump.with_suffix(".txt").name).read_text()
        for line in (r"program:  crash_victim", r"version:  \d+\.\d+\.\d+, build id [0-9a-f]{40}",
                     r"time:     \d{4}/\d\d/\d\d \d\d:\d\d:\d\d [+-]\d{4}", r"signal:   11 \(SIGSEGV\) at address 0x0",
                     r"thread:   \d+", r" 0  crash_victim!.*FaultOfVictim.*"):
            self.assertRegex(report, f"(?m)^{line}$")
        self.assertNotIn("rip =", report)

    def report(self, dump, data, status=0, **options):
        options = {"stdout": subprocess.DEVNULL, **options}
        words = [program("YarCrashReporter"), dump, "P", "a", "b", "-appData", data]
        done = subprocess.run(words, timeout=60, **options)
        self.assertEqual(done.returncode, status)
        return done

    def test_reports_a_dump_that_is_not_there_or_makes_no_sense(self):
        data = self.directory.folder / "some data"
        for name, contents in (("none", None), ("empty", b""), ("cut", b"MDMP\x93\xa7\0\0\xff\xff\xff\xff\xff\xff\xff\x7f"),
                               ("noise", b"\xff" * 5000)):
            with self.subTest(name):
                dump = self.directory.folder / (name + ".dmp")
                if contents is not None:
                    dump.write_bytes(contents)
                self.report(dump, data, 0 if contents is not None else 1)
                report = (data / "CrashReports" / (name + ".txt")).read_text()
                self.assertIn("program:  P\n", report)
                self.assertIn("argument: a\nargument: b\n", report)
        self.assertEqual(subprocess.run([program("YarCrashReporter")], stderr=subprocess.DEVNULL).returncode, 2)

    def test_is_neither_held_up_nor_ended_by_its_output(self):
        gone, unread = os.pipe()
        self.addCleanup(os.close, unread)
        os.close(gone)
        for output in (self.full_pipe(), unread):
            data = self.directory.folder / f"data-{output}"
            self.report("/no/such.dmp", data, 1, stdout=output)
            self.assertIn("program:  P\n", (data / "CrashReports/such.txt").read_text())

    def test_keeps_the_dump_just_taken_and_a_kept_one_that_it_is_run_on(self):
        reports = self.directory.folder / "data/CrashReports"
        reports.mkdir(parents=True)
        names = [f"c89a0bfd-2847-49c5-c89b2d90-{number:08x}" for number in range(12)]
        taken = [self.directory.folder / (name + ".dmp") for name in names]
        for number, name in enumerate(names[:11] + ["notes"]):
            for path in (reports / (name + ".txt"), reports / (name + ".dmp"), taken[number]):
                path.touch()
                os.utime(path, (4e9 + number,) * 2)  # the clock has been set back since
        new = taken[11]
        new.write_text("dump")
        for dump in (new, reports / new.name):
            self.report(dump, reports.parent)
            self.assertEqual({path.name for path in reports.iterdir()},
                             {name + suffix for name in names[2:] + ["notes"] for suffix in (".txt", ".dmp")})
            self.assertEqual((reports / new.name).read_text(), "dump")
            self.assertEqual([dump.exists() for dump in taken], [False] * 2 + [True] * 10)
            (reports / new.name).with_suffix(".txt").unlink()

    def test_touches_nothing_that_others_put_in_its_way(self):
        precious, reports = self.directory.folder / "precious", self.directory.folder / "data/CrashReports"
        for folder in (precious, reports):
            folder.mkdir(parents=True)
        (precious / "file").touch()
        dump = self.directory.folder / "x.dmp"
        dump.write_bytes(b"dump" * 10000)
        files = reports / "x.dmp", reports / "x.txt"
        for put in (lambda path: path.symlink_to(precious / "file"), os.mkfifo, lambda path: path.write_text("old")):
            for path in files:
                path.unlink(missing_ok=True)
                put(path)
            self.report(dump, reports.parent)
            self.assertEqual(files[0].read_bytes(), dump.read_bytes())
            self.assertEqual([path.lstat().st_mode for path in files], [0o100600] * 2)
        self.report(dump, reports.parent, 1, preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (16384,) * 2))
        self.assertEqual(list(reports.iterdir()), [files[1]], "no part of a dump")
        dump.unlink()
        os.mkfifo(dump)
        self.report(dump, reports.parent, 1)
        shutil.rmtree(reports)
        reports.symlink_to(precious)
        self.report(dump, reports.parent, 1)
        if os.geteuid() == 0:
            reports.unlink()
            os.chown(precious.rename(reports), 12345, -1)
            said = self.report(dump, reports.parent, 1, stdout=subprocess.PIPE).stdout.decode()
            self.assertEqual(said, f"YarCrashReporter: cannot use {reports}: it belongs to user 12345\n")
        self.assertEqual([(path.name, path.stat().st_size) for path in reports.iterdir()], [("file", 0)])


if __name__ == "__main__":
    unittest.main()
