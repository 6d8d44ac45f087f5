"""./configure --bro-dist=DIR && make && make install, against a mock of a host's source tree.

Works on a copy of what such a build may use, in a temporary folder: the build folder has to lie
inside the source tree, and nothing else of this project may be needed.
"""

import configparser
import os
import pwd
import re
import shutil
import stat
import subprocess
import sys
import tarfile
import unittest

from cli_support import BUILD_DIR, CliTest, SOURCE_DIR, read_file, write_file

BIFCL = os.path.join(BUILD_DIR, "host", "standin", "bifcl")
NEEDED = [
    "CHANGES", "CMakeLists.txt", "COPYING", "Makefile", "README.md", "VERSION", "cmake",
    "configure", "platform", "scripts", "src",
]


def copy(source, target):
    os.makedirs(os.path.dirname(target), exist_ok=True)
    (shutil.copytree if os.path.isdir(source) else shutil.copy2)(source, target)


def one_line(text):
    """CMake breaks the lines of its messages."""
    return re.sub(r"\s+", " ", text)


def files_below(folder):
    return sorted(os.path.relpath(os.path.join(path, name), folder)
                  for path, _, names in os.walk(folder) for name in names)


def contents(folder):
    """Relative path -> bytes, of every file."""
    return {name: read_file(os.path.join(folder, name), "rb") for name in files_below(folder)}


def package_file():
    """What the package manager is told about this package."""
    parser = configparser.RawConfigParser()
    parser.read(os.path.join(SOURCE_DIR, "bro-pkg.meta"))
    return parser["package"]


def make_dist(folder, prefix="/opt/host", with_settings_file=False):
    """A host's source tree that is configured and built, as far as a plug-in's build can tell."""
    shutil.copytree(os.path.join(SOURCE_DIR, "tests/data/mock-bro-dist"), folder)
    copy(BIFCL, os.path.join(folder, "build/src/bifcl"))
    write_file(folder + "/build/CMakeCache.txt", "CMAKE_INSTALL_PREFIX:PATH=%s\n" % prefix)
    shutil.copytree(os.path.join(SOURCE_DIR, "host/api/include"), os.path.join(folder, "src"))
    if with_settings_file:
        copy(os.path.join(SOURCE_DIR, "src/settings/SettingsFile.h"),
             os.path.join(folder, "src/SettingsFile.h"))


# What the formula uses of Homebrew.
HOMEBREW = r"""
require "fileutils"
require "pathname"
class Formula
  include FileUtils
  def self.desc(text) end
  def self.head(url, using:, branch:) end
  def self.depends_on(what) end
  def lib; Pathname(ENV["HOMEBREW_PREFIX"])/"Cellar/lib"; end
  def opt_lib; lib; end
  def var; Pathname(ENV["HOMEBREW_PREFIX"])/"var"; end
  def system(*words) Kernel.system(*words) || abort("failed: #{words.join(" ")}"); end
  def odie(text) abort(text); end
end
load ARGV[0]
puts Zmqwriter.new.public_send(ARGV[1])
"""


