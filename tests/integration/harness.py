"""What the integration tests share: they run the real binary against a
loopback sshd of the test bed, this machine being the source host, with a
throw-away product root per test class (product/QMV, the log at DEBUG, the
test agent below) named in the configuration file the binary reads."""
import contextlib
import ctypes
import ctypes.util
import hashlib
import os
import pty
import pwd
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import xml.etree.ElementTree as ET
from xml.sax.saxutils import escape

SOURCE = os.environ.get("VANTREL_SOURCE_DIR") or os.path.abspath(os.path.join(__file__, "..", "..", ".."))
BUILD = os.environ.get("VANTREL_BUILD_DIR") or os.path.join(SOURCE, "build", "test")
KVA_CONF = os.environ.get("VANTREL_KVA_CONF") or os.path.join(BUILD, "test-root", "kva.conf")
BIN = os.environ.get("VANTREL_BIN") or os.path.join(BUILD, "vantrel", "vantrel")
sys.path.insert(0, os.path.join(SOURCE, "tests", "testbed"))
from testbed import *  # noqa: E402,F401,F403

MIB = 1 << 20
# The binary runs under ThreadSanitizer (scripts/test's stage), whose shadow memory grows with what the
# threads touch: bounds on memory are a plain build's.
THREAD_SANITIZER = bool(os.environ.get("VANTREL_THREAD_SANITIZER"))


def _libssh2_version():
    library = ctypes.CDLL(ctypes.util.find_library("ssh2"))
    library.libssh2_version.restype = ctypes.c_char_p
    return library.libssh2_version(0).decode()


# libssh2 1.11 brings encrypt-then-MAC, AES-GCM and SHA-2 signatures with RSA user keys; with 1.10
# the tests that need them check the messages that say so instead, and say which they checked.
LIBSSH2 = _libssh2_version()
LIBSSH2_1_11 = tuple(map(int, LIBSSH2.split(".")[:2])) >= (1, 11)


def checked(test, what):
    """Says in the test's output which of two checks it made (libssh2 1.11's or 1.10's)."""
    print("\n  [%s, libssh2 %s: %s]" % (test.id().rsplit(".", 1)[-1], LIBSSH2, what), file=sys.stderr)

# The test agent: records the command line and environment of itself and of
# each ancestor below sshd; answers --get-status with who and where it runs
# (unless a file fail-status lies beside it); for --get-content-list it waits
# for good when a file hang lies beside it, fails with 50 MiB on standard
# error when a file loud does, and prints list.xml, if there is one; hands
# anything else to the sample agent.
PROBE = r"""#!/usr/bin/perl
use strict; use Cwd; use FindBin;
(my $tag = $ARGV[0] // '') =~ s/\W//g;
for (my ($pid, $n) = ($$, 0); open(my $st, '<', "/proc/$pid/stat"); $n++) {
    my ($comm, $ppid) = <$st> =~ /\((.*)\) \S+ (\d+)/;
    last if $comm eq 'sshd' || $pid <= 1;
    open my $out, '>:raw', "$FindBin::Bin/rec.$tag.$n.$comm" or die "cannot record: $!\n";
    print {$out} map { my $in; open($in, '<:raw', "/proc/$pid/$_") ? do { local $/; <$in> } : '' } 'cmdline', 'environ';
    $pid = $ppid;
}
chdir $FindBin::Bin;
if ("@ARGV" eq '--get-status') {
    if (open my $f, '<', 'fail-status') { print STDERR <$f>; exit 3 }
    print '<agentstatus><uid>', $<, '</uid><cwd>', getcwd(), "</cwd></agentstatus>\n";
} elsif ("@ARGV" eq '--get-content-list' && (-e 'hang' || -e 'loud')) {
    sleep 3600 if -e 'hang';
    print STDERR 'loud ' x 209716 for 1 .. 50;
    exit 1;
} elsif ("@ARGV" eq '--get-content-list' && open my $f, '<:raw', 'list.xml') {
    binmode STDOUT; print <$f>;
} else {
    exec $^X, 'sample-agent.pl', @ARGV or die "no sample agent: $!\n";
}
"""


def md5(data):
    return hashlib.md5(data).hexdigest()


def read(path):
    with open(path, "rb") as f:
        return f.read()


def write(path, data, owner=None):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data.encode() if isinstance(data, str) else data)
    if owner:
        os.chown(path, *pwd.getpwnam(owner)[2:4])


def tree(root):
    """Relative path -> bytes of every file below root (None for a directory)
    but the probe's records."""
    return {os.path.relpath(os.path.join(d, n), root): None if n in dirs else read(os.path.join(d, n))
            for d, dirs, files in os.walk(root) for n in dirs + files if not n.startswith("rec.")}


