"""Content retrieval and agent removal with the real binary.

The last step of a content run writes "dump-name"; a test that needs the
final migration status makes that file a named pipe, so that the run waits
there, after its last status save, until the test reads the pipe.
"""
import os
import re
import subprocess
import sys
import time
import xml.etree.ElementTree as ET

import harness
from harness import HOST, PASSWORD, USER, IntegrationCase, md5_file, read_bytes
from test_faults import Archive, FaultCase

GIB = 1 << 30

class ContentCase(IntegrationCase):

    def get_content(self, agent_dir, session=None, sudo=True, extra=()):
        return self.start("--get-content", session=session, agent_dir=agent_dir, agent=self.agent,
                          sudo_password=PASSWORD if sudo else None, extra=extra)

    def fifo_session(self):
        s = self.new_session(create=True)
        os.mkfifo(s.file("dump-name"))
        return s

    def finish_at_fifo(self, run, timeout=300):
        """(migration status at the run's last save, what it wrote into
        dump-name, the result)."""
        self.assertTrue(run.wait_blocked_on_fifo(timeout), "the run did not reach dump-name")
        time.sleep(0.3)     # lets the pollers of a test see the last status too
        run.peak_at_fifo = run.peak_rss_kib()
        status = run.session.status()
        name = harness.read_fifo(run.session.file("dump-name"), run.proc)
        return status, name, run.finish()

    def assertFinalTransfer(self, status, files, size_total, size_left, current, current_size):
        transfer = status.find("transfer")
        self.assertIsNotNone(transfer, ET.tostring(status))
        self.assertEqual(HOST, transfer.findtext("host"))
        self.assertRegex(transfer.get("speed", ""), r"^\d+$")
        f = transfer.find("files")
        self.assertEqual({"total": str(files), "left": "0", "size-total": str(size_total),
                          "size-left": str(size_left)}, f.attrib)
        cur = f.find("current-file")
        self.assertEqual(current, cur.text)
        self.assertEqual({"size": str(current_size), "size-left": "0"}, cur.attrib)

    def assertNameFiles(self, session, content_dir, dump_name):
        self.assertEqual((content_dir + "/dump.xml").encode(), dump_name)
        self.assertEqual((content_dir + "/migration.result").encode(), session.read("migration-result-name"))


class SampleContentTest(harness.SampleAgentDeployed, ContentCase):
    agent = "sample"

    def dump(self, action, extra=(), **settings):
        """Dumps with content and returns (records, total) of the agent's list."""
        self.configure_agent(self.agent_dir, **settings)
        r = self.start(action, agent_dir=self.agent_dir, extra=extra, sudo_password=PASSWORD).finish(600)
        self.assertEqual(0, r.code, r.describe())
        out = subprocess.run(["perl", os.path.join(self.agent_dir, "sample-agent.pl"), "--get-content-list"],
                             cwd=self.agent_dir, check=True, capture_output=True).stdout
        root = ET.fromstring(out)
        records = [(e.text, int(e.get("size")), e.get("md5sum")) for e in root.findall("file")]
        return records, int(root.get("size"))

    def assertArrived(self, records, content_dir):
        for name, size, md5 in records:
            local = os.path.join(content_dir, name)
            self.assertEqual((size, md5), (os.path.getsize(local), md5_file(local)), name)
            self.assertFalse(os.path.exists(os.path.join(self.agent_dir, name)), name)

    def test_content_lands_in_session_and_in_dumps_dir(self):
        records, total = self.dump("--dump-all")
        self.assertEqual(sorted("content/%s/%s.tar.gz" % (c, d) for d, c in harness.SAMPLE_DOMAINS.items()),
                         [n for n, _, _ in records])

        s = self.fifo_session()
        status, dump_name, r = self.finish_at_fifo(self.get_content(self.agent_dir, s))
        self.assertSuccess(r, "transfer.result")
        self.assertIdle(s, r.pid)
        self.assertFramed(r, 0)
        self.assertFalse(s.exists("migration.result"))
        last, last_size, _ = records[-1]
        self.assertFinalTransfer(status, 5, total, 0, last, last_size)
        self.assertNameFiles(s, s.path, dump_name)
        self.assertArrived(records, s.path)
        admin = harness.admin_ids()
        for d in ("content", "content/carol"):
            st = os.stat(s.file(d))
            self.assertEqual(admin + (0o755,), (st.st_uid, st.st_gid, st.st_mode & 0o7777), d)

        # Another run with --dumps-dir puts the archives there.
        records, total = self.dump("--dump-all")
        dumps = self.local_dir("dumps")
        r = self.get_content(self.agent_dir, extra=["--dumps-dir=" + dumps]).finish()
        self.assertSuccess(r, "transfer.result")
        self.assertNameFiles(r.session, dumps, r.session.read("dump-name"))
        self.assertArrived(records, dumps)
        self.assertFalse(r.session.exists("content"))

    def test_large_archive_progress(self):
        records, total = self.dump("--dump-selected", extra=["--domains=photos.carol.test", "--no-compress"],
                                   content_size=GIB)
        self.assertEqual(1, len(records))
        name, size, md5 = records[0]
        self.assertGreater(size, GIB)

        s = self.fifo_session()
        run = self.get_content(self.agent_dir, s)
        with harness.FilePoller(s.file("migration.status"), 0.05) as poll:
            status, dump_name, r = self.finish_at_fifo(run, timeout=600)
        self.assertSuccess(r, "transfer.result")
        self.assertFinalTransfer(status, 1, total, 0, name, size)

        # While the archive came, the status named it with what was left of it.
        lefts = []
        for data in poll.seen:
            cur = ET.fromstring(data).find("transfer/files/current-file")
            if cur is not None:
                self.assertEqual(name, cur.text)
                lefts.append(int(cur.get("size-left")))
        self.assertEqual(size, lefts[0], lefts)
        self.assertEqual(0, lefts[-1], lefts)
        self.assertEqual(sorted(lefts, reverse=True), lefts)

        local = s.file(name)
        self.assertEqual(md5, md5_file(local))
        self.assertFalse(os.path.exists(os.path.join(self.agent_dir, name)))
        os.unlink(local)
        sys.stderr.write("\n1 GiB transfer: peak RSS of vantrel %s KiB\n" % run.peak_at_fifo)


