"""--send-scout with the real binary: as the login and through sudo, the
scout's failures and the refusals of sudo."""
import os
import pwd

import harness
from harness import (HOST, NOSUDO_PASSWORD, NOSUDO_USER, NOSUDOBIN_PASSWORD, NOSUDOBIN_USER,
                     PASSWORD, USER, IntegrationCase)

# A scout whose output is known in advance: who and where it runs, then every
# byte value in long lines, and a last line without line feed.
SCOUT = r"""use strict;
use Cwd qw(getcwd);
binmode STDOUT;
print "uid=$<\ncwd=", getcwd(), "\n";
my $all = join '', map { chr } 0 .. 255;
print "$_:$all\n" for 1 .. 3000;
print "end without line feed";
exit 0;
"""

FAILING_SCOUT = r"""$| = 1;
print "partial\n";
print STDERR "scout broke\n";
exit 2;
"""


def scout_output(uid):
    home = pwd.getpwnam(USER).pw_dir
    body = b"".join(b"%d:%s\n" % (i, bytes(range(256))) for i in range(1, 3001))
    return b"uid=%d\ncwd=%s\n" % (uid, home.encode()) + body + b"end without line feed"


class ScoutTest(IntegrationCase):

    @classmethod
    def configure_product(cls, product):
        product.set_scout(SCOUT)

    def use_scout(self, text):
        self.product.set_scout(text)
        self.addCleanup(self.product.set_scout, SCOUT)

    def check_scout_run(self, r, uid):
        self.assertSuccess(r)
        self.assertEqual(scout_output(uid), r.session.read("scout-result.xml"))
        self.assertEqual(b"", r.out)
        self.assertIdle(r.session, r.pid)
        self.assertFramed(r, 0)
        self.assertTrue(os.path.isdir(r.session.file("archives")))

    def test_scout_as_login(self):
        r = self.run_vantrel("--send-scout")
        self.check_scout_run(r, pwd.getpwnam(USER).pw_uid)

    def test_scout_through_sudo(self):
        r = self.run_vantrel("--send-scout", sudo_password=PASSWORD)
        self.check_scout_run(r, 0)
        # A second run into the same session keeps the first result document.
        first = r.session.read("migration.result")
        r2 = self.run_vantrel("--send-scout", session=r.session, sudo_password=PASSWORD)
        self.check_scout_run(r2, 0)
        self.assertEqual(first, r.session.read("migration.result.1"))

    def test_failing_scout(self):
        self.use_scout(FAILING_SCOUT)
        r = self.run_vantrel("--send-scout")
        msg = self.assertFailure(r, 2, "FailedToExecuteScout", plain_end=False)
        self.assertEqual(b"Failed to execute scout. \nThe return code is 2\n"
                         b"The output on STDERR is\nscout broke\n", r.err)
        self.assertEqual([], msg.findall("message"))
        # What the scout printed before failing stays.
        self.assertEqual(b"partial\n", r.session.read("scout-result.xml"))
        self.assertIdle(r.session, r.pid)
        self.assertFramed(r, 2)

        # Through sudo the collected error output also holds sudo's prompt.
        r = self.run_vantrel("--send-scout", sudo_password=PASSWORD)
        self.assertFailure(r, 2, "FailedToExecuteScout", plain_end=False)
        self.assertTrue(r.err.startswith(b"Failed to execute scout. \nThe return code is 2\n"), r.err)
        self.assertTrue(r.err.endswith(b"scout broke\n"), r.err)

    def test_missing_scout_fails_before_connecting(self):
        os.rename(self.product.scout, self.product.scout + ".away")
        self.addCleanup(os.rename, self.product.scout + ".away", self.product.scout)
        # Nothing listens on the port: a connection attempt would end in 11.
        r = self.run_vantrel("--send-scout", port=harness.free_port())
        self.assertFailure(r, 2, "UnableToOpenScoutFile")
        self.assertEqual("Unable to open %s for transferring to the remote host" % self.product.scout,
                         r.err_text)

    def test_sudo_refusals(self):
        cases = [
            (NOSUDO_USER, NOSUDO_PASSWORD, NOSUDO_PASSWORD, "SudoNotAllowed",
             "sudo is not allowed for user %s on host %s." % (NOSUDO_USER, HOST)),
            (NOSUDOBIN_USER, NOSUDOBIN_PASSWORD, NOSUDOBIN_PASSWORD, "SudoNotFound",
             "sudo command not found on the host %s. You should install sudo to this host "
             "or supply root password for the migration." % HOST),
            (USER, PASSWORD, "wrong sudo password", "SudoNotAllowed",
             "sudo is not allowed for user %s on host %s." % (USER, HOST)),
        ]
        for login, password, sudo_password, tag, text in cases:
            with self.subTest(login=login, tag=tag):
                # A refused password must not leave sudo waiting for
                # another one: the run ends well within the time limit.
                r = self.run_vantrel("--send-scout", login=login, password=password,
                                     sudo_password=sudo_password, timeout=60)
                self.assertFailure(r, 2, tag)
                self.assertEqual(text, r.err_text)
                if r.session.exists("scout-result.xml"):
                    self.assertEqual(b"", r.session.read("scout-result.xml"))
                self.assertIdle(r.session, r.pid)


if __name__ == "__main__":
    harness.main()
