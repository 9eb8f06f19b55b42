"""Shared helpers of the integration tests: they run the real vantrel binary
against a private loopback sshd, with this machine acting as the source host.

Every test class gets a throw-away product root (a copy of product/QMV that a
test may change: scout, agents, logging), which the binary finds through the
configuration file named by $VANTREL_KVA_CONF.  Remote agent directories live
under the home directory of the test login and are removed afterwards.
"""
import contextlib
import hashlib
import os
import pwd
import random
import re
import select
import shutil
import string
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import xml.etree.ElementTree as ET

SOURCE = os.environ.get("VANTREL_SOURCE_DIR") or os.path.abspath(
    os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
BUILD = os.environ.get("VANTREL_BUILD_DIR") or os.path.join(SOURCE, "build", "integration")
KVA_CONF = os.environ.get("VANTREL_KVA_CONF") or os.path.join(BUILD, "test-root", "kva.conf")
BIN = os.environ.get("VANTREL_BIN") or os.path.join(BUILD, "vantrel", "vantrel")
PRODUCT_QMV = os.path.join(SOURCE, "product", "QMV")
MAKE_HOST = os.path.join(SOURCE, "tests", "fixtures", "sample-host", "make-sample-host")

sys.path.insert(0, os.path.join(SOURCE, "tests", "testbed"))
import testbed  # noqa: E402

HOST = testbed.HOST
USER, PASSWORD = testbed.USER, testbed.PASSWORD
NOSUDO_USER, NOSUDO_PASSWORD = testbed.NOSUDO_USER, testbed.NOSUDO_PASSWORD
NOSUDOBIN_USER, NOSUDOBIN_PASSWORD = testbed.NOSUDOBIN_USER, testbed.NOSUDOBIN_PASSWORD
ADMIN = testbed.ADMIN_ACCOUNT

UUID_RE = re.compile(r"^[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-8[0-9a-f]{3}-[0-9a-f]{12}$")

# Every domain of the sample host data, by client.
SAMPLE_DOMAINS = {
    "alice-example.test": "alice", "shop.alice-example.test": "alice",
    "bobs-bakery.test": "bob", "carol.test": "carol", "photos.carol.test": "carol",
}

_SH_ESCAPE = set("\t \"#$&'()*;<>?[\\`|~")


def sh_quote(word):
    """The quoting the binary applies to command-line words in its log."""
    out = []
    for ch in word:
        if ch == "\n":
            out.append("'\n'")
        elif ch in _SH_ESCAPE:
            out.append("\\" + ch)
        else:
            out.append(ch)
    return "".join(out)


def md5_file(path):
    h = hashlib.md5()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(1 << 20), b""):
            h.update(block)
    return h.hexdigest()


def read_bytes(path):
    with open(path, "rb") as f:
        return f.read()


def write_file(path, data, mode=None, owner=None):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb" if isinstance(data, bytes) else "w") as f:
        f.write(data)
    if mode is not None:
        os.chmod(path, mode)
    if owner is not None:
        chown_login(path, owner)


def chown_login(path, login=USER):
    pw = pwd.getpwnam(login)
    os.chown(path, pw.pw_uid, pw.pw_gid)


def admin_ids():
    """(uid, gid) of the product's administrative account."""
    pw = pwd.getpwnam(ADMIN)
    return pw.pw_uid, pw.pw_gid


def tree(root):
    """relative path -> file bytes, for every file below root ("dir/" for a
    directory, whose value is None)."""
    out = {}
    for d, dirs, files in os.walk(root):
        for name in dirs:
            out[os.path.relpath(os.path.join(d, name), root) + "/"] = None
        for name in files:
            out[os.path.relpath(os.path.join(d, name), root)] = read_bytes(os.path.join(d, name))
    return out


def random_name(n=8):
    return "".join(random.choice(string.ascii_lowercase + string.digits) for _ in range(n))


def free_port():
    """A loopback port on which nothing listens."""
    return testbed.free_port()


# ------------------------------------------------------------------ product

