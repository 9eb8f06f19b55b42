"""The sample agent and the scout that ship in product/, run here in perl: the
agent from a directory laid out as a deployment lays it out, on the sample
host data."""
import os
import re
import shutil
import subprocess
import tarfile
import tempfile
import unittest
import xml.etree.ElementTree as ET

import harness as h

AGENTS = os.path.join(h.SOURCE, "product", "QMV", "agents")
SECRET = b"pw-Zq8#only"
DOMAINS = {"alice-example.test": "alice", "shop.alice-example.test": "alice", "bobs-bakery.test": "bob",
           "carol.test": "carol", "photos.carol.test": "carol"}


class SampleAgentTest(unittest.TestCase):

    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="vantrel-sample.")
        self.addCleanup(shutil.rmtree, self.dir)
        for part in ("shared", "sample"):
            shutil.copytree(os.path.join(AGENTS, part), self.dir, dirs_exist_ok=True,
                            ignore=lambda d, names: ["control"] if d.endswith(part) else [])
        subprocess.run([os.path.join(h.SOURCE, "tests", "fixtures", "sample-host", "make-sample-host"),
                        self.dir + "/data"], check=True, stdout=subprocess.DEVNULL)
        self.configure()

    def configure(self, **settings):
        settings.setdefault("data", self.dir + "/data")
        h.write(os.path.join(self.dir, "sample-agent.conf"), "".join("%s=%s\n" % kv for kv in settings.items()))

    def agent(self, *args, stdin=b"", code=0):
        r = subprocess.run(["perl", self.dir + "/sample-agent.pl"] + list(args), input=stdin, capture_output=True)
        self.assertEqual(code, r.returncode, r.stderr)
        return r

    def listed(self):
        return [(f.text, f) for f in ET.fromstring(self.agent("--get-content-list").stdout).iter("file")]

    def test_selected_dump_with_rsync_transport(self):
        # Standard input: host, login, password, port, then the lists in the
        # order domains, clients, resellers, whatever the order of the arguments.
        args = ["--content-transport=rsync", "--migration-mode", "--dump-resellers=-", "--dump-clients=-",
                "--dump-domains=-", "--include-app-distrib", "--server", "--no-license"]
        r = self.agent(*args, stdin=b"src.test\nmigrator\n%s\n2222\nbobs-bakery.test,nope.test\nalice\nnorthwind"
                       % SECRET)
        doc = ET.parse(self.dir + "/dump.xml").getroot()
        self.assertEqual(args, [a.text for a in doc.find("arguments")])
        self.assertEqual(["bobs-bakery.test,nope.test", "alice", "northwind"], [e.text for e in doc.find("selection")])
        self.assertEqual({"type": "rsync", "host": "src.test", "login": "migrator", "port": "2222"},
                         doc.find("content-transport").attrib)
        self.assertEqual(("omitted", None), (doc.find("server").get("license"), doc.find("admin-info")))
        # The reseller brings its client carol, the list alice; carol's domains come along.
        self.assertEqual(["northwind", "alice", "carol"], [e.get("name") for e in doc.find("objects")][:3])
        self.assertEqual([("domain", "nope.test")], [(e.get("type"), e.get("name")) for e in doc.iter("not-found")])
        self.assertEqual("done", ET.parse(self.dir + "/dumping-status.xml").getroot().get("state"))
        # The password is read but never written anywhere.
        self.assertNotIn(SECRET, r.stdout + r.stderr + b"".join(filter(None, h.tree(self.dir).values())))
        archives = {e.get("name"): e.find("archive") for e in doc.iter("domain")}
        self.assertEqual(set(DOMAINS), set(archives))
        for name, f in self.listed():
            domain = os.path.basename(name)[:-7]
            self.assertEqual("content/%s/%s.tar.gz" % (DOMAINS[domain], domain), name)
            data = h.read(os.path.join(self.dir, name))
            self.assertEqual((str(len(data)), h.md5(data)), (f.get("size"), f.get("md5sum")))
            self.assertEqual(h.md5(data), archives[domain].get("md5sum"))
            with tarfile.open(os.path.join(self.dir, name)) as t:
                self.assertIn("httpdocs/index.html", t.getnames())

    def test_inline_lists_and_filters(self):
        self.agent("--dump-domains=carol.test", "--dump-clients=-", "--only-mail", "--no-compress", stdin=b"bob\n")
        sel = ET.parse(self.dir + "/dump.xml").getroot().find("selection")
        self.assertEqual([("carol.test", "argument"), ("bob", "stdin")], [(e.text, e.get("source")) for e in sel])
        names = [n for n, _ in self.listed()]
        self.assertEqual(["content/bob/bobs-bakery.test.tar", "content/carol/carol.test.tar"], names)
        with tarfile.open(os.path.join(self.dir, names[0])) as t:
            self.assertTrue(all(n.startswith("mail") for n in t.getnames()))
        # A new dump replaces the archives of the last one; --no-content leaves none.
        self.agent("--dump-all", "--no-content", "--admin-info")
        self.assertEqual("admin@sample-host.test",
                         ET.parse(self.dir + "/dump.xml").getroot().find("admin-info").get("email"))
        self.assertEqual([], self.listed())

    def test_failures(self):
        self.assertIn(b"--bogus", self.agent("--dump-all", "--bogus", code=2).stderr)
        self.agent(code=2)
        self.configure(fail="disk on fire", fail_status="no status", fail_list="no list")
        for args, text in ((["--dump-all"], b"disk on fire\n"), (["--get-status"], b"no status\n"),
                           (["--get-content-list"], b"no list\n")):
            r = self.agent(*args, code=3)
            self.assertEqual((b"", text), (r.stdout, r.stderr))
        self.assertFalse(os.path.exists(self.dir + "/dump.xml"))
        self.configure(data="/nonexistent/data")
        self.assertIn(b"/nonexistent/data", self.agent("--dump-all", code=1).stderr)

    def test_scout_report(self):
        with open(os.path.join(h.SOURCE, "product", "QMV", "scout.pl"), "rb") as scout:
            r = subprocess.run(["perl"], stdin=scout, capture_output=True)
        self.assertEqual((0, b""), (r.returncode, r.stderr))
        root = ET.fromstring(r.stdout)
        self.assertEqual((os.uname().nodename, os.uname().release, "true"),
                         (root.findtext("hostname"), root.find("kernel").get("release"), root.find("user").get("root")))
        self.assertGreater(int(root.find("disk").get("available")), 0)
        with open("/etc/passwd") as f:
            self.assertEqual(str(sum(1 for line in f if line.count(":") >= 6)), root.find("accounts").get("total"))
        self.assertEqual([("tar", "true"), ("gzip", "true")],
                         [(p.get("name"), p.get("present")) for p in root.iter("program")])
        # The scout runs alone, so it has an XML escaper of its own: the agent's, to the letter.
        escapers = [re.search(r"^sub xml_escape \{.*?^\}", h.read(os.path.join(*path)).decode(), re.S | re.M).group(0)
                    for path in ((h.SOURCE, "product", "QMV", "scout.pl"), (AGENTS, "shared", "lib", "Vantrel", "Sample.pm"))]
        self.assertEqual(escapers[0], escapers[1])


