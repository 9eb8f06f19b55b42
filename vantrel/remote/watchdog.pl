# Runs the command given as its arguments and ends it, with everything it
# started, once nobody reads its output any more. When vantrel's channel or
# connection goes away, sshd closes the reading end of our standard output;
# a command that neither reads nor writes would otherwise live on for good.
# The command's exit status is passed on (128 + the signal that ended it).
# The command's end wakes the wait at once, through a pipe that the SIGCHLD
# handler writes to, so that its status goes back without delay.
use strict;
use warnings;
use IO::Poll qw(POLLIN POLLERR POLLHUP);
use POSIX qw(WNOHANG);

pipe(my $woken, my $wake) or die "vantrel: pipe: $!\n";
$SIG{CHLD} = sub { syswrite($wake, "x") };
my $pid = fork() // die "vantrel: fork: $!\n";
if ($pid == 0) {
    setpgrp(0, 0);
    exec { $ARGV[0] } @ARGV or die "vantrel: cannot run $ARGV[0]: $!\n";
}
my $poll = IO::Poll->new;
$poll->mask(\*STDOUT => POLLERR);
$poll->mask($woken => POLLIN);
while (waitpid($pid, WNOHANG) == 0) {
    $poll->poll(5);
    sysread($woken, my $ignored, 64) if $poll->events($woken);
    next unless $poll->events(\*STDOUT) & (POLLERR | POLLHUP);
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
