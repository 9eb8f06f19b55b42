#!/usr/bin/python3
"""Scripted SSH server on 127.0.0.1 for faults a real server cannot show on
demand.

    scripted_server.py MODE [--log FILE] [--lifetime SECONDS] [--watch-stdin]

The first line on standard output is "PORT <n>"; nothing else is written
there.  Event lines (CONNECT, KEX, AUTH, EXEC, EOF, EXIT, CLOSE, CUT, DROP)
go to standard error and, with --log, to FILE, one flushed line each.

Modes:
  fail-first-handshake  the first connection is dropped after the client's
                        identification line; later ones are served normally
  cut-mid-transfer      an exec of "cat ..." delivers the first
                        $VANTREL_TB_CUT_AFTER bytes (default 1 MiB) of its
                        output, then the TCP connection is closed
  kbdint-3-prompts      keyboard-interactive only, three prompts in one
                        request, each answer must be the password
  silent                accepts connections and never sends a byte
  stall-auth            completes the key exchange, never answers
                        authentication requests

Served connections accept password authentication for the test accounts
and run each exec request through the account's login shell with "-c",
as that account when the server runs as root.  The server exits after
--lifetime seconds (at most 600), when the reader of its standard output
(a pipe) goes away (pclose), with --watch-stdin when its standard input
(a pipe from the parent) closes, or when its parent goes away.  Standard
input is left alone without --watch-stdin: an inherited one may belong to
someone else.
"""

import os
import pwd
import logging
import select
import signal
import socket
import stat
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import testbed  # noqa: E402

import paramiko  # noqa: E402

MODES = ("fail-first-handshake", "cut-mid-transfer", "kbdint-3-prompts", "silent", "stall-auth")
MAX_LIFETIME = 600.0
CHUNK = 65536

_log_lock = threading.Lock()
_log_file = None
_stopping = threading.Event()
_children = set()
_children_lock = threading.Lock()


def event(*words):
    line = " ".join(str(w) for w in words)
    with _log_lock:
        sys.stderr.write(line + "\n")
        sys.stderr.flush()
        if _log_file is not None:
            _log_file.write(line + "\n")
            _log_file.flush()


class Transport(paramiko.Transport):
    """Records the key exchange that was agreed on."""

    agreed_kex = None

    def _parse_kex_init(self, m):
        # As a server, the first method of the client's list that we support.
        try:
            peer = paramiko.Message(m.asbytes())
            peer.get_bytes(16)
            offered = peer.get_list()
            self.agreed_kex = next((k for k in offered if k in self.preferred_kex), None)
        except Exception:
            self.agreed_kex = None
        super()._parse_kex_init(m)


class Server(paramiko.ServerInterface):
    def __init__(self, mode, conn):
        self.mode = mode
        self.conn = conn
        self.user = None
        self.transport = None

    def _stall(self):
        _stopping.wait()
        return paramiko.AUTH_FAILED

    def get_allowed_auths(self, username):
        if self.mode == "stall-auth":
            self._stall()
        return "keyboard-interactive" if self.mode == "kbdint-3-prompts" else "password"

    def check_auth_none(self, username):
        if self.mode == "stall-auth":
            return self._stall()
        return paramiko.AUTH_FAILED

    def check_auth_password(self, username, password):
        if self.mode in ("stall-auth", "kbdint-3-prompts"):
            return self._stall() if self.mode == "stall-auth" else paramiko.AUTH_FAILED
        ok = testbed.ACCOUNTS.get(username) == password
        event("AUTH", self.conn, username, "password", "ok" if ok else "failed")
        if ok:
            self.user = username
        return paramiko.AUTH_SUCCESSFUL if ok else paramiko.AUTH_FAILED

    def check_auth_interactive(self, username, submethods):
        if self.mode == "stall-auth":
            return self._stall()
        if self.mode != "kbdint-3-prompts":
            return paramiko.AUTH_FAILED
        self.user = username
        return paramiko.InteractiveQuery("vantrel test", "Three times the password",
                                         ("Password: ", False), ("Again: ", False),
                                         ("Once more: ", False))

    def check_auth_interactive_response(self, responses):
        pw = testbed.ACCOUNTS.get(self.user)
        ok = pw is not None and len(responses) == 3 and all(r == pw for r in responses)
        event("AUTH", self.conn, self.user, "keyboard-interactive",
              "ok" if ok else "failed", "answers=%d" % len(responses))
        if not ok:
            self.user = None
        return paramiko.AUTH_SUCCESSFUL if ok else paramiko.AUTH_FAILED

    def check_channel_request(self, kind, chanid):
        if kind == "session":
            return paramiko.OPEN_SUCCEEDED
        return paramiko.OPEN_FAILED_ADMINISTRATIVELY_PROHIBITED

    def check_channel_exec_request(self, channel, command):
        command = command.decode("utf-8", "surrogateescape") if isinstance(command, bytes) else command
        event("EXEC", self.conn, channel.get_id(), command)
        threading.Thread(target=run_exec, args=(self, channel, command), daemon=True).start()
        return True

    def check_channel_pty_request(self, *args):
        return False

    def check_channel_env_request(self, channel, name, value):
        return False


