"""Smoke test of the loopback SSH test bed itself."""

import logging
import os
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "testbed"))
import testbed  # noqa: E402

import paramiko  # noqa: E402

SERVERS = {}

# The failures provoked here are expected; paramiko would print each one.
logging.getLogger("paramiko").addHandler(logging.NullHandler())
logging.getLogger("paramiko").propagate = False


def setUpModule():
    testbed.ensure_accounts()
    for s in testbed.start_servers():
        SERVERS[s.variant] = s


def tearDownModule():
    for s in SERVERS.values():
        s.stop()


def transport(port, kex=None):
    t = paramiko.Transport((testbed.HOST, port))
    if kex:
        t.disabled_algorithms = {"kex": [k for k in t._preferred_kex if k != kex]}
    t.start_client(timeout=10)
    return t


def login(port, user=testbed.USER, password=testbed.PASSWORD, kex=None):
    t = transport(port, kex)
    t.auth_password(user, password)
    return t


def run(t, command, stdin=b""):
    ch = t.open_session(timeout=10)
    ch.settimeout(20)
    ch.exec_command(command)
    if stdin:
        ch.sendall(stdin)
    ch.shutdown_write()
    out, err = b"", b""
    while True:
        chunk = ch.recv(65536)
        if not chunk:
            break
        out += chunk
    while True:
        chunk = ch.recv_stderr(65536)
        if not chunk:
            break
        err += chunk
    rc = ch.recv_exit_status()
    ch.close()
    return rc, out.decode(), err.decode()


def refuses(port):
    try:
        socket.create_connection((testbed.HOST, port), timeout=1).close()
        return False
    except OSError:
        return True


class RealServerTest(unittest.TestCase):
    def test_password_login_runs_commands_as_the_account(self):
        t = login(SERVERS["default"].port)
        try:
            rc, out, _ = run(t, "id -un; cat; exit 7", b"in'put $x\n")
            self.assertEqual((rc, out), (7, "vtuser\nin'put $x\n"))
        finally:
            t.close()
        with self.assertRaises(paramiko.AuthenticationException):
            login(SERVERS["default"].port, password="vt pass'1")

    def test_method_lists_of_the_variants(self):
        t = transport(SERVERS["default"].port)
        with self.assertRaises(paramiko.BadAuthenticationType) as cm:
            t.auth_none(testbed.USER)
        self.assertEqual(sorted(cm.exception.allowed_types), ["keyboard-interactive", "password"])
        t.close()

        t = transport(SERVERS["kbdint"].port)
        try:
            with self.assertRaises(paramiko.BadAuthenticationType) as cm:
                t.auth_password(testbed.USER, testbed.PASSWORD, fallback=False)
            self.assertEqual(cm.exception.allowed_types, ["keyboard-interactive"])
            t.auth_interactive(testbed.USER, lambda title, instr, prompts:
                               [testbed.PASSWORD] * len(prompts))
            self.assertEqual(run(t, "id -un")[:2], (0, "vtuser\n"))
        finally:
            t.close()

        t = transport(SERVERS["pubkey"].port)
        try:
            with self.assertRaises(paramiko.BadAuthenticationType) as cm:
                t.auth_none(testbed.USER)
            self.assertEqual(cm.exception.allowed_types, ["publickey"])
            t.auth_publickey(testbed.USER,
                             paramiko.Ed25519Key.from_private_key_file(testbed.client_key()))
            self.assertEqual(run(t, "id -un")[:2], (0, "vtuser\n"))
        finally:
            t.close()

    def test_sudo_for_each_account(self):
        port = SERVERS["default"].port
        sudo = "sudo -k; sudo -S -p ' ' id -u"
        t = login(port)
        try:
            rc, out, _ = run(t, sudo, (testbed.PASSWORD + "\n").encode())
            self.assertEqual((rc, out), (0, "0\n"))
        finally:
            t.close()

        t = login(port, testbed.NOSUDO_USER, testbed.NOSUDO_PASSWORD)
        try:
            rc, out, err = run(t, sudo, (testbed.NOSUDO_PASSWORD + "\n").encode())
            self.assertNotEqual(rc, 0)
            self.assertEqual(out, "")
            self.assertIn("not in the sudoers file", err)
        finally:
            t.close()

        t = login(port, testbed.NOSUDOBIN_USER, testbed.NOSUDOBIN_PASSWORD)
        try:
            self.assertEqual(run(t, "sudo -V")[0], 127)
            # Inside a nested sh the rest of the usual tools are still found.
            rc, out, _ = run(t, "sh -c 'sudo -V 2>/dev/null; echo $?; perl -e \"print 42\"'")
            self.assertEqual((rc, out), (0, "127\n42"))
        finally:
            t.close()

    def test_twenty_clients_with_several_channels(self):
        port = SERVERS["default"].port
        results = []

        def client(i):
            try:
                t = login(port)
                chans = []
                for j in range(3):
                    ch = t.open_session(timeout=10)
                    ch.exec_command("sleep 0.3; echo %d.%d" % (i, j))
                    chans.append(ch)
                outs = []
                for ch in chans:
                    ch.settimeout(20)
                    outs.append(ch.makefile().read().decode().strip())
                t.close()
                results.append(outs == ["%d.%d" % (i, j) for j in range(3)])
            except Exception as e:  # noqa: BLE001 - reported below
                results.append(repr(e))

        threads = [threading.Thread(target=client, args=(i,)) for i in range(20)]
        for th in threads:
            th.start()
        for th in threads:
            th.join(60)
        self.assertEqual(results, [True] * 20)

    def test_stop_ends_sessions_and_removes_the_directory(self):
        srv = testbed.SshServer("default").start()
        directory, port, pid = srv.dir, srv.port, srv.proc.pid
        t = login(port)
        ch = t.open_session()
        ch.exec_command("sleep 60")
        time.sleep(0.2)
        below = testbed._descendants(pid)
        self.assertTrue(below)
        srv.stop()
        t.close()
        self.assertFalse(os.path.exists(directory))
        self.assertTrue(refuses(port))
        self.assertEqual([p for p in [pid] + below if testbed._alive(p)], [])

    def test_sudoers_file_of_someone_else_is_left_alone(self):
        with tempfile.TemporaryDirectory() as d:
            path = os.path.join(d, "vantrel-test")
            with open(path, "w") as f:
                f.write("root ALL=(ALL) ALL\n")
            with self.assertRaises(testbed.TestbedError):
                testbed.ensure_sudoers(path)
            with open(path) as f:
                self.assertEqual(f.read(), "root ALL=(ALL) ALL\n")
            os.unlink(path)
            testbed.ensure_sudoers(path)
            with open(path) as f:
                self.assertTrue(f.read().startswith(testbed.MARKER))


