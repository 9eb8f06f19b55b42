"""--send-scout: as the login and through sudo, the scout's failures and the
refusals of sudo."""
import grp
import os
import pwd
import time

import harness as h

# Output known in advance: who and where it runs, every byte value in long
# lines, and a last line without a line feed.
SCOUT = r"""use Cwd; binmode STDOUT;
print "uid=$<\ncwd=", getcwd(), "\n";
print "$_:", (join '', map { chr } 0 .. 255), "\n" for 1 .. 3000;
print "end";
"""


class ScoutTest(h.Case):

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.scout = os.path.join(cls.qmv, "scout.pl")
        h.write(cls.scout, SCOUT)

    def expected(self, uid):
        return (b"uid=%d\ncwd=%s\n" % (uid, pwd.getpwnam(h.USER).pw_dir.encode())
                + b"".join(b"%d:%s\n" % (i, bytes(range(256))) for i in range(1, 3001)) + b"end")

    def test_scout_as_login_and_through_sudo(self):
        r = self.run_vantrel("--send-scout")
        self.ok(r)
        self.assertEqual(self.expected(pwd.getpwnam(h.USER).pw_uid), r.session.read("scout-result.xml"))
        # The session and its missing parent were made for kvaadm to read.
        admin = grp.getgrnam(h.ADMIN_ACCOUNT).gr_gid
        for st in map(os.stat, (r.session.path, os.path.dirname(r.session.path), r.session.file("archives"))):
            self.assertEqual((0, admin, 0o750), (st.st_uid, st.st_gid, st.st_mode & 0o777))

        first = r.session.read("migration.result")
        r = self.run_vantrel("--send-scout", session=r.session, sudo=h.PASSWORD)
        self.ok(r)
        self.assertEqual(self.expected(0), r.session.read("scout-result.xml"))
        # An earlier result document is moved aside.
        self.assertEqual(first, r.session.read("migration.result.1"))
        # --verbose copies the log to standard error.
        self.assertIn(b"Vantrel started : ", self.run_vantrel("--send-scout", "--verbose").err)

    def test_failing_and_missing_scout(self):
        self.addCleanup(h.write, self.scout, SCOUT)
        h.write(self.scout, '$| = 1; print "partial\\n"; print STDERR "scout broke\\n"; exit 2;\n')
        for sudo in (None, h.PASSWORD):
            r = self.run_vantrel("--send-scout", sudo=sudo)
            text = self.failed(r, 2, "FailedToExecuteScout")
            self.assertTrue(text.startswith("Failed to execute scout. \nThe return code is 2\n"), text)
            self.assertTrue(text.endswith("scout broke\n"), text)
            self.assertEqual(b"partial\n", r.session.read("scout-result.xml"))
        # A missing scout fails before any connection: nothing listens on the port.
        os.unlink(self.scout)
        r = self.run_vantrel("--send-scout", port=h.free_port())
        self.assertIn(self.scout, self.failed(r, 2, "UnableToOpenScoutFile"))

    def test_sudo_verdicts(self):
        for login, sudo, tag in ((h.NOSUDO_USER, h.NOSUDO_PASSWORD, "SudoNotAllowed"),
                                 (h.NOSUDOBIN_USER, h.NOSUDOBIN_PASSWORD, "SudoNotFound"),
                                 (h.USER, "wrong sudo password", "SudoNotAllowed")):
            with self.subTest(login=login, tag=tag):
                started = time.monotonic()
                r = self.run_vantrel("--send-scout", login=login, password=h.ACCOUNTS[login], sudo=sudo)
                self.assertIn(h.HOST, self.failed(r, 2, tag))
                # sudo never waits for another password.
                self.assertLess(time.monotonic() - started, 10)
                self.assertFalse(r.session.exists("scout-result.xml") and r.session.read("scout-result.xml"))


if __name__ == "__main__":
    h.main()
