"""The Go program of docs/wire-format.md, built against the FlatBuffers module and run.

The module comes from the local module cache or, as its sources, from the folder that
ZMQWRITER_GO_FLATBUFFERS names (the one that has `go` in it). The network is never asked.
"""

import glob
import os
import re
import shutil
import subprocess
import unittest

import wire_format_document as document
from cli_support import CliTest, write_file

MODULE = "github.com/google/flatbuffers"


def run_go(*arguments, **options):
    environment = dict(os.environ, GOFLAGS="-mod=mod", GOPROXY="off", GOSUMDB="off", GOWORK="off",
                       GO111MODULE="on", GOTOOLCHAIN="local")
    environment.setdefault("GOCACHE", os.path.join(os.getcwd(), "cache"))
    return subprocess.run(["go"] + list(arguments), capture_output=True, env=environment, **options)


def cached_version():
    """The newest version of the module in the local cache; none is None."""
    cache = run_go("env", "GOMODCACHE").stdout.decode().strip()
    names = glob.glob(os.path.join(cache, "cache", "download", MODULE, "@v", "*.zip"))
    versions = [os.path.basename(name)[:-len(".zip")] for name in names]
    return max(versions, key=lambda name: [int(part) for part in re.findall(r"\d+", name)],
               default=None)


class GoProgramTest(CliTest):
    def require_module(self):
        """Sets up the folder "example" as a module that requires FlatBuffers."""
        if not shutil.which("go"):
            self.skipTest("Go is not installed")
        sources = os.environ.get("ZMQWRITER_GO_FLATBUFFERS")
        version = "v0.0.0" if sources else cached_version()
        if not version:
            self.skipTest("the Go module %s is not in the local module cache" % MODULE)
        os.mkdir("example")
        lines = ["module example", "go 1.16", "require %s %s" % (MODULE, version)]
        if sources:
            shutil.copytree(os.path.join(sources, "go"), os.path.join("flatbuffers", "go"))
            write_file("flatbuffers/go.mod", "module %s\n" % MODULE)
            lines.append("replace %s => ../flatbuffers" % MODULE)
        write_file("example/go.mod", "\n".join(lines) + "\n")

    def test_decoder_prints_the_example(self):
        self.require_module()
        subprocess.run([os.environ["ZMQWRITER_FLATC"], "--go", "-o", "example",
                        os.path.join(document.SOURCE_DIR, "src", "aggregator.fbs")], check=True)
        write_file("example/main.go", document.block("go"))
        built = run_go("build", "-o", "decoder", ".", cwd="example")
        self.assertEqual(built.returncode, 0, built.stderr.decode())
        result = subprocess.run(["example/decoder"], capture_output=True,
                                input=document.example_message())
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        self.assertEqual(result.stdout.decode(),
                         "CwqM2s1lZ5OeXh4yQk 1433419203.688105 agent-7 GeneralData\n"
                         "4 51000 1234 ssl\n")


if __name__ == "__main__":
    unittest.main()