class BuildAgainstHostTest(CliTest):
    def setUp(self):
        super().setUp()
        self.top = os.getcwd()
        self.source, self.dist = self.top + "/source", self.top + "/bro"
        for name in NEEDED:
            copy(os.path.join(SOURCE_DIR, name), os.path.join(self.source, name))
        make_dist(self.dist)
        # Every unit includes the C++ library's <version>, and the compiler must not find this file,
        # which on a volume that ignores case is VERSION.
        if not os.path.exists(self.source + "/version"):
            write_file(self.source + "/version",
                       "#error the root of the sources is on the include path\n")

    def run_in_source(self, *words, status=0, **environment):
        result = subprocess.run(
            words, cwd=self.source, stdout=subprocess.PIPE, text=True, stderr=subprocess.STDOUT,
            env=dict(os.environ, CXXFLAGS="-include version", **environment))
        self.assertEqual(result.returncode, status, result.stdout)
        return result.stdout

    def configure(self, *words, status=0):
        return self.run_in_source("./configure", *words, status=status)

    # --- wrong and missing things ----------------------------------------------------------------

    def test_wrong_usage_is_explained(self):
        self.assertIn("--bro-dist=DIR is needed", self.configure(status=2))
        self.assertIn("'--bro-dist='", self.configure("--bro-dist=", status=2))
        self.assertIn("'--frobnicate'", self.configure("--frobnicate", status=2))
        self.assertIn("directly inside", self.configure(
            "--bro-dist=" + self.dist, "--build-dir=a/b", status=2))
        self.assertIn("run ./configure --bro-dist=DIR first",
                      self.run_in_source("make", "BUILD_DIR=build-none", status=2))

    def test_missing_or_unfinished_host_is_an_error_that_says_what_to_do(self):
        broken = self.top + "/broken"

        def refusal():
            return one_line(self.configure("--bro-dist=" + broken, "--build-dir=build-refused",
                                           status=1))

        self.assertIn("BRO_DIST=%s: there is no such folder" % broken, refusal())
        os.mkdir(broken)
        self.assertIn("not the source tree of a host", refusal())
        shutil.copytree(os.path.join(self.dist, "cmake"), os.path.join(broken, "cmake"))
        self.assertIn("run ./configure there", refusal())
        cache = "build/CMakeCache.txt"
        copy(os.path.join(self.dist, cache), os.path.join(broken, cache))
        self.assertIn("run make there", refusal())

    def test_folder_of_another_build_and_one_elsewhere_are_refused(self):
        cache = self.source + "/build-other/CMakeCache.txt"
        os.mkdir(os.path.dirname(cache))
        write_file(cache, "CMAKE_BUILD_TYPE:STRING=Debug\n")
        text = self.configure("--bro-dist=" + self.dist, "--build-dir=build-other", status=1)
        self.assertIn("choose another folder", text)
        self.assertTrue(os.path.exists(cache))
        text = self.run_in_source("cmake", "-S", ".", "-B", self.top + "/elsewhere",
                                  "-DBRO_DIST=" + self.dist, status=1)
        self.assertIn("must be a direct child", one_line(text))

    def test_folder_of_the_sources_is_refused_as_build_folder_and_left_as_it_is(self):
        for folder in ("src", "scripts", "cmake", "platform", "VERSION"):
            with self.subTest(folder):
                before = contents(self.source)
                text = self.configure("--bro-dist=" + self.dist, "--build-dir=" + folder, status=1)
                self.assertIn("choose another name with --build-dir=NAME", text)
                self.assertEqual(contents(self.source), before)
        for _ in range(2):  # CMake without the wrapper
            text = self.run_in_source("cmake", "-S", ".", "-B", "src", "-DBRO_DIST=" + self.dist,
                                      status=1)
            self.assertIn("is no build folder", one_line(text))
        # CMake itself leaves these two behind whatever happens.
        shutil.rmtree(self.source + "/src/CMakeFiles")
        os.remove(self.source + "/src/CMakeCache.txt")
        self.assertEqual(contents(self.source), before)

    def test_empty_folder_may_become_the_build_folder_and_the_host_keep_its_settings_file(self):
        os.mkdir(self.source + "/build-empty")
        for _ in range(2):
            self.assertIn("ours is compiled in", self.configure(
                "--bro-dist=" + self.dist, "--build-dir=build-empty"))
        dist = self.top + "/bro-with-settings"
        make_dist(dist, with_settings_file=True)
        text = self.configure("--bro-dist=" + dist, "--build-dir=build-settings")
        self.assertNotIn("ours is compiled in", text)
        self.assertFalse(os.path.exists(self.source + "/build-settings/generated/SettingsFile.h"))

    # --- installing ------------------------------------------------------------------------------

    def configure_with_package(self, *words):
        """A build folder as make leaves it, with a package of one file."""
        self.configure("--build-dir=build-package", "--no-prepare", *words)
        package = self.source + "/build-package/Dravenholt_ZMQWriter.tgz"
        with tarfile.open(package, "w:gz") as tar:
            tar.addfile(tarfile.TarInfo("Dravenholt_ZMQWriter/__bro_plugin__"))

    def test_install_makes_the_hosts_plugin_folder_where_it_is_missing(self):
        dist, prefix = self.top + "/bro-not-installed", self.top + "/prefix"
        make_dist(dist, prefix)
        self.configure_with_package("--bro-dist=" + dist)
        for root in ("", self.top + "/root-missing"):
            with self.subTest(DESTDIR=root):
                self.run_in_source("cmake", "--install", "build-package", DESTDIR=root)
                self.assertTrue(os.path.exists(
                    root + prefix + "/lib/bro/plugins/Dravenholt_ZMQWriter/__bro_plugin__"))

    def test_install_after_which_the_package_is_not_in_place_fails(self):
        plugins = self.top + "/plugins"
        self.configure_with_package("--bro-dist=" + self.dist, "--install-root=" + plugins)
        os.makedirs(plugins + "/Dravenholt_ZMQWriter")
        # An older one is not taken for the new one.
        write_file(plugins + "/Dravenholt_ZMQWriter/__bro_plugin__", "")
        os.remove(self.source + "/build-package/Dravenholt_ZMQWriter.tgz")
        text = self.run_in_source("cmake", "--install", "build-package", status=1)
        self.assertIn("The plug-in was not installed: there is no "
                      "%s/Dravenholt_ZMQWriter/__bro_plugin__" % plugins, one_line(text))

    # --- the whole way ---------------------------------------------------------------------------

    def test_package_manager_is_told_the_folder_and_the_command_of_this_build(self):
        package = package_file()
        text = self.configure("--help")
        for option in ("--bro-dist=DIR", "--install-root=DIR", "--agent-user=USER",
                       "(default: %s;" % package["plugin_dir"]):
            self.assertIn(option, text)
        command = package["build_command"]
        self.assertIn("--bro-dist=%(bro_dist)s", command)
        self.assertTrue((command % {"bro_dist": "/bro"}).startswith("./configure --bro-dist=/bro "))

    @unittest.skipUnless(shutil.which("ruby"), "ruby is not here")
    def test_homebrew_formula_builds_and_installs_the_plugin_and_makes_its_folder(self):
        prefix = self.top + "/brew"
        folder = prefix + "/var/zmqwriter"

        def formula(step, status=0, dist=self.dist):
            return self.run_in_source(
                "ruby", "-W", "-e", HOMEBREW, os.path.join(SOURCE_DIR, "setup/homebrew/zmqwriter.rb"),
                step, status=status, HOMEBREW_PREFIX=prefix, HOMEBREW_BRO_DIST=dist)

        self.assertIn("HOMEBREW_BRO_DIST must name", formula("install", status=1, dist=""))
        formula("install")
        plugins = prefix + "/Cellar/lib/bro/plugins"
        plugin = plugins + "/Dravenholt_ZMQWriter"
        self.check_plugin_folder(plugin)
        code = read_file(self.plugin_object(plugin), "rb")
        for place in (folder, folder + "/spool"):
            self.assertIn(place.encode() + b"\0", code)
        self.assertFalse(os.path.exists(folder), "make install prepares none")

        formula("post_install")
        self.assertEqual(stat.S_IMODE(os.stat(folder).st_mode), 0o700)
        os.chmod(folder, 0o750)
        formula("post_install")
        self.assertEqual(stat.S_IMODE(os.stat(folder).st_mode), 0o750)
        caveats = formula("caveats")
        self.assertIn(plugins + "\n", caveats)
        self.assertIn(folder + ".\n", caveats)

    def test_configured_places_users_and_preparations_arrive(self):
        places = ["--agent-id-dir=/var/lib/zw/agent", "--spool-dir=/var/lib/zw/parent/spool"]
        prepared = ["var/lib/zw/agent", "var/lib/zw/parent"]
        common = ["--bro-dist=" + self.dist, "--install-root=/opt/plugins"] + places

        self.configure(*common, "--build-dir=build-bare", "--no-prepare", "--build-type=Debug")
        self.run_in_source("make", "BUILD_DIR=build-bare")
        code = read_file(self.plugin_object(self.source + "/build-bare"), "rb")
        for place in places:
            self.assertIn(place.split("=")[1].encode() + b"\0", code)

        root = self.top + "/root-bare"
        self.run_in_source("make", "install", "BUILD_DIR=build-bare", DESTDIR=root)
        self.assertTrue(os.path.exists(root + "/opt/plugins/Dravenholt_ZMQWriter"))
        self.assertFalse(os.path.exists(root + "/var"))

        # The package is the same: only the installing differs from here on.
        user = pwd.getpwnam("nobody") if os.geteuid() == 0 else pwd.getpwuid(os.getuid())
        for name, status in ((user.pw_name, 0), ("zmqwriter-no-such-user", 1)):
            build = "build-" + name
            self.configure(*common, "--build-dir=" + build, "--agent-user=" + name)
            package = "Dravenholt_ZMQWriter.tgz"
            copy(os.path.join(self.source, "build-bare", package),
                 os.path.join(self.source, build, package))
            root = self.top + "/root-" + name
            text = self.run_in_source("cmake", "--install", build, status=status, DESTDIR=root)
            if status == 0:
                for folder in prepared:
                    state = os.stat(os.path.join(root, folder))
                    self.assertEqual(state.st_uid, user.pw_uid, folder)
                    self.assertEqual(stat.S_IMODE(state.st_mode), 0o700, folder)
            else:
                self.assertIn("there is no user " + name, one_line(text))
                self.assertFalse(os.path.exists(root + "/var"))

    def test_configure_make_make_install(self):
        before = files_below(self.source)
        text = self.configure("--bro-dist=" + self.dist, "--install-root=/opt/plugins")
        self.assertIn("The host has no SettingsFile: ours is compiled in", text)
        self.run_in_source("make")
        folder = package_file()["plugin_dir"]
        build = os.path.join(self.source, folder)
        outside = [name for name in files_below(self.source) if not name.startswith(folder + "/")]
        self.assertEqual(outside, before, "something was written outside of the build folder")

        self.check_plugin_folder(build)
        self.assertTrue(os.path.islink(os.path.join(build, "scripts")))
        self.check_package(build)
        self.check_installation()
        if sys.platform == "linux":
            result = subprocess.run(
                [sys.executable, "-B", os.path.join(SOURCE_DIR, "tests/system/plugin_object_test.py"),
                 self.plugin_object(build)],
                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
            self.assertEqual(result.returncode, 0, result.stdout)
            self.assertRegex(result.stdout, r"\nRan [1-9]")

    def plugin_object(self, folder):
        system = os.uname()
        return os.path.join(folder, "lib/Dravenholt-ZMQWriter.%s-%s.so" % (system.sysname.lower(),
                                                                           system.machine))

    def check_plugin_folder(self, folder):
        self.assertEqual(read_file(folder + "/__bro_plugin__").strip(), "Dravenholt::ZMQWriter")
        self.assertEqual(read_file(folder + "/lib/bif/__load__.bro"), "@load ./zmq.bif.bro\n")
        for name in ("lib/bif/zmq.bif.bro", "scripts/__preload__.bro", "scripts/__load__.bro",
                     "scripts/Dravenholt/ZMQWriter/connections.bro"):
            self.assertTrue(os.path.exists(os.path.join(folder, name)), name)
        objects = [name for name in os.listdir(os.path.join(folder, "lib")) if name.endswith(".so")]
        self.assertEqual(objects, [os.path.basename(self.plugin_object(folder))])

    def check_package(self, build):
        version = read_file(os.path.join(SOURCE_DIR, "VERSION")).split("\n")[0]
        package = os.path.join(build, "dist/Dravenholt_ZMQWriter-%s.tar.gz" % version)
        with tarfile.open(package) as tar:
            names = {name.split("/", 1)[1] for name in tar.getnames() if "/" in name}
        for name in ("README.md", "CHANGES", "COPYING", "VERSION", "__bro_plugin__"):
            self.assertIn(name, names)
        self.assertIn("lib/bif/zmq.bif.bro", read_file(build + "/MANIFEST").splitlines())

    def check_installation(self):
        root = self.top + "/root"
        text = self.run_in_source("make", "install", DESTDIR=root)
        plugin = root + "/opt/plugins/Dravenholt_ZMQWriter"
        self.check_plugin_folder(plugin)

        prepared = [root + "/usr/local/orvik", root + "/usr/local/Cellar/orvik/2.4.1"]
        for folder in prepared:
            status = os.stat(folder)
            self.assertEqual(stat.S_IMODE(status.st_mode), 0o700, folder)
            self.assertEqual(status.st_uid, os.getuid(), folder)
            self.assertIn("Made for the installing user alone: %s (mode 0700)" % folder, text)
        self.assertFalse(os.path.exists(os.path.join(prepared[1], "work")), "the plug-in makes it")

        os.chmod(prepared[0], 0o750)
        text = self.run_in_source("make", "install", DESTDIR=root)
        self.assertIn("Exists already, left as it is: " + prepared[0], text)
        self.assertEqual(stat.S_IMODE(os.stat(prepared[0]).st_mode), 0o750)

        result = self.run_tool("replay", "--plugin", plugin, "-N")
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertEqual(result.stdout.decode(), "Dravenholt::ZMQWriter - ZeroMQ log writer "
                                                 "(dynamic, no version information)\n")


if __name__ == "__main__":
    unittest.main()
