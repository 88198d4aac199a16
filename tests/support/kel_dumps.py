"""Reads crash dumps with the programs of Breakpad (in the folder KEL_BREAKPAD_TOOLS), and the lines that name them."""
import os
import pathlib
import re
import subprocess

FATAL = re.compile(
    r"^\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3} \[FATAL\] - (?P<module>\w+) - crash of (?P<program>.+)\. "
    r"minidump generated as (?P<dump>/tmp/[0-9a-f-]+\.dmp) \((?P<size>\d+)kB\)$", re.MULTILINE)


def run_tool(name, *arguments):
    """What it prints; its status says nothing, since it minds every stream that a dump may lack."""
    path = os.path.join(os.environ["KEL_BREAKPAD_TOOLS"], name)
    return subprocess.run([path, *map(str, arguments)], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                          errors="replace", check=False).stdout


def store_symbols(folder, *files):
    """Puts the symbols of programs and libraries where minidump_stackwalk looks for them below `folder`."""
    script = pathlib.Path(__file__).resolve().parents[2] / "scripts/symbols"
    subprocess.run([script, folder, *files], check=True)


class Dump:
    """A dump read back: `signal` as "SIGSEGV", `crashed` as the functions on the crashed thread's stack, innermost first,
    `threads` likewise of all threads, `thread_id` of the crashed one."""

    def __init__(self, path, symbols):
        self.threads = {}
        crash = None
        for line in run_tool("minidump_stackwalk", "-m", path, symbols).splitlines():
            fields = line.split("|")
            if fields[0] == "Crash":
                crash = fields
            elif fields[0].isdigit():
                self.threads.setdefault(int(fields[0]), []).append(fields[3])
        assert crash, f"{path} does not say what has crashed"
        self.signal = crash[1].split(" ")[0]
        self.address = int(crash[2], 16)
        self.crashed = self.threads[int(crash[3])]
        exception = run_tool("minidump_dump", path).split("MDException\n", 1)[1]
        self.thread_id = int(re.search(r"thread_id\s+= (?:0x)?([0-9a-f]+)", exception).group(1), 16)

    def has(self, function):
        return any(function in frame for frame in self.crashed)
