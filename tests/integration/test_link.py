"""Content retrieval through a packet-level link (bench/linklib.py: 25 ms
each way, a 200 Mbit/s bottleneck, no loss), against OpenSSH's client on the
same link."""
import os
import sys
import time

import harness as h

sys.path.insert(0, os.path.join(h.SOURCE, "bench"))
import linklib  # noqa: E402


class LinkTest(h.Case):
    @classmethod
    def setUpClass(cls):
        why = linklib.available()
        if why:
            raise h.unittest.SkipTest("no packet-level link: " + why)
        super().setUpClass()
        cls.link = linklib.Link(delay_ms=25, rate=200)
        cls.addClassCleanup(cls.link.close)
        cls.sshd = cls.link.sshd()
        h.write(cls.tmp + "/askpass", '#!/bin/sh\necho "$VT_PASSWORD"\n')
        os.chmod(cls.tmp + "/askpass", 0o700)

    def timed(self, argv, env):
        """(seconds, peak KiB of the source's sshd session) of argv on the client's side."""
        with self.link.peak_kib("source", b"@notty") as peak:
            start = time.monotonic()
            r = self.link.run_client(argv, env=env, capture_output=True, umask=0o027)
            took = time.monotonic() - start
        self.assertEqual(0, r.returncode, r.stderr)
        return took, peak.kib, r.stdout

    def test_one_archive_against_ssh_cat(self):
        name, data, md5 = h.archive("big.tar", 16 * h.MIB)
        agent_dir = self.lay_out([(name, data, md5)])
        env = h.environment(sudo=h.PASSWORD) | {"SSH_ASKPASS": self.tmp + "/askpass", "SSH_ASKPASS_REQUIRE": "force",
                                                "VT_PASSWORD": h.PASSWORD}
        host, port = self.link.source_addr, str(self.sshd.port)
        ssh = ["ssh", "-F", "/dev/null", "-p", port, "-o", "StrictHostKeyChecking=no", "-o",
               "UserKnownHostsFile=/dev/null", "%s@%s" % (h.USER, host), "cat " + os.path.join(agent_dir, name)]
        runs = {"vantrel": [], "ssh": []}
        for _ in range(2):
            s = self.session()
            runs["vantrel"].append(self.timed(
                [h.BIN, "--get-content", "--host=" + host, "--port=" + port, "--login=" + h.USER, "--sudo-password",
                 "--agent-dir=" + agent_dir, "--agent-name=probe", "--session-path", s.path], env)[:2])
            self.assertEqual(md5, h.md5(s.read(name)))
            h.write(os.path.join(agent_dir, name), data, owner=h.USER)
            took, peak, out = self.timed(ssh, env)
            self.assertEqual(md5, h.md5(out))
            runs["ssh"].append((took, peak))
        (tv, pv), (ts, ps) = min(runs["vantrel"]), min(runs["ssh"])
        # Half of OpenSSH's throughput at least, whatever the machine's load.
        self.assertLess(tv, 2 * ts, runs)
        # The server reads a command's output ahead of the link as far as the
        # client's window lets it, and enlarges that buffer by copying it
        # whole: a window far beyond what the link carries makes it copy more
        # than it sends. vantrel's may leave it little more than OpenSSH's
        # client (2 MiB of window) does.
        self.assertLess(pv, ps + 6 * 1024, runs)


if __name__ == "__main__":
    h.main()
