# Writes the files of an agent deployment as they arrive on standard input,
# each as "<size> <length of name>", a line feed, the name and the bytes, with
# the rights of the login and its default modes, as "cat >" would. A file that
# cannot be written is reported on standard output as "<its number> <error>";
# the rest of the input is read all the same, and the status is 1.
use strict;
use warnings;

binmode STDIN;
my ($i, $failed, $buf) = (0, 0);
while (defined(my $head = <STDIN>)) {
    my ($size, $length) = split / /, $head;
    read(STDIN, my $name, $length) == $length or die "input cut short\n";
    my ($f, $err);
    if (!$failed) {
        if (open($f, '>', $name)) { binmode $f } else { $err = "$!" }
    }
    while ($size > 0) {
        my $n = read(STDIN, $buf, $size < 1048576 ? $size : 1048576);
        die "input cut short\n" unless $n;
        $size -= $n;
        if (!$failed && !defined $err) { print $f $buf or $err = "$!" }
    }
    if (!$failed && !defined $err && !close($f)) { $err = "$!" }
    if (!$failed && defined $err) { print "$i $err\n"; $failed = 1 }
    $i++;
}
exit $failed;
