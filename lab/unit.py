#!/usr/bin/env python3
"""Runs what a systemd unit starts, under the limits that the unit sets, without systemd, and again whenever it ends.

usage, inside scripts/sandbox: lab/unit.py UNIT [DROP-IN...]

Capabilities, system calls and address families, limits, mounts and the user are set as systemd sets them, in the one
process that then becomes the program, so that a unit or a drop-in can be tried where no systemd runs. A setting that is not
known here is an error rather than ignored. Needs libseccomp, libcap and systemd-analyze, which tells the groups of system
calls; a `User` needs root.
"""

import ctypes
import errno
import functools
import mmap
import os
import pathlib
import pwd
import re
import resource
import shlex
import shutil
import signal
import socket
import stat
import subprocess
import sys
import time

# Of no effect here: what tells systemd how to watch or order the unit, and what libseccomp does anyway.
IGNORED = {"After", "Description", "Documentation", "WantedBy", "StartLimitIntervalSec", "Type", "NotifyAccess", "WatchdogSec",
           "SystemCallArchitectures"}
DENIED_CALLS = {"ProtectClock": ["@clock"], "ProtectKernelModules": ["@module"], "ProtectKernelLogs": ["syslog"],
                "ProtectHostname": ["sethostname", "setdomainname"], "PrivateDevices": ["@raw-io"],
                "RestrictNamespaces": ["setns"]}
MOUNTS = {"ProtectControlGroups", "ProtectKernelTunables", "ProtectProc", "PrivateMounts", "PrivateTmp", "ProtectHome",
          "ProtectSystem", "ReadWritePaths", "BindPaths"}
OTHER = {"Environment", "EnvironmentFile", "ExecStartPre", "ExecStart", "Restart", "RestartSec", "UMask", "User",
         "CapabilityBoundingSet", "AmbientCapabilities", "NoNewPrivileges", "RestrictAddressFamilies", "RestrictRealtime",
         "RestrictSUIDSGID", "LockPersonality", "MemoryDenyWriteExecute", "SystemCallFilter", "SystemCallErrorNumber"}

TEMPORARY = ("/tmp", "/var/tmp")   # what PrivateTmp is about

CLONE_NEWNS, CLONE_NEWUTS = 0x20000, 0x4000000
NAMESPACES = (0x20000, 0x2000000, 0x4000000, 0x8000000, 0x10000000, 0x20000000, 0x40000000)
MS_RDONLY, MS_NOSUID, MS_NODEV, MS_NOEXEC, MS_BIND, MS_REC, MS_PRIVATE = 1, 2, 4, 8, 4096, 16384, 1 << 18
PR_SET_PDEATHSIG, PR_SET_KEEPCAPS, PR_SET_NO_NEW_PRIVS = 1, 8, 38
SYS_MOUNT_SETATTR, AT_FDCWD, AT_RECURSIVE, MOUNT_ATTR_RDONLY = 442, -100, 0x8000, 1
ALLOW, ERRNO, EQUAL, NOT_EQUAL, MASKED = 0x7fff0000, 0x50000, 4, 1, 7
REALTIME = (os.SCHED_FIFO, os.SCHED_RR, 6)   # the last is SCHED_DEADLINE
SHM_EXEC = 0o100000

libc = ctypes.CDLL(None, use_errno=True)


def check(result, what):
    if result < 0:
        raise OSError(ctypes.get_errno() or -result, f"{what}: {os.strerror(ctypes.get_errno() or -result)}")


class Unit:
    """The settings of a unit file and its drop-ins: each a list of texts, emptied by an empty one."""

    def __init__(self, *paths):
        self._settings = {}
        for path in paths:
            text = pathlib.Path(path).read_text(encoding="utf-8").replace("\\\n", "")
            for name, value in re.findall(r"^(\w+)=(.*)$", text, re.M):
                if name not in IGNORED | DENIED_CALLS.keys() | MOUNTS | OTHER and not name.startswith("Limit"):
                    raise ValueError(f"{path}: {name} is not known here")
                self._settings[name] = [*self._settings.get(name, []), value] if value else []

    def all(self, name):
        return self._settings.get(name, [])

    def sets(self, name):
        return name in self._settings

    def words(self, name):
        return " ".join(self.all(name)).split()

    def last(self, name, default=""):
        return (self.all(name) or [default])[-1]

    def has(self, name):
        return self.last(name, "no") not in ("no", "false", "0", "off")

    def starting(self, *prefixes):
        return {name: values[-1] for name, values in self._settings.items() if name.startswith(prefixes) and values}

    def environment(self):
        found = dict(word.split("=", 1) for value in self.all("Environment") for word in shlex.split(value))
        for path in self.all("EnvironmentFile"):
            if os.path.exists(path.lstrip("-")):
                for name, value in re.findall(r"^(\w+)=(.*)$", pathlib.Path(path.lstrip("-")).read_text("utf-8"), re.M):
                    found[name] = " ".join(shlex.split(value))
        return found


