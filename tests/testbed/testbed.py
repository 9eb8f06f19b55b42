"""Loopback SSH test bed: real local accounts, private OpenSSH servers on
127.0.0.1, and a scripted server for the faults a real server cannot show on
demand. Needs root and /usr/bin/python3 (with paramiko); see tests/README.md."""
import contextlib
import fcntl
import os
import pwd
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import threading
import time

import paramiko

HOST = "127.0.0.1"
# The passwords hold a blank, a quote and a dollar sign: every layer that
# passes them on (environment, shell, sudo's standard input) must keep them.
USER, PASSWORD = "vtuser", "vt pass'1$"
NOSUDO_USER, NOSUDO_PASSWORD = "vtnosudo", "vt no'sudo $2"          # sudo refuses it
NOSUDOBIN_USER, NOSUDOBIN_PASSWORD = "vtnosudobin", "vt no'bin $3"  # no sudo on its PATH
KEY_USER = "vtkey"                                                  # logs in by key only
ADMIN_ACCOUNT = "kvaadm"
# Source hosts as operators find them: accounts whose login shells and start-up files print on every
# command, and sudo that lectures or wants a terminal. Each: login -> (password, shell, start-up files
# {path in the home: text}, sudoers Defaults). NOISE is what the start-up files print on standard output.
NOISE = "Welcome to panel.example.test, load 0.42 -- have a nice day"
SHELL_HOSTS = {
    "vtnoisy": ("vt noisy'5$", "/bin/bash", {".bashrc": 'echo "%s"\necho "bashrc on stderr" >&2\n' % NOISE},
                "lecture=always"),
    "vttty": ("vt tty'6$", "/bin/bash", {".bashrc": 'echo "%s"\n' % NOISE}, "requiretty"),
    "vttcsh": ("vt tcsh'7$", "/usr/bin/tcsh", {".tcshrc": 'echo "%s"\n' % NOISE}, None),
    "vtcsh": ("vt csh'8$", "/usr/bin/bsd-csh", {".cshrc": 'echo "%s"\n' % NOISE}, None),
    "vtfish": ("vt fish'9$", "/usr/bin/fish", {".config/fish/config.fish": 'echo "%s"\n' % NOISE}, None),
    "vtash": ("vt ash'0$", "/usr/local/lib/vantrel-testbed/ash", {}, None),
}
ACCOUNTS = {USER: PASSWORD, NOSUDO_USER: NOSUDO_PASSWORD, NOSUDOBIN_USER: NOSUDOBIN_PASSWORD,
            **{login: host[0] for login, host in SHELL_HOSTS.items()}}
SUPPORT = "/usr/local/lib/vantrel-testbed"
MARKER = "# vantrel-testbed: written by tests/testbed/testbed.py; safe to remove"


@contextlib.contextmanager
def _locked():
    """Serialises set-up work between test processes."""
    with open("/tmp/vantrel-testbed.lock", "a") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        yield


def _read(path):
    with open(path) as f:
        return f.read()


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


