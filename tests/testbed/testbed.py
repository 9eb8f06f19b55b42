"""Loopback SSH test bed.

Real local accounts with awkward passwords, private OpenSSH servers on
127.0.0.1 and a scripted paramiko server for the faults a real server cannot
show on demand.  Run as root with /usr/bin/python3.  Nothing here installs
packages; openssh-server, sudo and python3-paramiko come from scripts/deps.

    import sys; sys.path.insert(0, "<source>/tests/testbed")
    import testbed
    testbed.ensure_accounts()
    with testbed.SshServer("kbdint") as srv:
        ...  srv.host, srv.port, srv.log
    with testbed.ScriptedServer("cut-mid-transfer", cut_after=4096) as s:
        ...  s.port, s.events()
"""

import contextlib
import fcntl
import os
import pwd
import grp
import select
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import warnings

HOST = "127.0.0.1"

# Passwords hold a blank, a single quote and a dollar sign on purpose: every
# layer that passes them on (environment, shell, sudo's standard input) must
# keep them byte for byte.
USER = "vtuser"
PASSWORD = "vt pass'1$"
NOSUDO_USER = "vtnosudo"
NOSUDO_PASSWORD = "vt no'sudo $2"
NOSUDOBIN_USER = "vtnosudobin"
NOSUDOBIN_PASSWORD = "vt no'bin $3"
ADMIN_ACCOUNT = "kvaadm"

# Login name -> password of every test account that may log in.
ACCOUNTS = {
    USER: PASSWORD,
    NOSUDO_USER: NOSUDO_PASSWORD,
    NOSUDOBIN_USER: NOSUDOBIN_PASSWORD,
}

TESTBED_DIR = os.path.dirname(os.path.abspath(__file__))
SCRIPTED_SERVER = os.path.join(TESTBED_DIR, "scripted_server.py")
PYTHON = "/usr/bin/python3"
SSHD = "/usr/sbin/sshd"

KEY_CACHE = "/tmp/vantrel-testbed-keys"
LOCK_FILE = "/tmp/vantrel-testbed.lock"
SUDOERS_FILE = "/etc/sudoers.d/vantrel-test"
SUPPORT_DIR = "/usr/local/lib/vantrel-testbed"
NOSUDO_SHELL = os.path.join(SUPPORT_DIR, "nosudo-shell")
NOSUDO_BIN = os.path.join(SUPPORT_DIR, "nosudo-bin")
MARKER = "# vantrel-testbed: written by tests/testbed/testbed.py; safe to remove"

VARIANTS = ("default", "kbdint", "pubkey")


class TestbedError(RuntimeError):
    pass


@contextlib.contextmanager
def _locked():
    """Serialises set-up work between test processes of several developers."""
    fd = os.open(LOCK_FILE, os.O_RDWR | os.O_CREAT, 0o600)
    try:
        fcntl.flock(fd, fcntl.LOCK_EX)
        yield
    finally:
        os.close(fd)


def _run(argv, input=None):
    res = subprocess.run(argv, input=input, stdout=subprocess.PIPE,
                         stderr=subprocess.STDOUT)
    if res.returncode != 0:
        raise TestbedError("%s failed (%d): %s" % (
            " ".join(argv), res.returncode,
            res.stdout.decode("utf-8", "replace").strip()))
    return res.stdout


def _write_atomic(path, text, mode):
    tmp = path + ".vt-tmp"
    with open(tmp, "w") as f:
        f.write(text)
    os.chmod(tmp, mode)
    os.rename(tmp, path)


# ---------------------------------------------------------------- accounts

def _password_matches(name, password):
    """True when the shadow entry of name already holds password."""
    try:
        with warnings.catch_warnings():
            warnings.simplefilter("ignore", DeprecationWarning)
            import crypt
        with open("/etc/shadow") as f:
            for line in f:
                fields = line.rstrip("\n").split(":")
                if fields[0] == name:
                    stored = fields[1]
                    return (stored[:1] not in ("", "!", "*")
                            and crypt.crypt(password, stored) == stored)
    except (ImportError, OSError):
        pass
    return False