def expand(line, environment):
    """The words of a command: ${NAME} stays within its word, $NAME alone may become several or none, $$ is a $."""
    for word in shlex.split(line):
        if re.fullmatch(r"\$\w+", word):
            yield from environment.get(word[1:], "").split()
        else:
            yield re.sub(r"\$(?:\$|\{(\w+)\})", lambda found: environment.get(found[1], "") if found[1] else "$", word)


# --- system calls

class Comparison(ctypes.Structure):
    _fields_ = [("arg", ctypes.c_uint), ("op", ctypes.c_int), ("a", ctypes.c_uint64), ("b", ctypes.c_uint64)]


@functools.cache
def seccomp():
    library = ctypes.CDLL("libseccomp.so.2")
    library.seccomp_init.restype = ctypes.c_void_p
    for name in ("load", "release"):
        getattr(library, f"seccomp_{name}").argtypes = [ctypes.c_void_p]
    library.seccomp_rule_add_array.argtypes = [ctypes.c_void_p, ctypes.c_uint32, ctypes.c_int, ctypes.c_uint,
                                               ctypes.POINTER(Comparison)]
    return library


@functools.cache
def calls_of(name):
    """The system calls of a group ("@mount"), those of the groups in it included."""
    if not name.startswith("@"):
        return frozenset({name})
    shown = subprocess.run(["systemd-analyze", "syscall-filter", name], check=True, capture_output=True, text=True).stdout
    names = [line.strip() for line in shown.splitlines()[1:] if line.strip() and not line.strip().startswith("#")]
    return frozenset().union(*map(calls_of, names))


class Filter:
    """One filter of system calls; what a rule names fails with an error, or, where all else fails, is let pass."""

    def __init__(self, fails_by_default=None):
        self._context = seccomp().seccomp_init(ALLOW if fails_by_default is None else ERRNO | fails_by_default)
        self._action = ALLOW if fails_by_default is not None else ERRNO

    def add(self, call, *comparisons, error=errno.EPERM):
        """`comparisons` are (argument, operator, number, number), and all have to hold. A call that this machine does not
        have is left out."""
        number = seccomp().seccomp_syscall_resolve_name(call.encode())
        if number >= 0:
            rules = (Comparison * len(comparisons))(*(Comparison(*comparison) for comparison in comparisons))
            action = self._action if self._action == ALLOW else ERRNO | error
            check(seccomp().seccomp_rule_add_array(self._context, action, number, len(comparisons), rules), call)

    def load(self):
        check(seccomp().seccomp_load(self._context), "seccomp")
        seccomp().seccomp_release(self._context)


def deny_calls(unit):
    denied = Filter()
    for name, groups in DENIED_CALLS.items():
        for call in frozenset().union(*map(calls_of, groups)) if unit.has(name) else ():
            denied.add(call)
    if unit.has("RestrictNamespaces"):
        denied.add("clone3", error=errno.ENOSYS)
        for flag in NAMESPACES:
            for call in ("clone", "unshare"):
                denied.add(call, (0, MASKED, flag, flag))
    if unit.has("RestrictRealtime"):
        for policy in REALTIME:
            denied.add("sched_setscheduler", (1, EQUAL, policy))
    if unit.has("RestrictSUIDSGID"):
        for call, argument in (("chmod", 1), ("fchmod", 1), ("fchmodat", 2), ("mkdir", 1), ("mkdirat", 2), ("mknod", 1),
                               ("mknodat", 2), ("creat", 1)):
            for bit in (stat.S_ISUID, stat.S_ISGID):
                denied.add(call, (argument, MASKED, bit, bit))
        for call, argument in (("open", 1), ("openat", 2)):
            for bit in (stat.S_ISUID, stat.S_ISGID):
                denied.add(call, (argument, MASKED, os.O_CREAT, os.O_CREAT), (argument + 1, MASKED, bit, bit))
    if unit.has("LockPersonality"):
        denied.add("personality", (0, NOT_EQUAL, libc.personality(0xffffffff)))
    if unit.has("MemoryDenyWriteExecute"):
        denied.add("mmap", (2, MASKED, mmap.PROT_EXEC | mmap.PROT_WRITE, mmap.PROT_EXEC | mmap.PROT_WRITE))
        for call in ("mprotect", "pkey_mprotect"):
            denied.add(call, (2, MASKED, mmap.PROT_EXEC, mmap.PROT_EXEC))
        denied.add("shmat", (2, MASKED, SHM_EXEC, SHM_EXEC))
    denied.load()


