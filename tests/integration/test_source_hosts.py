"""Source hosts as operators find them: other login shells and start-up files that print on every command,
sudo that lectures or wants a terminal, a minimal Perl, a server hardened after the ssh-audit guide, an RSA
login key against an OpenSSH that refuses SHA-1 signatures. On each, a whole migration through sudo, whose
documents must equal those of the tidy host."""
import os
import pwd
import re
import tempfile

import harness as h

# A kind of source host: the login (and its password), how its sshd is made, the login key, and whether
# it needs libssh2 1.11 (with 1.10 the first action fails with the message that says why).
ROWS = [
    # name,             login,      server keywords,                        key,         needs 1.11
    ("tidy",            h.USER,     {},                                     None,        False),
    ("noisy bash",      "vtnoisy",  {},                                     None,        False),
    ("requiretty",      "vttty",    {},                                     None,        False),
    ("tcsh",            "vttcsh",   {},                                     None,        False),
    ("csh",             "vtcsh",    {},                                     None,        False),
    ("fish",            "vtfish",   {},                                     None,        False),
    ("BusyBox ash",     "vtash",    {},                                     None,        False),
    ("perl-base alone", h.USER,     {"minimal_perl": True},                 None,        False),
    ("hardened sshd",   h.USER,     {"variant": "hardened"},                None,        True),
    ("RSA login key",   h.USER,     {},                                     "login_rsa", True),
]
# What differs from run to run whatever the host: times, the space on the disk, the archives' packing.
VOLATILE = re.compile(rb' (time|created|updated|updated-at|elapsed|used|available|md5sum|size|counter|pid)="[^"]*"')
NOT_SUPPORTED = {"hardened sshd": ("UnableToStartSshSession", 2, "No common MAC with 127.0.0.1: "),
                 "RSA login key": ("SshKeyUnusable", 17, "rsa-sha2-256 or rsa-sha2-512. Use an Ed25519 or ECDSA")}


class SourceHostTest(h.Case):
    sample_data = True

    def migrate(self, name, login, server, key):
        """Every action on one host: the documents it left, and what stayed in the agent directory."""
        password = h.ACCOUNTS[login]
        env = {"KVA_KEY_FILE": h.host_key(key, ("-t", "rsa"))} if key else {}
        agent_dir = tempfile.mkdtemp(prefix="vantrel-it.", dir=pwd.getpwnam(login).pw_dir)
        os.chown(agent_dir, *pwd.getpwnam(login)[2:4])
        self.remote_dirs.append(agent_dir)
        kw = dict(port=server.port, login=login, password=None if key else password, sudo=password, env=env)
        agent = dict(kw, agent_dir=agent_dir, agent="sample")
        s = self.session()
        r = self.run_vantrel("--send-scout", session=s, **kw)
        if name in NOT_SUPPORTED and not h.LIBSSH2_1_11:
            tag, code, says = NOT_SUPPORTED[name]
            self.assertIn(says, self.failed(r, code, tag))
            h.checked(self, "%s: refused with the message that says why" % name)
            return None
        self.ok(r)
        documents = {"scout": s.read("scout-result.xml")}
        self.ok(self.run_vantrel("--deploy-agent", session=s, **agent))
        documents["status"] = s.read("agent-deployment.status")
        self.configure(agent_dir)
        self.ok(self.run_vantrel("--dump-all", session=s, **agent))
        documents["dump"] = s.read("dump.xml")
        r = self.run_vantrel("--get-dumping-status", session=s, **agent)
        self.ok(r)
        documents["dumping status"] = r.out
        r = self.run_vantrel("--get-content", session=s, **agent)
        self.ok(r, "transfer.result")
        documents["content"] = sorted((os.path.relpath(os.path.join(d, f), s.path), os.path.getsize(os.path.join(d, f)))
                                      for d, _, files in os.walk(s.file("content")) for f in files)
        self.ok(self.run_vantrel("--remove-agent", **agent))  # which leaves the status as it was
        self.assertFalse(os.path.exists(agent_dir), name)
        if name in NOT_SUPPORTED:
            h.checked(self, "%s: a whole migration" % name)
        return {k: VOLATILE.sub(b"", v) if isinstance(v, bytes) else v for k, v in documents.items()}

    def test_a_migration_on_every_kind_of_source_host(self):
        tidy = None
        for name, login, server, key, _ in ROWS:
            with self.subTest(host=name), h.SshServer(**server) as sshd:
                documents = self.migrate(name, login, sshd, key)
                if documents is None:
                    continue
                tidy = tidy or documents
                for kind in documents:
                    self.assertEqual(tidy[kind], documents[kind], "%s: %s" % (name, kind))
                # Nothing was left on the source host: no staged input, no pipes of the relay.
                self.assertEqual([], [n for n in os.listdir("/tmp") if n.startswith("vantrel-relay.")])


if __name__ == "__main__":
    h.main()