class ScriptedServerTest(unittest.TestCase):
    def test_fail_first_handshake_then_old_key_exchange(self):
        with testbed.ScriptedServer("fail-first-handshake") as srv:
            with self.assertRaises(paramiko.SSHException):
                transport(srv.port).close()
            t = login(srv.port, kex="diffie-hellman-group1-sha1")
            try:
                reserve = t.open_session()
                reserve.exec_command("cat")
                rc, out, err = run(t, "printf out; printf err >&2; exit 4")
                self.assertEqual((rc, out, err), (4, "out", "err"))
                self.assertIsNotNone(srv.wait_event("EXEC 2 0 cat"))
                self.assertIsNone(srv.wait_event("EXIT 2 0", timeout=0.3))
            finally:
                t.close()
            self.assertIsNotNone(srv.wait_event("DROP 1"))
            self.assertIsNotNone(srv.wait_event("KEX 2 diffie-hellman-group1-sha1"))
            self.assertIsNotNone(srv.wait_event("EXIT 2 0"))

    def test_cut_mid_transfer(self):
        cut = 100000
        with tempfile.TemporaryDirectory() as d:
            os.chmod(d, 0o755)
            path = os.path.join(d, "content")
            data = os.urandom(300000)
            with open(path, "wb") as f:
                f.write(data)
            os.chmod(path, 0o644)
            with testbed.ScriptedServer("cut-mid-transfer", cut_after=cut) as srv:
                t = login(srv.port)
                self.assertEqual(run(t, "wc -c < %s" % path)[:2], (0, "300000\n"))
                ch = t.open_session()
                ch.settimeout(10)
                ch.exec_command("cat '%s'" % path)
                got = b""
                while True:
                    chunk = ch.recv(65536)
                    if not chunk:
                        break
                    got += chunk
                self.assertEqual(got, data[:cut])
                # No end of file, no exit status: only the connection ended.
                self.assertFalse(ch.eof_received)
                self.assertEqual(ch.exit_status, -1)
                deadline = time.monotonic() + 5
                while t.is_active() and time.monotonic() < deadline:
                    time.sleep(0.02)
                self.assertFalse(t.is_active())
                t.close()
                self.assertIsNotNone(srv.wait_event("CUT 1 1 after %d" % cut))

    def test_three_keyboard_interactive_prompts(self):
        with testbed.ScriptedServer("kbdint-3-prompts") as srv:
            seen = []

            def answer(title, instructions, prompts):
                seen.append(len(prompts))
                return [testbed.PASSWORD] * len(prompts)

            t = transport(srv.port)
            with self.assertRaises(paramiko.BadAuthenticationType):
                t.auth_password(testbed.USER, testbed.PASSWORD, fallback=False)
            t.close()
            t = transport(srv.port)
            t.auth_interactive(testbed.USER, answer)
            self.assertEqual(seen, [3])
            self.assertEqual(run(t, "id -un")[:2], (0, "vtuser\n"))
            t.close()
            t = transport(srv.port)
            with self.assertRaises(paramiko.AuthenticationException):
                t.auth_interactive(testbed.USER, lambda a, b, p:
                                   [testbed.PASSWORD, testbed.PASSWORD, "x"])
            t.close()

    def test_silent_and_stalled_servers(self):
        with testbed.ScriptedServer("silent") as srv:
            s = socket.create_connection((srv.host, srv.port), timeout=0.5)
            s.sendall(b"SSH-2.0-probe\r\n")
            with self.assertRaises(socket.timeout):
                s.recv(1)
            s.close()
        with testbed.ScriptedServer("stall-auth") as srv:
            t = transport(srv.port)
            t.auth_timeout = 1
            started = time.monotonic()
            with self.assertRaises(paramiko.AuthenticationException):
                t.auth_password(testbed.USER, testbed.PASSWORD)
            self.assertLess(time.monotonic() - started, 5)
            t.close()

    def test_server_leaves_with_its_parent_pipes(self):
        srv = testbed.ScriptedServer("fail-first-handshake").start()
        proc = srv.proc
        proc.stdin.close()
        self.assertEqual(proc.wait(3), 0)
        self.assertIsNotNone(srv.wait_event("STOP stdin closed"))
        srv.stop()

        # Started the way popen() does it: only the reader of standard output
        # counts; a closed standard input that was merely inherited does not.
        with tempfile.TemporaryDirectory() as d:
            log = os.path.join(d, "log")
            proc = subprocess.Popen([testbed.PYTHON, testbed.SCRIPTED_SERVER, "silent",
                                     "--log", log], stdin=subprocess.PIPE,
                                    stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
            self.assertTrue(proc.stdout.readline().startswith(b"PORT "))
            proc.stdin.close()
            with self.assertRaises(subprocess.TimeoutExpired):
                proc.wait(0.8)
            proc.stdout.close()
            self.assertEqual(proc.wait(3), 0)
            with open(log) as f:
                self.assertIn("STOP stdout closed", f.read())


class WithTestbedTest(unittest.TestCase):
    WRAPPER = os.path.join(testbed.TESTBED_DIR, "with_testbed")
    PROBE = ("import os, socket\n"
             "e = os.environ\n"
             "assert e['VANTREL_TB_HOST'] == '127.0.0.1'\n"
             "assert e['VANTREL_TB_PASSWORD'] == %r\n"
             "ports = [e[k] for k in ('VANTREL_TB_PORT', 'VANTREL_TB_KBDINT_PORT',"
             " 'VANTREL_TB_PUBKEY_PORT')]\n"
             "for p in ports: socket.create_connection(('127.0.0.1', int(p))).close()\n"
             "assert e['VANTREL_TB_SCRIPTED'].split()[1].endswith('scripted_server.py')\n"
             "print(' '.join(ports), flush=True)\n"
             "raise SystemExit(int(e.get('PROBE_RC', '0')))\n" % testbed.PASSWORD)

    def test_exit_status_and_servers_stopped(self):
        res = subprocess.run([self.WRAPPER, testbed.PYTHON, "-c", self.PROBE],
                             env=dict(os.environ, PROBE_RC="5"),
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=30)
        self.assertEqual(res.returncode, 5, res.stderr)
        ports = [int(p) for p in res.stdout.split()]
        self.assertEqual(len(ports), 3)
        self.assertTrue(all(refuses(p) for p in ports))

    def test_sigterm_stops_command_and_servers(self):
        script = self.PROBE.replace("raise SystemExit", "import time; time.sleep(30)\nraise SystemExit")
        proc = subprocess.Popen([self.WRAPPER, testbed.PYTHON, "-c", script],
                                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        ports = [int(p) for p in proc.stdout.readline().split()]
        proc.send_signal(signal.SIGTERM)
        self.assertEqual(proc.wait(10), 128 + signal.SIGTERM)
        proc.stdout.close()
        self.assertEqual(len(ports), 3)
        self.assertTrue(all(refuses(p) for p in ports))


if __name__ == "__main__":
    unittest.main()
