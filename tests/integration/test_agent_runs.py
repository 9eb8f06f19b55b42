"""Agent deployment, dumps and the dumping status with the real binary and
the sample agent."""
import os
import pwd
import xml.etree.ElementTree as ET

import harness
from harness import HOST, PASSWORD, USER, IntegrationCase, read_bytes, tree

PROBE = r"""#!/usr/bin/perl
use strict;
use Cwd qw(getcwd);
if ("@ARGV" eq '--get-status') {
    print qq{<?xml version="1.0" encoding="UTF-8"?>\n<agentstatus>\n},
        qq{  <statusfile>dumping-status.xml</statusfile>\n  <uid>$<</uid>\n},
        '  <cwd>', getcwd(), "</cwd>\n</agentstatus>\n";
    exit 0;
}
print STDERR "probe: unexpected arguments @ARGV\n";
exit 2;
"""

PROBE_FILES = {
    "probe.pl": PROBE,
    "common.txt": "the agent's copy\n",
    "sub/control/kept.txt": "a control directory below the top is deployed\n",
    "sub/data.bin": bytes(range(256)) * 64,
    "control/extra": "never deployed\n",
}


def deployed_tree(agents, name):
    """What a deployment of agent name must leave remotely: shared, then the
    agent's own tree over it, both without their top-level control."""
    out = {}
    for part in ("shared", name):
        for rel, content in tree(os.path.join(agents, part)).items():
            if rel.split("/", 1)[0] != "control":
                out[rel] = content
    return out


def probe_status(uid, cwd):
    return ('<?xml version="1.0" encoding="UTF-8"?>\n<agentstatus>\n'
            '  <statusfile>dumping-status.xml</statusfile>\n  <uid>%d</uid>\n'
            '  <cwd>%s</cwd>\n</agentstatus>\n' % (uid, cwd)).encode()


class DeployTest(IntegrationCase):

    @classmethod
    def configure_product(cls, product):
        product.add_shared("common.txt", "the shared copy\n")
        product.add_shared("control/x", "the top-level control of shared is not deployed\n")
        product.add_shared("lib/control/y", "deeper control of shared\n")
        product.add_agent("probe", PROBE_FILES)

    def test_deploy_merges_shared_and_agent_trees(self):
        login = pwd.getpwnam(USER)
        for sudo, uid in ((True, 0), (False, login.pw_uid)):
            with self.subTest(sudo=sudo):
                agent_dir = self.remote_dir()
                r = self.run_vantrel("--deploy-agent", agent_dir=agent_dir, agent="probe",
                                     sudo_password=PASSWORD if sudo else None)
                self.assertSuccess(r)
                self.assertIdle(r.session, r.pid)
                self.assertFramed(r, 0)

                remote = tree(agent_dir)
                self.assertEqual(deployed_tree(self.product.agents, "probe"), remote)
                self.assertEqual(b"the agent's copy\n", remote["common.txt"])
                self.assertIn("lib/control/y", remote)
                self.assertIn("sub/control/kept.txt", remote)
                for rel in [""] + list(remote):
                    st = os.lstat(os.path.join(agent_dir, rel))
                    self.assertEqual(login.pw_uid, st.st_uid, rel)

                # The agent's answer, byte for byte, handed to kvaadm.
                status = r.session.file("agent-deployment.status")
                self.assertEqual(probe_status(uid, agent_dir), read_bytes(status))
                st = os.stat(status)
                self.assertEqual(harness.admin_ids(), (st.st_uid, st.st_gid))

    def test_missing_trees(self):
        # Without the shared tree the run fails before any connection: with
        # nothing listening on the port a connection attempt would give 11.
        shared = os.path.join(self.product.agents, "shared")
        os.rename(shared, shared + ".away")
        try:
            r = self.run_vantrel("--deploy-agent", agent_dir=self.remote_dir(), agent="probe",
                                 port=harness.free_port(), sudo_password=PASSWORD)
        finally:
            os.rename(shared + ".away", shared)
        self.assertFailure(r, 2, "NoSharedAgentsDirectory")
        self.assertEqual("'shared' agents directory not found", r.err_text)

        # A missing agent directory fails after the shared files went over.
        agent_dir = self.remote_dir()
        r = self.run_vantrel("--deploy-agent", agent_dir=agent_dir, agent="ghost", sudo_password=PASSWORD)
        self.assertFailure(r, 2, "NoAgentDirectory")
        self.assertEqual("Directory for agent '%s' does not exist" % os.path.join(self.product.agents, "ghost"),
                         r.err_text)
        self.assertEqual(deployed_tree(self.product.agents, "shared"), tree(agent_dir))
        self.assertFalse(r.session.exists("agent-deployment.status"))


SELECTION = """<?xml version="1.0"?>
<selected-objects>
  <parameters filter="only-mail" compression-level="do-not-compress"/>
  <domains>
    <domain><name>carol.test</name></domain>
    <domain><name></name></domain>
  </domains>
  <client><name>alice</name></client>
  <server><license/></server>
</selected-objects>
"""