def _ensure_user(name, password, shell, files=None):
    """files: {path in the home: text}, written with our marker into a home made without /etc/skel."""
    try:
        if pwd.getpwnam(name).pw_shell != shell:
            _run("usermod", "--shell", shell, name)
    except KeyError:
        _run("useradd", "--create-home", "--user-group", "--shell", shell, name,
             *(["--skel", os.path.join(SUPPORT, "empty-skel")] if files is not None else []))
        if password:
            _run("chpasswd", input=("%s:%s\n" % (name, password)).encode())
    account = pwd.getpwnam(name)
    for path, text in (files or {}).items():
        path = os.path.join(account.pw_dir, path)
        os.makedirs(os.path.dirname(path), 0o755, exist_ok=True)
        _write_ours(path, "# %s\n%s" % (MARKER, text), 0o644)
        while path.startswith(account.pw_dir + "/"):
            os.chown(path, account.pw_uid, account.pw_gid)
            path = os.path.dirname(path)


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
        _write_ours(shell, "#!/bin/sh\n%s\n# Login shell of %s: a PATH in which no sudo can be found.\n"
                    "PATH=%s\nexport PATH\nexec /bin/sh \"$@\"\n" % (MARKER, NOSUDOBIN_USER, bindir), 0o755)
        _ensure_user(USER, PASSWORD, "/bin/bash")
        _ensure_user(NOSUDO_USER, NOSUDO_PASSWORD, "/bin/sh")
        _ensure_user(NOSUDOBIN_USER, NOSUDOBIN_PASSWORD, shell)
        _ensure_user(KEY_USER, None, "/bin/bash")
        os.makedirs(os.path.join(SUPPORT, "empty-skel"), 0o755, exist_ok=True)
        if not os.path.lexists(os.path.join(SUPPORT, "ash")):
            os.symlink("/usr/bin/busybox", os.path.join(SUPPORT, "ash"))   # BusyBox runs as the name it is called by
        for login, (password, shell, files, _) in SHELL_HOSTS.items():
            _ensure_user(login, password, shell, files)
        _write_ours("/etc/sudoers.d/vantrel-test", "%s\nDefaults:%s !requiretty\nDefaults:%s lecture=never\n"
                    "%s ALL=(ALL:ALL) ALL\n" % (MARKER, USER, USER, USER) +
                    "".join("Defaults:%s %s\n" % (login, host[3]) for login, host in SHELL_HOSTS.items() if host[3]) +
                    "".join("%s ALL=(ALL:ALL) ALL\n" % login for login in SHELL_HOSTS), 0o440)


KEYS = "/tmp/vantrel-testbed-keys/"
# The login keys the servers of the bed accept: (name, ssh-keygen's options, passphrase).
LOGIN_KEYS = [("login_ed25519", ["-t", "ed25519"], ""), ("login_ecdsa_pem", ["-t", "ecdsa", "-m", "PEM"], ""),
              ("login_protected", ["-t", "ed25519"], "key pass'phrase $4"), ("login_rsa", ["-t", "rsa"], "")]


def host_key(name="host_ed25519", options=("-t", "ed25519"), passphrase=""):
    """A key made once (by default the ed25519 host key that serves every server of the bed)."""
    path = KEYS + name
    with _locked():
        if not os.path.exists(path + ".pub"):
            os.makedirs(KEYS, 0o700, exist_ok=True)
            with contextlib.suppress(FileNotFoundError):
                os.unlink(path)
            _run("ssh-keygen", "-q", *options, "-N", passphrase, "-f", path)
    return path


def authorized_keys():
    """The file of the login keys every server of the bed accepts for every account."""
    path = KEYS + "authorized_keys"
    text = "".join(_read(host_key(name, options, passphrase) + ".pub") for name, options, passphrase in LOGIN_KEYS)
    with _locked():
        with open(path + ".new", "w") as f:
            f.write(text)
        # sshd reads it as the account that logs in: it may pass through the
        # directory (not list it) and read this file.
        os.chmod(path + ".new", 0o644)
        os.chmod(KEYS, 0o711)
        os.rename(path + ".new", path)
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


def _perl_base_alone():
    """A prefix that runs a command in a private mount namespace where every directory of perl's @INC but
    perl-base's own is hidden under an empty one."""
    empty = os.path.join(SUPPORT, "empty")
    os.makedirs(empty, 0o755, exist_ok=True)
    inc = subprocess.run(["perl", "-e", "print join qq(\\n), @INC"], capture_output=True, text=True, check=True)
    hidden = [d for d in inc.stdout.split("\n") if os.path.isdir(d) and not d.rstrip("/").endswith("perl-base")]
    script = 'e=$1; shift; while [ "$1" != -- ]; do mount --bind "$e" "$1" || exit 1; shift; done; shift; exec "$@"'
    return ["unshare", "--mount", "--propagation", "private", "sh", "-c", script, "sh", empty] + hidden + ["--"]