def _preexec_for(user):
    """argv prefix, Popen keyword arguments for running as user."""
    pw = pwd.getpwnam(user)
    kw = {"cwd": pw.pw_dir if os.path.isdir(pw.pw_dir) else "/",
          "env": {"HOME": pw.pw_dir, "USER": pw.pw_name, "LOGNAME": pw.pw_name,
                  "SHELL": pw.pw_shell, "PATH": "/usr/local/bin:/usr/bin:/bin:/usr/games",
                  "LANG": "C"}}
    if os.geteuid() == 0:
        kw.update(user=pw.pw_uid, group=pw.pw_gid,
                  extra_groups=os.getgrouplist(pw.pw_name, pw.pw_gid))
    return [pw.pw_shell or "/bin/sh", "-c"], kw


def cut_after():
    try:
        return int(os.environ.get("VANTREL_TB_CUT_AFTER", str(1 << 20)))
    except ValueError:
        return 1 << 20


def kill_group(proc):
    """Kills the command and whatever it started (it leads its own session)."""
    try:
        os.killpg(proc.pid, signal.SIGKILL)
    except OSError:
        pass


def cut_connection(server):
    """Ends the TCP connection under the transport right after the data sent
    so far: a FIN, with no channel close, no end of file and no disconnect
    message before it.  The socket stays open for reading for five seconds
    (or until the client closes), so that no reset destroys data the client
    has not read yet."""
    try:
        server.transport.sock.shutdown(socket.SHUT_WR)
    except OSError:
        pass
    # Some seconds later the connection is closed for good, so that no client
    # can be left waiting on it whatever became of the end of the stream.
    closer = threading.Timer(5.0, server.transport.close)
    closer.daemon = True
    closer.start()


def run_exec(server, channel, command):
    cid = channel.get_id()
    argv, kw = _preexec_for(server.user)
    proc = subprocess.Popen(argv + [command], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, start_new_session=True, **kw)
    with _children_lock:
        _children.add(proc)
    limit = cut_after() if (server.mode == "cut-mid-transfer"
                            and command.startswith("cat ")) else None
    cut = threading.Event()

    def feed():
        try:
            while True:
                data = channel.recv(CHUNK)
                if not data:
                    break
                try:
                    proc.stdin.write(data)
                    proc.stdin.flush()
                except BrokenPipeError:
                    pass
        except Exception:
            pass
        if not channel.closed:
            event("EOF", server.conn, cid)
        try:
            proc.stdin.close()
        except BrokenPipeError:
            pass

    def drain(fd, send, limit):
        sent = 0
        while True:
            data = os.read(fd, CHUNK)
            if not data:
                return
            if cut.is_set():
                continue
            if limit is not None and sent + len(data) >= limit:
                data = data[:limit - sent]
                try:
                    send(data)
                except Exception:
                    pass
                event("CUT", server.conn, cid, "after", limit)
                cut.set()
                cut_connection(server)
                kill_group(proc)
                continue
            try:
                send(data)
                sent += len(data)
            except Exception:
                cut.set()  # the client went away: keep draining, send nothing

    threading.Thread(target=feed, daemon=True).start()
    out = threading.Thread(target=drain, args=(proc.stdout.fileno(), channel.sendall, limit),
                           daemon=True)
    err = threading.Thread(target=drain, args=(proc.stderr.fileno(), channel.sendall_stderr, None),
                           daemon=True)
    out.start()
    err.start()
    out.join()
    err.join()
    rc = proc.wait()
    with _children_lock:
        _children.discard(proc)
    proc.stdout.close()
    proc.stderr.close()
    if cut.is_set() or channel.closed:
        event("EXIT", server.conn, cid, rc, "unsent")
        return
    try:
        channel.shutdown_write()
        channel.send_exit_status(rc if rc >= 0 else 128 - rc)
        channel.close()
        event("EXIT", server.conn, cid, rc)
    except Exception as e:
        event("EXIT", server.conn, cid, rc, "unsent", type(e).__name__)


