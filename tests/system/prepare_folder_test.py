"""The step of the installation that makes the folders of the plug-in, by itself and below a
temporary DESTDIR.
"""

import os
import pwd
import stat
import subprocess
import unittest

from cli_support import CliTest, SOURCE_DIR, write_file

NO_SUCH_USER = "zmqwriter-no-such-user"


class PrepareFolderTest(CliTest):
    def setUp(self):
        super().setUp()
        self.root = os.getcwd()

    def prepare(self, *folders, user="", status=0, umask=0o022):
        words = [os.path.join(SOURCE_DIR, "cmake/prepare-folders"), user, *folders]
        result = subprocess.run(["sh", "-c", 'umask %o; exec "$@"' % umask, "sh"] + words, text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                env=dict(os.environ, DESTDIR=self.root))
        self.assertEqual(result.returncode, status, result.stdout)
        return result.stdout

    def path(self, folder):
        return self.root + folder

    def mode(self, folder):
        return stat.S_IMODE(os.stat(self.path(folder)).st_mode)

    def owner(self, folder):
        return os.stat(self.path(folder)).st_uid

    def other_user(self):
        if os.geteuid() != 0:
            self.skipTest("only root makes folders for another user")
        return pwd.getpwnam("nobody")

    # --- folders that are not there --------------------------------------------------------------

    def test_parents_are_open_to_all_and_the_folder_to_its_user_whatever_the_umask(self):
        for umask in (0o077, 0o000):
            top = "/var%o" % umask
            text = self.prepare(top + "/lib/z", umask=umask)
            self.assertIn("Made for the installing user alone: " + self.path(top + "/lib/z"), text)
            for folder, mode in ((top, 0o755), (top + "/lib", 0o755), (top + "/lib/z", 0o700)):
                self.assertEqual(self.mode(folder), mode, folder)

    def test_outer_folder_given_last_is_as_closed_as_the_inner_one(self):
        self.prepare("/var/lib/z/a", "/var/lib/z")
        self.assertEqual((self.mode("/var/lib/z"), self.mode("/var/lib/z/a")), (0o700, 0o700))
        self.assertEqual(self.mode("/var/lib"), 0o755)

    def test_outer_and_inner_folder_both_belong_to_the_agents_user(self):
        user = self.other_user()
        text = self.prepare("/var/lib/z/a", "/var/lib/z", user=user.pw_name)
        for folder in ("/var/lib/z", "/var/lib/z/a"):
            self.assertEqual((self.owner(folder), self.mode(folder)), (user.pw_uid, 0o700), folder)
            self.assertIn("Made for the user nobody alone: %s (mode 0700)" % self.path(folder), text)
        self.assertEqual(self.owner("/var/lib"), 0)

    def test_same_folder_twice_is_prepared_once(self):
        text = self.prepare("/z", "/z")
        self.assertEqual(text.count(self.path("/z")), 1, text)

    def test_relative_folder_is_not_prepared(self):
        self.assertIn("Not prepared", self.prepare("orvik"))
        self.assertEqual(os.listdir(self.root), [])

    # --- folders that are there ------------------------------------------------------------------

    def test_folder_as_wanted_is_left_without_a_warning(self):
        self.prepare("/z")
        text = self.prepare("/z")
        self.assertIn("Exists already, left as it is: " + self.path("/z"), text)
        self.assertNotIn("Warning", text)

    def test_folder_of_another_mode_is_left_with_the_command_to_type(self):
        os.mkdir(self.path("/z"))
        os.chmod(self.path("/z"), 0o750)
        text = self.prepare("/z")
        self.assertIn("Warning", text)
        self.assertIn('chmod 0700 "%s"\n' % self.path("/z"), text)
        self.assertNotIn("chown", text)
        self.assertEqual(self.mode("/z"), 0o750)

    def test_folder_of_another_owner_is_left_with_the_command_to_type(self):
        user = self.other_user()
        os.mkdir(self.path("/z"), 0o700)
        text = self.prepare("/z", user=user.pw_name)
        self.assertIn("Warning", text)
        self.assertIn('chown nobody "%s"\n' % self.path("/z"), text)
        self.assertNotIn("chmod", text)
        self.assertEqual(self.owner("/z"), 0)
        # As typed, it makes the warning go away.
        os.chown(self.path("/z"), user.pw_uid, -1)
        self.assertNotIn("Warning", self.prepare("/z", user=user.pw_name))

    # --- failures --------------------------------------------------------------------------------

    def test_unknown_user_fails_whether_or_not_the_folder_is_there(self):
        for there in ([], ["z"]):
            for name in there:
                os.mkdir(self.path("/" + name))
            text = self.prepare("/z", user=NO_SUCH_USER, status=1)
            self.assertIn("there is no user " + NO_SUCH_USER, text)
            self.assertEqual(os.listdir(self.root), there)

    def test_failure_names_both_ways_to_leave_the_step_out(self):
        write_file("file", "")
        text = self.prepare("/file/z", status=1)
        self.assertIn("Cannot make " + self.path("/file"), text)
        self.assertIn("./configure --no-prepare", text)
        self.assertIn("-DZMQWRITER_PREPARE_FOLDERS=OFF", text)


if __name__ == "__main__":
    unittest.main(verbosity=2)
