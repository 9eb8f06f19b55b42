"""Shared machinery of the benchmark scripts in bench/.

Every script measures vantrel (or its transport) and OpenSSH's own tools side
by side, in one run, against the same loopback sshd of tests/testbed, and
prints the figures and their ratios.  What lives where:

  build/bench                 release build (no sanitizers, no tests) with
                              the bench programs, configured to read
                              build/bench/bench-root/kva.conf
  build/bench/bench-root      the bench's product root: QMV/ installed from
                              the build, plus the agents of bench/agents and a
                              generated 300-file agent
  /var/tmp/vantrel-bench      cached random data (kept between runs) and the
                              scratch directory of each run (removed)
  ~vtuser/vantrel-bench-*     remote directories of a run (removed)

Environment:
  VANTREL_BENCH_PORT          use the sshd already listening on this loopback
                              port (bench/run-all starts one for all scripts)
  VANTREL_BENCH_NO_BUILD=1    do not (re)build; use what build/bench holds
  VANTREL_BENCH_WORK          instead of /var/tmp/vantrel-bench
"""
import contextlib
import hashlib
import os
import pwd
import random
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

SOURCE = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
BENCH_SRC = os.path.join(SOURCE, "bench")
BUILD = os.path.join(SOURCE, "build", "bench")
ROOT = os.path.join(BUILD, "bench-root")
KVA_CONF = os.path.join(ROOT, "kva.conf")
QMV = os.path.join(ROOT, "QMV")
AGENTS = os.path.join(QMV, "agents")
BIN = os.path.join(BUILD, "vantrel", "vantrel")
SSH_GET = os.path.join(BUILD, "bench", "bench-ssh-get")
RELAY = os.path.join(BUILD, "bench", "bench-relay")
WORK = os.environ.get("VANTREL_BENCH_WORK") or "/var/tmp/vantrel-bench"
DATA = os.path.join(WORK, "data")
TIME = "/usr/bin/time"

sys.path.insert(0, os.path.join(SOURCE, "tests", "testbed"))
import testbed  # noqa: E402

# Figures reach a pipe (bench/run-all) in step with the progress lines.
sys.stdout.reconfigure(line_buffering=True)

HOST = testbed.HOST
USER = testbed.USER
PASSWORD = testbed.PASSWORD

MiB = 1 << 20
GiB = 1 << 30

TREE_AGENT = "benchtree"     # generated: the 300-file agent of bench/deploy
DATA_AGENT = "benchdata"     # bench/agents/benchdata: prints a fixed content list
TREE_FILES = 300


def log(text):
    sys.stderr.write("[%s] %s\n" % (time.strftime("%H:%M:%S"), text))
    sys.stderr.flush()


def die(text):
    sys.stderr.write("bench: %s\n" % text)
    sys.exit(1)


# ------------------------------------------------------------------ build

def ensure_build():
    """Release build of vantrel and the bench programs, and the product root
    installed from it."""
    if os.geteuid() != 0:
        die("the benchmarks need root (test accounts, sudo, sshd)")
    if not os.access(TIME, os.X_OK):
        die("%s is missing: apt-get install time" % TIME)
    if not os.environ.get("VANTREL_BENCH_NO_BUILD"):
        if not os.path.exists(os.path.join(BUILD, "CMakeCache.txt")):
            log("configuring the release build in %s" % BUILD)
            _quiet(["cmake", "-S", SOURCE, "-B", BUILD, "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                    "-DVANTREL_SANITIZE=OFF", "-DVANTREL_TESTS=OFF", "-DVANTREL_BENCH=ON",
                    "-DVANTREL_KVA_CONF=" + KVA_CONF])
        log("building %s" % BUILD)
        _quiet(["cmake", "--build", BUILD, "-j2"])
        _install_product()
    for path in (BIN, SSH_GET, RELAY):
        if not os.access(path, os.X_OK):
            die("%s is missing (build/bench not built?)" % path)
    if not os.path.isdir(os.path.join(AGENTS, TREE_AGENT)):
        _install_product()


