"""The installed library, as a stranger's program finds it: usage: library_test.py BUILD_FOLDER SOURCE_FOLDER"""

import pathlib
import re
import subprocess
import sys
import tempfile
import threading
import unittest
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

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def build(self, source):
        """Configures and builds the project in the folder source against the installed copy."""
        compiler = re.search(r"^CMAKE_CXX_COMPILER:\w+=(.*)$", (BUILD / "CMakeCache.txt").read_text(), re.M).group(1)
        sanitize = re.search(r"^TARN_SANITIZE:BOOL=ON$", (BUILD / "CMakeCache.txt").read_text(), re.M)
        out = self.work / ("build-" + source.name)
        run("cmake", "-S", source, "-B", out, f"-DCMAKE_PREFIX_PATH={self.prefix}", f"-DCMAKE_CXX_COMPILER={compiler}",
            "-DCMAKE_CXX_FLAGS=" + ("-fsanitize=address,undefined" if sanitize else ""))
        run("cmake", "--build", out)
        return out

    def test_a_program_calls_a_method_of_another_implementation(self):
        server = xmlrpc.server.SimpleXMLRPCServer(("127.0.0.1", 0), logRequests=False)
        server.register_function(lambda params: {"name": f"channel {params['channel']}", "ok": True}, "describe")
        threading.Thread(target=server.serve_forever, daemon=True).start()
        program = self.build(SOURCE / "examples" / "call") / "call"
        self.assertEqual(
            run(program, "127.0.0.1", server.server_address[1]),
            'result, TypeStruct, size = 2\nresult[name] = "channel 7", TypeString\nresult[ok] = true, TypeBoolean\n')
        server.shutdown()
        server.server_close()

    def test_the_code_in_the_manual_is_true(self):
        pieces = re.findall(r"^```cpp\n(.*?)^```$", (SOURCE / "docs" / "library.md").read_text(), re.M | re.S)
        self.assertGreater(len(pieces), 8)
        source = self.work / "manual"
        source.mkdir()
        bodies = "".join(f"void Piece{i}() {{\n{piece}}}\n" for i, piece in enumerate(pieces))
        calls = "".join(f"  Piece{i}();\n" for i in range(len(pieces)))
        (source / "main.cpp").write_text(
            '#undef NDEBUG\n#include <cassert>\n#include "xmlrpc/XmlRpcClient.h"\n'
            '#include "xmlrpc/XmlRpcClientTransportHTTP.h"\n#include "xmlrpc/XmlRpcUtil.h"\n'
            f"using namespace TarnXmlRpc;\n{bodies}int main() {{\n{calls}}}\n")
        (source / "CMakeLists.txt").write_text(
            (SOURCE / "examples" / "call" / "CMakeLists.txt").read_text().replace("call", "manual"))
        run(self.build(source) / "manual")

    def test_pkg_config_is_enough_and_nobody_needs_simpleini(self):
        flags = subprocess.run(["pkg-config", "--cflags", "--libs", "tarnxmlrpc"], capture_output=True, text=True,
                               env={"PATH": "/usr/bin:/bin",
                                    "PKG_CONFIG_PATH": str(next(self.prefix.rglob("pkgconfig")))}).stdout.split()
        self.assertIn("-ltarnxmlrpc", flags)
        self.assertNotIn("simpleini", " ".join(flags))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