class DumpTest(harness.SampleAgentDeployed, IntegrationCase):
    def dump(self, action, extra=(), stdin=b"", session=None, sudo=True):
        return self.start(action, session=session, agent_dir=self.agent_dir, extra=extra, stdin=stdin,
                          sudo_password=PASSWORD if sudo else None)

    def test_dump_selected_passes_lists_on_stdin(self):
        selection = os.path.join(self.local_dir("sel"), "selected.xml")
        harness.write_file(selection, SELECTION)
        r = self.dump("--dump-selected", stdin=b"northwind\nnot read\n",
                      extra=["--selected-objects-file=" + selection, "--domains=bobs-bakery.test",
                             "--clients=bob", "--resellers=-", "--admin-info", "--no-content"]).finish()
        self.assertSuccess(r)
        s = r.session
        self.assertIdle(s, r.pid)
        self.assertEqual(read_bytes(os.path.join(self.agent_dir, "dump.xml")), s.read("dump.xml"))
        self.assertEqual(s.file("dump.xml").encode(), s.read("dump-name"))
        # The remote dump was handed to the login before it was fetched.
        self.assertEqual(pwd.getpwnam(USER).pw_uid, os.stat(os.path.join(self.agent_dir, "dump.xml")).st_uid)

        doc = s.xml("dump.xml")
        self.assertEqual(["--migration-mode", "--dump-domains=-", "--dump-clients=-", "--dump-resellers=-",
                          "--only-mail", "--no-compress", "--include-app-distrib", "--admin-info",
                          "--no-content"],
                         [a.text for a in doc.find("arguments")])
        sel = doc.find("selection")
        self.assertEqual(("carol.test,bobs-bakery.test", "stdin"),
                         (sel.findtext("domains"), sel.find("domains").get("source")))
        self.assertEqual("alice,bob", sel.findtext("clients"))
        self.assertEqual("northwind", sel.findtext("resellers"))
        self.assertEqual({"northwind"}, {e.get("name") for e in doc.iter("reseller")})

    def test_failing_agent(self):
        self.configure_agent(self.agent_dir, fail="the agent gave up")
        r = self.dump("--dump-all").finish()
        msg = self.assertFailure(r, 2, "CantRetrieveDump")
        self.assertEqual("Error during dump retrieval", r.err_text)
        inner = msg.findall("message")
        self.assertEqual(1, len(inner), ET.tostring(msg))
        self.assertMessage(inner[0], "CantRetrieveDumpFile")
        text = inner[0].findtext("description")
        self.assertTrue(text.startswith("Error during dump file retrieving. \n"
                                        "Remote agent failed with the following stderr messages: "), text)
        self.assertIn("the agent gave up\n", text)
        self.assertFalse(r.session.exists("dump-name"))
        self.assertFalse(r.session.exists("dump.xml"))
        self.assertIdle(r.session, r.pid)

    def test_long_dump_and_dumping_status(self):
        self.configure_agent(self.agent_dir, delay=20)
        session = self.new_session()
        run = self.dump("--dump-all", extra=["--no-content"], session=session)
        with harness.FilePoller(session.file("dumping-status.xml"), 0.2) as copies, \
                harness.FilePoller(session.file("migration.status"), 0.2) as statuses:
            r = run.finish(timeout=120)
        self.assertSuccess(r)

        # The local copy of the agent's status was refreshed while it ran.
        counters = [int(ET.fromstring(c).find("progress").get("counter")) for c in copies.seen]
        self.assertGreaterEqual(len(counters), 2, copies.seen)
        self.assertEqual(sorted(counters), counters)
        self.assertTrue(any(b'state="dumping"' in c for c in copies.seen), copies.seen)
        waiting = [ET.fromstring(x) for x in statuses.seen if b"<agent" in x]
        self.assertTrue(waiting, statuses.seen)
        self.assertEqual("wait", waiting[0].find("agent").get("action"))
        self.assertEqual(HOST, waiting[0].findtext("agent/host"))
        self.assertIdle(session, r.pid)

        # --get-dumping-status prints the remote file unchanged and leaves
        # nothing in its session besides the run's own files.
        remote_status = os.path.join(self.agent_dir, "dumping-status.xml")
        r = self.dump("--get-dumping-status").finish()
        self.assertSuccess(r)
        self.assertEqual(read_bytes(remote_status), r.out)
        self.assertLessEqual(set(r.session.names()),
                             {"archives", "migration.status", "migration.result", "migration.log"})

        # --remove-dumping-status removes the session's copy and nothing else.
        before = set(session.names())
        self.assertIn("dumping-status.xml", before)
        r = self.run_raw(["--remove-dumping-status", "--session-path", session.path], session=session)
        self.assertSuccess(r)
        after = set(session.names())
        self.assertNotIn("dumping-status.xml", after)
        self.assertLessEqual(before - {"dumping-status.xml"}, after)
        self.assertTrue(os.path.exists(remote_status))


if __name__ == "__main__":
    harness.main()