class FixedListContentTest(ContentCase):
    """Archives listed by the agent of the fault tests."""
    agent = "listing"
    configure_product = FaultCase.configure_product
    prepare = FaultCase.prepare

    def test_present_archives_are_neither_fetched_nor_removed(self):
        archives = [Archive("a.bin"), Archive("b.bin"), Archive("c.bin"),
                    Archive("d.bin", md5=""), Archive("e.bin")]
        agent_dir = self.prepare(archives)
        s = self.fifo_session()
        for a in archives:
            harness.write_file(s.file(a.name), a.data if a.name < "d" else b"stale local copy\n")
        kept = {a.name: os.stat(s.file(a.name)) for a in archives[:3]}

        status, dump_name, r = self.finish_at_fifo(self.get_content(agent_dir, s))
        self.assertSuccess(r, "transfer.result")
        # Skipped archives do not count against the size left.
        skipped = sum(len(a.data) for a in archives[:3])
        self.assertFinalTransfer(status, 5, sum(len(a.data) for a in archives), skipped, "e.bin",
                                 len(archives[4].data))
        self.assertNameFiles(s, s.path, dump_name)
        for a in archives[:3]:
            st = os.stat(s.file(a.name))
            self.assertEqual((kept[a.name].st_ino, kept[a.name].st_mtime_ns), (st.st_ino, st.st_mtime_ns), a.name)
            self.assertTrue(os.path.exists(os.path.join(agent_dir, a.name)), a.name)
        # An empty sum always downloads, and so does a differing copy.
        for a in archives[3:]:
            self.assertEqual(a.data, s.read(a.name), a.name)
            self.assertFalse(os.path.exists(os.path.join(agent_dir, a.name)), a.name)

    def test_failing_remote_rm_is_logged_and_next_archive_comes(self):
        archives = [Archive("a.bin"), Archive("locked/b.bin"), Archive("c.bin")]
        agent_dir = self.prepare(archives, sudo=False)
        locked = os.path.join(agent_dir, "locked")
        os.chown(locked, 0, 0)
        os.chown(os.path.join(locked, "b.bin"), 0, 0)

        r = self.get_content(agent_dir, sudo=False).finish()
        self.assertSuccess(r, "transfer.result")
        for a in archives:
            self.assertEqual(a.data, r.session.read(a.name), a.name)
        self.assertFalse(os.path.exists(os.path.join(agent_dir, "a.bin")))
        self.assertFalse(os.path.exists(os.path.join(agent_dir, "c.bin")))
        self.assertTrue(os.path.exists(os.path.join(locked, "b.bin")))
        log = r.session.log()
        self.assertIn("Unable to remove remote file '%s/locked/b.bin' from '%s': " % (agent_dir, HOST), log)
        self.assertIn("Permission denied", log)

    def test_third_of_five_missing(self):
        archives = [Archive(n, present=(n != "c.bin")) for n in ("a.bin", "b.bin", "c.bin", "d.bin", "e.bin")]
        agent_dir = self.prepare(archives)
        r = self.get_content(agent_dir).finish()
        msg = self.assertFailure(r, 2, "CantRetrieveDump", name="transfer.result")
        self.assertEqual("Error during dump retrieval", r.err_text)
        inner = msg.findall("message")
        self.assertEqual(1, len(inner))
        self.assertMessage(inner[0], "CantRetrieveContentFile")
        text = inner[0].findtext("description")
        prefix = "Failed to retrieve file '%s/c.bin' from '%s' to '%s/c.bin': " % (agent_dir, HOST, r.session.path)
        self.assertTrue(text.startswith(prefix), text)
        self.assertIn("No such file or directory", text)

        s = r.session
        for a in archives[:2]:
            self.assertEqual(a.data, s.read(a.name))
            self.assertFalse(os.path.exists(os.path.join(agent_dir, a.name)))
        for a in archives[2:]:
            self.assertFalse(s.exists(a.name), a.name)
        for a in archives[3:]:
            self.assertTrue(os.path.exists(os.path.join(agent_dir, a.name)), a.name)
        self.assertFalse(s.exists("dump-name"))
        self.assertFalse(s.exists("migration-result-name"))
        self.assertIdle(s, r.pid)

    def test_not_enough_space(self):
        archive = Archive("big.bin")
        agent_dir = self.prepare([archive], total=5000000)
        dumps = self.mount_tmpfs("1m")
        r = self.get_content(agent_dir, extra=["--dumps-dir=" + dumps]).finish()
        msg = self.assertFailure(r, 2, "CantRetrieveDump", name="transfer.result")
        inner = msg.find("message")
        self.assertMessage(inner, "NotEnoughSpace")
        m = re.match(r"^Selected filesystem has only (\d+) free space, but 5000000 is needed for operation$",
                     inner.findtext("description"))
        self.assertTrue(m, inner.findtext("description"))
        self.assertLessEqual(int(m.group(1)), 1 << 20)
        self.assertEqual([], os.listdir(dumps))
        self.assertTrue(os.path.exists(os.path.join(agent_dir, "big.bin")))

        # Without the check the archive comes.
        r = self.get_content(agent_dir, extra=["--dumps-dir=" + dumps, "--no-check-space"]).finish()
        self.assertSuccess(r, "transfer.result")
        self.assertEqual(archive.data, read_bytes(os.path.join(dumps, "big.bin")))

    def test_remove_agent(self):
        def remove(agent_dir, **kw):
            r = self.start("--remove-agent", agent_dir=agent_dir, agent=self.agent, **kw).finish()
            self.assertSuccess(r)
            self.assertFramed(r, 0)
            self.assertFalse(r.session.exists("migration.status"))
            return r

        def reasons(r, target):
            """Log lines besides start and stop that name the directory."""
            return [l for l in r.session.log_lines()
                    if "Vantrel started : " not in l and "Vantrel finished. " not in l and "'%s'" % target in l]

        agent_dir = self.prepare([Archive("a.bin")])
        r = remove(agent_dir, sudo_password=PASSWORD)
        self.assertFalse(os.path.exists(agent_dir))
        self.assertEqual([], reasons(r, agent_dir))

        # Failures to reach the host still end in success; the tree stays.
        agent_dir = self.prepare([Archive("a.bin")])
        remove(agent_dir, password="not the password")
        remove(agent_dir, port=harness.free_port())
        self.assertTrue(os.path.exists(os.path.join(agent_dir, "a.bin")))

        # A directory that holds no deployed agent, and "/", are refused.
        plain = self.remote_dir(create=True)
        harness.write_file(os.path.join(plain, "notes.txt"), "not an agent\n", owner=USER)
        for target in (plain, "/"):
            with self.subTest(target=target):
                r = remove(target, sudo_password=PASSWORD)
                self.assertTrue(reasons(r, target), "no reason for the refusal in the log:\n" + r.session.log())
        self.assertTrue(os.path.exists(os.path.join(plain, "notes.txt")))
        self.assertTrue(os.path.isdir("/usr/bin"))

if __name__ == "__main__":
    harness.main()