class ProductRoot:
    """A private product root: <dir>/QMV with the logging configuration, the
    scout, the agents and tmp/, registered in the binary's configuration file
    for as long as it is active."""

    def __init__(self, parent):
        self.dir = os.path.join(parent, "product")
        self.qmv = os.path.join(self.dir, "QMV")
        self.agents = os.path.join(self.qmv, "agents")
        shutil.copytree(PRODUCT_QMV, self.qmv,
                        ignore=shutil.ignore_patterns("*~", ".*.swp"))
        os.makedirs(os.path.join(self.qmv, "tmp"), exist_ok=True)
        self._saved_conf = None
        self._active = False

    def activate(self):
        os.makedirs(os.path.dirname(KVA_CONF), exist_ok=True)
        try:
            self._saved_conf = read_bytes(KVA_CONF)
        except FileNotFoundError:
            self._saved_conf = None
        with open(KVA_CONF, "w") as f:
            f.write("PRODUCT_ROOT_D %s\n" % self.dir)
        self._active = True
        return self

    def deactivate(self):
        if not self._active:
            return
        if self._saved_conf is None:
            with contextlib.suppress(FileNotFoundError):
                os.unlink(KVA_CONF)
        else:
            with open(KVA_CONF, "wb") as f:
                f.write(self._saved_conf)
        self._active = False

    @property
    def scout(self):
        return os.path.join(self.qmv, "scout.pl")

    def set_scout(self, text):
        write_file(self.scout, text)

    def add_agent(self, name, files, spec=None):
        """files: relative path -> content; spec: the control/spec text
        (default: EntryPoint <first .pl file>)."""
        root = os.path.join(self.agents, name)
        if spec is None:
            entry = sorted(p for p in files if p.endswith(".pl"))[0]
            spec = "Description: test agent %s\nEntryPoint: %s\n" % (name, entry)
        write_file(os.path.join(root, "control", "spec"), spec)
        for rel, content in files.items():
            write_file(os.path.join(root, rel), content)
        return root

    def add_shared(self, rel, content):
        write_file(os.path.join(self.agents, "shared", rel), content)

    def debug_logging(self):
        """Every category at DEBUG, into the session's log file only."""
        write_file(os.path.join(self.qmv, "log4cpp.properties"), DEBUG_PROPERTIES)


DEBUG_PROPERTIES = """\
log4cpp.rootCategory=DEBUG, A1, A2
log4cpp.category.p=DEBUG
log4cpp.appender.A1=FileAppender
log4cpp.appender.A1.fileName=${LOG_FILE_NAME}
log4cpp.appender.A1.append=true
log4cpp.appender.A1.layout=PatternLayout
log4cpp.appender.A1.layout.ConversionPattern=%d [%p] %c: %m%n
log4cpp.appender.A2=ConsoleAppender
log4cpp.appender.A2.target=stderr
log4cpp.appender.A2.layout=PatternLayout
log4cpp.appender.A2.layout.ConversionPattern=%d [%p] %c: %m%n
"""


# ------------------------------------------------------------------ session

class Session:
    """The session directory of one or more runs."""

    def __init__(self, path):
        self.path = path

    def file(self, name):
        return os.path.join(self.path, name)

    def exists(self, name):
        return os.path.lexists(self.file(name))

    def read(self, name):
        return read_bytes(self.file(name))

    def text(self, name):
        return self.read(name).decode("utf-8", "replace")

    def xml(self, name):
        return ET.parse(self.file(name)).getroot()

    def status(self):
        return self.xml("migration.status")

    def result(self, name="migration.result"):
        return self.xml(name)

    def log(self):
        return self.text("migration.log") if self.exists("migration.log") else ""

    def log_lines(self):
        return self.log().splitlines()

    def names(self):
        return sorted(os.listdir(self.path)) if os.path.isdir(self.path) else []


class Result:
    def __init__(self, argv, code, out, err, session, pid):
        self.argv = argv
        self.code = code
        self.out = out
        self.err = err
        self.session = session
        self.pid = pid

    @property
    def err_text(self):
        return self.err.decode("utf-8", "replace")

    def describe(self):
        return ("exit %s\ncommand: %s\nstdout: %r\nstderr: %r\nlog tail:\n%s" % (
            self.code, " ".join(self.argv), self.out[-2000:], self.err[-2000:],
            "\n".join(self.session.log_lines()[-25:]) if self.session else ""))


