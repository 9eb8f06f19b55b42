"""Command line, console messages, exit codes and the result document of
failed runs, with the real binary."""
import os
import re

import harness
from harness import HOST, PASSWORD, USER, IntegrationCase


class CommandLineTest(IntegrationCase):

    def test_help_prints_usage_and_creates_nothing(self):
        s = self.new_session()
        for args in (["-h"], ["--help", "--session-path", s.path]):
            r = self.run_raw(args)
            self.assertEqual(0, r.code, r.describe())
            # The text itself is checked byte for byte by the unit tests.
            self.assertTrue(r.out.startswith(b"Usage: [KVA_PASSWORD=<password> | "), r.out)
            self.assertTrue(r.out.endswith(b"\n          | --help | -h)\n"), r.out)
            self.assertEqual(1250, len(r.out))
            self.assertEqual(b"", r.err)
        self.assertFalse(os.path.exists(s.path))

        # The option parser runs before help is answered.
        r = self.run_raw(["-h", "--no-such-option"])
        self.assertEqual(1, r.code)
        self.assertEqual(b"", r.out)

    def test_console_messages_exit_with_1(self):
        s = self.new_session()
        cases = [
            (["--session-path", s.path], b"Action required. See --help\n"),
            (["--send-scout", "--host", HOST, "--login", USER], b"--session-path is required.\n"),
            (["--send-scout", "--host", HOST, "--login", USER, "--session-path="],
             b"--session-path is required.\n"),
        ]
        for args, message in cases:
            r = self.run_raw(args, password=PASSWORD)
            self.assertEqual(1, r.code, r.describe())
            self.assertEqual(message, r.err)
            self.assertEqual(b"", r.out)

        # The parser's own diagnostics, for an unknown option and for a
        # missing argument, and nothing else.
        r = self.run_raw(["--send-scout", "--frobnicate", "--session-path", s.path], password=PASSWORD)
        self.assertEqual(1, r.code, r.describe())
        self.assertEqual(b"", r.out)
        self.assertRegex(r.err_text, r"^[^\n]*unrecognized option '--frobnicate'\n$")
        r = self.run_raw(["--send-scout", "--session-path"], password=PASSWORD)
        self.assertEqual(1, r.code, r.describe())
        self.assertRegex(r.err_text, r"^[^\n]*option '--session-path' requires an argument\n$")
        # None of these runs got as far as the session directory.
        self.assertFalse(os.path.exists(s.path))

    def test_verification_failures_go_to_the_log_only(self):
        cases = [
            (["--send-scout"], PASSWORD, "host is required unless --help or -h requested"),
            (["--send-scout", "--deploy-agent", "--host", HOST], PASSWORD, "More than one action is given"),
            (["--send-scout", "--host", HOST, "--port=65536", "--login", USER], PASSWORD,
             "port should be a number in [1, 65535] range"),
            (["--send-scout", "--host", HOST, "--login", USER], None,
             "password is required unless --help or -h requested"),
            (["--send-scout", "--host", HOST, "--login", USER, "--sudo-password"], PASSWORD,
             "KVA_SUDO_PASSWORD environment variable is not provided with --sudo-password"),
            (["--send-scout", "--host", HOST, "--login", USER, "--agent-name=sample"], PASSWORD,
             "agent name is not allowed with --help or -h"),
            (["--get-content", "--no-content", "--host", HOST, "--login", USER], PASSWORD,
             "'--no-content' only may be specified when '--dump-*' is requested"),
            (["--remove-dumping-status"], PASSWORD, "password is not allowed with --help or -h"),
        ]
        for args, password, text in cases:
            with self.subTest(text=text):
                s = self.new_session()
                r = self.run_raw(args + ["--session-path", s.path], password=password, session=s)
                self.assertEqual(1, r.code, r.describe())
                self.assertEqual(b"", r.out, r.describe())
                self.assertEqual(b"", r.err, r.describe())
                self.assertTrue(os.path.isdir(s.file("archives")))
                self.assertFalse(s.exists("migration.result"), s.names())
                self.assertIn("Unable to parse command line: " + text, s.log())
                self.assertFramed(r, 1)

    def test_connection_failures_have_their_own_exit_codes(self):
        port = harness.free_port()
        cases = [
            (dict(port=port), 11, "ConnectionRefused",
             "^No one listening on the remote address at host 127\\.0\\.0\\.1$"),
            (dict(host="no-such-host.invalid"), 16, "HostNotFound",
             "^Unable to resolve hostname no-such-host\\.invalid: .+"),
            (dict(password="not the password"), 17, "SshInvalidCredentials",
             "^Unable to connect to host 127\\.0\\.0\\.1: you have specified incorrect username or password$"),
        ]
        for kw, code, tag, text in cases:
            with self.subTest(tag=tag):
                r = self.run_vantrel("--send-scout", timeout=90, **kw)
                # The resolver's complaint comes first, on a line of its own.
                prefix = ""
                if tag == "HostNotFound":
                    prefix = r.err_text.split("\n", 1)[0] + "\n"
                    self.assertRegex(prefix, "^Unable to resolve no-such-host\\.invalid: .+\n$")
                self.assertFailure(r, code, tag, err_prefix=prefix)
                self.assertRegex(r.err_text[len(prefix):], re.compile(text, re.S))
                self.assertIdle(r.session, r.pid)
                self.assertFramed(r, code)
                # The scout never ran, so its result file holds nothing.
                if r.session.exists("scout-result.xml"):
                    self.assertEqual(b"", r.session.read("scout-result.xml"))


if __name__ == "__main__":
    harness.main()
