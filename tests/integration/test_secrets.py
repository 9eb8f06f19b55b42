"""The login and sudo passwords never land in session files, logs, result
documents, the binary's /proc/<pid>/environ, or the command lines and
environments of the remote commands, with the log at DEBUG."""
import os
import re
import time

import harness as h

WRONG = "wrong s'udo $ecret"


class SecretsTest(h.Case):
    sample_data = True

    def leaks(self, where, data):
        """Where data holds a password, raw, shell-quoted or XML-escaped."""
        plain = re.sub(rb"&apos;|&#39;|&#x27;", b"'", data).replace(b"\\", b"")
        return [where for secret in (h.PASSWORD, WRONG) if secret.encode() in plain]

    def test_passwords_stay_out_of_files_and_environments(self):
        s = self.session()
        self.assertEqual(0, self.run_vantrel("--send-scout", session=s, sudo=h.PASSWORD).code)
        agent_dir = self.deploy()
        self.configure(agent_dir, delay=8)
        # The rsync transport hands the login password to the agent.
        run = self.start("--dump-all", "--content-transport=rsync", session=s, agent_dir=agent_dir, sudo=h.PASSWORD)
        while run.running() and not any("rsync" in n for n in os.listdir(agent_dir)):
            time.sleep(0.1)
        time.sleep(1)
        found = self.leaks("environ", h.read("/proc/%d/environ" % run.pid))
        found += self.leaks("cmdline", h.read("/proc/%d/cmdline" % run.pid))
        self.assertEqual(0, run.finish().code, run)
        self.assertEqual({"type": "rsync", "host": h.HOST, "login": h.USER, "port": str(self.port)},
                         s.xml("dump.xml").find("content-transport").attrib)
        r = self.run_vantrel("--get-content", session=s, agent_dir=agent_dir, sudo=h.PASSWORD)
        self.assertEqual(0, r.code, r)
        self.configure(agent_dir, fail="failed on purpose")
        r = self.run_vantrel("--dump-all", "--content-transport=rsync", session=s, agent_dir=agent_dir,
                             sudo=h.PASSWORD)
        self.assertEqual(2, r.code, r)
        r = self.run_vantrel("--send-scout", session=s, sudo=WRONG)
        self.assertEqual(2, r.code, r)
        found += self.leaks("stderr", r.err)

        self.assertIn("[DEBUG] p.Ssh: remote stdin <- ********", s.log())
        files = [os.path.join(d, n) for d, _, names in os.walk(s.path) for n in names]
        self.assertGreater(len(files), 10)
        records = [os.path.join(agent_dir, n) for n in os.listdir(agent_dir) if n.startswith("rec.")]
        for tag in (".getstatus.", ".contenttransportrsync.", ".getcontentlist."):
            self.assertTrue(any(tag in r and r.endswith(".sudo") for r in records), (tag, records))
        for path in files + records:
            found += self.leaks(path, h.read(path))
        self.assertEqual([], found)


if __name__ == "__main__":
    h.main()
