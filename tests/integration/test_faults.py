"""Faults: a connection cut in the middle of an archive, hostile content
lists, a full disk, and source hosts that stall or log in oddly. Nothing may
be passed off as whole: no file under an archive's name unless it holds it."""
import os
import re
import signal
import subprocess
import tempfile
import time

import harness as h


class FaultCase(h.Case):
    def content_failure(self, r, inner):
        return self.failed(r, 2, "CantRetrieveDump", inner, doc="transfer.result")

    def assertAbsent(self, directory, name):
        """No file under the archive's name, and no partial one beside it."""
        self.assertFalse([n for n in (name, name + ".part") if os.path.lexists(os.path.join(directory, n))])


class ContentFaultTest(FaultCase):

    def test_cut_connections_are_made_again_in_the_same_run(self):
        archives = [h.archive("a"), h.archive("sub/b", 3 * h.MIB), h.archive("c", h.MIB + 17)]
        agent_dir = self.lay_out(archives)
        s = self.session()
        # Every connection is cut once a command sent 1 MiB on it: the run connects again and goes on
        # from where the bytes that arrived end.
        with h.ScriptedServer("cut", cut_after=h.MIB) as cut:
            r = self.get_content(agent_dir, session=s, port=cut.port, env={"KVA_STREAMS": "1"}).finish()
        self.ok(r, "transfer.result")
        self.assertGreaterEqual(sum(e.startswith("CUT") for e in cut.events), 3, cut.events)
        self.assertIn("the bytes that arrived are kept", s.log())
        for name, data, _ in archives:
            self.assertEqual(data, s.read(name))
            self.assertFalse(os.path.exists(os.path.join(agent_dir, name)))
        # A host that stays away: the run gives up within its deadline, failing as a lost connection does.
        agent_dir = self.lay_out(archives[1:])
        with h.ScriptedServer("cut-then-down", cut_after=h.MIB) as cut:
            started = time.monotonic()
            r = self.get_content(agent_dir, port=cut.port, env={"KVA_STREAMS": "1", "KVA_RECONNECT_DEADLINE": "4"}).finish()
        self.assertEqual("Lost connection with the remote host", self.content_failure(r, "SshConnectionFault"))
        self.assertLess(time.monotonic() - started, 15)
        self.assertTrue(archives[1][1].startswith(r.session.read("sub/b.part")))

    def test_arrived_archives_are_removed_by_a_stopped_run_or_by_the_next(self):
        small, big = h.archive("small", 64 * 1024), h.archive("big", 16 * h.MIB)
        for sig in (signal.SIGTERM, signal.SIGKILL):
            with self.subTest(signal=sig):
                agent_dir, s = self.lay_out([small, big]), self.session()
                slow = {"KVA_BWLIMIT": "2M", "KVA_STREAMS": "1"}
                run = self.get_content(agent_dir, session=s, env=slow)
                while run.running() and not s.exists("small"):
                    time.sleep(0.02)
                run.proc.send_signal(sig)
                run.finish()
                on_source = lambda name: os.path.exists(os.path.join(agent_dir, name))  # noqa: E731
                # Stopped, the run removes what arrived on its way out; killed, the next run does.
                self.assertEqual((sig == signal.SIGKILL, True), (on_source("small"), on_source("big")))
                self.ok(self.get_content(agent_dir, session=s).finish(), "transfer.result")
                self.assertEqual((False, False), (on_source("small"), on_source("big")))

    def test_stopped_and_killed_runs_are_continued_and_garbage_is_replaced(self):
        big, other = h.archive("big", 128 * h.MIB), h.archive("other", 2 * h.MIB)
        agent_dir = self.lay_out([big, other])
        s = self.session()

        one = {"KVA_STREAMS": "1"}   # one stream: its part grows from the start

        def stop_at(share, sig):
            run = self.get_content(agent_dir, session=s, env=one)
            while run.running() and (not s.exists("big.part")
                                               or os.path.getsize(s.file("big.part")) < share * len(big[1])):
                time.sleep(0.01)
            run.proc.send_signal(sig)
            started = time.monotonic()
            return run.finish(), time.monotonic() - started

        # SIGTERM: a clean stop at once, and nothing under the archive's name.
        r, took = stop_at(0.2, signal.SIGTERM)
        self.assertEqual((0, b"Migration has been terminated", b""), (r.code, r.out, r.err), r)
        self.assertLess(took, 2)
        self.assertEqual("success", s.xml("transfer.result").get("status"))
        self.assertFalse(s.exists("big"))
        # SIGKILL half-way; a part of other that is garbage is not trusted either.
        stop_at(0.5, signal.SIGKILL)
        h.write(s.file("other.part"), b"garbage" * 1000)
        status, r = self.final_status(self.get_content(agent_dir, session=s, env=one))
        self.ok(r, "transfer.result")
        self.assertEqual("0", status.find("transfer/files").get("size-left"))   # the garbage is not counted twice
        resumed = [int(n) for n in re.findall(r"Continuing big from byte (\d+)", s.log())]
        self.assertGreater(resumed[-1], 0.4 * len(big[1]), resumed)   # the rerun brings 60 % at most
        self.assertEqual([big[2], other[2]], [h.md5(s.read(n)) for n in ("big", "other")])
        self.assertIn("failed its check; fetching it again", s.log())

    def test_archives_unlike_their_list_stay_on_the_source_host(self):
        good, bad = h.archive("good"), h.archive("bad")
        for sum_, sizes, says in ((bad[2][::-1], {}, "4096 bytes with MD5 sum %s were listed" % bad[2][::-1]),
                                  (bad[2], {"bad": 4095}, "more than 4095 bytes"),
                                  ("", {"bad": 5000}, "5000 bytes with MD5 sum (none) were listed, 4096 bytes")):
            with self.subTest(says=says):
                agent_dir = self.lay_out([good, ("bad", bad[1], sum_)], sizes=sizes)
                r = self.get_content(agent_dir, "--no-check-space").finish()
                text = self.content_failure(r, "ContentFileMismatch")
                self.assertTrue(text.startswith("The content file 'bad' did not arrive whole") and says in text, text)
                self.assertAbsent(r.session.path, "bad")
                self.assertEqual(bad[1], h.read(os.path.join(agent_dir, "bad")))

    def test_progress_line_on_a_terminal(self):
        agent_dir = self.lay_out([h.archive("dir/shown", 8 * h.MIB)])
        r = self.get_content(agent_dir, tty=True).finish()
        self.assertEqual(0, r.code, r)
        self.assertRegex(r.err, rb"^(\rdir/shown +[0-9.]+ \S+ / 8\.0 MiB +\d+% .*\x1b\[K)+\r?\n$")
        self.assertIn(b"100%", r.err)

    def test_archives_whole_in_subdirectories_are_neither_fetched_nor_removed(self):
        archives = [h.archive("x/y/one"), h.archive("x/two")]
        agent_dir, dumps = self.lay_out(archives), tempfile.mkdtemp(dir=self.tmp)
        for name, data, _ in archives:
            h.write(os.path.join(dumps, name), data)
        r = self.get_content(agent_dir, "--dumps-dir=" + dumps).finish()
        self.ok(r, "transfer.result")
        # Senders start while the list is made (one command line); none is asked for anything, and
        # nothing else runs.
        log = r.session.log()
        lines = [re.sub("vantrel-begin-[0-9a-f]+", "", line.split(" Executing ")[1])
                 for line in log.splitlines() if " Executing " in line]
        lists = [line for line in lines if "--get-content-list" in line]
        self.assertEqual((1, 1, 0), (len(lists), len(set(lines) - set(lists)), log.count("Fetching")))
        self.assertTrue(all(os.path.exists(os.path.join(agent_dir, n)) for n, _, _ in archives))

    def test_names_leaving_the_content_directory_are_refused_before_anything_is_written(self):
        first = h.archive("first")
        agent_dir = self.lay_out([first])
        for bad in ("../escape", "sub/../../escape", tempfile.mktemp(prefix="/tmp/vantrel-escape."), "..", "sub/..",
                    "", "sub/"):
            with self.subTest(name=bad):
                h.write(os.path.join(agent_dir, "list.xml"), h.content_list([first, (bad, b"hostile", "")]))
                dumps = tempfile.mkdtemp(dir=self.tmp)
                r = self.get_content(agent_dir, "--dumps-dir=" + dumps).finish()
                self.assertIn(bad, self.content_failure(r, "UnsafeContentFileName"))
                self.assertEqual([], os.listdir(dumps))
                self.assertFalse(os.path.exists(self.tmp + "/escape") or bad[:1] == "/" and os.path.exists(bad))
                self.assertTrue(os.path.exists(os.path.join(agent_dir, "first")))

    def test_awkward_names_are_fetched_and_nothing_runs(self):
        archives = [h.archive(n) for n in ("with blank", "it's \"quoted\"", "$(touch pwned) `touch pwned`",
                                            "semi;colon&amp|pipe", "line\nfeed", "back\\slash", "-dash",
                                            "\u00fcml\u00e4ut/\u65e5\u672c", "star*?[x]", " lead and trail ",
                                            "a{b,c}")]
        agent_dir = self.lay_out(archives)
        # A login shell that is bash must not make two other files of the one listed.
        for name in ("ab", "ac"):
            h.write(os.path.join(agent_dir, name), name, owner=h.USER)
        r = self.get_content(agent_dir).finish()
        self.ok(r, "transfer.result")
        for name, data, _ in archives:
            self.assertEqual(data, r.session.read(name), repr(name))
            self.assertFalse(os.path.exists(os.path.join(agent_dir, name)), repr(name))
        self.assertFalse(os.path.exists(os.path.join(agent_dir, "pwned")))
        self.assertFalse(os.path.exists(os.path.expanduser("~%s/pwned" % h.USER)))
        self.assertEqual([b"ab", b"ac"], [h.read(os.path.join(agent_dir, n)) for n in ("ab", "ac")])
        self.assertFalse(r.session.exists("ab") or r.session.exists("ac"))

    def test_impossible_sizes(self):
        a = h.archive("a")
        agent_dir = self.lay_out([a], total=(1 << 64) - 1)
        r = self.get_content(agent_dir).finish()
        self.assertIn("but 18446744073709551615 is needed", self.content_failure(r, "NotEnoughSpace"))
        self.assertAbsent(r.session.path, "a")
        # Sizes that are no 64-bit number: a tagged error with the conversion's text, nothing fetched.
        h.write(os.path.join(agent_dir, "list.xml"), h.content_list([a], 1 << 64))
        r = self.get_content(agent_dir).finish()
        self.content_failure(r, "BadContentListNumber")
        self.assertAbsent(r.session.path, "a")

    def test_empty_list_and_entity_bomb(self):
        agent_dir = self.lay_out([])
        bomb = "<!DOCTYPE x [<!ENTITY a '%s'>" % ("x" * 100) + "".join(
            "<!ENTITY %s '%s'>" % (n, ("&%s;" % p) * 10) for p, n in zip("abcdef", "bcdefg")) + "]>"
        for text, tag in (("", "AssertionFailed"), (bomb + "<contentlist size='1'><file size='1' md5sum='x'>&g;"
                                                           "</file></contentlist>", "tError_ParseFile")):
            h.write(os.path.join(agent_dir, "list.xml"), text)
            r = self.get_content(agent_dir).finish()
            self.content_failure(r, tag)
            self.assertEqual(["archives", "host-key", "migration.log", "migration.status", "transfer.result"],
                             r.session.names())

    def test_small_disk(self):
        fits, big = h.archive("fits", 256 * 1024), h.archive("big", 3 * h.MIB)
        agent_dir = self.lay_out([fits, big])
        dumps = self.tmpfs()
        r = self.get_content(agent_dir, "--dumps-dir=" + dumps).finish()
        self.assertRegex(self.content_failure(r, "NotEnoughSpace"),
                         r"^Selected filesystem has only \d+ free space, but %d is needed" % (256 * 1024 + 3 * h.MIB))
        self.assertEqual([], os.listdir(dumps))
        # Without the check the disk fills during the download.
        r = self.get_content(agent_dir, "--dumps-dir=" + dumps, "--no-check-space").finish()
        self.content_failure(r, "StreamWrite")
        self.assertEqual(fits[1], h.read(os.path.join(dumps, "fits")))
        self.assertAbsent(dumps, "big")
        self.assertEqual(big[1], h.read(os.path.join(agent_dir, "big")))