def _ensure_user(name, password, shell):
    try:
        pw = pwd.getpwnam(name)
    except KeyError:
        _run(["useradd", "--create-home", "--user-group", "--shell", shell,
              "--comment", "vantrel test account", name])
        pw = pwd.getpwnam(name)
    if pw.pw_shell != shell:
        _run(["usermod", "--shell", shell, name])
    if not os.path.isdir(pw.pw_dir):
        os.makedirs(pw.pw_dir, 0o755)
        os.chown(pw.pw_dir, pw.pw_uid, pw.pw_gid)
    if not _password_matches(name, password):
        _run(["chpasswd"], input=("%s:%s\n" % (name, password)).encode())


def _ensure_admin_account():
    try:
        grp.getgrnam(ADMIN_ACCOUNT)
        have_group = True
    except KeyError:
        have_group = False
    try:
        pwd.getpwnam(ADMIN_ACCOUNT)
        if not have_group:
            _run(["groupadd", "--system", ADMIN_ACCOUNT])
        return
    except KeyError:
        pass
    argv = ["useradd", "--system", "--no-create-home", "--home-dir", "/nonexistent",
            "--shell", "/usr/sbin/nologin"]
    argv += ["--gid", ADMIN_ACCOUNT] if have_group else ["--user-group"]
    _run(argv + [ADMIN_ACCOUNT])


def _ensure_support_dir():
    """The login shell of the no-sudo-binary account and the directory of
    links its PATH points at: everything of the usual PATH except sudo."""
    marker = os.path.join(SUPPORT_DIR, "MARKER")
    if os.path.exists(SUPPORT_DIR) and not os.path.exists(marker):
        raise TestbedError("%s exists and was not made by the test bed; "
                           "refusing to touch it" % SUPPORT_DIR)
    os.makedirs(NOSUDO_BIN, 0o755, exist_ok=True)
    os.chmod(SUPPORT_DIR, 0o755)
    if not os.path.exists(marker):
        with open(marker, "w") as f:
            f.write(MARKER + "\n")

    shell = ("#!/bin/sh\n" + MARKER + "\n"
             "# Login shell of %s: a PATH in which no sudo can be found.\n"
             "PATH=%s\nexport PATH\nexec /bin/sh \"$@\"\n" % (NOSUDOBIN_USER, NOSUDO_BIN))
    try:
        with open(NOSUDO_SHELL) as f:
            current = f.read()
    except OSError:
        current = None
    if current != shell:
        _write_atomic(NOSUDO_SHELL, shell, 0o755)

    wanted = {}
    for d in ("/usr/local/bin", "/usr/bin", "/bin"):
        try:
            names = os.listdir(d)
        except OSError:
            continue
        for n in names:
            if n.startswith("sudo") or n in wanted:
                continue
            target = os.path.join(d, n)
            if os.path.isfile(target) and os.access(target, os.X_OK):
                wanted[n] = target
    present = set(os.listdir(NOSUDO_BIN))
    for n in present - set(wanted):
        os.unlink(os.path.join(NOSUDO_BIN, n))
    for n, target in wanted.items():
        link = os.path.join(NOSUDO_BIN, n)
        with contextlib.suppress(OSError):
            if n in present and os.readlink(link) == target:
                continue
        tmp = link + ".vt-tmp"
        with contextlib.suppress(FileNotFoundError):
            os.unlink(tmp)
        os.symlink(target, tmp)
        os.rename(tmp, link)


def ensure_sudoers(path=SUDOERS_FILE):
    """Writes the sudoers drop-in that lets USER run anything with its own
    password.  A file of that name without our marker is never touched."""
    text = (MARKER + "\n"
            "Defaults:%(u)s !requiretty\n"
            "Defaults:%(u)s lecture=never\n"
            "%(u)s ALL=(ALL:ALL) ALL\n" % {"u": USER})
    try:
        with open(path) as f:
            current = f.read()
    except FileNotFoundError:
        current = None
    if current is not None:
        if current.split("\n", 1)[0] != MARKER:
            raise TestbedError("%s exists and was not written by the test bed; "
                               "refusing to overwrite it" % path)
        if current == text and (os.stat(path).st_mode & 0o777) == 0o440:
            return
    # The temporary name holds a dot: sudo skips such files in sudoers.d.
    tmp = path + ".vt-tmp"
    with open(tmp, "w") as f:
        f.write(text)
    os.chmod(tmp, 0o440)
    try:
        _run(["visudo", "-cf", tmp])
    except TestbedError:
        os.unlink(tmp)
        raise
    os.rename(tmp, path)