def serve_connection(mode, sock, conn, held):
    event("CONNECT", conn)
    if mode == "silent":
        held.append(sock)
        return
    if mode == "fail-first-handshake" and conn == 1:
        sock.settimeout(5)
        try:
            data = b""
            while b"\n" not in data and len(data) < 512:
                chunk = sock.recv(512)
                if not chunk:
                    break
                data += chunk
        except OSError:
            pass
        sock.close()
        event("DROP", conn, "after client banner")
        return
    server = Server(mode, conn)
    t = Transport(sock)
    server.transport = t
    for path in testbed.scripted_host_keys():
        key_class = paramiko.RSAKey if "rsa" in os.path.basename(path) else paramiko.Ed25519Key
        t.add_server_key(key_class.from_private_key_file(path))
    try:
        t.start_server(server=server)
    except Exception as e:
        event("HANDSHAKE-FAILED", conn, type(e).__name__, e)
        t.close()
        return
    event("KEX", conn, t.agreed_kex)
    held.append(t)
    while t.is_active() and not _stopping.is_set():
        time.sleep(0.1)
    t.close()
    event("CLOSE", conn)


def _is_pipe(fd):
    try:
        mode = os.fstat(fd).st_mode
    except OSError:
        return False
    return stat.S_ISFIFO(mode) or stat.S_ISSOCK(mode)


def main(argv):
    global _log_file
    args = argv[1:]
    if not args or args[0] not in MODES:
        sys.stderr.write("usage: scripted_server.py {%s} [--log FILE] [--lifetime S]"
                         " [--watch-stdin]\n" % "|".join(MODES))
        return 2
    mode = args[0]
    lifetime = MAX_LIFETIME
    watch_stdin = False
    i = 1
    while i < len(args):
        if args[i] == "--watch-stdin":
            watch_stdin = True
            i += 1
            continue
        if args[i] == "--log" and i + 1 < len(args):
            _log_file = open(args[i + 1], "a")
        elif args[i] == "--lifetime" and i + 1 < len(args):
            lifetime = min(float(args[i + 1]), MAX_LIFETIME)
        else:
            sys.stderr.write("scripted_server.py: unknown argument %s\n" % args[i])
            return 2
        i += 2

    # paramiko reports a connection that was cut on purpose with a traceback
    if not os.environ.get("VANTREL_TB_SCRIPTED_DEBUG"):
        logging.getLogger("paramiko").addHandler(logging.NullHandler())
        logging.getLogger("paramiko").propagate = False

    listener = socket.socket()
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind((testbed.HOST, 0))
    listener.listen(64)
    port = listener.getsockname()[1]
    testbed.scripted_host_keys()
    sys.stdout.write("PORT %d\n" % port)
    sys.stdout.flush()
    event("LISTEN", port, mode)

    parent = os.getppid()
    poller = select.poll()
    poller.register(listener.fileno(), select.POLLIN)
    if watch_stdin and _is_pipe(0):
        poller.register(0, select.POLLIN)
    if _is_pipe(1):
        # Asking for no event still reports the error of a pipe whose reader
        # has gone: the parent closed its end (pclose, or it exited).
        poller.register(1, 0)
    deadline = time.monotonic() + lifetime
    held = []
    conn = 0
    reason = "lifetime"
    while time.monotonic() < deadline:
        ready = dict(poller.poll(500))
        if os.getppid() != parent:
            reason = "parent gone"
            break
        if ready.get(1):
            reason = "stdout closed"
            break
        if ready.get(0) and not os.read(0, 4096):
            reason = "stdin closed"
            break
        if ready.get(listener.fileno()):
            sock, _ = listener.accept()
            conn += 1
            threading.Thread(target=serve_connection, args=(mode, sock, conn, held),
                             daemon=True).start()
    event("STOP", reason)
    _stopping.set()
    listener.close()
    for h in list(held):
        try:
            h.close()
        except Exception:
            pass
    with _children_lock:
        for p in list(_children):
            kill_group(p)
    sys.stdout.flush()
    os._exit(0)


if __name__ == "__main__":
    sys.exit(main(sys.argv))
