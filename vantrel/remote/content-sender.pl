# Sends content archives of the agent directory (its working directory) back
# to vantrel, as the login, like the "cat" it stands for. The requests come on
# standard input, each "<offset> <path>" ended by a NUL; the answers follow one
# after the other on standard output: "S <size>" once the file is open, blocks
# "D <length>" each followed by that many bytes from <offset> on, then "E" when
# the file is through, or "E <error>" when it cannot be opened or read. A path
# that leads out of the agent directory, through a link on the way or as a
# link itself, is not read.
use strict;
use warnings;
use Cwd qw(getcwd realpath);
use Fcntl qw(O_RDONLY O_NOFOLLOW SEEK_SET);

binmode STDIN;
binmode STDOUT;
my $top = realpath(getcwd()) or die "vantrel: no working directory: $!\n";
my @wanted = do { local $/ = "\0"; <STDIN> };
for my $request (@wanted) {
    chop $request;
    my ($from, $path) = split / /, $request, 2;
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
        my ($n, $data);
        print "D $n\n", $data while $n = sysread($file, $data, 1 << 20);
        print defined $n ? "E\n" : "E $!\n";
        close $file;
    }
}
