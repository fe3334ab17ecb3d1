"""The installed library, as a stranger's program finds it: usage: library_test.py BUILD_FOLDER SOURCE_FOLDER"""

import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest
import xmlrpc.server

BUILD, SOURCE = (pathlib.Path(argument).resolve() for argument in sys.argv[1:3])
CACHE = (BUILD / "CMakeCache.txt").read_text()
COMPILER = re.search(r"^CMAKE_CXX_COMPILER:\w+=(.*)$", CACHE, re.M).group(1)
FLAGS = ["-fsanitize=address,undefined"] if re.search(r"^TARN_SANITIZE:BOOL=ON$", CACHE, re.M) else []
DESCRIPTION = {"name": "channel 7", "ok": True}


def run(*command, status=0):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True, timeout=300)
    if done.returncode != status:
        raise AssertionError(f"{command} ended with {done.returncode}:\n{done.stdout}{done.stderr}")
    return done.stdout + done.stderr


class InstalledLibrary(unittest.TestCase):
    answer = DESCRIPTION   # or a fault

    @classmethod
    def describe(cls, _params):
        if isinstance(cls.answer, Exception):
            raise cls.answer
        return cls.answer

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.work = pathlib.Path(folder.name)
        cls.prefix = cls.work / "installed"
        run("cmake", "--install", BUILD, "--component", "library", "--prefix", cls.prefix)
        server = xmlrpc.server.SimpleXMLRPCServer(("127.0.0.1", 0), logRequests=False)
        server.register_function(cls.describe)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        cls.addClassCleanup(server.server_close)
        cls.addClassCleanup(server.shutdown)
        cls.address = "127.0.0.1", str(server.server_address[1])

    def build(self, source):
        """Configures and builds the project in the folder source, one of C++14, against the installed copy."""
        out = self.work / ("build-" + source.name)
        run("cmake", "-S", source, "-B", out, f"-DCMAKE_PREFIX_PATH={self.prefix}", f"-DCMAKE_CXX_COMPILER={COMPILER}",
            "-DCMAKE_CXX_STANDARD=14", "-DCMAKE_CXX_FLAGS=" + " ".join([*FLAGS, "-Werror"]))
        run("cmake", "--build", out)
        return out / source.name

    def assert_answers(self, program, *expected):
        """What the program says, and with which status, of each answer."""
        self.addCleanup(setattr, type(self), "answer", DESCRIPTION)
        for type(self).answer, status, said in expected:
            self.assertEqual(run(*program, status=status), said)

    def test_a_program_calls_a_method_of_another_implementation(self):
        program = self.build(next(self.prefix.rglob("examples")) / "call")
        self.assert_answers((program, *self.address), (DESCRIPTION, 0, "name = channel 7\nok = 1\n"),
                            (xmlrpc.client.Fault(4, "no"), 1, "call: status 4 no\n"),
                            (xmlrpc.client.Fault("4", "no"), 1, "call: an odd fault: type error\n"))

    def test_a_transport_of_ones_own_can_bound_the_answer(self):
        program = self.build(next(self.prefix.rglob("examples")) / "bounded")
        self.assertIn("channel 7", run(program, *self.address, 1000))
        fault = ("<value><struct><member><name>faultCode</name><value><i4>4</i4></value></member>"
                 "<member><name>faultString</name><value>no</value></member></struct></value>\n")
        self.assert_answers((program, *self.address, 1000), (xmlrpc.client.Fault(4, "no"), 1, fault),
                            *((size * "x", 1, "too long\n") for size in (2000, 1000000)))

    def test_the_code_in_the_manual_is_true(self):
        pieces = re.findall(r"^```cpp\n(.*?)^```$", (SOURCE / "docs" / "library.md").read_text(), re.M | re.S)
        self.assertGreater(len(pieces), 8)
        source = self.work / "manual"
        source.mkdir()
        bodies = "".join(f"void Piece{i}() {{\n{piece}}}\n" for i, piece in enumerate(pieces))
        calls = "".join(f"  Piece{i}();\n" for i in range(len(pieces)))
        (source / "main.cpp").write_text(
            '#undef NDEBUG\n#include <cassert>\n#include <iostream>\n#include <sstream>\n#include "xmlrpc/XmlRpcClient.h"\n'
            '#include "xmlrpc/XmlRpcClientTransportHTTP.h"\n#include "xmlrpc/XmlRpcUtil.h"\n'
            f"using namespace TarnXmlRpc;\n{bodies}int main() {{\n{calls}}}\n")
        (source / "CMakeLists.txt").write_text(
            (SOURCE / "examples" / "call" / "CMakeLists.txt").read_text().replace("call", "manual"))
        run(self.build(source))

    def test_pkg_config_finds_the_library_wherever_it_was_installed(self):
        """For a program, and for a plug-in."""
        run("cmake", "--install", BUILD, "--component", "library", "--prefix", self.work / "first")
        moved = (self.work / "first").rename(self.work / "moved")
        out, libdir = self.work / "configured", "lib/arm/deep"
        run("cmake", "-S", SOURCE, "-B", out, f"-DCMAKE_INSTALL_LIBDIR={libdir}", "-DBUILD_TESTING=OFF",
            f"-DCMAKE_INSTALL_INCLUDEDIR={self.work}/its headers", f"-DCMAKE_CXX_COMPILER={COMPILER}")
        for library in [*BUILD.glob("net/*.a"), *BUILD.glob("xmlrpc/**/*.a")]:  # built before, from the same sources
            shutil.copy(library, out / library.relative_to(BUILD))
        run("cmake", "--install", out, "--component", "library", "--prefix", self.work / "prefix")
        for pkgconfig in next(moved.rglob("pkgconfig")), self.work / "prefix" / libdir / "pkgconfig":
            flags = subprocess.run(["pkg-config", "--cflags", "--libs", "tarnxmlrpc"], capture_output=True, text=True,
                                   check=True, env={"PATH": "/usr/bin:/bin", "PKG_CONFIG_LIBDIR": str(pkgconfig)}).stdout
            self.assertNotIn("simpleini", flags)
            for options in ["-fPIC", "-shared"], []:
                run(COMPILER, "-std=c++17", *FLAGS, *options, SOURCE / "examples/call/main.cpp", *shlex.split(flags), "-o",
                    self.work / "program")
            self.assertIn("channel 7", run(self.work / "program", *self.address))

    def test_the_public_headers_stand_alone_and_no_other_is_installed(self):
        include = next(self.prefix.rglob("tarn"))
        headers = sorted(str(header.relative_to(include)) for header in include.rglob("*.h"))
        self.assertEqual({"net", "xmlrpc"}, {header.split("/")[0] for header in headers})
        everything = self.work / "everything.cpp"
        for header in headers:
            everything.write_text(f'#include "{header}"\n')
            run(COMPILER, "-std=c++17", "-fsyntax-only", "-I", include, everything)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
