"""The sample agent, the scout and the sample host data, run locally in perl.

The agent runs from a temporary agent directory laid out the way a deployment
lays it out (the shared tree, then the agent's tree, without their control
directories), against sample data made by make-sample-host.
"""
import hashlib
import os
import shutil
import subprocess
import tarfile
import tempfile
import unittest
import xml.etree.ElementTree as ET

SOURCE = os.environ.get("VANTREL_SOURCE_DIR") or os.path.abspath(
    os.path.join(os.path.dirname(__file__), "..", ".."))
AGENTS = os.path.join(SOURCE, "product", "QMV", "agents")
SCOUT = os.path.join(SOURCE, "product", "QMV", "scout.pl")
MAKE_HOST = os.path.join(SOURCE, "tests", "fixtures", "sample-host", "make-sample-host")

ALL_DOMAINS = {"alice-example.test", "shop.alice-example.test", "bobs-bakery.test",
               "carol.test", "photos.carol.test"}
PASSWORD = "pw-Zq8#only-here"


def deploy(tree, target):
    for name in os.listdir(tree):
        if name == "control":
            continue
        src, dst = os.path.join(tree, name), os.path.join(target, name)
        if os.path.isdir(src):
            shutil.copytree(src, dst, dirs_exist_ok=True)
        else:
            shutil.copy2(src, dst)


def md5(path):
    with open(path, "rb") as f:
        return hashlib.md5(f.read()).hexdigest()


class SampleAgentTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.mkdtemp(prefix="sample-agent-test.")
        cls.data = os.path.join(cls.tmp, "data")
        subprocess.run([MAKE_HOST, cls.data], check=True, stdout=subprocess.DEVNULL)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.tmp)

    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="agent.", dir=self.tmp)
        deploy(os.path.join(AGENTS, "shared"), self.dir)
        deploy(os.path.join(AGENTS, "sample"), self.dir)
        self.configure()

    def configure(self, **settings):
        settings.setdefault("data", self.data)
        with open(os.path.join(self.dir, "sample-agent.conf"), "w") as f:
            f.write("# test settings\n")
            f.writelines("%s=%s\n" % kv for kv in settings.items())

    def agent(self, *args, stdin=b""):
        return subprocess.run(["perl", os.path.join(self.dir, "sample-agent.pl")] + list(args),
                              cwd=self.dir, input=stdin, capture_output=True, timeout=120)

    def content_list(self):
        r = self.agent("--get-content-list")
        self.assertEqual(0, r.returncode, r.stderr)
        return ET.fromstring(r.stdout)

    def dump_doc(self):
        return ET.parse(os.path.join(self.dir, "dump.xml")).getroot()

    def test_selected_dump_with_rsync_transport(self):
        stdin = ("src.test\nmigrator\n%s\n2222\nbobs-bakery.test,nope.test\nalice\nnorthwind"
                 % PASSWORD).encode()
        # Standard input holds the lists in the order domains, clients,
        # resellers, whatever the order of the arguments.
        args = ["--content-transport=rsync", "--migration-mode", "--dump-resellers=-", "--dump-clients=-",
                "--dump-domains=-", "--include-app-distrib", "--server", "--no-license"]
        r = self.agent(*args, stdin=stdin)
        self.assertEqual(0, r.returncode, r.stderr)

        doc = self.dump_doc()
        self.assertEqual(args, [a.text for a in doc.find("arguments")])
        sel = doc.find("selection")
        self.assertEqual("bobs-bakery.test,nope.test", sel.findtext("domains"))
        self.assertEqual("alice", sel.findtext("clients"))
        self.assertEqual("northwind", sel.findtext("resellers"))
        self.assertEqual({"type": "rsync", "host": "src.test", "login": "migrator", "port": "2222"},
                         doc.find("content-transport").attrib)
        opts = doc.find("options").attrib
        self.assertEqual("true", opts["migration-mode"])
        self.assertEqual("false", opts["dump-all"])
        self.assertEqual("omitted", doc.find("server").get("license"))
        self.assertIsNone(doc.find("admin-info"))

        objects = doc.find("objects")
        self.assertEqual(["northwind"], [e.get("name") for e in objects.findall("reseller")])
        # The reseller brings its client carol, the client list alice.
        self.assertEqual(["alice", "carol"], [e.get("name") for e in objects.findall("client")])
        domains = {e.get("name"): e for e in objects.findall("domain")}
        self.assertEqual(ALL_DOMAINS, set(domains))
        self.assertEqual([("domain", "nope.test")],
                         [(e.get("type"), e.get("name")) for e in doc.findall("not-found")])

        status = ET.parse(os.path.join(self.dir, "dumping-status.xml")).getroot()
        self.assertEqual("done", status.get("state"))

        # The password is read but never written anywhere.
        self.assertNotIn(PASSWORD.encode(), r.stdout + r.stderr)
        for d, _, files in os.walk(self.dir):
            for f in files:
                with open(os.path.join(d, f), "rb") as fh:
                    self.assertNotIn(PASSWORD.encode(), fh.read(), f)

        # The content list matches the archives on disk and the dump.
        root = self.content_list()
        files = root.findall("file")
        self.assertEqual(5, len(files))
        total = 0
        for f in files:
            path = os.path.join(self.dir, f.text)
            self.assertTrue(f.text.startswith("content/"), f.text)
            self.assertEqual(os.path.getsize(path), int(f.get("size")))
            self.assertEqual(md5(path), f.get("md5sum"))
            total += int(f.get("size"))
            domain = os.path.basename(f.text)[:-len(".tar.gz")]
            client = domains[domain].get("client")
            self.assertEqual("content/%s/%s.tar.gz" % (client, domain), f.text)
            self.assertEqual(f.get("md5sum"), domains[domain].find("archive").get("md5sum"))
            with tarfile.open(path) as t:
                names = t.getnames()
            self.assertIn("httpdocs/index.html", names)
            self.assertIn("httpdocs/images/logo.png", names)
        self.assertEqual(str(total), root.get("size"))
        self.assertGreater(int(root.get("unpacked")), 0)

    def test_dump_arguments_given_inline_and_filters(self):
        # A list given on the command line does not consume standard input.
        r = self.agent("--dump-domains=carol.test", "--dump-clients=-", "--only-mail", "--no-compress",
                       stdin=b"bob\n")
        self.assertEqual(0, r.returncode, r.stderr)
        sel = self.dump_doc().find("selection")
        self.assertEqual(("carol.test", "argument"), (sel.findtext("domains"), sel.find("domains").get("source")))
        self.assertEqual(("bob", "stdin"), (sel.findtext("clients"), sel.find("clients").get("source")))
        files = [f.text for f in self.content_list().findall("file")]
        self.assertEqual(["content/bob/bobs-bakery.test.tar", "content/carol/carol.test.tar"], files)
        with tarfile.open(os.path.join(self.dir, files[0])) as t:
            names = t.getnames()
        self.assertTrue(names and all(n.startswith("mail") for n in names), names)

        # A new dump replaces the archives of the last one; --no-content leaves none.
        r = self.agent("--dump-all", "--no-content", "--admin-info")
        self.assertEqual(0, r.returncode, r.stderr)
        doc = self.dump_doc()
        self.assertEqual(ALL_DOMAINS, {e.get("name") for e in doc.find("objects").findall("domain")})
        self.assertEqual("admin@sample-host.test", doc.find("admin-info").get("email"))
        self.assertEqual({"size": "0", "unpacked": "0"}, self.content_list().attrib)

    def test_failures(self):
        r = self.agent("--dump-all", "--bogus")
        self.assertEqual(2, r.returncode)
        self.assertIn(b"--bogus", r.stderr)
        r = self.agent()
        self.assertEqual(2, r.returncode)
        self.assertFalse(os.path.exists(os.path.join(self.dir, "dump.xml")))

        self.configure(fail="disk on fire: sda", fail_status="no status", fail_list="no list")
        r = self.agent("--dump-domains=-", stdin=b"carol.test")
        self.assertEqual((3, b"disk on fire: sda\n"), (r.returncode, r.stderr))
        self.assertFalse(os.path.exists(os.path.join(self.dir, "dump.xml")))
        r = self.agent("--get-status")
        self.assertEqual((3, b"no status\n", b""), (r.returncode, r.stderr, r.stdout))
        r = self.agent("--get-content-list")
        self.assertEqual((3, b"no list\n"), (r.returncode, r.stderr))

        self.configure(data=os.path.join(self.tmp, "no-such-data"))
        r = self.agent("--dump-all")
        self.assertEqual(1, r.returncode)
        self.assertIn(b"no-such-data", r.stderr)

    def test_scout_report(self):
        with open(SCOUT, "rb") as f:
            r = subprocess.run(["perl"], stdin=f, cwd=self.tmp, capture_output=True, timeout=60)
        self.assertEqual((0, b""), (r.returncode, r.stderr))
        root = ET.fromstring(r.stdout)
        self.assertEqual("scout", root.tag)
        self.assertEqual(os.uname().nodename, root.findtext("hostname"))
        self.assertEqual(os.uname().release, root.find("kernel").get("release"))
        self.assertEqual("true" if os.geteuid() == 0 else "false", root.find("user").get("root"))
        self.assertGreater(int(root.find("disk").get("available")), 0)
        with open("/etc/passwd") as f:
            accounts = sum(1 for line in f if line.count(":") >= 6)
        self.assertEqual(str(accounts), root.find("accounts").get("total"))
        programs = {p.get("name"): p.get("present") for p in root.find("programs")}
        self.assertEqual({"tar": "true", "gzip": "true"}, programs)


if __name__ == "__main__":
    unittest.main()