def ensure_accounts():
    """Idempotently creates the test accounts, the sudoers drop-in and the
    system account kvaadm.  Needs root."""
    if os.geteuid() != 0:
        raise TestbedError("the test bed needs root to manage its accounts")
    with _locked():
        _ensure_admin_account()
        _ensure_support_dir()
        _ensure_user(USER, PASSWORD, "/bin/bash")
        _ensure_user(NOSUDO_USER, NOSUDO_PASSWORD, "/bin/sh")
        _ensure_user(NOSUDOBIN_USER, NOSUDOBIN_PASSWORD, NOSUDO_SHELL)
        ensure_sudoers()


# ---------------------------------------------------------------- keys

def cached_key(name, keytype, extra=()):
    """Path of a private key under KEY_CACHE, generated on first use."""
    path = os.path.join(KEY_CACHE, name)
    if os.path.exists(path) and os.path.exists(path + ".pub"):
        return path
    with _locked():
        os.makedirs(KEY_CACHE, 0o700, exist_ok=True)
        if os.path.exists(path) and os.path.exists(path + ".pub"):
            return path
        tmp = path + ".vt-tmp.%d" % os.getpid()
        for p in (tmp, tmp + ".pub"):
            with contextlib.suppress(FileNotFoundError):
                os.unlink(p)
        _run(["ssh-keygen", "-q", "-t", keytype, "-N", "", "-C", "vantrel-testbed",
              "-f", tmp] + list(extra))
        os.rename(tmp + ".pub", path + ".pub")
        os.rename(tmp, path)
    return path


def host_key():
    return cached_key("host_ed25519", "ed25519")


def client_key():
    """A key pair that the "pubkey" variant accepts for every test account."""
    return cached_key("client_ed25519", "ed25519")


def scripted_host_keys():
    return [cached_key("scripted_rsa", "rsa", ["-b", "2048", "-m", "PEM"]),
            cached_key("scripted_ed25519", "ed25519")]


# ---------------------------------------------------------------- processes

def _children():
    """Map of parent pid -> child pids, read from /proc."""
    tree = {}
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open("/proc/%s/stat" % entry) as f:
                stat = f.read()
        except OSError:
            continue
        ppid = int(stat[stat.rindex(")") + 2:].split()[1])
        tree.setdefault(ppid, []).append(int(entry))
    return tree


def _descendants(pid):
    tree = _children()
    out, todo = [], [pid]
    while todo:
        p = todo.pop()
        for c in tree.get(p, ()):
            out.append(c)
            todo.append(c)
    return out


def kill_tree(proc, grace=3.0):
    """Stops proc and every process below it (sshd's per-connection children
    leave its process group, so the tree is walked instead)."""
    if proc is None or proc.poll() is not None:
        return
    pids = _descendants(proc.pid)
    for sig in (signal.SIGTERM, signal.SIGKILL):
        for p in [proc.pid] + pids:
            with contextlib.suppress(ProcessLookupError):
                os.kill(p, sig)
        deadline = time.monotonic() + grace
        while time.monotonic() < deadline:
            if proc.poll() is not None and not any(_alive(p) for p in pids):
                return
            time.sleep(0.02)
    proc.wait()


def _alive(pid):
    try:
        with open("/proc/%d/stat" % pid) as f:
            stat = f.read()
    except OSError:
        return False
    return stat[stat.rindex(")") + 2] != "Z"


def free_port():
    with socket.socket() as s:
        s.bind((HOST, 0))
        return s.getsockname()[1]


def read_banner(host, port, timeout=2.0):
    """The SSH identification line of the server at host:port, or None."""
    try:
        with socket.create_connection((host, port), timeout=timeout) as s:
            data = b""
            while b"\n" not in data and len(data) < 256:
                chunk = s.recv(256)
                if not chunk:
                    break
                data += chunk
            return data.split(b"\n", 1)[0].rstrip(b"\r").decode("ascii", "replace")
    except OSError:
        return None