class SshServer:
    """A private sshd on 127.0.0.1 (or host). Variants: "default" (password,
    keyboard-interactive and the keys of LOGIN_KEYS), "kbdint" (keyboard-
    interactive only), "pubkey" (the keys only), "hardened" (as default, with
    the methods of HARDENED only)."""
    METHODS = {"default": ("yes", "yes", "yes"), "kbdint": ("no", "yes", "no"), "pubkey": ("no", "no", "yes"),
               "hardened": ("yes", "yes", "yes")}
    # The widely used ssh-audit hardening guide for OpenSSH: encrypt-then-MAC MACs and modern key exchanges only.
    HARDENED = ["KexAlgorithms sntrup761x25519-sha512@openssh.com,curve25519-sha256,curve25519-sha256@libssh.org,"
                "diffie-hellman-group16-sha512,diffie-hellman-group18-sha512,diffie-hellman-group-exchange-sha256",
                "Ciphers chacha20-poly1305@openssh.com,aes256-gcm@openssh.com,aes128-gcm@openssh.com,aes256-ctr,"
                "aes192-ctr,aes128-ctr",
                "MACs hmac-sha2-256-etm@openssh.com,hmac-sha2-512-etm@openssh.com,umac-128-etm@openssh.com",
                "HostKeyAlgorithms ssh-ed25519,ssh-ed25519-cert-v01@openssh.com,rsa-sha2-512,rsa-sha2-256"]

    def __init__(self, variant="default", log_level="VERBOSE", key=None, host=HOST, netns=None, max_startups="200",
                 minimal_perl=False):
        """host: the address to listen on; netns: the path of a network namespace to run in (bench/linklib.py);
        max_startups: sshd's MaxStartups (None: its default, 10:30:100); minimal_perl: everything under this
        sshd (sudo's root included) sees perl-base's modules alone, as on a minimal Debian or Ubuntu host."""
        self.variant, self.log_level, self.host, self.proc, self.key, self.netns, self.max_startups = \
            variant, log_level, host, None, key, netns, max_startups
        self.minimal_perl = minimal_perl

    def start(self):
        os.makedirs("/run/sshd", 0o755, exist_ok=True)
        self.dir = tempfile.mkdtemp(prefix="vantrel-sshd-")
        self.log = os.path.join(self.dir, "sshd.log")
        for _ in range(20):   # another test bed may take the port meanwhile
            self.port = free_port()
            with open(os.path.join(self.dir, "sshd_config"), "w") as f:
                f.write("\n".join([
                    "Port %d" % self.port, "ListenAddress " + self.host, "HostKey " + (self.key or host_key()),
                    "PidFile none", "UsePAM yes", "AuthorizedKeysFile " + authorized_keys(), "StrictModes no",
                    "PasswordAuthentication %s\nKbdInteractiveAuthentication %s\nPubkeyAuthentication %s"
                    % self.METHODS[self.variant], *(["MaxStartups " + self.max_startups] if self.max_startups else []), "MaxSessions 100", "UseDNS no",
                    # The compatibility retry of the client offers only this exchange.
                    *(self.HARDENED if self.variant == "hardened" else ["KexAlgorithms +diffie-hellman-group1-sha1"]),
                    "LogLevel " + self.log_level,
                    "Subsystem sftp internal-sftp", ""]))   # for scp, in the benchmarks
            with open(self.log, "ab") as log:
                self.proc = subprocess.Popen((["nsenter", "--net=" + self.netns] if self.netns else []) +
                                             (_perl_base_alone() if self.minimal_perl else []) +
                                             ["/usr/sbin/sshd", "-D", "-e", "-f", f.name], stdin=subprocess.DEVNULL,
                                             stdout=log, stderr=log)
            deadline = time.monotonic() + 10
            while self.proc.poll() is None and time.monotonic() < deadline:
                if self.netns:   # out of reach from here: its log tells when it listens
                    with open(self.log, "rb") as log:
                        if b"Server listening on" in log.read():
                            return self
                else:
                    with contextlib.suppress(OSError), socket.create_connection((self.host, self.port), 1) as s:
                        if s.recv(8) == b"SSH-2.0-":
                            return self
                time.sleep(0.02)
            kill_tree(self.proc.pid)
            self.proc.wait()
        raise RuntimeError("sshd did not start: %s" % open(self.log).read()[-2000:])

    def stop(self):
        if self.proc is not None:
            kill_tree(self.proc.pid)
            self.proc.wait()
            self.proc = None
            shutil.rmtree(self.dir)

    __enter__ = start

    def __exit__(self, *exc):
        self.stop()


