"""The Debian packages of a build: installed, run, upgraded over themselves, removed, without a trace left."""

import glob
import gzip
import os
import pathlib
import re
import subprocess
import sys
import tempfile

BUILD = pathlib.Path(sys.argv.pop(1)).resolve()
sys.argv.insert(1, "/usr/sbin/tarnddpd")   # for lab/device.py: the daemon is the installed one

from case import DeviceTest  # noqa: E402
from device import IDENT  # noqa: E402
import unittest  # noqa: E402

DOCS = pathlib.Path(__file__).resolve().parents[2] / "docs"
PLACES = ("/usr", "/var")   # all that the packages and dpkg itself write, beside /etc


def run(*words, **options):
    return subprocess.run(words, check=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **options).stdout


def cover(place):
    """What is written below `place` from now on stays in this sandbox."""
    layers = tempfile.mkdtemp(dir="/run")
    for name in ("upper", "work"):
        os.mkdir(f"{layers}/{name}")
    run("mount", "-t", "overlay", "-o", f"lowerdir={place},upperdir={layers}/upper,workdir={layers}/work", "none", place)


def files():
    """Every file where packages put some, but for what dpkg itself keeps."""
    found = run("find", "/etc", "/usr", "-xdev", "(", "-type", "f", "-o", "-type", "l", ")")
    return {line for line in found.splitlines() if not line.startswith(("/etc/ld.so", "/etc/mtab"))}


class Packages(DeviceTest):
    @classmethod
    def setUpClass(cls):
        for place in PLACES:
            cover(place)
        run("cpack", "--config", f"{BUILD}/CPackConfig.cmake", "-B", "/tmp/packages", umask=0o077)
        cls.packages = glob.glob("/tmp/packages/*.deb")
        cls.before = files()
        run("dpkg", "-i", *cls.packages)
        super().setUpClass()   # starts the daemon

    def test_one_version(self):
        version = re.search(r"^CMAKE_PROJECT_VERSION:\w+=(.*)", (BUILD / "CMakeCache.txt").read_text("utf-8"), re.M)[1]
        run("cmake", "--install", str(BUILD), "--component", "library", "--prefix", "/tmp/library")
        told = {"changelog": re.search(r"^## \[(.*?)\]", (DOCS.parent / "CHANGELOG.md").read_text("utf-8"), re.M)[1],
                "pkg-config": run("pkg-config", "--modversion", *glob.glob("/tmp/library/**/*.pc", recursive=True)).split()[0]}
        for path in self.packages:
            told[path] = run("dpkg-deb", "-f", path, "Version").strip()
            run("dpkg-deb", "-x", path, "/tmp/unpacked")
        for program in glob.glob("/tmp/unpacked/usr/*bin/tarnddp*"):
            told[program] = run(program, "--version").split()[1]
            page, = glob.glob(f"/tmp/unpacked/usr/share/man/man?/{os.path.basename(program)}.?.gz")
            told[page] = re.search(r'^\.TH .*"tarnddp (.*?)"', gzip.open(page, "rt").read(), re.M)[1]
        for path in glob.glob("/tmp/library/**/*-config-version.cmake", recursive=True):
            told[path] = re.search(r'PACKAGE_VERSION "(.*?)"', pathlib.Path(path).read_text("utf-8"))[1]
        self.assertEqual(told, dict.fromkeys(told, version))
        self.assertGreaterEqual(len(told), 3 + 3 * len(self.packages))

    def test_the_files_that_the_page_lists(self):
        listed = re.findall(r"^\| `(/usr/[^`]*)` \|", (DOCS / "deployment.md").read_text("utf-8"), re.M)
        daemon, = glob.glob("/tmp/packages/tarnddpd_*.deb")
        content = run("dpkg-deb", "-c", daemon)
        self.assertEqual(set(re.findall(r"^\S+", content, re.M)), {"drwxr-xr-x", "-rwxr-xr-x", "-rw-r--r--"})
        packed = re.findall(r"^-.* \.(/\S*?)(?:\.gz)?$", content, re.M)
        self.assertEqual(sorted(listed), sorted(path for path in packed if "/share/doc/" not in path))
        needed = {word.split()[0] for word in run("dpkg-deb", "-f", daemon, "Depends").split(",")}
        self.assertLessEqual(needed, {"libc6", "libgcc-s1", "libstdc++6", "net-tools"})

    def test_life_of_the_packages(self):
        self.assertIn("ExecStart=/usr/sbin/tarnddpd ", pathlib.Path(
            "/usr/lib/systemd/system/tarnddpd.service").read_text(encoding="ascii"))
        self.assertTrue(self.ask(IDENT).startswith(b"SID:0\t"))
        run("dpkg", "-i", *self.packages)   # while it runs
        self.assertTrue(self.ask(IDENT).startswith(b"SID:0\t"))
        run("dpkg", "-P", *(os.path.basename(path).split("_")[0] for path in self.packages))
        self.assertEqual(files(), self.before)


if __name__ == "__main__":
    if os.geteuid() != 0 or "0 4294967295" not in " ".join(open("/proc/self/uid_map", encoding="ascii").read().split()):
        print("skipped: dpkg needs all user ids, which an ordinary user's sandbox does not have")
        sys.exit(77)
    unittest.main()