def content_list(archives, total=None, sizes={}):
    """The list the probe prints: archives is [(name, bytes, md5)]."""
    body = "".join('<file size="%s" md5sum="%s">%s</file>\n' % (sizes.get(n, len(d)), m, escape(n))
                   for n, d, m in archives)
    total = sum(len(d) for _, d, _ in archives) if total is None else total
    return '<?xml version="1.0" encoding="UTF-8"?>\n<contentlist size="%s" unpacked="0">\n%s</contentlist>\n' % (
        total, body)


def archive(name, size=4096):
    """(name, bytes, md5) of an archive whose bytes differ from name to name."""
    seed = hashlib.sha256(name.encode()).digest()
    data = (seed * (size // 32 + 1))[:size]
    return name, data, md5(data)


def peak_rss_kib(pid):
    with open("/proc/%d/status" % pid) as f:
        return int(re.search(r"VmHWM:\s*(\d+)", f.read()).group(1))


class Session:
    def __init__(self, path):
        self.path = path

    def file(self, name):
        return os.path.join(self.path, name)

    def exists(self, name):
        return os.path.lexists(self.file(name))

    def read(self, name):
        return read(self.file(name))

    def xml(self, name):
        return ET.parse(self.file(name)).getroot()

    def log(self):
        return self.read("migration.log").decode(errors="replace") if self.exists("migration.log") else ""

    def names(self):
        return sorted(os.listdir(self.path)) if os.path.isdir(self.path) else []


class Run:
    """The binary, started in the background; finish() waits for it and leaves its exit code and
    output, and with measure its peak memory (peak_kib)."""

    def __init__(self, argv, env, stdin, session, tty=False, cwd=None, measure=False):
        # The binary's own arguments, whatever runs it.
        self.argv = argv[argv.index(BIN):] if BIN in argv else argv
        self.session, self.tty, self.peak_kib = session, None, None
        if measure:
            # ASan as a plain build would hold memory: freed memory reused at once, no leak check at exit.
            env = env | {"ASAN_OPTIONS": env.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=0:detect_leaks=0"}
        if tty:   # standard error on a terminal
            self.tty, slave = pty.openpty()
        self.files = [tempfile.TemporaryFile() for _ in range(2)]
        with tempfile.TemporaryFile() as f:
            f.write(stdin)
            f.seek(0)
            # A hardened umask: what the binary hands to kvaadm must not depend on ours.
            self.proc = subprocess.Popen(argv, env=env, stdin=f, stdout=self.files[0],
                                         stderr=slave if tty else self.files[1], umask=0o027, cwd=cwd)
        if tty:
            os.close(slave)
        self.pid = self.proc.pid
        if measure:
            # The high-water mark of the program's own memory, sampled while it runs: the rusage
            # that wait4 gives counts the forked test process too, which can be far larger.
            self.peak_kib, self.sampler = 0, threading.Thread(target=self._sample_peak, daemon=True)
            self.sampler.start()

    def _sample_peak(self):
        with contextlib.suppress(OSError, AttributeError):
            while self.running():
                self.peak_kib = max(self.peak_kib, peak_rss_kib(self.pid))
                time.sleep(0.002)

    def running(self):
        """Whether it runs yet; it is not reaped here."""
        return os.waitid(os.P_PID, self.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT) is None

    def finish(self, timeout=300):
        deadline = time.monotonic() + timeout
        while not (done := os.wait4(self.pid, os.WNOHANG))[0]:
            if time.monotonic() > deadline:
                self.proc.kill()
                os.wait4(self.pid, 0)
                raise subprocess.TimeoutExpired(self.argv, timeout)
            time.sleep(0.01)
        self.proc.returncode = self.code = os.waitstatus_to_exitcode(done[1])
        if self.peak_kib is not None:
            self.sampler.join()
        self.out, self.err = (f.seek(0) or f.read() for f in self.files)
        for f in self.files:
            f.close()
        with contextlib.suppress(OSError):   # EIO once the program has closed the terminal
            while self.tty is not None and (chunk := os.read(self.tty, 65536)):
                self.err += chunk
        return self

    def __str__(self):
        log = self.session.log()[-3000:] if self.session else ""
        return "exit %s of %s\nstdout %r\nstderr %r\nlog:\n%s" % (self.code, " ".join(self.argv), self.out[-999:],
                                                                  self.err[-999:], log)


def environment(password=PASSWORD, sudo=None):
    env = {k: v for k, v in os.environ.items() if not k.startswith("KVA_") and k != "SSH_AUTH_SOCK"}
    return env | {k: v for k, v in (("KVA_PASSWORD", password), ("KVA_SUDO_PASSWORD", sudo)) if v is not None}


class Case(unittest.TestCase):
    """One sshd, one product root (and sample host data) per class."""
    sample_data = False

    @classmethod
    def setUpClass(cls):
        ensure_accounts()
        cls.tmp = tempfile.mkdtemp(prefix="vantrel-it.")
        os.chmod(cls.tmp, 0o755)    # sample data and archives are read by the test login
        cls.remote_dirs, cls.server = [], None
        cls.addClassCleanup(cls.cleanup)
        cls.qmv = os.path.join(cls.tmp, "product", "QMV")
        shutil.copytree(os.path.join(SOURCE, "product", "QMV"), cls.qmv)
        os.makedirs(os.path.join(cls.qmv, "tmp"))
        properties = os.path.join(cls.qmv, "log4cpp.properties")
        write(properties, read(properties).replace(b"rootCategory=INFO", b"rootCategory=DEBUG"))
        agents = os.path.join(cls.qmv, "agents")
        write(agents + "/probe/control/spec", "EntryPoint: probe.pl\n")
        write(agents + "/probe/probe.pl", PROBE)
        shutil.copy(agents + "/sample/sample-agent.pl", agents + "/probe")
        write(KVA_CONF, "PRODUCT_ROOT_D %s\n" % os.path.dirname(cls.qmv))
        cls.server = SshServer().start()
        cls.port = cls.server.port
        cls.data = os.path.join(cls.tmp, "sample-host")
        if cls.sample_data:
            subprocess.run([os.path.join(SOURCE, "tests", "fixtures", "sample-host", "make-sample-host"), cls.data],
                           check=True, stdout=subprocess.DEVNULL)

    @classmethod
    def cleanup(cls):
        if cls.server:
            cls.server.stop()
        with contextlib.suppress(FileNotFoundError):
            os.unlink(KVA_CONF)
        for d in cls.remote_dirs + [cls.tmp]:
            shutil.rmtree(d, ignore_errors=True)

    @classmethod
    def remote_dir(cls, create=False):
        """A fresh agent directory under the login's home."""
        path = tempfile.mkdtemp(prefix="vantrel-it.", dir=pwd.getpwnam(USER).pw_dir)
        cls.remote_dirs.append(path)
        os.rmdir(path) if not create else os.chown(path, *pwd.getpwnam(USER)[2:4])
        return path

    @classmethod
    def session(cls):
        return Session(tempfile.mkdtemp(prefix="s.", dir=cls.tmp) + "/p/session")

    @classmethod
    def start(cls, action, *extra, session=None, login=USER, password=PASSWORD, sudo=None, host=HOST,
              port=None, agent_dir=None, agent="probe", stdin=b"", env={}, tty=False, blocked=False, measure=False,
              prefix=()):
        """Starts the binary; sudo is the sudo password, given means --sudo-password; blocked starts it
        with SIGTERM and SIGINT blocked; measure samples its peak memory; prefix runs it (nsenter ...)."""
        argv = list(prefix)
        argv += [sys.executable, "-c", "import os, signal, sys; signal.pthread_sigmask(signal.SIG_BLOCK, "
                 "[signal.SIGTERM, signal.SIGINT]); os.execv(sys.argv[1], sys.argv[1:])"] if blocked else []
        argv += [BIN, action, "--host=" + host, "--port=%d" % (port or cls.port), "--login=" + login]
        argv += ["--sudo-password"] if sudo is not None else []
        argv += ["--agent-dir=" + agent_dir, "--agent-name=" + agent] if agent_dir else []
        session = session or cls.session()
        return Run(argv + ["--session-path", session.path] + list(extra),
                   environment(password, sudo) | env, stdin, session, tty, measure=measure)

    @classmethod
    def run_vantrel(cls, *args, timeout=300, **kw):
        return cls.start(*args, **kw).finish(timeout)

    def run_raw(self, args, session=None, password=None, env={}):
        return Run([BIN] + args, environment(password) | env, b"", session).finish(60)

    @classmethod
    def deploy(cls, agent="probe"):
        """Deploys an agent through sudo into a fresh remote directory."""
        agent_dir = cls.remote_dir()
        r = cls.run_vantrel("--deploy-agent", agent_dir=agent_dir, agent=agent, sudo=PASSWORD)
        if r.code != 0:
            raise AssertionError("deployment failed: %s" % r)
        return agent_dir

    def get_content(self, agent_dir, *extra, sudo=PASSWORD, **kw):
        return self.start("--get-content", *extra, agent_dir=agent_dir, sudo=sudo, **kw)

    def tmpfs(self):
        """A directory on a file system of 1 MiB."""
        path = tempfile.mkdtemp(dir=self.tmp)
        if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", path]).returncode:
            self.skipTest("this machine does not let a tmpfs be mounted")
        self.addCleanup(subprocess.run, ["umount", path])
        return path

    def configure(self, agent_dir, **settings):
        """The settings of the sample agent in agent_dir."""
        settings.setdefault("data", self.data)
        write(os.path.join(agent_dir, "sample-agent.conf"), "".join("%s=%s\n" % kv for kv in settings.items()))

    def lay_out(self, archives, total=None, sizes={}, present=lambda name: True):
        """An agent directory holding the probe, the archives [(name, bytes,
        md5)] and their list (content tests need no real deployment)."""
        agent_dir = self.remote_dir(create=True)
        write(os.path.join(agent_dir, "probe.pl"), PROBE, owner=USER)
        for name, data, _ in archives:
            if present(name):
                write(os.path.join(agent_dir, name), data, owner=USER)
                os.chown(os.path.dirname(os.path.join(agent_dir, name)), *pwd.getpwnam(USER)[2:4])
        write(os.path.join(agent_dir, "list.xml"), content_list(archives, total, sizes))
        return agent_dir

    def end(self, r):
        """The run stopped the way every run does: status idle with its pid,
        and the start and stop lines in the log."""
        if r.session.exists("migration.status"):
            status = r.session.xml("migration.status")
            self.assertEqual([("pid", str(r.pid)), ("idle", None)], [(c.tag, c.text) for c in status], r)
        log = r.session.log()
        # The start line quotes the arguments for a shell.
        self.assertIn("Vantrel started : " + " ".join(r.argv) + "\n", log.replace("\\", ""))
        self.assertIn("Vantrel finished. Exit code: %d\n" % r.code, log)

    def ok(self, r, doc="migration.result"):
        self.assertEqual((0, b""), (r.code, r.err), r)
        root = r.session.xml(doc)
        self.assertEqual(("execution-result", "success", []), (root.tag, root.get("status"), list(root)))
        self.end(r)

    def failed(self, r, code, tag, inner=None, doc="migration.result"):
        """Exit code, the message on standard error without a line feed, and a
        result document with status error and one message (holding one inner
        message of tag inner); returns the description of the innermost."""
        self.assertEqual((code, b""), (r.code, r.out), r)
        root = r.session.xml(doc)
        self.assertEqual(("execution-result", "error"), (root.tag, root.get("status")))
        (msg,) = root
        for m in [msg] + ([msg.find("message")] if inner else []):
            self.assertRegex(m.get("id"), "^[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-8[0-9a-f]{3}-[0-9a-f]{12}$")
            self.assertEqual(("message", "error"), (m.tag, m.get("severity")))
        # The resolver's own complaint comes first, on a line of its own.
        err = r.err.decode().split("\n", 1)[-1] if tag == "HostNotFound" else r.err.decode()
        self.assertEqual((tag, err), (msg.get("code"), msg.findtext("description")), r)
        self.assertEqual([inner] if inner else [], [m.get("code") for m in msg.findall("message")])
        self.end(r)
        return (msg.find("message") if inner else msg).findtext("description")

    def final_status(self, run, timeout=300):
        """(The migration status after the last archive, the finished run). That
        status stands while the archives that arrived are removed on the source
        host."""
        deadline, status = time.monotonic() + timeout, None
        while time.monotonic() < deadline and run.running():
            with contextlib.suppress(OSError, ET.ParseError):
                seen = run.session.xml("migration.status")
                if seen.find("transfer/files[@left='0']") is not None:
                    status = seen
            time.sleep(0.005)
        if status is None:
            raise AssertionError("the run did not show its last status: %s" % run.finish(1))
        return status, run.finish()


class Poller(threading.Thread):
    """Reads a file every 0.1 s until stopped and keeps (time, content) of
    every change."""

    def __init__(self, path):
        super().__init__(daemon=True)
        self.path, self.seen, self.done = path, [], threading.Event()
        self.start()

    def run(self):
        while not self.done.wait(0.1):
            with contextlib.suppress(OSError):
                data = read(self.path)
                if data and (not self.seen or self.seen[-1][1] != data):
                    self.seen.append((time.monotonic(), data))

    def stop(self):
        self.done.set()
        self.join()


def main():
    unittest.main(verbosity=2)
