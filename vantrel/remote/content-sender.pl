# Sends content archives of the agent directory (its working directory) back
# to vantrel, as the login, like the "cat" it stands for. Requests come on
# standard input one after the other, each "<offset> <length> <path>" ended by
# a NUL, and are answered in their order on standard output: "S <size>" once
# the file is open (its whole size), blocks "D <length>" each followed by that
# many bytes, from <offset> on and <length> bytes at most, then "E" when they
# are through, or "E <error>" when the file cannot be opened or read. A path
# that leads out of the agent directory, through a link on the way or as a
# link itself, is not read.
use strict;
use warnings;
use Cwd qw(getcwd realpath);
use Fcntl qw(O_RDONLY O_NOFOLLOW SEEK_SET);

binmode STDIN;
binmode STDOUT;
$| = 1;
my $top = realpath(getcwd()) or die "vantrel: no working directory: $!\n";
local $/ = "\0";
while (my $request = <STDIN>) {
    chomp $request;
    my ($from, $left, $path) = split / /, $request, 3;
    my $real = realpath($path);
    my $file;
    if (!defined $real) {
        print "E $!\n";
    } elsif (index($real, "$top/") != 0) {
        print "E it leads outside the agent directory\n";
    } elsif (!sysopen($file, $real, O_RDONLY | O_NOFOLLOW) || ($from && !sysseek($file, $from, SEEK_SET))) {
        print "E $!\n";
    } else {
        print 'S ', -s $file, "\n";
        my ($n, $data) = (1);
        while ($left > 0 && ($n = sysread($file, $data, $left < 1048576 ? $left : 1048576))) {
            print "D $n\n", $data;
            $left -= $n;
        }
        print defined $n ? "E\n" : "E $!\n";
        close $file;
    }
}