def _quiet(argv):
    res = subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if res.returncode != 0:
        sys.stderr.write(res.stdout.decode("utf-8", "replace"))
        die("%s failed with %d" % (" ".join(argv), res.returncode))


def _install_product():
    if os.path.isdir(QMV):
        shutil.rmtree(QMV)
    _quiet(["cmake", "--install", BUILD, "--prefix", ROOT])
    with open(KVA_CONF, "w") as f:
        f.write("PRODUCT_ROOT_D %s\n" % ROOT)
    # The session start-up lines name the negotiated cipher ("Selected ...
    # encryption method"): the content benchmark checks them against the one
    # it gives OpenSSH's client.
    with open(os.path.join(QMV, "log4cpp.properties"), "a") as f:
        f.write("\n# bench: the SSH session start-up at DEBUG\nlog4cpp.category.p.libssh2pp.Session=DEBUG\n")
    # A trivial scout: the start-up benchmark measures the run, not the probe.
    with open(os.path.join(QMV, "scout.pl"), "w") as f:
        f.write('print "<scout/>\\n";\n')
    shutil.copytree(os.path.join(BENCH_SRC, "agents", DATA_AGENT), os.path.join(AGENTS, DATA_AGENT))
    _make_tree_agent(os.path.join(AGENTS, TREE_AGENT))
    # The remote login reads everything it is sent from here.
    for d, dirs, files in os.walk(ROOT):
        for n in dirs:
            os.chmod(os.path.join(d, n), 0o755)
    os.chmod(ROOT, 0o755)


def _make_tree_agent(root):
    """TREE_FILES files to deploy (the entry point among them) in 20
    directories up to three levels deep, 200 bytes to 24 KiB each, the same
    tree on every install."""
    rnd = random.Random(20261123)
    dirs = [""]
    for i in range(19):
        parent = rnd.choice([d for d in dirs if d.count("/") < 2])
        dirs.append(os.path.join(parent, "d%02d" % i))
    os.makedirs(os.path.join(root, "control"))
    with open(os.path.join(root, "control", "spec"), "w") as f:
        f.write("Description: Benchmark agent: a tree of %d files\nEntryPoint: bench-agent.pl\n"
                % TREE_FILES)
    shutil.copy(os.path.join(BENCH_SRC, "agents", DATA_AGENT, "bench-agent.pl"), root)
    for i in range(TREE_FILES - 1):
        d = os.path.join(root, dirs[i % len(dirs)])
        os.makedirs(d, exist_ok=True)
        size = rnd.randint(200, 24 * 1024)
        with open(os.path.join(d, "f%03d.pm" % i), "wb") as f:
            f.write(rnd.randbytes(size))


def deployed_tree_stats():
    """(files, directories, bytes) that a deployment of TREE_AGENT sends:
    agents/shared and the agent, without the agent's control directory."""
    files = dirs = size = 0
    for top in (os.path.join(AGENTS, "shared"), os.path.join(AGENTS, TREE_AGENT)):
        for d, subdirs, names in os.walk(top):
            if d == top:
                subdirs[:] = [s for s in subdirs if s != "control"]
            dirs += 1
            for n in names:
                files += 1
                size += os.path.getsize(os.path.join(d, n))
    return files, dirs, size


def listing(root):
    """relative path -> (size, MD5) of every file below root, None for a
    directory."""
    out = {}
    for d, dirs, files in os.walk(root):
        for n in dirs:
            out[os.path.relpath(os.path.join(d, n), root)] = None
        for n in files:
            p = os.path.join(d, n)
            out[os.path.relpath(p, root)] = (os.path.getsize(p), file_md5(p))
    return out


def staging_tree(dest):
    """The tree a deployment of TREE_AGENT leaves on the remote side, built
    locally."""
    shutil.copytree(os.path.join(AGENTS, "shared"), dest)
    shutil.copytree(os.path.join(AGENTS, TREE_AGENT), dest, dirs_exist_ok=True,
                    ignore=lambda d, names: ["control"] if d == os.path.join(AGENTS, TREE_AGENT) else [])
    # The marker a deployment writes first into the agent directory.
    open(os.path.join(dest, ".vantrel-agent"), "w").close()
    for d, dirs, files in os.walk(dest):
        os.chmod(d, 0o755)
        for n in files:
            os.chmod(os.path.join(d, n), 0o644)


