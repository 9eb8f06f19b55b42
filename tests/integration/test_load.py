"""Twenty --get-content runs at once against one sshd, half of them through
sudo, each with its own agent and session: every archive arrives whole."""
import os

import harness as h


class LoadTest(h.Case):

    def test_twenty_content_runs_at_once(self):
        jobs = []
        for i in range(20):
            archives = [(name, os.urandom(size + i), None) for name, size in
                        (("small.bin", 10 * 1024), ("mid/mid.bin", 300 * 1024), ("large.bin", h.MIB + 4099 * i))]
            archives = [(n, d, h.md5(d)) for n, d, _ in archives]
            agent_dir = self.lay_out(archives)
            jobs.append((archives, self.start("--get-content", agent_dir=agent_dir, sudo=h.PASSWORD if i % 2 else None)))
        for archives, run in jobs:
            r = run.finish(120)
            self.ok(r, "transfer.result")
            for name, data, md5 in archives:
                self.assertEqual(md5, h.md5(r.session.read(name)), name)
            self.assertEqual(["archives", "dump-name", "large.bin", "mid", "migration-result-name", "migration.log",
                              "migration.status", "small.bin", "transfer.result"], r.session.names())


if __name__ == "__main__":
    h.main()
