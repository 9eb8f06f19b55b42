"""The exit codes of the binary for everything that is not the action's own
failure: help, command-line problems, a session or a log that cannot be set
up, and the connection failures."""
import os
import re
import subprocess
import time

import harness as h


class ExitCodeTest(h.Case):

    def test_help_exits_0_and_creates_no_session(self):
        s = self.session()
        for args in (["-h"], ["--help", "--session-path", s.path]):
            r = self.run_raw(args)
            self.assertEqual((0, b""), (r.code, r.err), r)
            self.assertTrue(r.out.startswith(b"Usage: "), r)
        self.assertFalse(os.path.exists(s.path))
        self.assertEqual(1, self.run_raw(["-h", "--no-such-option"]).code)

    def test_command_line_problems_exit_with_1(self):
        # Found before the session exists: the message goes to standard error.
        s = self.session()
        for args in (["--session-path", s.path], ["--send-scout", "--host", h.HOST, "--login", h.USER],
                     ["--send-scout", "--frobnicate", "--session-path", s.path], ["--send-scout", "--session-path"]):
            r = self.run_raw(args, password=h.PASSWORD)
            self.assertEqual(1, r.code, r)
            self.assertTrue(r.err.endswith(b"\n") and b"\n" not in r.err[:-1], r)
        self.assertFalse(os.path.exists(s.path))
        # Options that do not fit the action: the reason is in the log only.
        for args, password, env in ((["--send-scout", "--host=h", "--login=l"], None, {}),
                                    (["--remove-dumping-status"], "pw!9", {}),
                                    (["--send-scout", "--host=h", "--login=l"], "pw!9", {"KVA_BWLIMIT": "0"}),
                                    (["--send-scout", "--host=h", "--login=l"], "pw!9", {"KVA_BWLIMIT": "8X"})):
            s = self.session()
            r = self.run_raw(args + ["--session-path", s.path], s, password=password, env=env)
            self.assertEqual((1, b"", b""), (r.code, r.out, r.err), r)
            self.assertIn("Unable to parse command line: ", s.log())
            self.assertEqual(["archives", "migration.log"], s.names())
            self.end(r)

    def test_session_path_that_is_a_file(self):
        s = self.session()
        h.write(s.path, "not a directory\n")
        for path in (s.path, s.file("below")):
            r = self.run_vantrel("--send-scout", session=h.Session(path))
            self.assertEqual(1, r.code, r)
            self.assertIn(b"UnableToCreateSession", r.err)
            self.assertEqual(b"not a directory\n", h.read(s.path))
        self.assertEqual(["session"], os.listdir(os.path.dirname(s.path)))

    def test_missing_or_malformed_logging_configuration(self):
        props = os.path.join(self.qmv, "log4cpp.properties")
        self.addCleanup(h.write, props, h.read(props))
        appender = "log4cpp.rootCategory=DEBUG, A1\nlog4cpp.appender.A1="
        os.unlink(props)
        for text in (None, "\0\xff this = not = a properties file\n[[[\n", appender + "NoSuchAppender\n",
                     appender + "ConsoleAppender\n", appender.replace("DEBUG", "LOUDEST") + "ConsoleAppender\n"
                     "log4cpp.appender.A1.layout=BasicLayout\n", "directory"):
            with self.subTest(text=text):
                os.mkdir(props) if text == "directory" else text and h.write(props, text)
                r = self.run_vantrel("--send-scout")
                self.assertEqual(1, r.code, r)
                self.assertTrue(r.err.startswith(b"Uncaught std::exception: "), r)
                self.assertNotIn(b"Sanitizer", r.err)
                self.assertEqual(["archives"], r.session.names())
            os.rmdir(props) if text == "directory" else text and os.unlink(props)
        # Start-up writes nothing into the product tree, and a log file that
        # cannot be written costs the log, not the run.
        os.rmdir(os.path.join(self.qmv, "tmp"))
        self.addCleanup(os.mkdir, os.path.join(self.qmv, "tmp"))
        h.write(props, appender + "FileAppender\nlog4cpp.appender.A1.fileName=/proc/version/log\n"
                "log4cpp.appender.A1.layout=BasicLayout\n")
        r = self.run_vantrel("--send-scout")
        self.assertEqual((0, b""), (r.code, r.err), r)

    def test_connection_failures_have_their_own_exit_codes(self):
        pubkey = h.SshServer("pubkey").start()
        self.addCleanup(pubkey.stop)
        for kw, code, tag, tries in (
                (dict(port=h.free_port()), 11, "ConnectionRefused", []),
                (dict(host="no..such.host"), 16, "HostNotFound", []),
                # Each method the server offers is tried once with the password.
                (dict(password="not the password"), 17, "SshInvalidCredentials", ["password", "keyboard-interactive"]),
                (dict(port=pubkey.port), 17, "SshInvalidCredentials", [])):
            with self.subTest(tag=tag, **kw):
                r = self.run_vantrel("--send-scout", **kw)
                self.failed(r, code, tag)
                self.assertEqual(tries, re.findall(r"Trying '(\S+)' authentication", r.session.log()))
                self.assertFalse(r.session.exists("scout-result.xml") and r.session.read("scout-result.xml"))
        # The other connections of the content streams never log in with credentials that failed.
        r = self.run_vantrel("--get-content", password="not the password", agent_dir="d", sudo=h.PASSWORD)
        self.failed(r, 2, "CantRetrieveDump", inner="SshInvalidCredentials", doc="transfer.result")
        self.assertEqual(["password", "keyboard-interactive"], re.findall(r"Trying '(\S+)' authentication", r.session.log()))
        # A short password is masked in the log only: the message keeps every "1" of the address.
        r = self.run_vantrel("--send-scout", password="1")
        self.assertEqual(17, r.code)
        self.assertEqual(r.err.decode(), r.session.xml("migration.result").findtext("message/description"))

    def test_every_address_of_a_name_is_tried(self):
        # A name for ::1 first, then 127.0.0.1 where the sshd listens, in a hosts file of this run only.
        hosts, s = os.path.join(self.tmp, "hosts"), self.session()
        h.write(hosts, "::1 vantrel-two\n127.0.0.1 vantrel-two\n")
        if not os.path.isfile("/etc/hosts"):
            self.skipTest("no /etc/hosts here to bind a private hosts file over")
        # 125 (no exit code of the binary): the private hosts file could not be put in place.
        argv = ["unshare", "--mount", "sh", "-c", 'mount --bind "$0" /etc/hosts || exit 125; exec "$@"', hosts, h.BIN,
                "--send-scout", "--host=vantrel-two", "--port=%d" % self.port, "--login=" + h.USER, "--session-path", s.path]
        r = h.Run(argv, h.environment(), b"", s).finish()
        if r.code == 125 or r.code and r.err.startswith(b"unshare:"):
            self.skipTest("no private hosts file here (mount namespace or bind mount refused): %r" % r.err)
        self.assertEqual(0, r.code, r)
        self.assertIn("Unable to open socket to vantrel-two:%d (::1)" % self.port, s.log())

    def test_keys_agent_and_ipv6_literals(self):
        keys = {name: (h.host_key(name, options, passphrase), passphrase) for name, options, passphrase in h.LOGIN_KEYS}
        server = h.SshServer("pubkey").start()
        self.addCleanup(server.stop)
        kw = dict(login=h.KEY_USER, password=None, port=server.port)
        # A key of its own (OpenSSH's format or PEM, protected by a passphrase or not) and no password.
        # OpenSSH refuses an RSA key's SHA-1 signatures, which are all that libssh2 1.10 makes: it says so.
        for name, (key, passphrase) in keys.items():
            env = {"KVA_KEY_FILE": key} | ({"KVA_KEY_PASSPHRASE": passphrase} if passphrase else {})
            r = self.run_vantrel("--send-scout", env=env, **kw)
            if name == "login_rsa" and not h.LIBSSH2_1_11:
                self.assertIn("rsa-sha2-256 or rsa-sha2-512. Use an Ed25519 or ECDSA key",
                              self.failed(r, 17, "SshKeyUnusable"))
                h.checked(self, "an RSA key is refused with the message that says why")
                continue
            self.ok(r)
            self.assertFalse(passphrase and passphrase in r.session.log())
            if name == "login_rsa":
                h.checked(self, "an RSA key logs in with SHA-2 signatures")
        # A protected key without its passphrase, and a key that is not there: a failed login, said so.
        for key in (keys["login_protected"][0], "/nonexistent/key"):
            self.assertIn(key, self.failed(self.run_vantrel("--send-scout", env={"KVA_KEY_FILE": key}, **kw), 17,
                                           "SshKeyUnusable"))
        # The keys of a running ssh-agent.
        sock = os.path.join(self.tmp, "agent.sock")
        agent = subprocess.Popen(["ssh-agent", "-D", "-a", sock], stdout=subprocess.DEVNULL)
        self.addCleanup(agent.kill)
        while not os.path.exists(sock):
            time.sleep(0.05)
        subprocess.run(["ssh-add", keys["login_ed25519"][0]], env={"SSH_AUTH_SOCK": sock}, check=True,
                       capture_output=True)
        self.ok(self.run_vantrel("--send-scout", env={"SSH_AUTH_SOCK": sock}, **kw))
        # An IPv6 address, bare or in brackets, named as given.
        with h.SshServer(host="::1") as v6:
            for host in ("::1", "[::1]"):
                r = self.run_vantrel("--send-scout", host=host, port=v6.port)
                self.ok(r)
                self.assertIn("Resolving %s\n" % host, r.session.log())

    def test_host_key_is_pinned_before_any_password(self):
        s = self.session()
        self.ok(self.run_vantrel("--send-scout", session=s))
        key = subprocess.run(["ssh-keygen", "-lf", h.host_key() + ".pub"], capture_output=True, text=True).stdout.split()[1]
        self.assertEqual("ssh-ed25519 %s\n" % key, s.read("host-key").decode())
        self.assertIn(key, s.log())
        # Another key at the host: the run ends before a password goes out.
        with h.SshServer(key=h.host_key("other_ed25519")) as other:
            r = self.run_vantrel("--send-scout", session=s, port=other.port)
            self.assertNotIn("password for", h.read(other.log).decode())
        self.assertIn("ssh-ed25519 %s was expected" % key, self.failed(r, 2, "HostKeyMismatch"))
        # A fingerprint from outside counts from the first run.
        self.ok(self.run_vantrel("--send-scout", env={"KVA_HOST_KEY": key}))
        for given, tag in (("SHA256:" + "A" * 43, "HostKeyMismatch"), ("MD5:00", "BadHostKeyPin")):
            self.failed(self.run_vantrel("--send-scout", env={"KVA_HOST_KEY": given}), 2, tag)


if __name__ == "__main__":
    h.main()
