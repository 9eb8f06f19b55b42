"""A paramiko SSH server in the test process, for the faults a real sshd
cannot show on demand. Modes:
  silent                never sends a byte
  stall-auth            completes the key exchange, never answers authentication
  kbdint-3-prompts      keyboard-interactive only, three prompts in one request
  fail-first-handshake  drops connection 1 after the client's banner
  cut                   ends the TCP connection (a FIN and nothing else) once
                        cut_after bytes of a command's output went out
Otherwise it logs the test accounts in by password and runs each command
through the account's login shell, as that account. self.events lists what
happened: "CONNECT n", "AUTH n ok|failed", "EXEC n <command>", "CUT n"."""
import contextlib
import os
import pwd
import socket
import subprocess
import threading

import paramiko

import testbed


class ScriptedServer:
    def __init__(self, mode, cut_after=1 << 20):
        self.mode, self.cut_after, self.host, self.events = mode, cut_after, testbed.HOST, []
        self.stopping, self.held = threading.Event(), []

    def start(self):
        self.listener = socket.create_server((self.host, 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()
        return self

    def _accept(self):
        key = paramiko.Ed25519Key.from_private_key_file(testbed.host_key())
        with contextlib.suppress(OSError):
            for n in range(1, 1000):
                sock = self.listener.accept()[0]
                self.events.append("CONNECT %d" % n)
                self.held.append(sock)
                if self.mode == "fail-first-handshake" and n == 1:
                    sock.recv(256)
                    sock.close()
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
                testbed.kill_tree(h.pid)
            else:
                h.close()

    __enter__ = start

    def __exit__(self, *exc):
        self.stop()


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

    def check_auth_password(self, user, password):
        return self._verdict(user, self.mode != "kbdint-3-prompts" and testbed.ACCOUNTS.get(user) == password)

    def check_auth_interactive(self, user, submethods):
        if self.mode != "kbdint-3-prompts":
            return paramiko.AUTH_FAILED
        self.user = user
        return paramiko.InteractiveQuery("", "", ("Password: ", False), ("Again: ", False), ("Once more: ", False))

    def check_auth_interactive_response(self, answers):
        return self._verdict(self.user, len(answers) == 3 and set(answers) == {testbed.ACCOUNTS.get(self.user)})

    def check_channel_request(self, kind, chanid):
        return paramiko.OPEN_SUCCEEDED

    def check_channel_exec_request(self, channel, command):
        self.server.events.append("EXEC %d %s" % (self.n, command.decode(errors="replace")))
        threading.Thread(target=self._exec, args=(channel, command), daemon=True).start()
        return True

    def _exec(self, channel, command):
        pw = pwd.getpwnam(self.user)
        proc = subprocess.Popen([pw.pw_shell, "-c", command], cwd=pw.pw_dir, start_new_session=True,
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                user=pw.pw_uid, group=pw.pw_gid, extra_groups=os.getgrouplist(pw.pw_name, pw.pw_gid),
                                env={"HOME": pw.pw_dir, "USER": self.user, "LOGNAME": self.user, "LANG": "C",
                                     "PATH": "/usr/local/bin:/usr/bin:/bin"})
        self.server.held.append(proc)
        cut = threading.Event()

        def feed():
            with contextlib.suppress(OSError):
                for data in iter(lambda: channel.recv(65536), b""):
                    proc.stdin.write(data)
                    proc.stdin.flush()
                proc.stdin.close()

        def drain(stream, send, limit):
            sent = 0
            with contextlib.suppress(OSError):
                for data in iter(lambda: stream.read1(65536), b""):
                    if sent + len(data) >= limit and not cut.is_set():
                        send(data[:limit - sent])
                        cut.set()
                        self.server.events.append("CUT %d" % self.n)
                        self.transport.sock.shutdown(socket.SHUT_WR)
                        # Closed for good later, so that no reset destroys what the client has not read yet.
                        threading.Timer(5, self.transport.close).start()
                        testbed.kill_tree(proc.pid)
                    if not cut.is_set():
                        send(data)
                        sent += len(data)

        limit = self.server.cut_after if self.mode == "cut" else float("inf")
        threading.Thread(target=feed, daemon=True).start()
        err = threading.Thread(target=drain, args=(proc.stderr, channel.sendall_stderr, float("inf")), daemon=True)
        err.start()
        drain(proc.stdout, channel.sendall, limit)
        err.join()
        rc = proc.wait()
        if not cut.is_set():
            with contextlib.suppress(OSError, EOFError):
                channel.send_exit_status(rc if rc >= 0 else 128 - rc)
                channel.close()
