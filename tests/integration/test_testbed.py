"""The test bed's own promises that the other tests cannot show: it leaves
nothing running and no file it did not create behind.  Its servers and
accounts are exercised by every other transport and integration test."""

import logging
import os
import signal
import socket
import subprocess
import sys
import tempfile
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


def login(port):
    t = paramiko.Transport((testbed.HOST, port))
    t.start_client(timeout=10)
    t.auth_password(testbed.USER, testbed.PASSWORD)
    return t


def refuses(port):
    try:
        socket.create_connection((testbed.HOST, port), timeout=1).close()
        return False
    except OSError:
        return True


class ServerLifetimeTest(unittest.TestCase):
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
