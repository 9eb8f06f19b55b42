"""vantrel runs as root in directories that kvaadm can write: a link kvaadm
plants under the name of a file or directory that an action writes is never
written through, and the file it points to keeps its bytes, owner and mode."""
import os
import pwd

import harness as h


class LinkTest(h.Case):
    sample_data = True

    def setUp(self):
        self.admin = pwd.getpwnam(h.ADMIN_ACCOUNT)
        self.secret, self.secret_dir = os.path.join(self.tmp, "root-only"), os.path.join(self.tmp, "root-dir")
        if not os.path.exists(self.secret):
            h.write(self.secret, "root's own\n")
            os.chmod(self.secret, 0o600)
            os.mkdir(self.secret_dir, 0o700)

    def targets(self):
        return [(p, os.stat(p).st_uid, os.stat(p).st_mode, sorted(os.listdir(p)) if os.path.isdir(p) else h.read(p))
                for p in (self.secret, self.secret_dir)]

    def admin_dir(self, path):
        if not os.path.isdir(path):
            self.admin_dir(os.path.dirname(path))
            os.mkdir(path)
            os.chown(path, self.admin.pw_uid, self.admin.pw_gid)
        return path

    def plant(self, directory, *names):
        """Links made by kvaadm under names (a trailing "/" points at the directory)."""
        for name in names:
            path = os.path.normpath(os.path.join(directory, name.rstrip("/")))
            self.admin_dir(os.path.dirname(path))
            if os.path.lexists(path):
                os.unlink(path)
            os.symlink(self.secret_dir if name.endswith("/") else self.secret, path)
            os.lchown(path, self.admin.pw_uid, self.admin.pw_gid)

    def test_no_action_writes_through_a_planted_link(self):
        before, agent_dir = self.targets(), self.remote_dir()
        box = self.admin_dir(os.path.join(self.tmp, "kvaadm"))
        s = h.Session(self.admin_dir(os.path.join(box, "session")))
        common = ("migration.log", "migration.status", "migration.result", "transfer.result")
        kw = dict(session=s, agent_dir=agent_dir, agent="sample", sudo=h.PASSWORD)
        archive = "content/bob/bobs-bakery.test.tar.gz"
        # (action, extra arguments, links, the link the run refuses to follow, or None when it succeeds)
        for action, extra, links, refused in (
                ("--send-scout", [], common + ("host-key",), "host-key"),
                ("--send-scout", [], common + ("scout-result.xml",), None),
                ("--deploy-agent", [], common + ("agent-deployment.status",), None),
                ("--dump-all", [], ("dump.xml", "dump-name", "dumping-status.xml"), None),
                ("--get-content", [], ("content/",), "content"),
                ("--get-content", ["--dumps-dir=" + box + "/dumps"], ("../dumps/",), "../dumps"),
                ("--get-content", [], ("dump-name", "migration-result-name", archive, archive + ".part",
                                       "content/carol/carol.test.tar.gz.part"), None),
                ("--remove-agent", [], common, None)):
            with self.subTest(action=action, links=links):
                if action == "--dump-all":
                    self.configure(agent_dir, delay=6)   # long enough for a copy of the dumping status
                self.plant(s.path, *links)
                r = self.run_vantrel(action, *extra, **(kw if action != "--send-scout" else dict(session=s)))
                self.assertEqual(before, self.targets(), r)
                if refused:   # the result document (or, unwrapped, standard error) names the link
                    self.assertEqual(2, r.code, r)
                    doc = "transfer.result" if action == "--get-content" else "migration.result"
                    text = "".join(r.session.xml(doc).itertext())
                    self.assertIn(os.path.normpath(os.path.join(s.path, refused)), text, r)
                else:
                    self.assertEqual(0, r.code, r)
                for name in links:
                    path = os.path.normpath(os.path.join(s.path, name.rstrip("/")))
                    if os.path.islink(path):
                        os.unlink(path)
                    elif os.path.lexists(path):   # replaced by a file of the run's own
                        self.assertEqual(self.admin.pw_uid, os.lstat(path).st_uid, path)
        self.assertEqual(5, sum(len(f) for _, _, f in os.walk(s.file("content"))))
        # A session directory that is itself a link planted by kvaadm is refused before anything is written.
        os.symlink(self.secret_dir, os.path.join(box, "linked"))
        r = self.run_vantrel("--send-scout", session=h.Session(os.path.join(box, "linked")))
        self.assertEqual(1, r.code, r)
        self.assertIn(b"linked is a symbolic link", r.err)
        self.assertEqual(before, self.targets())


if __name__ == "__main__":
    h.main()
