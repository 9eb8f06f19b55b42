# Removes, as root, the content archives named on standard input, each name
# relative to the agent directory (the working directory) and ended by a NUL.
# Nothing is removed through a link: each directory on the way must be a
# directory of its own, checked as it is entered, so that a link the login
# made cannot lead the removal out of the agent directory. For each name that
# cannot be removed it prints "<name>", a NUL, the reason and a NUL.
use strict;
use warnings;
use Cwd qw(getcwd);

binmode STDIN;
binmode STDOUT;
my $top = getcwd();
defined $top or die "vantrel: no working directory: $!\n";
my @names = do { local $/ = "\0"; <STDIN> };
NAME: for my $name (@names) {
    chop $name;
    my @parts = grep { length && $_ ne '.' } split m{/}, $name;
    my $leaf = pop @parts;
    if (!defined $leaf || grep { $_ eq '..' } @parts, $leaf) {
        print "$name\0not a name inside the agent directory\0";
        next;
    }
    chdir $top or die "vantrel: cannot enter $top: $!\n";
    for my $part (@parts) {
        my @seen = lstat $part;
        my $why;
        if (!@seen) {
            $why = "$part: $!";
        } elsif (!-d _) {
            $why = "$part is not a directory (a link is not followed)";
        } elsif (!chdir $part) {
            $why = "$part: $!";
        } elsif ("@{[(stat '.')[0, 1]]}" ne "@seen[0, 1]") {
            $why = "$part changed while it was entered";
        }
        if (defined $why) {
            print "$name\0$why\0";
            next NAME;
        }
    }
    unlink $leaf or print "$name\0$!\0";
}
