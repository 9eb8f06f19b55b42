"""Agent deployment, dumps and the dumping status."""
import os
import pwd
import time

import harness as h


class DeployTest(h.Case):

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.agents = os.path.join(cls.qmv, "agents")
        for rel, text in (("shared/common.txt", "the shared copy"), ("shared/control/x", "top level: not deployed"),
                          ("shared/lib/control/y", "deeper: deployed"), ("tree/control/spec", "EntryPoint: probe.pl\n"),
                          ("tree/control/extra", "not deployed"), ("tree/probe.pl", h.PROBE),
                          ("tree/common.txt", "the agent's copy"), ("tree/sub/control/kept", "deeper: deployed"),
                          ("tree/sub/data.bin", os.urandom(3 * h.MIB + 17)), ("tree/empty", "")):
            h.write(os.path.join(cls.agents, rel), text)

    def expected_tree(self, *parts):
        # The deployment's marker comes first, then the trees without their top control/.
        return {".vantrel-agent": b""} | {rel: data for part in parts
                                          for rel, data in h.tree(os.path.join(self.agents, part)).items()
                                          if rel.split("/")[0] != "control"}

    def test_deploy_merges_shared_and_agent_trees(self):
        login = pwd.getpwnam(h.USER)
        for sudo, uid in ((h.PASSWORD, 0), (None, login.pw_uid)):
            agent_dir = self.remote_dir()
            r = self.run_vantrel("--deploy-agent", agent_dir=agent_dir, agent="tree", sudo=sudo)
            self.ok(r)
            remote = h.tree(agent_dir)
            self.assertEqual(self.expected_tree("shared", "tree"), remote)
            self.assertEqual(b"the agent's copy", remote["common.txt"])
            for rel in ["."] + list(remote):
                self.assertEqual(login.pw_uid, os.lstat(os.path.join(agent_dir, rel)).st_uid, rel)
            # The agent's answer to --get-status, byte for byte, handed to kvaadm.
            status = r.session.file("agent-deployment.status")
            self.assertEqual(b"<agentstatus><uid>%d</uid><cwd>%s</cwd></agentstatus>\n" % (uid, agent_dir.encode()),
                             h.read(status))
            admin = pwd.getpwnam(h.ADMIN_ACCOUNT)
            self.assertEqual((admin.pw_uid, admin.pw_gid), (os.stat(status).st_uid, os.stat(status).st_gid))

    def test_missing_trees_and_failing_status(self):
        # Without the shared tree the run fails before it connects (nothing listens on the port).
        shared = os.path.join(self.agents, "shared")
        os.rename(shared, shared + ".away")
        r = self.run_vantrel("--deploy-agent", agent_dir=self.remote_dir(), port=h.free_port(), sudo=h.PASSWORD)
        os.rename(shared + ".away", shared)
        self.failed(r, 2, "NoSharedAgentsDirectory")
        # A missing agent directory fails after the shared tree went over.
        agent_dir = self.remote_dir()
        r = self.run_vantrel("--deploy-agent", agent_dir=agent_dir, agent="ghost", sudo=h.PASSWORD)
        self.assertIn(os.path.join(self.agents, "ghost"), self.failed(r, 2, "NoAgentDirectory"))
        self.assertEqual(self.expected_tree("shared"), h.tree(agent_dir))
        # The agent's own complaint about --get-status reaches the message.
        agent_dir = self.remote_dir(create=True)
        h.write(os.path.join(agent_dir, "fail-status"), "status is broken\n")
        r = self.run_vantrel("--deploy-agent", agent_dir=agent_dir, agent="tree", sudo=h.PASSWORD)
        self.assertIn("status is broken", self.failed(r, 2, "CantRequestAgentStatus"))
        # A file the source host cannot hold fails the deployment, named with the remote error.
        agent_dir = self.tmpfs()
        r = self.run_vantrel("--deploy-agent", agent_dir=agent_dir, agent="tree", sudo=h.PASSWORD)
        self.assertEqual("Cannot write the remote file %s/sub/data.bin: No space left on device" % agent_dir,
                         self.failed(r, 2, "CantWriteRemoteFile"))


SELECTION = """<selected-objects><parameters filter="only-mail" compression-level="do-not-compress"/>
  <domains><domain><name>carol.test</name></domain><domain><name/></domain></domains>
  <client><name>alice</name></client><server><license/></server></selected-objects>"""


