package Vantrel::Sample;
# Helpers shared by the sample agent: its settings file, XML output, atomic
# file writes, the dumping status file and the sample hosting data. Perl 5.8
# with the modules of perl-base alone.
use strict;
use warnings;
use POSIX qw(strftime);
use Exporter 'import';

our @EXPORT_OK = qw(read_settings xml_escape xml_attrs write_atomic md5_file iso_time
                    read_profile load_host agents_version files_below);

my %DEFAULTS = (
    data         => '/var/lib/vantrel-sample-host',
    delay        => 0,
    fail         => '',
    fail_status  => '',
    fail_list    => '',
    content_size => 0,
);

# key=value lines of <agent dir>/sample-agent.conf over the defaults; blank
# lines and lines starting with "#" are skipped, unknown keys are kept.
sub read_settings {
    my ($agent_dir) = @_;
    my %settings = %DEFAULTS;
    my $file = "$agent_dir/sample-agent.conf";
    return \%settings unless -e $file;
    open my $fh, '<', $file or die "cannot read $file: $!\n";
    while (my $line = <$fh>) {
        $line =~ s/\r?\n\z//;
        next if $line =~ /^\s*(#|$)/;
        my ($key, $value) = $line =~ /^\s*([A-Za-z_]+)\s*=(.*)$/
            or die "$file:$.: expected key=value\n";
        $settings{$key} = $value;
    }
    close $fh;
    for my $key (qw(delay content_size)) {
        die "$file: $key must be a non-negative number\n"
            unless $settings{$key} =~ /^\s*(\d+(\.\d*)?|\.\d+)\s*$/;
        $settings{$key} = $1;
    }
    return \%settings;
}

# Text for XML; the same as xml_escape of the scout, which runs apart from this one
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

# ' a="1" b="2"' from a list of pairs, in the order given.
sub xml_attrs {
    my @pairs = @_;
    my $out = '';
    while (my ($k, $v) = splice @pairs, 0, 2) {
        $out .= sprintf ' %s="%s"', $k, xml_escape($v);
    }
    return $out;
}

# Writes the whole content beside the target and renames it over the target,
# so a reader sees either the old or the new file, never a part.
sub write_atomic {
    my ($path, $content) = @_;
    my $tmp = "$path.tmp.$$";
    open my $fh, '>:raw', $tmp or die "cannot write $tmp: $!\n";
    print {$fh} $content or die "cannot write $tmp: $!\n";
    close $fh or die "cannot write $tmp: $!\n";
    rename $tmp, $path or die "cannot rename $tmp to $path: $!\n";
}

# By md5sum: Digest::MD5 is not in perl-base, and a sum in Perl alone would
# take minutes for an archive of a few hundred megabytes.
sub md5_file {
    my ($path) = @_;
    open my $sum, '-|', 'md5sum', '--', $path or die "cannot run md5sum: $!\n";
    my $line = <$sum>;
    close $sum;
    die "cannot sum $path\n" unless defined $line && $line =~ /^([0-9a-fA-F]{32})\s/;
    return lc $1;
}

sub iso_time {
    my ($when) = @_;
    return strftime('%Y-%m-%dT%H:%M:%SZ', gmtime(defined $when ? $when : time));
}

# The plain files below $path (or $path itself), not through links.
sub files_below {
    my ($path) = @_;
    return ($path) if -f $path && !-l $path;
    return () if -l $path || !-d _;
    opendir my $dh, $path or return ();
    my @names = grep { $_ ne '.' && $_ ne '..' } readdir $dh;
    closedir $dh;
    return map { files_below("$path/$_") } sort @names;
}

sub read_profile {
    my ($file) = @_;
    my %profile;
    open my $fh, '<', $file or return {};
    while (my $line = <$fh>) {
        chomp $line;
        $profile{$1} = $2 if $line =~ /^([^=]+)=(.*)$/;
    }
    close $fh;
    return \%profile;
}

sub list_dirs {
    my ($dir) = @_;
    opendir my $dh, $dir or return ();
    my @names = sort grep { !/^\./ && -d "$dir/$_" } readdir $dh;
    closedir $dh;
    return @names;
}

# The sample hosting data under $root:
#   { admin => {...}, resellers => { name => profile },
#     clients => { name => profile + reseller }, domains => { name => profile + client, dir } }
sub load_host {
    my ($root) = @_;
    die "sample data root $root not found\n" unless -d "$root/clients";
    my %host = (admin => read_profile("$root/admin/profile"), resellers => {}, clients => {}, domains => {});
    $host{resellers}{$_} = read_profile("$root/resellers/$_/profile") for list_dirs("$root/resellers");
    for my $client (list_dirs("$root/clients")) {
        my $profile = read_profile("$root/clients/$client/profile");
        $profile->{reseller} = '' unless defined $profile->{reseller};
        $host{clients}{$client} = $profile;
        for my $domain (list_dirs("$root/clients/$client/domains")) {
            my $dir = "$root/clients/$client/domains/$domain";
            my $dp = read_profile("$dir/profile");
            $dp->{client} = $client;
            $dp->{dir} = $dir;
            $host{domains}{$domain} = $dp;
        }
    }
    return \%host;
}

# The version written in the VERSION file beside lib/.
sub agents_version {
    my ($agent_dir) = @_;
    open my $fh, '<', "$agent_dir/VERSION" or return 'unknown';
    my $version = <$fh>;
    $version = 'unknown' unless defined $version;
    close $fh;
    $version =~ s/\s+\z//;
    return $version;
}

1;
