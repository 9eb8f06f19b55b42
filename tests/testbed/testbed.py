"""Loopback SSH test bed: real local accounts, private OpenSSH servers on
127.0.0.1, and a scripted paramiko server for the faults a real server cannot
show on demand.  Needs root and /usr/bin/python3; see tests/README.md."""
import contextlib
import fcntl
import os
import pwd
import signal
import socket
import subprocess
import tempfile
import time
import warnings

HOST = "127.0.0.1"
# The passwords hold a blank, a quote and a dollar sign: every layer that
# passes them on (environment, shell, sudo's standard input) must keep them.
USER, PASSWORD = "vtuser", "vt pass'1$"
NOSUDO_USER, NOSUDO_PASSWORD = "vtnosudo", "vt no'sudo $2"          # sudo refuses it
NOSUDOBIN_USER, NOSUDOBIN_PASSWORD = "vtnosudobin", "vt no'bin $3"  # no sudo on its PATH
ADMIN_ACCOUNT = "kvaadm"
ACCOUNTS = {USER: PASSWORD, NOSUDO_USER: NOSUDO_PASSWORD, NOSUDOBIN_USER: NOSUDOBIN_PASSWORD}
SUPPORT = "/usr/local/lib/vantrel-testbed"
MARKER = "# vantrel-testbed: written by tests/testbed/testbed.py; safe to remove"


@contextlib.contextmanager
def _locked():
    """Serialises set-up work between test processes."""
    with open("/tmp/vantrel-testbed.lock", "a") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        yield


def _run(*argv, input=None):
    subprocess.run(argv, input=input, check=True, stdout=subprocess.DEVNULL)


def _write_ours(path, text, mode):
    """Writes a file that carries our marker; refuses one that does not."""
    if os.path.exists(path):
        with open(path) as f:
            current = f.read()
        if MARKER not in current:
            raise RuntimeError("%s was not written by the test bed; refusing to touch it" % path)
        if current == text:
            return
    with open(path + ".vt-tmp", "w") as f:   # sudo skips names with a dot
        f.write(text)
    os.chmod(path + ".vt-tmp", mode)
    if path.startswith("/etc/sudoers.d/"):
        _run("visudo", "-cf", path + ".vt-tmp")
    os.rename(path + ".vt-tmp", path)


def _ensure_user(name, password, shell):
    try:
        if pwd.getpwnam(name).pw_shell != shell:
            _run("usermod", "--shell", shell, name)
    except KeyError:
        _run("useradd", "--create-home", "--user-group", "--shell", shell, name)
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", DeprecationWarning)
        import crypt
    with open("/etc/shadow") as f:
        stored = next(line.split(":")[1] for line in f if line.startswith(name + ":"))
    if stored[:1] in ("", "!", "*") or crypt.crypt(password, stored) != stored:
        _run("chpasswd", input=("%s:%s\n" % (name, password)).encode())


def ensure_accounts():
    """Idempotently creates the test accounts, the sudoers drop-in that lets
    USER run anything with its own password, and the account kvaadm."""
    with _locked():
        try:
            pwd.getpwnam(ADMIN_ACCOUNT)
        except KeyError:
            _run("useradd", "--system", "--user-group", "--no-create-home", "--shell", "/usr/sbin/nologin",
                 ADMIN_ACCOUNT)
        if os.path.isdir(SUPPORT) and not os.path.exists(os.path.join(SUPPORT, "MARKER")):
            raise RuntimeError("%s was not made by the test bed; refusing to touch it" % SUPPORT)
        bindir = os.path.join(SUPPORT, "nosudo-bin")
        os.makedirs(bindir, 0o755, exist_ok=True)
        _write_ours(os.path.join(SUPPORT, "MARKER"), MARKER + "\n", 0o644)
        # Every program of the usual PATH but sudo.
        for d in ("/usr/local/bin", "/usr/bin", "/bin"):
            for name in os.listdir(d):
                if not name.startswith("sudo") and not os.path.lexists(os.path.join(bindir, name)):
                    os.symlink(os.path.join(d, name), os.path.join(bindir, name))
        shell = os.path.join(SUPPORT, "nosudo-shell")
        _write_ours(shell, "#!/bin/sh\n%s\nPATH=%s\nexport PATH\nexec /bin/sh \"$@\"\n" % (MARKER, bindir), 0o755)
        _ensure_user(USER, PASSWORD, "/bin/bash")
        _ensure_user(NOSUDO_USER, NOSUDO_PASSWORD, "/bin/sh")
        _ensure_user(NOSUDOBIN_USER, NOSUDOBIN_PASSWORD, shell)
        _write_ours("/etc/sudoers.d/vantrel-test", "%s\nDefaults:%s !requiretty, lecture=never\n%s ALL=(ALL:ALL) ALL\n"
                    % (MARKER, USER, USER), 0o440)


