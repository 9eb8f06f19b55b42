# Runs the command given as its arguments and ends it, with everything it
# started, once nobody reads its output any more. When vantrel's channel or
# connection goes away, sshd closes the reading end of our standard output;
# a command that neither reads nor writes would otherwise live on for good.
# The command's exit status is passed on (128 + the signal that ended it).
use strict;
use warnings;
use IO::Poll qw(POLLERR POLLHUP);
use POSIX qw(WNOHANG);

my $pid = fork() // die "vantrel: fork: $!\n";
if ($pid == 0) {
    setpgrp(0, 0);
    exec { $ARGV[0] } @ARGV or die "vantrel: cannot run $ARGV[0]: $!\n";
}
my $poll = IO::Poll->new;
$poll->mask(\*STDOUT => POLLERR);
while (waitpid($pid, WNOHANG) == 0) {
    $poll->poll(1);
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
