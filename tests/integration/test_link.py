"""Content retrieval through a packet-level link (bench/linklib.py: 25 ms
each way, a 200 Mbit/s bottleneck, no loss), against OpenSSH's client on the
same link."""
import os
import sys
import time

import harness as h

sys.path.insert(0, os.path.join(h.SOURCE, "bench"))
import linklib  # noqa: E402


class LinkCase(h.Case):
    """A link of delay_ms each way (and rate Mbit/s) for the class, with the test bed's sshd behind it."""
    delay_ms, rate = 25, 0

    @classmethod
    def setUpClass(cls):
        why = linklib.available()
        if why:
            raise h.unittest.SkipTest("no packet-level link: " + why)
        super().setUpClass()
        cls.link = linklib.Link(delay_ms=cls.delay_ms, rate=cls.rate)
        cls.addClassCleanup(cls.link.close)
        cls.sshd = cls.link.sshd()
        cls.port = cls.sshd.port


class LinkTest(LinkCase):
    rate = 200

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
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



def tree(top):
    """{path: (mode, bytes)} of what lies under top."""
    found = {}
    for root, dirs, names in os.walk(top):
        for name in dirs + names:
            path = os.path.join(root, name)
            found[os.path.relpath(path, top)] = (os.lstat(path).st_mode, None if name in dirs else h.read(path))
    return found


class CutLinkTest(LinkCase):
    """Connections cut on the way (ss -K in the client's namespace, as a middlebox that resets them)
    and a link that goes down, 5 ms each way."""
    delay_ms = 5

    def start(self, action, rate, **kw):
        self.link.up()
        self.link.set("both", rate=rate, queue=256 << 10)
        return super().start(action, host=self.link.source_addr, sudo=h.PASSWORD, prefix=self.link.argv("client", []),
                             **kw)

    def cutting(self, run, every, when=lambda: True):
        """Cuts every connection every seconds while run runs and when() holds; the number of cuts."""
        cuts = 0
        while run.running():
            time.sleep(every)
            if run.running() and when():
                self.link.kill_connections()
                cuts += 1
        return cuts

    def test_content_and_deployment_go_on_across_cuts(self):
        archives = [h.archive("big", 24 * h.MIB)] + [h.archive("small/%d" % i, 256 * 1024 + i) for i in range(8)]
        agent_dir, s = self.lay_out(archives), self.session()
        carried = self.link.stats()["to-client"]["bytes"]
        run = self.start("--get-content", 48, agent_dir=agent_dir, session=s)
        cuts = self.cutting(run, 1.5)
        self.ok(run.finish(), "transfer.result")
        self.assertGreaterEqual(cuts, 2)
        self.assertIn("connected again", s.log())
        for name, _, md5 in archives:
            self.assertEqual(md5, h.md5(s.read(name)), name)
            self.assertFalse(os.path.exists(os.path.join(agent_dir, name)), name)
        # What was on its way at a cut is all that comes twice.
        total = sum(len(data) for _, data, _ in archives)
        self.assertLess(self.link.stats()["to-client"]["bytes"] - carried, 1.15 * total + h.MIB)

        # A deployment cut once its directories stand and again while its files land is completed by the run.
        agent_dir, s = self.remote_dir(), self.session()
        run = self.start("--deploy-agent", 0.2, agent_dir=agent_dir, agent="sample", session=s)
        for name in ("lib", "VERSION"):
            while run.running() and not os.path.exists(os.path.join(agent_dir, name)):
                time.sleep(0.01)
            self.link.kill_connections()
        self.ok(run.finish(), "migration.result")
        self.assertIn("Connected again to ", s.log())
        whole = self.remote_dir()
        self.ok(self.start("--deploy-agent", 0, agent_dir=whole, agent="sample").finish(), "migration.result")
        self.assertEqual(tree(whole), tree(agent_dir))

    def test_a_link_that_stays_down_ends_the_run_within_its_deadline(self):
        big = h.archive("big", 8 * h.MIB)
        agent_dir, s = self.lay_out([big]), self.session()
        run = self.start("--get-content", 8, agent_dir=agent_dir, session=s, env={"KVA_RECONNECT_DEADLINE": "6"})
        while run.running() and not (s.exists("big.part") and os.path.getsize(s.file("big.part")) >= h.MIB):
            time.sleep(0.01)
        self.link.down()
        self.link.kill_connections()
        started = time.monotonic()
        r = run.finish()
        self.assertLess(time.monotonic() - started, 6 + 5)
        self.assertEqual("Lost connection with the remote host",
                         self.failed(r, 2, "CantRetrieveDump", "SshConnectionFault", doc="transfer.result"))
        self.assertTrue(big[1].startswith(s.read("big.part")))


if __name__ == "__main__":
    h.main()
