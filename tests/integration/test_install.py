"""The tool as an operator installs and runs it: cmake --install, --version, the
manual page, the terminal's extra text, the README's examples as they stand."""
import os
import pwd
import re
import shlex
import shutil
import subprocess
import tempfile
import textwrap
import unittest
import xml.etree.ElementTree as ET

import harness as h

MANUAL = os.path.join(h.SOURCE, "doc", "vantrel.1")


def run(argv, terminal=False, env=None, cwd=None):
    """(exit code, stdout, stderr); stderr on a pseudo-terminal if terminal (CR LF read as LF)."""
    r = h.Run(argv, os.environ if env is None else env, b"", None, terminal, cwd=cwd).finish()
    return r.code, r.out, r.err.replace(b"\r\n", b"\n")


def read(*path):
    return h.read(os.path.join(*path)).decode()


class InstalledToolTest(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.mkdtemp(prefix="vantrel-install-")
        cls.addClassCleanup(shutil.rmtree, cls.tmp)
        cls.prefix = os.path.join(cls.tmp, "prefix")
        subprocess.run(["cmake", "--install", h.BUILD, "--prefix", cls.prefix], check=True, stdout=subprocess.PIPE)
        cls.bin = os.path.join(cls.prefix, "bin", "vantrel")
        # The test build reads h.KVA_CONF: the installed example goes there as it is.
        cls.saved_conf = read(h.KVA_CONF) if os.path.exists(h.KVA_CONF) else None
        os.makedirs(os.path.dirname(h.KVA_CONF), exist_ok=True)
        shutil.copyfile(os.path.join(cls.prefix, "etc", "kva.conf.example"), h.KVA_CONF)

    @classmethod
    def tearDownClass(cls):
        if cls.saved_conf is None:
            os.unlink(h.KVA_CONF)
        else:
            with open(h.KVA_CONF, "w") as f:
                f.write(cls.saved_conf)

    def test_install_tree_version_and_manual(self):
        settings = [line.split() for line in read(h.KVA_CONF).splitlines() if line.strip() and line[0] != "#"]
        self.assertEqual([["PRODUCT_ROOT_D", self.prefix]], settings)
        # With it, a run finds the logging configuration in the installed tree.
        session = os.path.join(self.tmp, "first-run")
        self.assertEqual((0, b"", b""), run([self.bin, "--remove-dumping-status", "--session-path", session]))
        self.assertIn("Vantrel finished. Exit code: 0", read(session, "migration.log"))

        version = re.search(r"project\(vantrel VERSION (\S+)", read(h.SOURCE, "CMakeLists.txt")).group(1)
        session = os.path.join(self.tmp, "version")
        self.assertEqual((0, ("vantrel %s\n" % version).encode(), b""),
                         run([self.bin, "--version", "--session-path", session]))
        self.assertFalse(os.path.exists(session))

        # The manual page: installed, clean for groff, naming every option.
        manual = read(MANUAL)
        self.assertEqual(manual, read(self.prefix, "share", "man", "man1", "vantrel.1"))
        self.assertEqual(b"", subprocess.run(["groff", "-man", "-ww", "-z", MANUAL], stderr=subprocess.PIPE).stderr)
        usage = run([self.bin, "--help"])[1].decode()
        for option in set(re.findall(r"--[a-z-]+", usage)) | {"--version"}:
            self.assertIn(option, manual.replace("\\-", "-"))
        # ... and every variable the program reads, the signals it answers and its longest wait.
        read_here = set()
        for d in ("vantrel", "commons", "utils"):
            for root, _, names in os.walk(os.path.join(h.SOURCE, d)):
                for n in names:
                    read_here |= set(re.findall(r'"(KVA_[A-Z_]+)"', read(root, n)))
        self.assertGreater(len(read_here), 5)
        for name in read_here | {"SSH_AUTH_SOCK", "SIGTERM", "SIGINT", "120"}:
            self.assertIn(name, manual.replace("\\_", "_"))

    def test_terminal_adds_reasons_and_causes(self):
        closed = str(h.free_port())
        login = ["--host", h.HOST, "--login", h.USER]
        agent = ["--agent-dir", "/nonexistent", "--agent-name", "sample"]
        refused = b"No one listening on the remote address at host 127.0.0.1"
        cases = [  # arguments, KVA_PASSWORD, exit code, stderr through a pipe, what a terminal adds
            (["--send-scout", "--port=0x"] + login, h.PASSWORD, 1, b"",
             b"Unable to parse command line: port should be a number in [1, 65535] range\nSee --help.\n"),
            (["--send-scout"] + login, None, 1, b"",
             b"Unable to parse command line: password is required unless --help or -h requested\nSee --help.\n"),
            (["--send-scout", "--agent-name=sample"] + login, h.PASSWORD, 1, b"",
             b"Unable to parse command line: agent name is not allowed with --help or -h\nSee --help.\n"),
            (["--get-content", "--port", closed] + login + agent, h.PASSWORD, 2,
             b"Error during dump retrieval", b"\n  caused by: " + refused + b"\n"),
            (["--send-scout", "--port", closed] + login, h.PASSWORD, 11, refused, b"\n"),
        ]
        for args, password, code, piped, added in cases:
            with self.subTest(args=args):
                env = h.environment(password)
                argv = [self.bin] + args + ["--session-path", tempfile.mkdtemp(dir=self.tmp)]
                self.assertEqual((code, b"", piped), run(argv, env=env))
                self.assertEqual((code, b"", piped + added), run(argv, True, env=env))

    def test_readme_examples_run_as_typed(self):
        readme = read(h.SOURCE, "README.md")
        script = textwrap.dedent(re.search(r"\n(    export KVA_PASSWORD=.*\n(?:(?:    .*)?\n)*)", readme).group(1))
        objects = re.search(r"\n(    <selected-objects>\n(?:    .*\n)*?    </selected-objects>\n)", readme).group(1)
        h.ensure_accounts()
        server = h.SshServer("default").start()
        self.addCleanup(server.stop)

        # The source host's side: the sample data, and the agent's setting that names it.
        data, work = os.path.join(self.tmp, "sample-host"), os.path.join(self.tmp, "work")
        subprocess.run([os.path.join(h.SOURCE, "tests", "fixtures", "sample-host", "make-sample-host"), data],
                       check=True, stdout=subprocess.PIPE)
        user = pwd.getpwnam(h.USER)
        agent_dir = os.path.join(user.pw_dir, "vantrel-readme-%d" % os.getpid())
        self.addCleanup(shutil.rmtree, agent_dir, True)
        for path, text in [(os.path.join(agent_dir, "sample-agent.conf"), "data=%s\n" % data),
                           (os.path.join(work, "objects.xml"), textwrap.dedent(objects))]:
            os.makedirs(os.path.dirname(path))
            with open(path, "w") as f:
                f.write(text)
        os.chown(agent_dir, user.pw_uid, user.pw_gid)

        password = shlex.quote(h.PASSWORD)
        for old, new in [("KVA_PASSWORD=...", "KVA_PASSWORD=" + password),
                         ("KVA_SUDO_PASSWORD=...", "KVA_SUDO_PASSWORD=" + password),
                         ("--host src.example.net", "--host %s --port %d" % (h.HOST, server.port)),
                         ("--login admin", "--login " + h.USER),
                         ("/home/admin/migration-agent", agent_dir),
                         ("/var/lib/kva/", self.tmp + "/")]:
            self.assertIn(old, script)
            script = script.replace(old, new)
        env = dict(os.environ, PATH=os.path.join(self.prefix, "bin") + ":" + os.environ["PATH"])
        code, out, err = run(["bash", "-ec", "trap 'echo \"failed: $BASH_COMMAND\" >&2' ERR\n" + script],
                             env=env, cwd=work)
        self.assertEqual(0, code, err.decode(errors="replace"))
        self.assertRegex(out, rb"^Usage: (.|\n)*\nvantrel \S+\n$")
        # The archives of the last dump arrived; the agent is gone from the source host.
        dump = ET.parse(os.path.join(self.tmp, "sessions", "m42", "dump.xml"))
        paths = sorted(a.get("path") for a in dump.getroot().iter("archive"))
        dumps = os.path.join(self.tmp, "dumps", "m42")
        self.assertTrue(paths)
        self.assertEqual(paths, sorted(os.path.relpath(os.path.join(d, n), dumps) for d, _, names in os.walk(dumps)
                                       for n in names if n.endswith(".tar")))
        self.assertFalse(os.path.exists(agent_dir))


if __name__ == "__main__":
    unittest.main()
