"""The login and sudo passwords never reach the session directory, the
environment of remote commands, or the binary's own environment, even with
every log category at DEBUG."""
import os
import time

import harness
from harness import PASSWORD, USER, IntegrationCase, read_bytes, sh_quote

# Writes the environment of itself and of each ancestor below sshd into the
# agent directory, then becomes the sample agent.
SPY = r"""#!/usr/bin/perl
use strict;
use warnings;
use FindBin;
my ($mode) = grep { /^--get-(status|content-list)$/ } @ARGV;
$mode = defined $mode ? substr($mode, 2) : 'dump';
my ($pid, $depth) = ($$, 0);
while ($pid > 1 && $depth < 10) {
    open my $c, '<', "/proc/$pid/comm" or last;
    chomp(my $comm = <$c> // '');
    close $c;
    last if $comm eq 'sshd';
    if (open my $in, '<:raw', "/proc/$pid/environ") {
        local $/;
        my $env = <$in> // '';
        close $in;
        open my $out, '>:raw', "$FindBin::Bin/environ.$mode.$depth.$comm" or die "cannot record: $!\n";
        print {$out} $env;
        close $out;
    }
    open my $s, '<', "/proc/$pid/stat" or last;
    my $stat = <$s> // '';
    close $s;
    ($pid) = $stat =~ /\)\s+\S+\s+(\d+)/ or last;
    $depth++;
}
exec $^X, "$FindBin::Bin/sample-agent.pl", @ARGV or die "cannot run the sample agent: $!\n";
"""

WRONG_SUDO_PASSWORD = "wrong s'udo $ecret"


def forms(secret):
    """The ways a secret could show in a file: raw, shell-quoted, XML-escaped."""
    return {secret, sh_quote(secret), secret.replace("'", "&apos;"), secret.replace("'", "&#39;")}


class SecretsTest(IntegrationCase):
    need_sample_data = True

    @classmethod
    def configure_product(cls, product):
        product.debug_logging()
        sample = read_bytes(os.path.join(product.agents, "sample", "sample-agent.pl"))
        product.add_agent("spy", {"spy.pl": SPY, "sample-agent.pl": sample},
                          spec="Description: records environments\nEntryPoint: spy.pl\n")

    def setUp(self):
        self.leaks = []

    def assertClean(self, what, data, secrets):
        """Notes every place that holds a secret; the test fails at its end,
        after every place was looked at."""
        for form in sorted(secrets):
            at = data.find(form.encode())
            if at >= 0:
                self.leaks.append("%s holds %r: ...%r..." % (what, form, data[max(0, at - 60):at + 60]))

    def assertSessionClean(self, session, secrets):
        count = 0
        for d, _, files in os.walk(session.path):
            for name in files:
                path = os.path.join(d, name)
                if not os.path.islink(path):
                    self.assertClean(path, read_bytes(path), secrets)
                    count += 1
        return count

    def test_passwords_stay_out_of_files_and_environments(self):
        secrets = forms(PASSWORD)
        s = self.new_session()
        r = self.run_vantrel("--send-scout", session=s, sudo_password=PASSWORD)
        self.assertEqual(0, r.code, r.describe())

        agent_dir = self.remote_dir()
        r = self.run_vantrel("--deploy-agent", session=s, agent_dir=agent_dir, agent="spy",
                             sudo_password=PASSWORD)
        self.assertEqual(0, r.code, r.describe())

        # A dump long enough to look at the binary while the agent works.
        self.configure_agent(agent_dir, delay=8)
        run = self.start("--dump-all", session=s, agent_dir=agent_dir, agent="spy", sudo_password=PASSWORD,
                         extra=["--content-transport=rsync"])
        deadline = time.monotonic() + 60
        while run.running() and time.monotonic() < deadline and \
                not any(n.startswith("environ.dump.") for n in os.listdir(agent_dir)):
            time.sleep(0.1)
        self.assertTrue(run.running(), "the dump ended before it could be watched")
        own_env = read_bytes("/proc/%d/environ" % run.pid)
        own_cmdline = read_bytes("/proc/%d/cmdline" % run.pid)
        r = run.finish()
        self.assertEqual(0, r.code, r.describe())
        self.assertClean("the binary's environment", own_env, secrets)
        self.assertClean("the binary's command line", own_cmdline, secrets)
        self.assertEqual({"type": "rsync", "host": harness.HOST, "login": USER, "port": str(self.port)},
                         s.xml("dump.xml").find("content-transport").attrib)

        r = self.start("--get-content", session=s, agent_dir=agent_dir, agent="spy",
                       sudo_password=PASSWORD).finish()
        self.assertEqual(0, r.code, r.describe())

        # A failing dump, and a refused sudo password, in the same session.
        self.configure_agent(agent_dir, fail="failed on purpose")
        r = self.start("--dump-all", session=s, agent_dir=agent_dir, agent="spy", sudo_password=PASSWORD,
                       extra=["--content-transport=rsync"]).finish()
        self.assertEqual(2, r.code, r.describe())
        r = self.run_vantrel("--send-scout", session=s, sudo_password=WRONG_SUDO_PASSWORD, timeout=60)
        self.assertEqual(2, r.code, r.describe())
        self.assertClean("standard error", r.err, forms(WRONG_SUDO_PASSWORD))

        # The debug log really is at DEBUG, with the transport's traffic.
        log = s.log()
        self.assertGreater(log.count("[DEBUG]"), 20, log[-3000:])
        self.assertIn("[DEBUG] p.Ssh", log)
        checked = self.assertSessionClean(s, secrets | forms(WRONG_SUDO_PASSWORD))
        self.assertGreaterEqual(checked, 10, s.names())

        # The environments of the remote commands: every kind of agent run,
        # and the shell and sudo above it.
        recorded = sorted(n for n in os.listdir(agent_dir) if n.startswith("environ."))
        for mode in ("get-status", "dump", "get-content-list"):
            self.assertTrue(any(n.startswith("environ.%s." % mode) for n in recorded), recorded)
        self.assertTrue(any(n.endswith(".sudo") for n in recorded), recorded)
        for name in recorded:
            self.assertClean(name, read_bytes(os.path.join(agent_dir, name)), secrets)
        self.assertEqual([], self.leaks, "\n".join(self.leaks))


if __name__ == "__main__":
    harness.main()
