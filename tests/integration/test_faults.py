"""Faults with the real binary: a connection cut in the middle of an archive,
a hostile content list, a full disk, a session path that is a file, a broken
logging configuration, and source hosts that stop answering while logging in.

Each case checks the exit code and message, and that nothing is passed off
as whole: no file under an archive's name unless it holds the archive.
"""
import hashlib
import os
import time
from xml.sax.saxutils import escape

import harness
from harness import HOST, PASSWORD, USER, IntegrationCase, md5_file, read_bytes
import testbed

# An agent that prints the content list kept beside it in list.xml.
LISTING_AGENT = r"""#!/usr/bin/perl
use strict;
use FindBin;
if ("@ARGV" eq '--get-content-list') {
    open my $fh, '<', "$FindBin::Bin/list.xml" or do { print STDERR "no content list: $!\n"; exit 1 };
    binmode $fh; binmode STDOUT;
    print while <$fh>;
    exit 0;
}
if ("@ARGV" eq '--get-status') {
    print qq{<?xml version="1.0"?>\n<agentstatus><statusfile>dumping-status.xml</statusfile></agentstatus>\n};
    exit 0;
}
print STDERR "listing: unexpected arguments @ARGV\n";
exit 2;
"""

MIB = 1 << 20


def blob(name, size):
    """size bytes that differ from archive to archive."""
    seed = hashlib.sha256(name.encode()).digest()
    return (seed * (size // len(seed) + 1))[:size]


class Archive:
    def __init__(self, name, data=None, size=None, md5=None, present=True):
        self.name = name
        self.data = data if data is not None else blob(name, 4096 if size is None else size)
        self.size = len(self.data)
        self.md5 = hashlib.md5(self.data).hexdigest() if md5 is None else md5
        self.present = present


class FaultCase(IntegrationCase):

    @classmethod
    def configure_product(cls, product):
        product.add_agent("listing", {"listing.pl": LISTING_AGENT})

    def prepare(self, archives, total=None, sizes=None, sudo=True):
        """A deployed agent directory holding the archives and a list of them;
        sizes overrides the listed size of an archive by name."""
        agent_dir = self.deploy_for_class("listing", sudo=sudo)
        body = ""
        for a in archives:
            if a.present:
                harness.write_file(os.path.join(agent_dir, a.name), a.data, mode=0o644, owner=USER)
            size = (sizes or {}).get(a.name, a.size)
            body += '  <file size="%s" md5sum="%s">%s</file>\n' % (size, a.md5, escape(a.name))
        if total is None:
            total = sum(a.size for a in archives)
        harness.write_file(os.path.join(agent_dir, "list.xml"),
                           ('<?xml version="1.0" encoding="UTF-8"?>\n<contentlist size="%s" unpacked="%s">\n%s'
                            '</contentlist>\n' % (total, total, body)).encode("utf-8"), mode=0o644)
        return agent_dir

    def get_content(self, agent_dir, session=None, extra=(), **kw):
        return self.start("--get-content", session=session, agent_dir=agent_dir, agent="listing",
                          sudo_password=PASSWORD, extra=extra, **kw).finish(300)

    def assertContentFailure(self, r, inner_tag):
        msg = self.assertFailure(r, 2, "CantRetrieveDump", name="transfer.result")
        inner = msg.findall("message")
        self.assertEqual(1, len(inner), r.describe())
        self.assertMessage(inner[0], inner_tag)
        self.assertIdle(r.session, r.pid)
        self.assertFramed(r, 2)
        return inner[0].findtext("description")

    def assertNoArchive(self, directory, archive):
        """No file under the archive's name, and no leftover beside it."""
        path = os.path.join(directory, archive.name)
        self.assertFalse(os.path.lexists(path), "%s exists (%s bytes)" % (
            path, os.path.getsize(path) if os.path.exists(path) else "?"))
        parent = os.path.dirname(path)
        if os.path.isdir(parent):
            leftovers = [n for n in os.listdir(parent) if n.startswith(os.path.basename(archive.name))]
            self.assertEqual([], leftovers, parent)


class CutTransferTest(FaultCase):

    def test_cut_mid_archive_then_rerun_completes(self):
        small, big, last = Archive("a.bin"), Archive("sub/b.bin", size=3 * MIB), Archive("c.bin", size=MIB + 17)
        agent_dir = self.prepare([small, big, last])
        s = self.new_session()
        with testbed.ScriptedServer("cut-mid-transfer", cut_after=MIB) as cut:
            r = self.get_content(agent_dir, session=s, port=cut.port)
            self.assertTrue(cut.wait_event("CUT 1"), cut.events())
        text = self.assertContentFailure(r, "SshConnectionFault")
        self.assertEqual("Lost connection with the remote host", text)
        self.assertEqual("Error during dump retrieval", r.err_text)

        # The first archive came whole; the cut one and the next are absent
        # locally and still on the source host.
        self.assertEqual(small.data, s.read(small.name))
        self.assertFalse(os.path.exists(os.path.join(agent_dir, small.name)))
        for a in (big, last):
            self.assertNoArchive(s.path, a)
            self.assertEqual(a.data, read_bytes(os.path.join(agent_dir, a.name)))
        self.assertFalse(s.exists("dump-name"))

        # A run against a host that keeps the connection fetches the rest
        # and leaves the archive that came before alone.
        before = os.stat(s.file(small.name))
        r = self.get_content(agent_dir, session=s)
        self.assertSuccess(r, "transfer.result")
        for a in (small, big, last):
            self.assertEqual(a.md5, md5_file(s.file(a.name)), a.name)
            self.assertFalse(os.path.exists(os.path.join(agent_dir, a.name)), a.name)
        self.assertEqual(before.st_ino, os.stat(s.file(small.name)).st_ino)


class HostileContentListTest(FaultCase):

    def test_names_that_leave_the_content_directory_are_refused_before_anything_is_written(self):
        good = Archive("first.bin")
        for bad in ("../escape.bin", "sub/../../escape.bin", "/tmp/vantrel-escape-%s.bin" % harness.random_name(),
                    "..", "sub/..", "", "sub/"):
            with self.subTest(name=bad):
                # The unsafe name comes second: the first archive must not be
                # fetched either.
                evil = Archive(bad, data=b"hostile\n", present=False)
                agent_dir = self.prepare([good, evil])
                s = self.new_session()
                dumps = self.local_dir("dumps")
                r = self.get_content(agent_dir, session=s, extra=["--dumps-dir=" + dumps])
                text = self.assertContentFailure(r, "UnsafeContentFileName")
                self.assertIn(bad, text)
                self.assertEqual([], os.listdir(dumps))
                self.assertFalse(os.path.exists(os.path.join(os.path.dirname(dumps), "escape.bin")))
                if bad.startswith("/"):
                    self.assertFalse(os.path.exists(bad))
                self.assertTrue(os.path.exists(os.path.join(agent_dir, good.name)))
                self.assertFalse(s.exists(good.name))
                self.assertFalse(s.exists("dump-name"))

    def test_names_with_blanks_quotes_newlines_and_utf8_are_fetched(self):
        names = ["with blank.tar.gz", "it's \"quoted\".bin", "dollar $(touch pwned) `id`.bin",
                 "semi;colon&amp|pipe.bin", "line\nfeed.bin", "back\\slash.bin", "-dash.bin",
                 "\u00fcml\u00e4ut/\u65e5\u672c.bin", "star*?[x].bin", " lead and trail .bin"]
        archives = [Archive(n) for n in names]
        agent_dir = self.prepare(archives)
        r = self.get_content(agent_dir)
        self.assertSuccess(r, "transfer.result")
        for a in archives:
            self.assertEqual(a.data, r.session.read(a.name), repr(a.name))
            self.assertFalse(os.path.exists(os.path.join(agent_dir, a.name)), repr(a.name))
        self.assertFalse(os.path.exists(os.path.join(agent_dir, "pwned")))
        self.assertFalse(os.path.exists(os.path.join(os.path.expanduser("~" + USER), "pwned")))

    def test_impossible_sizes(self):
        # A total no disk has: refused by the space test before any download.
        a = Archive("a.bin")
        agent_dir = self.prepare([a], total=(1 << 64) - 1)
        r = self.get_content(agent_dir)
        text = self.assertContentFailure(r, "NotEnoughSpace")
        self.assertTrue(text.endswith("but 18446744073709551615 is needed for operation"), text)
        self.assertNoArchive(r.session.path, a)

        # Sizes that are no 64-bit number: a clear error, nothing fetched.
        for total, size in (("18446744073709551616", a.size), (a.size, "99999999999999999999"),
                            (a.size, "12abc"), ("-1", a.size)):
            with self.subTest(total=total, size=size):
                agent_dir = self.prepare([a], total=total, sizes={a.name: size})
                r = self.get_content(agent_dir)
                self.assertNotEqual(0, r.code, r.describe())
                self.assertIn(b"bad lexical cast", r.err, r.describe())
                self.assertNoArchive(r.session.path, a)
                self.assertTrue(os.path.exists(os.path.join(agent_dir, a.name)))

        # A listed size far above the real one only skews the progress: the
        # archive comes whole, under its md5 sum.
        agent_dir = self.prepare([a], total=1 << 62, sizes={a.name: 1 << 62})
        r = self.get_content(agent_dir, extra=["--no-check-space"])
        self.assertSuccess(r, "transfer.result")
        self.assertEqual(a.data, r.session.read(a.name))

    def test_malformed_lists(self):
        # Each kind of error the reader raises reaches the result document; the
        # reader's messages themselves are checked by the unit tests.
        agent_dir = self.deploy_for_class("listing")
        cases = [
            (b"", "AssertionFailed"),
            (b"<?xml version='1.0'?><filelist size='1' unpacked='1'/>", "tError_WrongDoc"),
            (b"<contentlist unpacked='1'><file size='1' md5sum='x'>a</file></contentlist>", "NoSuchAttribute"),
            (b"<!DOCTYPE x [<!ENTITY a '" + b"x" * 100 + b"'><!ENTITY b '&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;'>"
             b"<!ENTITY c '&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;'><!ENTITY d '&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;'>"
             b"<!ENTITY e '&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;'><!ENTITY f '&e;&e;&e;&e;&e;&e;&e;&e;&e;&e;'>"
             b"<!ENTITY g '&f;&f;&f;&f;&f;&f;&f;&f;&f;&f;'>]>"
             b"<contentlist size='1' unpacked='1'><file size='1' md5sum='x'>&g;</file></contentlist>",
             "tError_ParseFile"),
        ]
        for text, tag in cases:
            with self.subTest(text=text[:60]):
                harness.write_file(os.path.join(agent_dir, "list.xml"), text, mode=0o644)
                r = self.get_content(agent_dir)
                self.assertContentFailure(r, tag)
                self.assertEqual(["archives", "migration.log", "migration.status", "transfer.result"],
                                 [n for n in r.session.names() if n != "migration.result"], r.describe())


class DiskFullTest(FaultCase):

    def test_disk_fills_during_download(self):
        fits, big = Archive("fits.bin", size=256 * 1024), Archive("big.bin", size=3 * MIB)
        agent_dir = self.prepare([fits, big])
        dumps = self.mount_tmpfs("1m")
        r = self.get_content(agent_dir, extra=["--dumps-dir=" + dumps, "--no-check-space"])
        text = self.assertContentFailure(r, "StreamWrite")
        self.assertEqual(fits.data, read_bytes(os.path.join(dumps, fits.name)))
        self.assertNoArchive(dumps, big)
        self.assertEqual(big.data, read_bytes(os.path.join(agent_dir, big.name)))
        self.assertTrue(text, r.describe())


class SessionAndLoggingTest(FaultCase):

    def test_session_path_that_is_a_file(self):
        s = self.new_session()
        harness.write_file(s.path, b"not a directory\n")
        before = os.listdir(os.path.dirname(s.path))
        r = self.run_vantrel("--send-scout", session=s)
        self.assertEqual(1, r.code, r.describe())
        self.assertIn(b"UnableToCreateSession", r.err)
        self.assertIn(b"Unable to create session: Unable to create session directory", r.err)
        self.assertTrue(r.err.endswith(b"\n"))
        self.assertEqual(b"not a directory\n", read_bytes(s.path))
        self.assertEqual(before, os.listdir(os.path.dirname(s.path)))

        # The same below a file.
        inner = harness.Session(os.path.join(s.path, "sub"))
        r = self.run_vantrel("--send-scout", session=inner)
        self.assertEqual(1, r.code, r.describe())
        self.assertIn(b"Unable to create session directory", r.err)
        self.assertEqual(b"not a directory\n", read_bytes(s.path))

    def test_missing_or_malformed_logging_configuration(self):
        props = os.path.join(self.product.qmv, "log4cpp.properties")
        saved = read_bytes(props)
        self.addCleanup(harness.write_file, props, saved)
        cases = [
            ("missing", None),
            ("garbage", b"\x00\xff this is = not = a properties file\n[[[\n"),
            ("unknown appender", b"log4cpp.rootCategory=DEBUG, A1\nlog4cpp.appender.A1=NoSuchAppender\n"),
            ("bad priority", b"log4cpp.rootCategory=LOUDEST, A1\nlog4cpp.appender.A1=ConsoleAppender\n"
                             b"log4cpp.appender.A1.layout=BasicLayout\n"),
            ("no layout", b"log4cpp.rootCategory=DEBUG, A1\nlog4cpp.appender.A1=ConsoleAppender\n"),
            ("unwritable file", b"log4cpp.rootCategory=DEBUG, A1\nlog4cpp.appender.A1=FileAppender\n"
                                b"log4cpp.appender.A1.fileName=/proc/version/no/such/log\n"
                                b"log4cpp.appender.A1.layout=BasicLayout\n"),
            ("directory", None),
        ]
        for label, text in cases:
            with self.subTest(case=label):
                if os.path.isdir(props):
                    os.rmdir(props)
                elif os.path.exists(props):
                    os.unlink(props)
                if label == "directory":
                    os.mkdir(props)
                elif text is not None:
                    harness.write_file(props, text)
                r = self.run_vantrel("--send-scout")
                if label == "unwritable file":
                    # A log that cannot be written costs the log, not the run.
                    self.assertSuccess(r)
                    continue
                # The debug log is set up before anything else happens: the
                # run stops there with the reader's own complaint.
                self.assertEqual(1, r.code, r.describe())
                self.assertTrue(r.err.startswith(b"Uncaught std::exception: "), r.describe())
                self.assertNotIn(b"Sanitizer", r.err, r.describe())
                self.assertNotIn(PASSWORD.encode(), r.err)
                self.assertEqual(["archives"], r.session.names())
        if os.path.isdir(props):
            os.rmdir(props)


class SilentHostTest(FaultCase):
    """Hosts that accept the connection and then stop answering."""

    def timed_run(self, mode, env_timeout):
        env = {} if env_timeout is None else {"VANTREL_SSH_LOGIN_TIMEOUT": str(env_timeout)}
        with testbed.ScriptedServer(mode) as peer:
            old = {k: os.environ.get(k) for k in env}
            os.environ.update(env)
            try:
                start = time.monotonic()
                r = self.run_vantrel("--send-scout", port=peer.port, timeout=120)
                took = time.monotonic() - start
            finally:
                for k, v in old.items():
                    if v is None:
                        os.environ.pop(k, None)
                    else:
                        os.environ[k] = v
            events = peer.events()
        self.assertFailure(r, 12, "ConnectionTimedOut")
        self.assertEqual("Timeout while attempting connection to host %s" % HOST, r.err_text)
        self.assertIdle(r.session, r.pid)
        self.assertFramed(r, 12)
        return took, r, events

    def test_silent_handshake_and_stalled_authentication_end_with_exit_12(self):
        took, r, events = self.timed_run("silent", 3)
        self.assertTrue(2 <= took < 15, took)
        self.assertIn("SSH handshake timed out", r.session.log())
        self.assertNotIn("CONNECT 2", events)

        took, r, events = self.timed_run("stall-auth", 3)
        self.assertTrue(2 <= took < 15, took)
        self.assertIn("SSH authentication timed out", r.session.log())

    def test_default_bound_is_thirty_seconds(self):
        took, r, _ = self.timed_run("silent", None)
        self.assertTrue(28 <= took < 45, took)

    def test_long_remote_command_is_not_cut(self):
        self.product.set_scout('$| = 1; print "start\\n"; sleep 8; print "done\\n"; exit 0;\n')
        os.environ["VANTREL_SSH_LOGIN_TIMEOUT"] = "2"
        try:
            r = self.run_vantrel("--send-scout", sudo_password=PASSWORD)
        finally:
            os.environ.pop("VANTREL_SSH_LOGIN_TIMEOUT", None)
        self.assertSuccess(r)
        self.assertEqual(b"start\ndone\n", r.session.read("scout-result.xml"))


if __name__ == "__main__":
    harness.main()