def host_key():
    """The ed25519 host key of every server of the bed, made once."""
    path = "/tmp/vantrel-testbed-keys/host_ed25519"
    with _locked():
        if not os.path.exists(path + ".pub"):
            os.makedirs(os.path.dirname(path), 0o700, exist_ok=True)
            with contextlib.suppress(FileNotFoundError):
                os.unlink(path)
            _run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", path)
    return path


def free_port():
    with socket.socket() as s:
        s.bind((HOST, 0))
        return s.getsockname()[1]


def kill_tree(pid):
    """Kills pid and every process below it (sshd's sessions leave its
    process group, so the tree is read from /proc)."""
    children = {}
    for entry in filter(str.isdigit, os.listdir("/proc")):
        with contextlib.suppress(OSError), open("/proc/%s/stat" % entry) as f:
            children.setdefault(int(f.read().rsplit(")", 1)[1].split()[1]), []).append(int(entry))
    todo = [pid]
    while todo:
        p = todo.pop()
        todo += children.get(p, [])
        with contextlib.suppress(ProcessLookupError):
            os.kill(p, signal.SIGKILL)


class SshServer:
    """A private sshd on 127.0.0.1. Variants: "default" (password and
    keyboard-interactive), "kbdint" (keyboard-interactive only), "pubkey"
    (publickey only)."""
    METHODS = {"default": ("yes", "yes", "no"), "kbdint": ("no", "yes", "no"), "pubkey": ("no", "no", "yes")}

    def __init__(self, variant="default", log_level="VERBOSE"):
        self.variant, self.log_level, self.host, self.proc = variant, log_level, HOST, None

    def start(self):
        os.makedirs("/run/sshd", 0o755, exist_ok=True)
        self.dir = tempfile.mkdtemp(prefix="vantrel-sshd-")
        self.log = os.path.join(self.dir, "sshd.log")
        for _ in range(20):   # another test bed may take the port meanwhile
            self.port = free_port()
            with open(os.path.join(self.dir, "sshd_config"), "w") as f:
                f.write("\n".join([
                    "Port %d" % self.port, "ListenAddress " + HOST, "HostKey " + host_key(),
                    "PidFile none", "UsePAM yes", "AuthorizedKeysFile none",
                    "PasswordAuthentication %s\nKbdInteractiveAuthentication %s\nPubkeyAuthentication %s"
                    % self.METHODS[self.variant], "MaxStartups 200", "MaxSessions 100", "UseDNS no",
                    # The compatibility retry of the client offers only this exchange.
                    "KexAlgorithms +diffie-hellman-group1-sha1", "LogLevel " + self.log_level, ""]))
            with open(self.log, "ab") as log:
                self.proc = subprocess.Popen(["/usr/sbin/sshd", "-D", "-e", "-f", f.name], stdin=subprocess.DEVNULL,
                                             stdout=log, stderr=log)
            deadline = time.monotonic() + 10
            while self.proc.poll() is None and time.monotonic() < deadline:
                with contextlib.suppress(OSError), socket.create_connection((HOST, self.port), 1) as s:
                    if s.recv(8) == b"SSH-2.0-":
                        return self
                time.sleep(0.02)
            self.stop()
        raise RuntimeError("sshd did not start; see %s" % self.log)

    def stop(self):
        if self.proc is not None:
            kill_tree(self.proc.pid)
            self.proc.wait()
            self.proc = None

    __enter__ = start

    def __exit__(self, *exc):
        self.stop()