class Running:
    """A binary started in the background."""

    def __init__(self, argv, env, stdin, session):
        self.argv = argv
        self.session = session
        self._stdin = stdin
        self.proc = subprocess.Popen(argv, env=env, stdin=subprocess.PIPE,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.pid = self.proc.pid
        self._out, self._err = [], []
        self._threads = [threading.Thread(target=self._pump, args=(self.proc.stdout, self._out), daemon=True),
                         threading.Thread(target=self._pump, args=(self.proc.stderr, self._err), daemon=True),
                         threading.Thread(target=self._feed, daemon=True)]
        for t in self._threads:
            t.start()

    def _pump(self, stream, sink):
        for block in iter(lambda: stream.read1(65536), b""):
            sink.append(block)

    def _feed(self):
        with contextlib.suppress(BrokenPipeError, OSError):
            if self._stdin:
                self.proc.stdin.write(self._stdin)
            self.proc.stdin.close()

    def running(self):
        return self.proc.poll() is None

    def finish(self, timeout=180):
        try:
            code = self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
            for t in self._threads:
                t.join(5)
            raise AssertionError("vantrel did not finish within %s s: %s\nstderr so far: %r" % (
                timeout, " ".join(self.argv), b"".join(self._err)[-2000:]))
        for t in self._threads:
            t.join(10)
        self.proc.stdout.close()
        self.proc.stderr.close()
        return Result(self.argv, code, b"".join(self._out), b"".join(self._err), self.session, self.pid)

    def wait_blocked_on_fifo(self, timeout=120):
        """Waits until the binary sleeps opening a named pipe (or exits)."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline and self.running():
            try:
                with open("/proc/%d/wchan" % self.pid) as f:
                    if f.read().strip() == "wait_for_partner":
                        return True
            except OSError:
                pass
            time.sleep(0.02)
        return False

    def peak_rss_kib(self):
        """VmHWM of the running binary, or None."""
        try:
            with open("/proc/%d/status" % self.pid) as f:
                for line in f:
                    if line.startswith("VmHWM:"):
                        return int(line.split()[1])
        except OSError:
            pass
        return None

    def kill(self):
        if self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()


def environment(password=PASSWORD, sudo_password=None):
    env = {k: v for k, v in os.environ.items() if not k.startswith("KVA_")}
    if password is not None:
        env["KVA_PASSWORD"] = password
    if sudo_password is not None:
        env["KVA_SUDO_PASSWORD"] = sudo_password
    return env


class FilePoller:
    """Reads a file over and over in a thread and keeps every distinct
    content in the order seen."""

    def __init__(self, path, interval=0.05):
        self.path = path
        self.interval = interval
        self.seen = []
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)

    def _run(self):
        while not self._stop.is_set():
            with contextlib.suppress(OSError):
                data = read_bytes(self.path)
                if data and (not self.seen or self.seen[-1] != data):
                    self.seen.append(data)
            self._stop.wait(self.interval)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *exc):
        self._stop.set()
        self._thread.join()


def read_fifo(path, proc, timeout=120):
    """Reads what the binary writes into the named pipe at path: everything
    up to its close.  Fails when the process ends before writing anything."""
    fd = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
    data = b""
    deadline = time.monotonic() + timeout
    try:
        while time.monotonic() < deadline:
            ready, _, _ = select.select([fd], [], [], 0.1)
            chunk = os.read(fd, 65536) if ready else b""
            if chunk:
                data += chunk
                continue
            if data:
                return data          # the writer has closed the pipe
            if proc.poll() is not None:
                raise AssertionError("vantrel exited (%s) without writing %s" % (proc.returncode, path))
            time.sleep(0.02)
    finally:
        os.close(fd)
    raise AssertionError("nothing came through %s within %s s" % (path, timeout))


# ------------------------------------------------------------------ test case

class IntegrationCase(unittest.TestCase):
    """Base class: one sshd, one product root and sample host data per class."""

    need_sample_data = False
    server_variant = "default"

    @classmethod
    def setUpClass(cls):
        if not os.access(BIN, os.X_OK):
            raise AssertionError("the vantrel binary is missing: %s" % BIN)
        testbed.ensure_accounts()
        cls.tmp = tempfile.mkdtemp(prefix="vantrel-it.")
        # Sample data and test files must be readable by the test login.
        os.chmod(cls.tmp, 0o755)
        cls._remote_dirs = []
        cls._mounts = []
        cls.server = None
        try:
            cls.product = ProductRoot(cls.tmp)
            cls.configure_product(cls.product)
            cls.product.activate()
            cls.server = testbed.SshServer(cls.server_variant).start()
            cls.port = cls.server.port
            cls.data = None
            if cls.need_sample_data:
                cls.data = os.path.join(cls.tmp, "sample-host")
                subprocess.run([MAKE_HOST, cls.data], check=True, stdout=subprocess.DEVNULL)
        except BaseException:
            cls.tearDownClass()
            raise

    @classmethod
    def configure_product(cls, product):
        """Hook: change the product root before the first run."""

    @classmethod
    def tearDownClass(cls):
        for m in reversed(cls._mounts):
            subprocess.run(["umount", m], stderr=subprocess.DEVNULL)
        if cls.server is not None:
            cls.server.stop()
        if getattr(cls, "product", None) is not None:
            cls.product.deactivate()
        for d in cls._remote_dirs:
            remove_tree(d)
        shutil.rmtree(cls.tmp, ignore_errors=True)

    # -- paths

    def new_session(self, create=False):
        base = os.path.join(self.tmp, "sessions")
        os.makedirs(base, exist_ok=True)
        path = os.path.join(base, "%s-%s" % (self._testMethodName, random_name(6)))
        if create:
            os.makedirs(path)
        return Session(path)

    @classmethod
    def remote_dir(cls, login=USER, create=False):
        """A fresh absolute agent directory under the login's home; removed
        when the class ends."""
        home = pwd.getpwnam(login).pw_dir
        path = os.path.join(home, "vantrel-it-" + random_name())
        cls._remote_dirs.append(path)
        if create:
            os.makedirs(path)
            chown_login(path, login)
        return path

    def local_dir(self, name):
        path = os.path.join(self.tmp, "%s-%s-%s" % (self._testMethodName, name, random_name(4)))
        os.makedirs(path)
        return path

    def mount_tmpfs(self, size):
        path = self.local_dir("tmpfs")
        r = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=%s" % size, "tmpfs", path],
                           stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        if r.returncode != 0:
            # A container without the right to mount cannot run this case.
            raise unittest.SkipTest("cannot mount a tmpfs here: %s" % r.stdout.decode(errors="replace").strip())
        self._mounts.append(path)
        self.addCleanup(self._umount, path)
        return path

    def _umount(self, path):
        if path in self._mounts:
            subprocess.run(["umount", path], check=False)
            self._mounts.remove(path)

    # -- running the binary

    def argv(self, action, session=None, login=USER, sudo=False, agent_dir=None, agent="sample",
             host=HOST, port=None, extra=()):
        args = [BIN] + (action if isinstance(action, list) else [action])
        if host is not None:
            args.append("--host=%s" % host)
        if port is not False:
            args.append("--port=%d" % (self.port if port is None else port))
        if login is not None:
            args.append("--login=%s" % login)
        if sudo:
            args.append("--sudo-password")
        if agent_dir is not None:
            args += ["--agent-dir=%s" % agent_dir, "--agent-name=%s" % agent]
        if session is not None:
            args += ["--session-path", session.path]
        return args + list(extra)

    def start(self, action, session=None, password=PASSWORD, sudo_password=None, stdin=b"", **kw):
        """Starts the binary; sudo_password given means --sudo-password."""
        if session is None:
            session = self.new_session()
        argv = self.argv(action, session, sudo=sudo_password is not None, **kw)
        return Running(argv, environment(password, sudo_password), stdin, session)

    def run_vantrel(self, action, timeout=180, **kw):
        return self.start(action, **kw).finish(timeout)

    def run_raw(self, args, password=None, sudo_password=None, stdin=b"", timeout=60, session=None):
        """Runs the binary with exactly these arguments."""
        return Running([BIN] + list(args), environment(password, sudo_password), stdin,
                       session).finish(timeout)

    # -- frequent steps

    @classmethod
    def deploy_for_class(cls, agent="sample", sudo=True, login=USER, password=PASSWORD):
        """Deploys an agent into a fresh remote directory from setUpClass."""
        agent_dir = cls.remote_dir(login)
        argv = [BIN, "--deploy-agent", "--host", HOST, "--port", str(cls.port), "--login", login,
                "--agent-dir", agent_dir, "--agent-name", agent,
                "--session-path", os.path.join(cls.tmp, "deploy-" + random_name())]
        if sudo:
            argv.append("--sudo-password")
        r = Running(argv, environment(password, password if sudo else None), b"", None).finish()
        if r.code != 0:
            raise AssertionError("deployment of agent %s failed: %s" % (agent, r.describe()))
        return agent_dir


    def deploy(self, agent_dir, agent="sample", sudo=True, settings=None):
        r = self.run_vantrel("--deploy-agent", agent_dir=agent_dir, agent=agent,
                             sudo_password=PASSWORD if sudo else None)
        self.assertEqual(0, r.code, r.describe())
        if settings is not None:
            self.configure_agent(agent_dir, **settings)
        return r

    def configure_agent(self, agent_dir, **settings):
        """Writes sample-agent.conf into the remote agent directory."""
        settings.setdefault("data", self.data)
        text = "".join("%s=%s\n" % kv for kv in settings.items())
        write_file(os.path.join(agent_dir, "sample-agent.conf"), text, mode=0o644)

    # -- assertions

    def assertSuccess(self, r, name="migration.result"):
        self.assertEqual(0, r.code, r.describe())
        self.assertEqual(b"", r.err, r.describe())
        root = r.session.result(name)
        self.assertEqual("execution-result", root.tag)
        self.assertEqual("success", root.get("status"))
        self.assertEqual([], list(root))
        return root

    def assertFailure(self, r, code, tag, name="migration.result", plain_end=True, err_prefix=""):
        """Exit code, standard error = the outer message (after err_prefix),
        and the result document: status error and one message.  Returns the
        message."""
        self.assertEqual(code, r.code, r.describe())
        self.assertEqual(b"", r.out, r.describe())
        self.assertNotEqual(b"", r.err, r.describe())
        if plain_end:
            self.assertFalse(r.err.endswith(b"\n"), "a line feed after the message: %r" % r.err)
        root = r.session.result(name)
        self.assertEqual("execution-result", root.tag)
        self.assertEqual("error", root.get("status"), r.describe())
        messages = root.findall("message")
        self.assertEqual(1, len(messages), ET.tostring(root))
        self.assertEqual(1, len(list(root)))
        msg = messages[0]
        self.assertMessage(msg, tag)
        self.assertEqual(r.err_text, err_prefix + msg.findtext("description"))
        return msg

    def assertMessage(self, msg, tag):
        self.assertEqual("message", msg.tag)
        self.assertEqual(tag, msg.get("code"), ET.tostring(msg))
        self.assertRegex(msg.get("id"), UUID_RE)
        self.assertEqual("error", msg.get("severity"))
        self.assertIsNotNone(msg.find("description"))

    def assertIdle(self, session, pid):
        root = session.status()
        self.assertEqual("migration-status", root.tag)
        self.assertEqual(["pid", "idle"], [c.tag for c in root])
        self.assertEqual(str(pid), root.findtext("pid"))
        self.assertEqual([], list(root.find("idle")))

    def assertFramed(self, r, exit_code):
        """The start line with the quoted command line and the stop line."""
        lines = r.session.log_lines()
        cmd = " ".join(sh_quote(a) if a else "''" for a in r.argv)
        starts = [l for l in lines if "Vantrel started : " in l]
        stops = [l for l in lines if "Vantrel finished. " in l]
        self.assertTrue(starts and starts[-1].endswith("Vantrel started : " + cmd),
                        "start line missing or wrong, expected command line %r in\n%s" % (cmd, "\n".join(lines)))
        self.assertTrue(stops and stops[-1].endswith("Vantrel finished. Exit code: %d" % exit_code),
                        "\n".join(lines[-10:]))


def remove_tree(path):
    """rm -rf that also copes with immutable entries and foreign owners."""
    if not os.path.lexists(path):
        return
    subprocess.run(["chattr", "-R", "-i", path], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    shutil.rmtree(path, ignore_errors=True)



class SampleAgentDeployed:
    """Mixin for an IntegrationCase: one sample agent deployed through sudo for
    the whole class, its settings reset before every test."""
    need_sample_data = True

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        try:
            cls.agent_dir = cls.deploy_for_class()
        except BaseException:
            cls.tearDownClass()
            raise

    def setUp(self):
        super().setUp()
        self.configure_agent(self.agent_dir)


def main():
    unittest.main(verbosity=2)