class GuardTest(FaultCase):
    """One run per session, and a source host that cannot hold or flood a run."""

    def remote_processes(self, agent_dir):
        """Processes of the source host that run in or for agent_dir, waited for a few seconds to end."""
        for _ in range(50):
            found = subprocess.run(["pgrep", "-f", agent_dir], capture_output=True, text=True).stdout.split()
            if not found:
                break
            time.sleep(0.2)
        return found

    def test_busy_session_and_a_silent_agent(self):
        agent_dir = self.lay_out([h.archive("a")])
        h.write(os.path.join(agent_dir, "hang"), "")
        s = self.session()
        for sig in (signal.SIGTERM, signal.SIGKILL):
            # Started with the stop signals blocked, as a controlling process may do.
            first = self.get_content(agent_dir, session=s, blocked=True)
            while first.running() and not [n for n in os.listdir(agent_dir) if n.startswith("rec.")]:
                time.sleep(0.05)
            if sig == signal.SIGTERM:
                # A second run on the held session stops at once and writes only its own refusal.
                names = s.names()
                second = self.get_content(agent_dir, session=s).finish(30)
                self.assertEqual(1, second.code, second)
                self.assertIn(b"is in use by another run", second.err)
                busy = "transfer.result.busy-%d" % second.pid
                self.assertEqual(sorted(names + [busy]), s.names())
                self.assertEqual("SessionBusy", s.xml(busy).find("message").get("code"))
                self.assertEqual(1, s.log().count("Vantrel started"))
            # Stopped while the agent says nothing: the run ends at once, and so does the agent.
            started = time.monotonic()
            first.proc.send_signal(sig)
            r = first.finish(60)
            self.assertLess(time.monotonic() - started, 10, r)
            if sig == signal.SIGTERM:
                self.assertEqual((0, b"Migration has been terminated"), (r.code, r.out), r)
            self.assertEqual([], self.remote_processes(agent_dir))
            for n in os.listdir(agent_dir):
                if n.startswith("rec."):
                    os.unlink(os.path.join(agent_dir, n))

    def test_loud_agent_is_kept_within_bounds(self):
        agent_dir = self.lay_out([h.archive("a")])
        quiet = self.get_content(agent_dir, measure=True).finish()
        h.write(os.path.join(agent_dir, "loud"), "")
        r = self.get_content(agent_dir, measure=True).finish()
        self.assertIn("bytes left out", self.content_failure(r, "CantRetrieveContentList"))
        self.assertLess(r.peak_kib - quiet.peak_kib, 32 * 1024, (quiet.peak_kib, r.peak_kib))
        for name in ("transfer.result", "migration.log"):
            self.assertLess(os.path.getsize(r.session.file(name)), 1 << 20, name)

    def test_names_that_would_collide_are_refused_before_anything_moves(self):
        for names in (["migration.status"], ["transfer.result", "dump-name"], ["migration-result-name"],
                      ["migration.log", "host-key"], ["content/k.tgz.part", "content/k.tgz"], ["x", "x"],
                      ["d", "d/e"]):
            with self.subTest(names=names):
                archives = [h.archive("first")] + [h.archive(n) for n in names]
                agent_dir = self.lay_out(archives, present=lambda n: n != "x" and n != "d")
                r = self.get_content(agent_dir).finish()
                text = self.content_failure(r, "ContentNamesCollide")
                self.assertTrue(any("'%s'" % n in text for n in names), text)
                self.assertAbsent(r.session.path, "first")
                self.assertTrue(os.path.exists(os.path.join(agent_dir, "first")))

    def test_nothing_is_fetched_through_a_link_out_of_the_agent_directory(self):
        outside = tempfile.mkdtemp(dir=self.tmp)
        os.chmod(outside, 0o755)
        h.write(os.path.join(outside, "outside-2"), "root's own\n")
        agent_dir = self.lay_out([h.archive("content/dirlink/outside-2")], present=lambda n: False)
        os.makedirs(os.path.join(agent_dir, "content"))
        os.symlink(outside, os.path.join(agent_dir, "content", "dirlink"))
        r = self.get_content(agent_dir).finish()
        self.assertIn("leads outside the agent directory", self.content_failure(r, "CantRetrieveContentFile"))
        self.assertEqual(b"root's own\n", h.read(os.path.join(outside, "outside-2")))
        self.assertAbsent(r.session.file("content/dirlink"), "outside-2")


