# Runs the command given as its arguments and ends it, with everything it
# started, once nobody reads its output any more. When vantrel's channel or
# connection goes away, sshd closes the reading end of our standard output;
# a command that neither reads nor writes would otherwise live on for good.
# The command's exit status is passed on (128 + the signal that ended it).
# The command's end wakes the wait at once, through a pipe that the SIGCHLD
# handler writes to, so that its status goes back without delay. It runs on
# Perl 5.8 with the modules of perl-base alone.
use strict;
use warnings;
use POSIX qw(WNOHANG);

pipe(my $woken, my $wake) or die "vantrel: pipe: $!\n";
$SIG{CHLD} = sub { syswrite($wake, "x") };
my $pid = fork();
defined $pid or die "vantrel: fork: $!\n";
if ($pid == 0) {
    setpgrp(0, 0);
    exec { $ARGV[0] } @ARGV or die "vantrel: cannot run $ARGV[0]: $!\n";
}
# The write end of a pipe whose reader went away shows as readable (an
# error) to select.
my $watched = '';
vec($watched, fileno($woken), 1) = 1;
vec($watched, fileno(STDOUT), 1) = 1;
while (waitpid($pid, WNOHANG) == 0) {
    next if select(my $ready = $watched, undef, undef, 5) <= 0;
    sysread($woken, my $ignored, 64) if vec($ready, fileno($woken), 1);
    next unless vec($ready, fileno(STDOUT), 1);
    kill 'TERM', -$pid;
    for (1 .. 20) {
        last if waitpid($pid, WNOHANG) != 0;
        select(undef, undef, undef, 0.1);
    }
    kill 'KILL', -$pid;
    waitpid($pid, 0);
    exit 255;
}
exit($? & 127 ? 128 + ($? & 127) : $? >> 8);
