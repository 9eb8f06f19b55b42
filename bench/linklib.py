"""A packet-level link between two network namespaces of our own, for the
benchmarks and the integration tests.

    import linklib
    with linklib.Link(delay_ms=25, congestion="reno") as link:
        srv = link.sshd()                    # tests/testbed's sshd on the source side
        link.run_client(["ssh", ..., "%s@%s" % (user, link.source_addr), "true"])
        link.set("to-client", loss=0.001, rate=400, queue=1 << 20)
        link.down(); link.up()               # drop everything, then carry again
        link.kill_connections()              # ss -K of the client's TCP connections
        print(link.stats())

Link() makes two namespaces (vtlink-<pid>-<n>-source and -client), starts
bench-link between them (a TUN device "vtlink" in each: 198.18.0.1 on the
source side, 198.18.0.2 on the client side, addresses of the benchmarking
range that exist only there) and sets the source side's TCP congestion
control. close() (or the end of the with block) ends bench-link, every process
left in either namespace and the namespaces themselves. Namespaces that a
process no longer alive left behind are removed on the next start.

MTU 1500, as on the paths between data centres: loss hits a packet of the
size it would there, and a loss-based sender's window counts the segments it
would there. bench-link carries some 1.9 Gbit/s at that size on two cores
(one thread a direction), so a cap of 400 Mbit/s is the cap's doing, not the
forwarder's.

Needs root, /dev/net/tun and nsenter; available() says why not.
"""
import contextlib
import itertools
import os
import re
import signal
import subprocess
import sys
import threading
import types

SOURCE = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
SOURCE_ADDR, CLIENT_ADDR = "198.18.0.1", "198.18.0.2"
MTU = 1500
NETNS_DIR = "/run/netns"
PREFIX = "vtlink-"
_serial = itertools.count(1)


def program():
    """bench-link of the build at hand: $VANTREL_LINK when set (ctest sets
    it), else the bench build, else the test build; None when missing."""
    given = os.environ.get("VANTREL_LINK")
    for path in [given] if given else [os.path.join(SOURCE, "build", "bench", "bench", "bench-link"),
                                       os.path.join(SOURCE, "build", "test", "bench", "bench-link")]:
        if os.access(path, os.X_OK):
            return path
    return None


