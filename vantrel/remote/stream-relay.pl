# Carries a privileged command's three streams when sudo on the source host
# wants a terminal (Defaults requiretty). The command runs on a channel of its
# own with a terminal, which only sudo sees; its input, output and errors go
# through three named pipes to this program, which runs as the login on a
# channel without one, so that bytes pass unchanged and errors stay apart.
#
# It makes a private directory (mode 0700) with the pipes "in", "out" and
# "err", prints its path on a line, and waits for the command to open them
# (it opens them in that order). Once all are open the directory is removed,
# and standard input goes to "in", "out" to standard output, "err" to
# standard error, until the command has closed both. The directory goes too
# when vantrel goes away before the command came (nobody reads standard
# output any more), or when nothing came for ten minutes.
use strict;
use warnings;
use Fcntl qw(O_RDONLY O_WRONLY O_NONBLOCK F_GETFL F_SETFL);
use POSIX qw(mkfifo EINTR EAGAIN ENXIO EPIPE);

$SIG{PIPE} = 'IGNORE';
binmode STDIN;
binmode STDOUT;
binmode STDERR;
umask 077;
my $base = defined $ENV{TMPDIR} && -d $ENV{TMPDIR} ? $ENV{TMPDIR} : '/tmp';
my $dir;
for (1 .. 100) {
    my $try = sprintf '%s/vantrel-relay.%d.%08x%08x', $base, $$, int rand 0xffffffff, int rand 0xffffffff;
    if (mkdir $try, 0700) { $dir = $try; last }
}
defined $dir or die "vantrel: cannot make a directory in $base: $!\n";
for my $name (qw(in out err)) {
    mkfifo("$dir/$name", 0600) or cleanup(), die "vantrel: mkfifo $dir/$name: $!\n";
}
sub cleanup {
    unlink "$dir/in", "$dir/out", "$dir/err";
    rmdir $dir;
}
syswrite STDOUT, "$dir\n";

# Whether vantrel went away: the write end of a pipe whose reader is gone
# shows as readable (an error) to select.
sub vantrel_gone {
    my $r = '';
    vec($r, fileno(STDOUT), 1) = 1;
    return select($r, undef, undef, 0) > 0;
}

# "in" opens once the command opens it to read; until then opening fails.
my $until = time + 600;
my $in;
until (sysopen($in, "$dir/in", O_WRONLY | O_NONBLOCK)) {
    if (($! != ENXIO && $! != EINTR) || time > $until || vantrel_gone()) {
        cleanup();
        exit 1;
    }
    select(undef, undef, undef, 0.05);
}
# The command opens "out" and "err" right after "in".
my ($out, $err);
my $opened = eval {
    local $SIG{ALRM} = sub { die "vantrel: the command did not open its streams\n" };
    alarm 30;
    sysopen($out, "$dir/out", O_RDONLY) or die "vantrel: $dir/out: $!\n";
    sysopen($err, "$dir/err", O_RDONLY) or die "vantrel: $dir/err: $!\n";
    alarm 0;
    1;
};
cleanup();
defined $opened or die $@;

my ($pending, $input, %open) = ('', 1, (out => $out, err => $err));
my %to = (out => \*STDOUT, err => \*STDERR);
while (%open) {
    my ($r, $w) = ('', '');
    vec($r, fileno(STDIN), 1) = 1 if $input && length($pending) < 65536;
    vec($r, fileno($open{$_}), 1) = 1 for keys %open;
    vec($w, fileno($in), 1) = 1 if $in && length $pending;
    if (select($r, $w, undef, undef) < 0) {
        next if $! == EINTR;
        die "vantrel: select: $!\n";
    }
    for my $name (keys %open) {
        next unless vec($r, fileno($open{$name}), 1);
        my $n = sysread($open{$name}, my $data, 65536);
        next if !defined $n && ($! == EINTR || $! == EAGAIN);
        if (!$n) {
            close $open{$name};
            delete $open{$name};
            next;
        }
        for (my $at = 0; $at < $n;) {
            my $put = syswrite($to{$name}, $data, $n - $at, $at);
            exit 1 unless defined $put || $! == EINTR;
            $at += $put || 0;
        }
    }
    if ($input && vec($r, fileno(STDIN), 1)) {
        my $n = sysread(STDIN, $pending, 65536, length $pending);
        $input = 0 if defined $n && $n == 0;
    }
    if ($in && length $pending && vec($w, fileno($in), 1)) {
        my $put = syswrite($in, $pending);
        if (defined $put) {
            substr($pending, 0, $put) = '';
        } elsif ($! == EPIPE) {
            # The command takes no more input: what comes is read and dropped.
            close $in;
            undef $in;
        }
    }
    $pending = '' unless $in;
    if ($in && !$input && !length $pending) {
        close $in;
        undef $in;
    }
}
exit 0;