def restrict_families(names):
    if names:
        allowed = {int(getattr(socket, name)) for name in names}
        families = Filter()
        for family in set(range(64)) - allowed:
            families.add("socket", (0, EQUAL, family), error=errno.EAFNOSUPPORT)
        families.load()


def allow_calls(unit):
    allowed = set()
    for value in unit.all("SystemCallFilter"):
        named = frozenset().union(*map(calls_of, value.lstrip("~").split()))
        allowed = allowed - named if value.startswith("~") else allowed | named | calls_of("@default")
    if allowed:
        only = Filter(getattr(errno, unit.last("SystemCallErrorNumber")))
        for call in allowed:
            only.add(call)
        only.load()


# --- mounts

def mount(source, target, kind=None, flags=0, data=None):
    words = [word if word is None else os.fsencode(word) for word in (source, target, kind)]
    check(libc.mount(*words, ctypes.c_ulong(flags), data and data.encode()), f"mount {target}")


def set_readonly(path, readonly=True):
    """With all that is mounted below."""
    change = (ctypes.c_uint64 * 4)(MOUNT_ATTR_RDONLY if readonly else 0, 0 if readonly else MOUNT_ATTR_RDONLY, 0, 0)
    check(libc.syscall(SYS_MOUNT_SETATTR, AT_FDCWD, os.fsencode(path), AT_RECURSIVE, change, ctypes.sizeof(change)), path)


def hold(path):
    """The file as it is now, whatever is mounted over it later: a path that leads there."""
    return f"/proc/self/fd/{os.open(path, os.O_PATH)}"


def existing(paths):
    """Those paths, without the "-" of one that may be missing; a missing one with none is an error."""
    for path in paths:
        if os.path.exists(path.lstrip("-")) or not path.startswith("-"):
            yield path.lstrip("-")


def set_mounts(unit):
    check(libc.unshare(CLONE_NEWNS | (CLONE_NEWUTS if unit.has("ProtectHostname") else 0)), "unshare")
    mount(None, "/", flags=MS_REC | MS_PRIVATE)
    kept = list(existing(unit.words("ReadWritePaths")))
    binds = [(hold(path), path) for path in existing(unit.words("BindPaths"))]
    if unit.last("ProtectProc") == "invisible":
        # That the group 0 sees all is the default, but in a user namespace.
        mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, "hidepid=invisible,gid=0")
    elif unit.last("ProtectProc"):
        raise ValueError("ProtectProc: only invisible is known here")
    if unit.has("PrivateDevices"):
        devices = [(hold(f"/dev/{name}"), name) for name in ("null", "zero", "full", "random", "urandom", "tty")]
        mount("tmpfs", "/dev", "tmpfs", MS_NOSUID | MS_NOEXEC, "mode=755")
        for source, name in devices:
            pathlib.Path("/dev", name).touch()
            mount(source, f"/dev/{name}", flags=MS_BIND)
    private = TEMPORARY if unit.has("PrivateTmp") else ()
    for path in private:
        mount("tmpfs", path, "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777")
    for path in ("/home", "/root", "/run/user") if unit.has("ProtectHome") else ():
        if os.path.exists(path):
            mount("tmpfs", path, "tmpfs", MS_RDONLY, "mode=000")
    for source, path in binds:
        os.makedirs(path, exist_ok=True)
        mount(source, path, flags=MS_BIND | MS_REC)
    for path in kept:
        mount(path, path, flags=MS_BIND | MS_REC)
    if unit.last("ProtectSystem") == "strict":
        set_readonly("/")
        for path in ("/proc", *private, *(path for _, path in binds), *kept):
            set_readonly(path, False)
    elif unit.has("ProtectSystem"):
        raise ValueError("ProtectSystem: only strict is known here")
    for path in ("/proc/sys", "/proc/sysrq-trigger", "/proc/irq", "/sys") if unit.has("ProtectKernelTunables") else ():
        if os.path.exists(path):
            mount(path, path, flags=MS_BIND | MS_REC)
            set_readonly(path)