class RemoteProgramTest(unittest.TestCase):
    """The programs vantrel sends to the source host (vantrel/remote), run here."""
    PROGRAMS = os.path.join(h.SOURCE, "vantrel", "remote")

    def test_what_goes_to_a_source_host_compiles_on_perl_5_8_with_perl_base_alone(self):
        # Source hosts run Perl 5.8.8 (CentOS 5), or only Debian's perl-base: perlver for the syntax,
        # perl-base's own list for the modules (test_source_hosts runs them on such a host).
        base = {re.sub(r".*/perl-base/", "", p) for p in subprocess.run(
            ["dpkg", "-L", "perl-base"], capture_output=True, text=True, check=True).stdout.split() if p.endswith(".pm")}
        files = [os.path.join(self.PROGRAMS, n) for n in sorted(os.listdir(self.PROGRAMS)) if n.endswith(".pl")]
        files += [os.path.join(h.SOURCE, "product", "QMV", "scout.pl"), os.path.join(AGENTS, "sample", "sample-agent.pl"),
                  os.path.join(AGENTS, "shared", "lib", "Vantrel", "Sample.pm")]
        for path in files:
            name = os.path.basename(path)
            if path.endswith(".pl"):
                r = subprocess.run(["perl", "-I", os.path.join(AGENTS, "shared", "lib"), "-c", "-w", path],
                                   capture_output=True)
                self.assertEqual((0, b"%s syntax OK\n" % name.encode()), (r.returncode, os.path.basename(r.stderr)))
            version = re.search(r"Minimum version of perl\s*:\s*v5\.(\d+)", subprocess.run(
                ["perlver", path], capture_output=True, text=True).stdout)
            self.assertLessEqual(int(version.group(1)), 8, name)
            with open(path) as f:
                modules = re.findall(r"^\s*(?:use|require)\s+([A-Za-z][\w:]*)", f.read(), re.M)
            self.assertEqual([], [m for m in modules if not m.startswith("Vantrel::")
                                  and m.replace("::", "/") + ".pm" not in base], name)

    def test_remover_follows_no_link_out_of_the_agent_directory(self):
        top = tempfile.mkdtemp(prefix="vantrel-remover.")
        self.addCleanup(shutil.rmtree, top)
        for name in ("agent/sub/a", "agent/b", "outside/c", "outside/sub/a"):
            h.write(os.path.join(top, name), name)
        os.symlink("../outside", os.path.join(top, "agent", "link"))
        names = ["sub/a", "link/c", "link/sub/a", "../outside/c", "b", "missing"]
        r = subprocess.run(["perl", os.path.join(self.PROGRAMS, "archive-remover.pl")], cwd=top + "/agent",
                           input=b"".join(n.encode() + b"\0" for n in names), capture_output=True)
        self.assertEqual((0, b""), (r.returncode, r.stderr))
        self.assertEqual(["link/c", "link/sub/a", "../outside/c", "missing"],
                         [n.decode() for n in r.stdout.split(b"\0")[:-1:2]])
        self.assertEqual({"outside/c", "outside/sub/a"},
                         {os.path.relpath(os.path.join(d, n), top) for d, _, files in os.walk(top) for n in files})


if __name__ == "__main__":
    unittest.main()