class LoginFaultTest(FaultCase):

    def scout(self, server, **env):
        with server:
            started = time.monotonic()
            return self.run_vantrel("--send-scout", port=server.port, env=env), time.monotonic() - started

    def test_stalled_login_ends_with_exit_12(self):
        for mode, step in (("silent", "handshake"), ("stall-auth", "authentication")):
            with self.subTest(mode=mode):
                peer = h.ScriptedServer(mode)
                r, took = self.scout(peer, VANTREL_SSH_LOGIN_TIMEOUT="3")
                self.assertEqual("Timeout while attempting connection to host " + h.HOST,
                                 self.failed(r, 12, "ConnectionTimedOut"))
                self.assertTrue(2.5 < took < 10, took)
                self.assertIn("SSH %s timed out" % step, r.session.log())
                self.assertNotIn("CONNECT 2", peer.events)   # no second try in compatibility mode

    def test_stop_in_a_stalled_handshake_ends_every_connection(self):
        # The content streams' other connections stall in their handshakes too: a stop ends them at once.
        with h.ScriptedServer("silent") as peer:
            run = self.start("--get-content", port=peer.port, agent_dir="d", sudo=h.PASSWORD)
            time.sleep(1)
            started = time.monotonic()
            run.proc.send_signal(signal.SIGTERM)
            r = run.finish(60)
        self.assertEqual((0, b"Migration has been terminated"), (r.code, r.out), r)
        self.assertLess(time.monotonic() - started, 5)

    def test_unusable_time_out_settings_keep_thirty_seconds(self):
        peers = [h.ScriptedServer("silent").start() for _ in range(3)]
        started = time.monotonic()
        runs = [self.start("--send-scout", port=p.port, env={"VANTREL_SSH_LOGIN_TIMEOUT": value})
                for p, value in zip(peers, ("abc", "0", "99999999999999999999"))]
        for run in runs:
            self.failed(run.finish(), 12, "ConnectionTimedOut")
            self.assertTrue(28 < time.monotonic() - started < 45)
        for p in peers:
            p.stop()

    def test_connection_lost_during_the_key_exchange_is_a_connection_failure(self):
        # Tried again after a pause, as a host past its MaxStartups is, until the deadline.
        with h.ScriptedServer("fail-handshake") as peer:
            started = time.monotonic()
            r = self.run_vantrel("--deploy-agent", port=peer.port, agent_dir=self.remote_dir(), sudo=h.PASSWORD,
                                 env={"KVA_RECONNECT_DEADLINE": "3"})
        self.assertIn("lost during the SSH handshake", self.failed(r, 15, "ConnectionFault"))
        self.assertIn("CONNECT 2", peer.events)
        self.assertLess(time.monotonic() - started, 10)

    def test_keyboard_interactive_and_compatibility_retry(self):
        with h.SshServer("kbdint") as kbdint:
            self.ok(self.run_vantrel("--send-scout", port=kbdint.port))
        peer = h.ScriptedServer("kbdint-3-prompts")
        r, _ = self.scout(peer)
        self.ok(r)
        self.assertEqual(["CONNECT 1", "AUTH 1 ok"], peer.events[:2])
        # A refused first handshake is tried once more, in compatibility mode (whose sign is a reserve
        # channel running "cat"), once the host's offer (read on connection 2) says no more than that.
        peer = h.ScriptedServer("refuse-first-handshake")
        r, _ = self.scout(peer)
        self.ok(r)
        self.assertEqual(["CONNECT 1", "CONNECT 2", "CONNECT 3", "AUTH 3 ok", "EXEC 3 cat"], peer.events[:5])
        self.assertNotIn("CONNECT 4", peer.events)


if __name__ == "__main__":
    h.main()