# --- the process

def set_rights(unit):
    """Capabilities and the user. Those of root are what is left in the bounding set, once the program is executed."""
    caps = ctypes.CDLL("libcap.so.2", use_errno=True)
    caps.cap_from_text.restype = ctypes.c_void_p
    caps.cap_set_proc.argtypes = [ctypes.c_void_p]
    numbers = {}
    for name in {*unit.words("CapabilityBoundingSet"), *unit.words("AmbientCapabilities")}:
        number = ctypes.c_int()
        check(caps.cap_from_name(name.lower().encode(), ctypes.byref(number)), name)
        numbers[name] = number.value
    bounding = {numbers[name] for name in unit.words("CapabilityBoundingSet")}
    for number in set(range(caps.cap_max_bits())) - bounding if unit.sets("CapabilityBoundingSet") else ():
        check(caps.cap_drop_bound(number), "bounding set")
    if unit.last("User") not in ("", "root"):
        user = pwd.getpwnam(unit.last("User"))
        check(libc.prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0), "keep capabilities")
        os.setgroups([])
        os.setresgid(user.pw_gid, user.pw_gid, user.pw_gid)
        os.setresuid(user.pw_uid, user.pw_uid, user.pw_uid)
    ambient = unit.words("AmbientCapabilities")
    if ambient:
        check(caps.cap_set_proc(caps.cap_from_text((",".join(ambient).lower() + "=eip").encode())), "capabilities")
        for name in ambient:
            check(caps.cap_set_ambient(numbers[name], 1), name)


def start(unit, line):
    """Starts a command line of the unit; its process id."""
    words = list(expand(line.lstrip("-+"), unit.environment()))
    is_limited = "+" not in line[:2]
    child = os.fork()
    if child != 0:
        return child
    try:
        program = os.open(shutil.which(words[0]), os.O_PATH | os.O_CLOEXEC)   # which the mounts may hide
        os.umask(int(unit.last("UMask", "022"), 8))
        if is_limited:
            for name, value in unit.starting("Limit").items():
                limit = int(value.rstrip("KMG")) << {"K": 10, "M": 20, "G": 30}.get(value[-1], 0)
                resource.setrlimit(getattr(resource, f"RLIMIT_{name[5:]}"), (limit, limit))
            os.chdir("/")
            set_mounts(unit)
            set_rights(unit)
            if unit.has("NoNewPrivileges"):
                check(libc.prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), "no new privileges")
            deny_calls(unit)
            restrict_families(unit.words("RestrictAddressFamilies"))
        check(libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0), "end with the parent")
        if is_limited:
            allow_calls(unit)
        os.execve(program, words, {**os.environ, **unit.environment()})
    except BaseException as cause:   # nothing of the parent may go on in here
        os.write(2, f"unit: {line}: {cause!r}\n".encode())
    finally:
        os._exit(203)


def seconds(text):
    return float(text[:-2]) / 1000 if text.endswith("ms") else float(text.rstrip("s"))


def main():
    if sys.argv[1:2] in (["-h"], ["--help"]):
        print(__doc__.strip())
        return
    if "SANDBOX_HALT_MARK" not in os.environ:
        sys.exit("unit: the program may change the machine; start it with scripts/sandbox")
    if len(sys.argv) < 2:
        sys.exit(__doc__.strip())
    try:
        unit = Unit(*sys.argv[1:])
    except (OSError, ValueError) as cause:
        sys.exit(f"unit: {cause}")
    if unit.last("Restart") != "always" or not unit.all("ExecStart"):
        sys.exit("unit: only one ExecStart with Restart=always is known here")
    for name in (*DENIED_CALLS.values(), *(value.lstrip("~").split() for value in unit.all("SystemCallFilter"))):
        for group in name:
            calls_of(group)   # for all starts, and before anything is hidden
    while True:
        for line in unit.all("ExecStartPre"):
            status = os.waitstatus_to_exitcode(os.waitpid(start(unit, line), 0)[1])
            if status != 0 and "-" not in line[:2]:
                sys.exit(f"unit: {line}: exit status {status}")
        os.waitpid(start(unit, unit.last("ExecStart")), 0)
        time.sleep(seconds(unit.last("RestartSec", "100ms")))


if __name__ == "__main__":
    main()