def available():
    """None when a link can be made here, else the reason why not."""
    if os.geteuid() != 0:
        return "needs root"
    if not os.path.exists("/dev/net/tun"):
        return "no /dev/net/tun"
    if program() is None:
        return "bench-link is not built"
    name = "%s%d-probe" % (PREFIX, os.getpid())
    res = subprocess.run(["ip", "netns", "add", name], stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if res.returncode != 0:
        return "no network namespaces: %s" % res.stdout.decode(errors="replace").strip()
    subprocess.run(["ip", "netns", "delete", name])
    return None


def _ns_pids(name):
    res = subprocess.run(["ip", "netns", "pids", name], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    return [int(p) for p in res.stdout.split()]


def _remove_namespace(name):
    """Kills what still runs in a namespace of ours, then removes it."""
    for pid in _ns_pids(name):
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, signal.SIGKILL)
    subprocess.run(["ip", "netns", "delete", name], stderr=subprocess.DEVNULL)


def remove_stale():
    """Removes the namespaces of links whose process is gone."""
    with contextlib.suppress(FileNotFoundError):
        for name in os.listdir(NETNS_DIR):
            m = re.match(re.escape(PREFIX) + r"(\d+)-", name)
            if m and not os.path.exists("/proc/%s" % m.group(1)):
                _remove_namespace(name)


class LinkError(RuntimeError):
    pass


class Link:
    """Two namespaces and bench-link between them. delay_ms, loss, rate
    (Mbit/s, 0: none) and queue (bytes behind the rate cap) apply to both
    directions to start with; set() changes them per direction. congestion:
    the source side's net.ipv4.tcp_congestion_control (reno, bbr, cubic)."""

    def __init__(self, delay_ms=0, loss=0.0, rate=0, queue=1 << 20, congestion="reno", seed=1):
        self.source_addr, self.client_addr = SOURCE_ADDR, CLIENT_ADDR
        self.proc = None
        self.servers = []
        remove_stale()
        tag = "%s%d-%d" % (PREFIX, os.getpid(), next(_serial))
        self.names = {"source": tag + "-source", "client": tag + "-client"}
        try:
            for name in self.names.values():
                subprocess.run(["ip", "netns", "add", name], check=True)
            self.proc = subprocess.Popen(
                [program(), "--source-netns", self.netns("source"), "--client-netns", self.netns("client"),
                 "--source-addr", SOURCE_ADDR, "--client-addr", CLIENT_ADDR, "--mtu", str(MTU), "--seed", str(seed)],
                stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, bufsize=1)
            if self.proc.stdout.readline().strip() != "ready":
                raise LinkError("bench-link did not start")
            self.set("both", delay=delay_ms, loss=loss, rate=rate, queue=queue)
            self.run_source(["sysctl", "-qw", "net.ipv4.tcp_congestion_control=" + congestion], check=True)
        except BaseException:
            self.close()
            raise

    # -------------------------------------------------------------- the link

    def _command(self, line):
        self.proc.stdin.write(line + "\n")
        answer = self.proc.stdout.readline().strip()
        if not answer.startswith("ok"):
            raise LinkError("bench-link: %s: %s" % (line, answer or "no answer"))
        return answer[2:].strip()

    def set(self, direction="both", **settings):
        """direction: to-client, to-source or both; settings: delay (ms),
        loss (0..1), rate (Mbit/s, 0: none), queue (bytes)."""
        self._command("set %s %s" % (direction, " ".join("%s=%s" % kv for kv in settings.items())))

    def seed(self, seed):
        """Starts the random losses again from seed: runs that start from the
        same seed lose the same packets (by their order on the link)."""
        self._command("seed %d" % seed)

    def down(self):
        """Drops every packet from now on, those on their way too."""
        self._command("down")

    def up(self):
        self._command("up")

    def stats(self):
        """{direction: {packets, bytes, lost, tail, down}}: what the link
        carried and what it dropped, by loss, at the tail of the queue and
        while down."""
        out = {}
        for part in self._command("stats").split(";"):
            words = part.split()
            out[words[0]] = {k: int(v) for k, v in (w.split("=") for w in words[1:])}
        return out

    # -------------------------------------------------------------- processes

    def netns(self, side):
        return os.path.join(NETNS_DIR, self.names[side])

    def argv(self, side, argv):
        """argv run in the namespace of side ("source" or "client")."""
        return ["nsenter", "--net=" + self.netns(side)] + list(argv)

    def run_client(self, argv, **kwargs):
        return subprocess.run(self.argv("client", argv), **kwargs)

    def run_source(self, argv, **kwargs):
        return subprocess.run(self.argv("source", argv), **kwargs)

    def popen(self, side, argv, **kwargs):
        return subprocess.Popen(self.argv(side, argv), **kwargs)

    def kill_connections(self, expression=None):
        """Destroys the client side's TCP connections to the source side, as
        a middlebox that resets them would (ss -K); expression: another ss
        filter. Returns what ss printed."""
        res = self.run_client(["ss", "-K", "-t", "-n"] + (expression or ["dst", SOURCE_ADDR]),
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        return res.stdout

    @contextlib.contextmanager
    def peak_kib(self, side, word):
        """Watches, while the block runs, the processes of side's namespace
        whose command line holds word (bytes); .kib is then the highest
        peak memory (VmHWM) among them, 0 if none was seen."""
        result, stop = types.SimpleNamespace(kib=0), threading.Event()

        def watch():
            while not stop.wait(0.05):
                for pid in _ns_pids(self.names[side]):
                    with contextlib.suppress(OSError, IndexError, ValueError):
                        with open("/proc/%d/cmdline" % pid, "rb") as f:
                            if word not in f.read():
                                continue
                        with open("/proc/%d/status" % pid) as f:
                            result.kib = max(result.kib, int(f.read().split("VmHWM:")[1].split()[0]))
        watcher = threading.Thread(target=watch)
        watcher.start()
        try:
            yield result
        finally:
            stop.set()
            watcher.join()

    def sshd(self, variant="default"):
        """tests/testbed's sshd in the source namespace, listening on
        source_addr; stopped by close()."""
        sys.path.insert(0, os.path.join(SOURCE, "tests", "testbed"))
        import testbed
        srv = testbed.SshServer(variant, host=SOURCE_ADDR, netns=self.netns("source")).start()
        self.servers.append(srv)
        return srv

    def close(self):
        for srv in self.servers:
            srv.stop()
        self.servers = []
        if self.proc is not None:
            with contextlib.suppress(OSError):
                self.proc.stdin.close()
            try:
                self.proc.wait(5)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
            self.proc.stdout.close()
            self.proc = None
        for name in self.names.values():
            _remove_namespace(name)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