# ---------------------------------------------------------------- sshd

_VARIANT_AUTH = {
    # password, keyboard-interactive, publickey
    "default": ("yes", "yes", "no"),
    "kbdint": ("no", "yes", "no"),
    "pubkey": ("no", "no", "yes"),
}


class SshServer:
    """A private OpenSSH sshd on 127.0.0.1 with its own configuration."""

    def __init__(self, variant="default", log_level="VERBOSE"):
        if variant not in _VARIANT_AUTH:
            raise ValueError("unknown sshd variant %r" % variant)
        self.variant = variant
        self.log_level = log_level
        self.host = HOST
        self.port = None
        self.dir = None
        self.log = None
        self.config = None
        self.proc = None

    def _write_config(self):
        password, kbdint, pubkey = _VARIANT_AUTH[self.variant]
        keys = os.path.join(self.dir, "authorized_keys")
        with open(client_key() + ".pub") as f:
            pub = f.read()
        with open(keys, "w") as f:
            f.write(pub)
        os.chmod(keys, 0o644)
        lines = [
            "Port %d" % self.port,
            "ListenAddress %s" % self.host,
            "HostKey %s" % host_key(),
            "PidFile %s" % os.path.join(self.dir, "sshd.pid"),
            "UsePAM yes",
            "PasswordAuthentication %s" % password,
            "KbdInteractiveAuthentication %s" % kbdint,
            "PubkeyAuthentication %s" % pubkey,
            "AuthorizedKeysFile %s" % keys,
            "HostbasedAuthentication no",
            "PermitRootLogin no",
            "PermitEmptyPasswords no",
            "StrictModes no",
            "MaxStartups 200",
            "MaxSessions 100",
            "MaxAuthTries 20",
            "LoginGraceTime 120",
            "ClientAliveInterval 0",
            "UseDNS no",
            "PrintMotd no",
            "PrintLastLog no",
            "X11Forwarding no",
            "AllowTcpForwarding no",
            "PermitTTY yes",
            # The compatibility retry of the client offers only this exchange.
            "KexAlgorithms +diffie-hellman-group1-sha1,diffie-hellman-group14-sha1",
            "LogLevel %s" % self.log_level,
            "Subsystem sftp internal-sftp",
        ]
        self.config = os.path.join(self.dir, "sshd_config")
        with open(self.config, "w") as f:
            f.write("\n".join(lines) + "\n")

    def start(self, timeout=10.0):
        if self.proc is not None:
            return self
        os.makedirs("/run/sshd", 0o755, exist_ok=True)
        host_key()
        client_key()
        self.dir = tempfile.mkdtemp(prefix="vantrel-sshd-%s-" % self.variant)
        # sshd reads the authorized keys file as the logging-in user.
        os.chmod(self.dir, 0o755)
        self.log = os.path.join(self.dir, "sshd.log")
        try:
            for _ in range(20):
                self.port = free_port()
                self._write_config()
                if self._launch(timeout):
                    return self
            raise TestbedError("sshd found no free port; log %s" % self.log)
        except BaseException:
            self.stop()
            raise

    def _launch(self, timeout):
        """Starts sshd on self.port; False when the port was taken meanwhile."""
        with open(self.log, "ab") as logf:
            logf.write(b"--- port %d\n" % self.port)
            logf.flush()
            start_offset = logf.tell()
            self.proc = subprocess.Popen([SSHD, "-D", "-e", "-f", self.config],
                                         stdin=subprocess.DEVNULL, stdout=logf,
                                         stderr=logf, start_new_session=True)
        listening = "Server listening on %s port %d" % (self.host, self.port)
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            with open(self.log, "rb") as f:
                f.seek(start_offset)
                text = f.read().decode("utf-8", "replace")
            if self.proc.poll() is not None:
                self.proc = None
                if "Bind to port" in text or "Cannot bind" in text:
                    return False
                raise TestbedError("sshd (%s) exited at start-up:\n%s" % (self.variant, text))
            if listening in text:
                banner = read_banner(self.host, self.port)
                if banner and banner.startswith("SSH-2.0-"):
                    return True
            time.sleep(0.01)
        raise TestbedError("sshd (%s) did not answer on port %d within %.0f s; log %s"
                           % (self.variant, self.port, timeout, self.log))

    def stop(self):
        kill_tree(self.proc)
        self.proc = None
        if self.dir:
            shutil.rmtree(self.dir, ignore_errors=True)
            self.dir = None

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()


