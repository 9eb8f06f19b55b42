"""Load: twenty --get-content runs started at once against one loopback sshd,
each with its own agent directory and session directory.

Every run either succeeds or fails with a connection error that a
controlling process can retry; no run touches another's files.
"""
import hashlib
import os
import time

import harness
from harness import PASSWORD, USER, IntegrationCase, md5_file
from test_faults import LISTING_AGENT

RUNS = 20

# The eight connection failures: their own exit codes, or the inner message
# of an action that wraps every failure.
CONNECTION_TAGS = {"ConnectionRefused": 11, "ConnectionTimedOut": 12, "NetworkUnreachable": 13,
                   "HostUnreachable": 14, "ConnectionFault": 15, "HostNotFound": 16,
                   "SshInvalidCredentials": 17, "SshConnectionFault": 18}


class LoadTest(IntegrationCase):

    @classmethod
    def configure_product(cls, product):
        product.add_agent("listing", {"listing.pl": LISTING_AGENT})

    def prepare(self, index):
        """A deployed agent directory with three archives that no other run
        has: (agent_dir, {name: md5})."""
        agent_dir = self.deploy_for_class("listing", sudo=False)
        sums, body, total = {}, "", 0
        for name, size in (("small.bin", 10 * 1024 + index), ("mid/mid.bin", 300 * 1024 + index),
                           ("large.bin", (1 << 20) + 4099 * index)):
            data = os.urandom(size)
            harness.write_file(os.path.join(agent_dir, name), data, mode=0o644, owner=USER)
            harness.chown_login(os.path.dirname(os.path.join(agent_dir, name)))
            sums[name] = hashlib.md5(data).hexdigest()
            body += '<file size="%d" md5sum="%s">%s</file>\n' % (size, sums[name], name)
            total += size
        harness.write_file(os.path.join(agent_dir, "list.xml"),
                           '<contentlist size="%d" unpacked="%d">\n%s</contentlist>\n' % (total, total, body),
                           mode=0o644)
        return agent_dir, sums

    def start_all(self, jobs):
        runs = [self.start("--get-content", session=job["session"], agent_dir=job["agent_dir"],
                           agent="listing", sudo_password=PASSWORD if job["sudo"] else None)
                for job in jobs]
        for run in runs:
            self.addCleanup(run.kill)
        return runs

    def finish_or_report(self, run, timeout=120):
        """The run's result; a run still busy after timeout seconds fails the
        test with where it stood (all twenty normally finish within seconds)."""
        deadline = time.monotonic() + timeout
        while run.running() and time.monotonic() < deadline:
            time.sleep(0.2)
        if run.running():
            log = "\n".join(run.session.log_lines()[-8:])
            run.kill()
            self.fail("a run hangs after %d s: %s\nlast log lines:\n%s" % (timeout, " ".join(run.argv), log))
        return run.finish(10)

    def retryable(self, r):
        """The connection tag of a failed run, or None when it may not be
        retried."""
        for tag, code in CONNECTION_TAGS.items():
            if r.code == code:
                return tag
        if r.code == 2 and r.session.exists("transfer.result"):
            root = r.session.result("transfer.result")
            inner = root.find("message/message")
            if inner is not None and inner.get("code") in CONNECTION_TAGS:
                return inner.get("code")
        return None

    def test_twenty_content_runs_at_once(self):
        jobs = []
        for i in range(RUNS):
            agent_dir, sums = self.prepare(i)
            # Half of them through sudo, half as the login.
            jobs.append({"agent_dir": agent_dir, "sums": sums, "session": self.new_session(), "sudo": i % 2 == 0})

        pending, retried, rounds = list(jobs), [], 0
        start = time.monotonic()
        while pending and rounds < 3:
            rounds += 1
            runs = self.start_all(pending)
            results = [self.finish_or_report(run) for run in runs]
            again = []
            for job, r in zip(pending, results):
                if r.code == 0:
                    job["result"] = r
                    continue
                tag = self.retryable(r)
                self.assertIsNotNone(tag, "a run failed without a connection error:\n" + r.describe())
                retried.append(tag)
                again.append(job)
            pending = again
        took = time.monotonic() - start
        self.assertEqual([], pending, "runs still failing after %d rounds: %s" % (rounds, retried))

        for job in jobs:
            r = job["result"]
            self.assertSuccess(r, "transfer.result")
            s = r.session
            # Every archive whole, from its own agent; nothing else arrived.
            for name, md5 in job["sums"].items():
                self.assertEqual(md5, md5_file(s.file(name)), "%s in %s" % (name, s.path))
                self.assertFalse(os.path.exists(os.path.join(job["agent_dir"], name)), name)
            self.assertEqual(sorted(["archives", "dump-name", "large.bin", "mid", "migration-result-name",
                                     "migration.log", "migration.status", "small.bin", "transfer.result"]),
                             [n for n in s.names() if n != "migration.result"], s.path)
            self.assertEqual(["mid.bin"], os.listdir(s.file("mid")))
            self.assertEqual((s.path + "/dump.xml").encode(), s.read("dump-name"))
            self.assertIdle(s, r.pid)
        print("\n%d runs at once: %.1f s, %d retried (%s)" % (RUNS, took, len(retried), ", ".join(retried)))


if __name__ == "__main__":
    harness.main()