# ------------------------------------------------------------------ server

@contextlib.contextmanager
def server():
    """The loopback sshd (testbed variant "default": password and
    keyboard-interactive); reused when VANTREL_BENCH_PORT names one."""
    testbed.ensure_accounts()
    port = os.environ.get("VANTREL_BENCH_PORT")
    if port:
        yield int(port)
        return
    srv = testbed.SshServer("default").start()
    try:
        yield srv.port
    finally:
        srv.stop()


@contextlib.contextmanager
def relay(port, delay_ms):
    """bench-relay in front of the sshd on port, holding every byte back
    delay_ms in each direction; yields the relay's port."""
    proc = subprocess.Popen([RELAY, "--target-port", str(port), "--delay-ms", str(delay_ms)],
                            stdout=subprocess.PIPE)
    try:
        words = proc.stdout.readline().split()
        if len(words) != 2 or words[0] != b"port":
            die("bench-relay did not start")
        yield int(words[1])
    finally:
        proc.terminate()
        proc.wait()


def negotiated_methods(port):
    """(cipher, mac) that libssh2 settles on with this server."""
    res = subprocess.run([SSH_GET, "--host", HOST, "--port", str(port), "--login", USER, "--methods"],
                         env=vantrel_env(), stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    words = res.stdout.decode().split()
    if res.returncode != 0 or len(words) != 4:
        die("bench-ssh-get --methods failed: %r" % res.stderr)
    return words[1], words[3]


# ------------------------------------------------------------------ scratch

class Scratch:
    """A local scratch directory and remote directories under the login's
    home, all removed at the end."""

    def __init__(self, name):
        os.makedirs(WORK, exist_ok=True)
        os.chmod(WORK, 0o755)
        self.local = tempfile.mkdtemp(prefix="run-%s-" % name, dir=WORK)
        os.chmod(self.local, 0o755)
        self.home = pwd.getpwnam(USER).pw_dir
        self.name = name
        self.remotes = []
        self._askpass = None

    def remote_dir(self, tag, create=True):
        path = os.path.join(self.home, "vantrel-bench-%s-%d-%s" % (self.name, os.getpid(), tag))
        self.remotes.append(path)
        if os.path.lexists(path):
            shutil.rmtree(path)
        if create:
            os.mkdir(path, 0o755)
            chown_login(path)
        return path

    def path(self, *parts):
        return os.path.join(self.local, *parts)

    def askpass(self):
        """A program that prints the login password, for OpenSSH's clients."""
        if self._askpass is None:
            self._askpass = self.path("askpass")
            with open(self._askpass, "w") as f:
                f.write('#!/bin/sh\nprintf \'%s\\n\' "$VANTREL_BENCH_PW"\n')
            os.chmod(self._askpass, 0o700)
        return self._askpass

    def close(self):
        for p in self.remotes:
            shutil.rmtree(p, ignore_errors=True)
        shutil.rmtree(self.local, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


def chown_login(path):
    pw = pwd.getpwnam(USER)
    os.chown(path, pw.pw_uid, pw.pw_gid)


def data_file(name, size):
    """A cached file of size random bytes under DATA, readable by the login."""
    os.makedirs(DATA, exist_ok=True)
    os.chmod(DATA, 0o755)
    path = os.path.join(DATA, name)
    if os.path.exists(path) and os.path.getsize(path) == size:
        return path
    log("making %s (%d MiB of random data, once)" % (path, size // MiB))
    tmp = path + ".tmp"
    with open("/dev/urandom", "rb") as src, open(tmp, "wb") as dst:
        left = size
        while left:
            block = src.read(min(left, 16 * MiB))
            dst.write(block)
            left -= len(block)
    os.chmod(tmp, 0o644)
    os.rename(tmp, path)
    return path


def place(src, dst):
    """dst becomes src without copying when both lie on one file system; the
    remote removal of an archive then only drops the link."""
    with contextlib.suppress(FileNotFoundError):
        os.unlink(dst)
    try:
        os.link(src, dst)
    except OSError:
        shutil.copyfile(src, dst)
        os.chmod(dst, 0o644)


def warm(paths):
    """Reads the files once so that every side reads them from the page cache."""
    for p in paths:
        with open(p, "rb") as f:
            while f.read(8 * MiB):
                pass


def md5_of(path):
    out = subprocess.run(["md5sum", path], stdout=subprocess.PIPE, check=True).stdout
    return out.split()[0].decode()


def file_md5(path):
    """md5_of without a process: for many small files."""
    digest = hashlib.md5()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(1 * MiB), b""):
            digest.update(block)
    return digest.hexdigest()


# ------------------------------------------------------------------ running

def vantrel_env(sudo=False):
    env = {k: v for k, v in os.environ.items() if not k.startswith("KVA_")}
    env["KVA_PASSWORD"] = PASSWORD
    if sudo:
        env["KVA_SUDO_PASSWORD"] = PASSWORD
    return env


def vantrel_argv(action, port, session, agent_dir=None, agent=None, sudo=False, extra=()):
    argv = [BIN, action, "--host", HOST, "--port", str(port), "--login", USER,
            "--session-path", session]
    if agent_dir is not None:
        argv += ["--agent-dir", agent_dir, "--agent-name", agent]
    if sudo:
        argv.append("--sudo-password")
    return argv + list(extra)


def ssh_argv(scratch, port, cipher=None, mac=None, program="ssh"):
    """OpenSSH's client (or scp) with no user configuration, password
    authentication through an askpass program, and the given cipher and
    MAC."""
    argv = [program, "-F", "/dev/null", "-P" if program == "scp" else "-p", str(port),
            "-o", "StrictHostKeyChecking=no", "-o", "UserKnownHostsFile=/dev/null",
            "-o", "PreferredAuthentications=password", "-o", "PubkeyAuthentication=no",
            "-o", "Compression=no", "-o", "LogLevel=ERROR"]
    if cipher:
        argv += ["-c", cipher]
    if mac:
        argv += ["-o", "MACs=" + mac]
    return argv


def ssh_env(scratch):
    env = {k: v for k, v in os.environ.items() if not k.startswith("KVA_")}
    env.pop("DISPLAY", None)
    env.update(SSH_ASKPASS=scratch.askpass(), SSH_ASKPASS_REQUIRE="force",
               VANTREL_BENCH_PW=PASSWORD)
    return env


def load_average():
    """The one-minute load average: the neighbours' share of the 2 cores."""
    with open("/proc/loadavg") as f:
        return float(f.read().split()[0])


class Measure:
    """One timed run: wall time, max RSS (from /usr/bin/time -v), status,
    and the load average when it started."""

    def __init__(self, seconds, max_rss_kib, status, out, err, load=None):
        self.seconds = seconds
        self.max_rss_kib = max_rss_kib
        self.status = status
        self.out = out
        self.err = err
        self.load = load_average() if load is None else load

    @property
    def rss_mib(self):
        return self.max_rss_kib / 1024.0


def measure(argv, env, stdin=None, stdout=None, check=True, what=None):
    """Runs argv under /usr/bin/time -v; stdin/stdout: paths or None."""
    fd, report = tempfile.mkstemp(prefix="time-", dir=WORK)
    os.close(fd)
    fin = open(stdin, "rb") if stdin else subprocess.DEVNULL
    fout = open(stdout, "wb") if stdout else subprocess.PIPE
    load = load_average()
    try:
        start = time.monotonic()
        res = subprocess.run([TIME, "-v", "-o", report] + argv, env=env, stdin=fin, stdout=fout,
                             stderr=subprocess.PIPE)
        seconds = time.monotonic() - start
    finally:
        if stdin:
            fin.close()
        if stdout:
            fout.close()
    rss = 0
    with open(report) as f:
        for line in f:
            if "Maximum resident set size" in line:
                rss = int(line.rsplit(":", 1)[1])
    os.unlink(report)
    m = Measure(seconds, rss, res.returncode, res.stdout or b"", res.stderr, load)
    if check and res.returncode != 0:
        die("%s exited with %d:\n%s" % (what or " ".join(argv), res.returncode,
                                        m.err.decode("utf-8", "replace")[-3000:]))
    return m


def sync():
    """Writes dirty pages out so that one side's writes do not land on the
    other side's clock."""
    subprocess.run(["sync"], check=True)


def median(values):
    return statistics.median(values)


def rate(nbytes, seconds):
    return nbytes / MiB / seconds if seconds > 0 else float("inf")


def session_cipher(session):
    """The cipher that a vantrel run reports in its session log."""
    with open(os.path.join(session, "migration.log"), errors="replace") as f:
        for line in f:
            m = re.search(r"Selected (\S+) encryption method", line)
            if m:
                return m.group(1)
    return None


def check_same(path_a, path_b, what):
    if md5_of(path_a) != md5_of(path_b):
        die("%s: %s and %s differ" % (what, path_a, path_b))


def header(title, port, cipher=None, mac=None):
    line = "== %s  (sshd 127.0.0.1:%d" % (title, port)
    if cipher:
        line += ", cipher %s, MAC %s" % (cipher, mac)
    print(line + ")")
    sys.stdout.flush()


# ------------------------------------------------------------------ reporting

def rounds(sides, count, before=None, verbose=True):
    """Runs every side count times, alternating which one goes first, so
    that neither always meets the other's leftovers (dirty pages, warm
    caches).  sides: list of (name, callable returning a Measure).  before:
    called before every single run (clean-up, sync).  Returns
    name -> list of Measures."""
    results = {name: [] for name, _ in sides}
    for r in range(count):
        order = sides if r % 2 == 0 else list(reversed(sides))
        for name, run in order:
            if before:
                before()
            m = run()
            results[name].append(m)
            if verbose:
                log("%s: %.2f s, max RSS %.1f MiB, load %.2f" % (name, m.seconds, m.rss_mib, m.load))
    return results


def best(ms):
    """The fastest run: on a shared machine the slow ones measure the
    neighbours."""
    return min(ms, key=lambda m: m.seconds)


def peak_rss(ms):
    return max(m.rss_mib for m in ms)


def show_times(ms):
    return " ".join("%.2f" % m.seconds for m in ms)


def ratio(a, b):
    return a / b if b else float("inf")


# ------------------------------------------------------------------ archives

ARCHIVES = 4
ARCHIVE_SIZE = 512 * MiB


def archives():
    """The cached content archives: [(name, path, size, md5)]."""
    out = []
    for i in range(ARCHIVES):
        name = "bench-%d.tar" % i
        path = data_file(name, ARCHIVE_SIZE)
        out.append((name, path, ARCHIVE_SIZE, cached_md5(path)))
    return out


def cached_md5(path):
    st = os.stat(path)
    stamp = path + ".md5"
    key = "%d %d" % (st.st_size, st.st_mtime_ns)
    with contextlib.suppress(OSError):
        with open(stamp) as f:
            k, _, digest = f.read().strip().rpartition(" ")
            if k == key:
                return digest
    digest = md5_of(path)
    with open(stamp, "w") as f:
        f.write("%s %s\n" % (key, digest))
    return digest


def data_agent_dir(scratch, items, tag="agent"):
    """A remote directory holding the benchmark agent and the content list
    of items; the archives themselves are placed by place_archives."""
    d = scratch.remote_dir(tag)
    shutil.copy(os.path.join(AGENTS, DATA_AGENT, "bench-agent.pl"), d)
    total = sum(size for _, _, size, _ in items)
    body = "".join('  <file size="%d" md5sum="%s">%s</file>\n' % (size, md5, name)
                   for name, _, size, md5 in items)
    with open(os.path.join(d, "content-list.xml"), "w") as f:
        f.write('<?xml version="1.0" encoding="UTF-8"?>\n'
                '<contentlist size="%d" unpacked="%d">\n%s</contentlist>\n' % (total, total, body))
    for n in os.listdir(d):
        chown_login(os.path.join(d, n))
    return d


def place_archives(agent_dir, items):
    for name, path, _, _ in items:
        place(path, os.path.join(agent_dir, name))
