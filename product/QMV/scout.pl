# The scout: a probe of the source host. It is fed to a remote "perl" on
# standard input (no file is left on the host) and prints an XML report of
# basic facts on standard output. It only reads, and always exits 0: a fact
# that cannot be found is reported empty or left out. It runs on Perl 5.8
# with the modules of perl-base alone.
use strict;
use warnings;
use POSIX qw(uname);

my $SCOUT_VERSION = '1.0';

# Text for XML; the same as xml_escape of Vantrel::Sample, which runs apart from this one
# (a test holds the two the same).
sub xml_escape {
    my ($text) = @_;
    $text = '' unless defined $text;
    $text =~ s/&/&amp;/g;
    $text =~ s/</&lt;/g;
    $text =~ s/>/&gt;/g;
    $text =~ s/"/&quot;/g;
    $text =~ s/'/&apos;/g;
    $text =~ s/[\x00-\x08\x0b\x0c\x0e-\x1f]/?/g;    # not allowed in XML 1.0
    return $text;
}

sub attrs {
    my @pairs = @_;
    my $out = '';
    while (my ($k, $v) = splice @pairs, 0, 2) {
        $out .= sprintf ' %s="%s"', $k, xml_escape($v);
    }
    return $out;
}

sub os_release {
    my %os;
    for my $file ('/etc/os-release', '/usr/lib/os-release') {
        open my $fh, '<', $file or next;
        while (my $line = <$fh>) {
            $os{$1} = $2 if $line =~ /^([A-Z_]+)=(.*)$/;
        }
        close $fh;
        last;
    }
    s/^"(.*)"\s*$/$1/ or s/^'(.*)'\s*$/$1/ or s/\s+$// for values %os;
    return \%os;
}

# Sizes in bytes of the file system holding $path, from POSIX df.
sub disk_space {
    my ($path) = @_;
    my @lines = `df -Pk '$path' 2>/dev/null`;
    return () if $? != 0 || @lines < 2;
    my @f = split ' ', $lines[-1];
    return () if @f < 6 || $f[1] !~ /^\d+$/;
    return (total => $f[1] * 1024, used => $f[2] * 1024, available => $f[3] * 1024, mount => $f[5]);
}

sub count_accounts {
    open my $fh, '<', '/etc/passwd' or return ('', '');
    my ($all, $users) = (0, 0);
    while (my $line = <$fh>) {
        my @f = split /:/, $line;
        next if @f < 7;
        $all++;
        $users++ if $f[2] >= 1000 && $f[2] < 65534;
    }
    close $fh;
    return ($all, $users);
}

sub find_program {
    my ($name) = @_;
    my @dirs = (split(/:/, defined $ENV{PATH} ? $ENV{PATH} : ''), qw(/usr/local/bin /usr/bin /bin /usr/sbin /sbin));
    for my $dir (@dirs) {
        next if $dir eq '';
        return "$dir/$name" if -f "$dir/$name" && -x _;
    }
    return '';
}

my ($sysname, $nodename, $release, $version, $machine) = uname();
my $os = os_release();
my %disk = disk_space('/');
my ($accounts, $user_accounts) = count_accounts();
my $login = getpwuid($<);
$login = '' unless defined $login;

my $report = qq{<?xml version="1.0" encoding="UTF-8"?>\n};
$report .= '<scout' . attrs(version => $SCOUT_VERSION, time => time) . ">\n";
$report .= '  <hostname>' . xml_escape($nodename) . "</hostname>\n";
$report .= '  <kernel' . attrs(name => $sysname, release => $release, version => $version, machine => $machine) . "/>\n";
$report .= '  <os' . attrs(id => $os->{ID}, version => $os->{VERSION_ID}, name => $os->{PRETTY_NAME}) . "/>\n";
$report .= '  <perl' . attrs(version => sprintf('%vd', $^V), path => $^X) . "/>\n";
$report .= '  <user' . attrs(name => $login, uid => $<, euid => $>, root => ($> == 0 ? 'true' : 'false')) . "/>\n";
$report .= '  <disk' . attrs(path => '/', map { $_ => $disk{$_} } qw(mount total used available)) . "/>\n"
    if %disk;
$report .= '  <accounts' . attrs(total => $accounts, users => $user_accounts) . "/>\n";
$report .= "  <programs>\n";
for my $program (qw(tar gzip)) {
    my $path = find_program($program);
    $report .= '    <program' . attrs(name => $program, present => ($path ne '' ? 'true' : 'false'), path => $path) . "/>\n";
}
$report .= "  </programs>\n";
$report .= "</scout>\n";
print $report;
exit 0;
