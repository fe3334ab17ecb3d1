"""The installed library, as a stranger's program finds it: usage: library_test.py BUILD_FOLDER SOURCE_FOLDER"""

import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest
import unittest.mock as mock
import xmlrpc.server

BUILD, SOURCE = (pathlib.Path(argument).resolve() for argument in sys.argv[1:3])


def run(*command):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True, timeout=300)
    if done.returncode:
        raise AssertionError(f"{command} ended with {done.returncode}:\n{done.stdout}{done.stderr}")
    return done.stdout


class InstalledLibrary(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.work = pathlib.Path(cls.folder.name)
        cls.prefix = cls.work / "installed"
        run("cmake", "--install", BUILD, "--component", "library", "--prefix", cls.prefix)
        cache = (BUILD / "CMakeCache.txt").read_text()
        cls.compiler = re.search(r"^CMAKE_CXX_COMPILER:\w+=(.*)$", cache, re.M).group(1)
        cls.sanitized = re.search(r"^TARN_SANITIZE:BOOL=ON$", cache, re.M) is not None
        cls.flags = ["-fsanitize=address,undefined"] if cls.sanitized else []

        cls.describe = staticmethod(lambda channel: {"name": f"channel {channel}", "ok": True})
        cls.server = xmlrpc.server.SimpleXMLRPCServer(("127.0.0.1", 0), logRequests=False)
        cls.server.register_function(lambda params: cls.describe(params["channel"]), "describe")
        threading.Thread(target=cls.server.serve_forever, daemon=True).start()
        cls.address = "127.0.0.1", str(cls.server.server_address[1])

    @classmethod
    def tearDownClass(cls):
        cls.server.shutdown()
        cls.server.server_close()
        cls.folder.cleanup()

    def build(self, source):
        """Configures and builds the project in the folder source against the installed copy."""
        out = self.work / ("build-" + source.name)
        run("cmake", "-S", source, "-B", out, f"-DCMAKE_PREFIX_PATH={self.prefix}", f"-DCMAKE_CXX_COMPILER={self.compiler}",
            "-DCMAKE_CXX_FLAGS=" + " ".join(self.flags))
        run("cmake", "--build", out)
        return out

    def compile(self, source, pkgconfig, *options):
        """Compiles one file with what pkg-config says, where only the folder pkgconfig is searched."""
        flags = subprocess.run(["pkg-config", "--cflags", "--libs", "tarnxmlrpc"], capture_output=True, text=True,
                               check=True, env={"PATH": "/usr/bin:/bin", "PKG_CONFIG_LIBDIR": str(pkgconfig)}).stdout
        self.assertNotIn("simpleini", flags)
        program = pkgconfig / "program"
        run(self.compiler, "-std=c++17", *self.flags, *options, source, *flags.split(), "-o", program)
        return program

    def assert_calls(self, program):
        self.assertEqual(run(program, *self.address), "name = channel 7\nok = 1\n")

    def test_a_program_calls_a_method_of_another_implementation(self):
        program = self.build(next(self.prefix.rglob("examples")) / "call") / "call"
        self.assert_calls(program)

        def fault(code, text):
            def describe(channel):
                raise xmlrpc.client.Fault(code, text)
            return describe
        for code, text, message in ((4, "no", "status 4 no"), (0, "no", "status 0 no"),
                                    ("4", "no", "an odd fault: type error"), (4, 5, "an odd fault: type error")):
            with self.subTest(message), mock.patch.object(InstalledLibrary, "describe", fault(code, text)):
                done = subprocess.run([program, *self.address], capture_output=True, text=True)
                self.assertEqual((done.returncode, done.stdout, done.stderr), (1, "", f"call: {message}\n"))

    def test_a_transport_of_ones_own_can_bound_the_answer(self):
        program = self.build(next(self.prefix.rglob("examples")) / "bounded") / "bounded"
        self.assertIn("channel 7", run(program, *self.address, 1000))
        for answer in "x" * 2000, "x" * 1000000:
            with self.subTest(len(answer)), mock.patch.object(InstalledLibrary, "describe", lambda channel: answer):
                done = subprocess.run([program, *self.address, "1000"], capture_output=True, text=True)
                self.assertEqual((done.returncode, done.stdout), (1, "too long\n"))

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
        run(self.build(source) / "manual")

    def test_pkg_config_finds_the_library_wherever_it_was_installed(self):
        run("cmake", "--install", BUILD, "--component", "library", "--prefix", self.work / "first")
        moved = (self.work / "first").rename(self.work / "moved")
        self.assert_calls(self.compile(SOURCE / "examples/call/main.cpp", next(moved.rglob("pkgconfig"))))
        for name, libdir, includedir in ("a", "lib/arm/deep", self.work / "headers"), ("b", self.work / "libs", "inc"):
            out = self.work / f"configured-{name}"
            run("cmake", "-S", SOURCE, "-B", out, f"-DCMAKE_INSTALL_LIBDIR={libdir}", "-DBUILD_TESTING=OFF",
                f"-DCMAKE_INSTALL_INCLUDEDIR={includedir}", f"-DCMAKE_CXX_COMPILER={self.compiler}")
            for library in [*BUILD.glob("net/*.a"), *BUILD.glob("xmlrpc/**/*.a")]:  # built before, from the same sources
                shutil.copy(library, out / library.relative_to(BUILD))
            run("cmake", "--install", out, "--component", "library", "--prefix", self.work / f"prefix-{name}")
            pkgconfig = self.work / f"prefix-{name}" / libdir / "pkgconfig"
            self.assert_calls(self.compile(SOURCE / "examples/call/main.cpp", pkgconfig))

    def test_a_plug_in_can_be_made_of_the_static_library(self):
        self.compile(SOURCE / "examples/call/main.cpp", next(self.prefix.rglob("pkgconfig")), "-fPIC", "-shared")

    def test_the_public_headers_stand_alone_and_no_other_is_installed(self):
        include = next(self.prefix.rglob("tarn"))
        headers = sorted(str(header.relative_to(include)) for header in include.rglob("*.h"))
        self.assertEqual({"net", "xmlrpc"}, {header.split("/")[0] for header in headers})
        everything = self.work / "everything.cpp"
        for header in headers:
            everything.write_text(f'#include "{header}"\n')
            run(self.compiler, "-std=c++17", "-fsyntax-only", "-I", include, everything)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