class ScriptedServer:
    """An SSH server in the test process for the faults a real sshd cannot show
    on demand. Modes: "silent" never sends a byte; "stall-auth" never answers
    authentication; "kbdint-3-prompts" asks for the password three times in one
    keyboard-interactive request; "fail-first-handshake" drops connection 1 after
    the client's banner (as sshd past MaxStartups does), "fail-handshake" every connection;
    "refuse-first-handshake" offers connection 1 a key exchange that nobody has; "cut" ends the TCP
    connection (a FIN, nothing else) once cut_after bytes of a command's output went out, "cut-then-down"
    too and takes no connection after that; "cut-once" cuts the first connection that comes to `at`:
    "auth" (the login), "exec:<text>" (a command whose line holds text, before it runs), "go:<text>" (such
    a command, once it was told to go and ran a moment). It logs the test accounts in by password and runs
    commands through their login shells, as them. events lists "CONNECT n", "AUTH n ok|failed",
    "EXEC n <command>", "CUT n"."""

    def __init__(self, mode, cut_after=1 << 20, at=None):
        self.mode, self.cut_after, self.at, self.host, self.events = mode, cut_after, at, HOST, []
        self.stopping, self.held, self.cut_done = threading.Event(), [], False

    def start(self):
        self.listener = socket.create_server((self.host, 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()
        return self

    def _accept(self):
        key = paramiko.Ed25519Key.from_private_key_file(host_key())
        with contextlib.suppress(OSError):
            for n in range(1, 1000):
                sock = self.listener.accept()[0]
                self.events.append("CONNECT %d" % n)
                self.held.append(sock)
                if self.mode == "fail-handshake" or self.mode == "fail-first-handshake" and n == 1:
                    sock.recv(256)
                    sock.close()
                elif self.mode == "refuse-first-handshake" and n == 1:
                    _refuse_key_exchange(sock)
                elif self.mode != "silent":
                    t = paramiko.Transport(sock)
                    t.add_server_key(key)
                    self.held.append(t)
                    t.start_server(event=threading.Event(), server=_Interface(self, n, t))

    def stop(self):
        self.stopping.set()
        self.listener.close()
        for h in self.held:
            if isinstance(h, subprocess.Popen):
                kill_tree(h.pid)
            else:
                h.close()

    __enter__ = start

    def __exit__(self, *exc):
        self.stop()


def _refuse_key_exchange(sock):
    """Sends a banner and a key exchange offer that no client shares, as an old server may."""
    lists = [b"nothing-in-common@example.test", b"ssh-ed25519"] + [b"aes128-ctr"] * 2 + [b"hmac-sha2-256"] * 2 + \
        [b"none"] * 2 + [b""] * 2
    payload = bytes([20]) + os.urandom(16) + b"".join(struct.pack(">I", len(x)) + x for x in lists) + bytes(5)
    pad = 8 - (len(payload) + 5) % 8
    pad += 8 if pad < 4 else 0
    sock.sendall(b"SSH-2.0-scripted_refusal\r\n" + struct.pack(">IB", len(payload) + pad + 1, pad) + payload + bytes(pad))
    with contextlib.suppress(OSError):
        sock.settimeout(5)
        sock.recv(4096)
    sock.close()


class _Interface(paramiko.ServerInterface):
    def __init__(self, server, n, transport):
        self.server, self.n, self.transport, self.mode = server, n, transport, server.mode

    def get_allowed_auths(self, user):
        if self.mode == "stall-auth":
            self.server.stopping.wait()
        return "keyboard-interactive" if self.mode == "kbdint-3-prompts" else "password"

    def _verdict(self, user, ok):
        self.user = user
        self.server.events.append("AUTH %d %s" % (self.n, "ok" if ok else "failed"))
        return paramiko.AUTH_SUCCESSFUL if ok else paramiko.AUTH_FAILED

    def _cut_once(self, at):
        """Cuts this connection when it is the first to come to at (see ScriptedServer)."""
        if self.mode != "cut-once" or self.server.cut_done or self.server.at != at:
            return False
        self.server.cut_done = True
        self.server.events.append("CUT %d" % self.n)
        self.transport.sock.shutdown(socket.SHUT_RDWR)
        return True

    def check_auth_password(self, user, password):
        if self._cut_once("auth"):
            return paramiko.AUTH_FAILED
        return self._verdict(user, self.mode != "kbdint-3-prompts" and ACCOUNTS.get(user) == password)

    def check_auth_interactive(self, user, submethods):
        if self.mode != "kbdint-3-prompts":
            return paramiko.AUTH_FAILED
        self.user = user
        return paramiko.InteractiveQuery("", "", ("Password: ", False), ("Again: ", False), ("Once more: ", False))

    def check_auth_interactive_response(self, answers):
        return self._verdict(self.user, len(answers) == 3 and set(answers) == {ACCOUNTS.get(self.user)})

    def check_channel_request(self, kind, chanid):
        return paramiko.OPEN_SUCCEEDED

    def check_channel_exec_request(self, channel, command):
        self.server.events.append("EXEC %d %s" % (self.n, command.decode(errors="replace")))
        at = self.server.at or ""
        if at.startswith("exec:") and at[5:] in command.decode(errors="replace") and self._cut_once(at):
            return False
        threading.Thread(target=self._exec, args=(channel, command), daemon=True).start()
        return True

    def _exec(self, channel, command):
        pw = pwd.getpwnam(self.user)
        with contextlib.suppress(OSError, EOFError):
            with subprocess.Popen([pw.pw_shell, "-c", command], cwd=pw.pw_dir, start_new_session=True,
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, user=pw.pw_uid,
                                  group=pw.pw_gid, extra_groups=os.getgrouplist(pw.pw_name, pw.pw_gid),
                                  env={"HOME": pw.pw_dir, "USER": self.user, "LOGNAME": self.user, "LANG": "C",
                                       "PATH": "/usr/local/bin:/usr/bin:/bin"}) as proc:
                go = self.server.at and self.server.at.startswith("go:") and self.server.at[3:] in command.decode(
                    errors="replace")
                threading.Thread(target=self._feed, args=(channel, proc.stdin, go and self), daemon=True).start()
                self.server.held.append(proc)
                sent = 0
                for data in iter(lambda: proc.stdout.read1(65536), b""):
                    if self.mode.startswith("cut") and sent + len(data) >= self.server.cut_after:
                        channel.sendall(data[:self.server.cut_after - sent])
                        self.server.events.append("CUT %d" % self.n)
                        if self.mode == "cut-then-down":
                            self.server.listener.close()
                        # The bytes sent go first: libssh2 drops what it holds unread once it meets the end of
                        # the connection, which would make what arrives before a cut a matter of timing.
                        time.sleep(0.3)
                        self.transport.sock.shutdown(socket.SHUT_WR)
                        # Closed for good later, so that no reset destroys what the client has not read yet.
                        threading.Timer(5, self.transport.close).start()
                        return kill_tree(proc.pid)
                    channel.sendall(data)
                    sent += len(data)
                channel.sendall_stderr(proc.stderr.read())
                status = proc.wait()
                channel.send_exit_status(status if status >= 0 else 128 - status)
                channel.close()

    @staticmethod
    def _feed(channel, stdin, cut_at_go=None):
        """The command's input as it comes; with cut_at_go, the connection is cut a moment after the
        command was told to go."""
        seen = b""
        with contextlib.suppress(OSError, EOFError), stdin:
            for data in iter(lambda: channel.recv(65536), b""):
                stdin.write(data)
                stdin.flush()
                seen = (seen + data)[-64:]
                if cut_at_go and b"\ngo\n" in seen:
                    time.sleep(0.5)
                    cut_at_go._cut_once(cut_at_go.server.at)