def start_servers(variants=VARIANTS):
    """Starts one sshd per variant; all of them are stopped if one fails."""
    servers = []
    try:
        for v in variants:
            servers.append(SshServer(v).start())
    except BaseException:
        for s in servers:
            s.stop()
        raise
    return servers


# ---------------------------------------------------------------- scripted

class ScriptedServer:
    """tests/testbed/scripted_server.py MODE run as a child process.  Its
    event lines (CONNECT, EXEC, EXIT, CLOSE, ...) land in self.log."""

    def __init__(self, mode, cut_after=None, env=None):
        self.mode = mode
        self.cut_after = cut_after
        self.env = env
        self.host = HOST
        self.port = None
        self.proc = None
        self.dir = None
        self.log = None

    def start(self, timeout=10.0):
        env = dict(os.environ if self.env is None else self.env)
        if self.cut_after is not None:
            env["VANTREL_TB_CUT_AFTER"] = str(self.cut_after)
        self.dir = tempfile.mkdtemp(prefix="vantrel-scripted-")
        self.log = os.path.join(self.dir, "events.log")
        self.proc = subprocess.Popen([PYTHON, SCRIPTED_SERVER, self.mode, "--log", self.log,
                                      "--watch-stdin"],
                                     stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=subprocess.DEVNULL, env=env)
        try:
            ready, _, _ = select.select([self.proc.stdout], [], [], timeout)
            line = self.proc.stdout.readline().decode() if ready else ""
            if not line.startswith("PORT "):
                raise TestbedError("scripted server (%s) did not report its port: %r"
                                   % (self.mode, line))
            self.port = int(line.split()[1])
        except BaseException:
            self.stop()
            raise
        return self

    def events(self):
        """The event lines logged so far, without their line ends."""
        try:
            with open(self.log) as f:
                return f.read().splitlines()
        except (OSError, TypeError):
            return []

    def wait_event(self, prefix, timeout=5.0):
        """The first event line that starts with prefix, waiting for it."""
        deadline = time.monotonic() + timeout
        while True:
            for e in self.events():
                if e.startswith(prefix):
                    return e
            if time.monotonic() > deadline:
                return None
            time.sleep(0.02)

    def stop(self):
        if self.proc is not None:
            with contextlib.suppress(OSError):
                self.proc.stdin.close()
            try:
                self.proc.wait(3)
            except subprocess.TimeoutExpired:
                kill_tree(self.proc)
            self.proc.stdout.close()
            self.proc = None
        if self.dir:
            shutil.rmtree(self.dir, ignore_errors=True)
            self.dir = None

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()


def testbed_environment(servers):
    """The VANTREL_TB_* variables for running sshd instances by variant."""
    by_variant = {s.variant: s for s in servers}
    env = {
        "VANTREL_TB_HOST": HOST,
        "VANTREL_TB_USER": USER,
        "VANTREL_TB_PASSWORD": PASSWORD,
        "VANTREL_TB_NOSUDO_USER": NOSUDO_USER,
        "VANTREL_TB_NOSUDO_PASSWORD": NOSUDO_PASSWORD,
        "VANTREL_TB_NOSUDOBIN_USER": NOSUDOBIN_USER,
        "VANTREL_TB_NOSUDOBIN_PASSWORD": NOSUDOBIN_PASSWORD,
        "VANTREL_TB_SCRIPTED": "%s %s" % (PYTHON, SCRIPTED_SERVER),
        "VANTREL_TB_CLIENT_KEY": client_key(),
    }
    names = {"default": "VANTREL_TB_PORT", "kbdint": "VANTREL_TB_KBDINT_PORT",
             "pubkey": "VANTREL_TB_PUBKEY_PORT"}
    for v, name in names.items():
        if v in by_variant:
            env[name] = str(by_variant[v].port)
    return env