class DumpTest(h.Case):
    sample_data = True

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.agent_dir = cls.deploy("sample")

    def dump(self, action, *extra, **kw):
        return self.start(action, *extra, agent_dir=self.agent_dir, agent="sample", sudo=h.PASSWORD, **kw)

    def test_a_cut_while_a_run_opens_is_made_again(self):
        # Each run's connection is dropped or cut once where it opens: the run connects again after a
        # pause and ends as an uncut one.
        self.configure(self.agent_dir)
        agent = dict(agent_dir=self.agent_dir, agent="sample")
        for action, mode, at in (("--send-scout", "fail-first-handshake", None), ("--send-scout", "cut-once", "auth"),
                                 ("--send-scout", "cut-once", "exec:perl"), ("--deploy-agent", "cut-once", "auth"),
                                 ("--dump-all", "cut-once", "exec:sample-agent"), ("--get-content", "cut-once", "auth"),
                                 ("--get-content", "cut-once", "exec:--get-content-list")):
            with self.subTest(action=action, at=at), h.ScriptedServer(mode, at=at) as peer:
                r = self.run_vantrel(action, port=peer.port, sudo=h.PASSWORD, **({} if action == "--send-scout" else agent))
                self.ok(r, "transfer.result" if action == "--get-content" else "migration.result")
                self.assertIn("CONNECT 2", peer.events)
        # A dump cut once it was told to go may have run: it is not started twice.
        with h.ScriptedServer("cut-once", at="go:sample-agent") as peer:
            r = self.dump("--dump-all", port=peer.port).finish()
        self.assertEqual("Lost connection with the remote host", self.failed(r, 2, "CantRetrieveDump", "SshConnectionFault"))
        self.assertEqual(1, sum(e.startswith("EXEC") and "sample-agent" in e for e in peer.events), peer.events)

    def test_dump_selected_feeds_the_lists_on_stdin(self):
        self.configure(self.agent_dir)
        selection = os.path.join(self.tmp, "selected.xml")
        h.write(selection, SELECTION)
        r = self.dump("--dump-selected", "--selected-objects-file=" + selection, "--domains=bobs-bakery.test",
                      "--clients=bob", "--resellers=-", "--admin-info", "--no-content",
                      stdin=b"northwind\nnot read\n").finish()
        self.ok(r)
        remote = os.path.join(self.agent_dir, "dump.xml")
        self.assertEqual(h.read(remote), r.session.read("dump.xml"))
        self.assertEqual(r.session.file("dump.xml").encode(), r.session.read("dump-name"))
        self.assertEqual(pwd.getpwnam(h.USER).pw_uid, os.stat(remote).st_uid)
        selection = r.session.xml("dump.xml").find("selection")
        self.assertEqual([("domains", "carol.test,bobs-bakery.test"), ("clients", "alice,bob"),
                          ("resellers", "northwind")], [(e.tag, e.text) for e in selection])

    def test_failing_agent(self):
        self.configure(self.agent_dir, fail="the agent gave up")
        r = self.dump("--dump-all").finish()
        text = self.failed(r, 2, "CantRetrieveDump", "CantRetrieveDumpFile")
        self.assertIn("the agent gave up\n", text)
        self.assertFalse(r.session.exists("dump.xml") or r.session.exists("dump-name"))

    def test_dumping_status_refreshed_during_a_long_dump(self):
        self.configure(self.agent_dir, delay=20)
        # The login's time limit ends with the login: the agent may take longer.
        run = self.dump("--dump-all", "--no-content", env={"VANTREL_SSH_LOGIN_TIMEOUT": "2"})
        copies, statuses = (h.Poller(run.session.file(n)) for n in ("dumping-status.xml", "migration.status"))
        r = run.finish()
        copies.stop(), statuses.stop()
        self.ok(r)
        times = [t for t, _ in copies.seen]
        self.assertTrue(3 <= len(times) <= 5 and all(3 < b - a < 8 for a, b in zip(times, times[1:])), times)
        wait = b'<agent action="wait"><host>%s</host></agent>' % h.HOST.encode()
        self.assertTrue(any(wait in data for _, data in statuses.seen), statuses.seen)

        # --get-dumping-status prints the agent's file; --remove-dumping-status
        # takes the session's copy away and nothing else.
        remote = os.path.join(self.agent_dir, "dumping-status.xml")
        self.assertEqual(h.read(remote), self.dump("--get-dumping-status").finish().out)
        before = r.session.names()
        r = self.run_raw(["--remove-dumping-status", "--session-path", r.session.path], r.session)
        self.ok(r)
        self.assertEqual(set(before) - {"dumping-status.xml"}, set(r.session.names()) - {"migration.result.1"})
        self.assertTrue(os.path.exists(remote))

    def test_odd_and_relative_agent_directories(self):
        # Quoted wherever it goes, and nothing in it runs; a relative one lies in the login's home.
        home = pwd.getpwnam(h.USER).pw_dir
        for agent_dir in ("%s/it's a \"dir\";touch pwned" % home, os.path.basename(self.remote_dir())):
            with self.subTest(agent_dir=agent_dir):
                full = os.path.join(home, agent_dir)
                self.remote_dirs.append(full)
                kw = dict(agent_dir=agent_dir, agent="sample", sudo=h.PASSWORD)
                self.ok(self.run_vantrel("--deploy-agent", **kw))
                self.configure(full)
                self.ok(self.run_vantrel("--dump-all", **kw))
                r = self.run_vantrel("--get-content", **kw)
                self.ok(r, "transfer.result")
                self.assertEqual(5, sum(len(f) for _, _, f in os.walk(r.session.file("content"))))
                self.ok(self.run_vantrel("--remove-agent", **kw))
                self.assertFalse(os.path.exists(full))
        self.assertFalse(os.path.exists(os.path.join(home, "pwned")))


if __name__ == "__main__":
    h.main()
