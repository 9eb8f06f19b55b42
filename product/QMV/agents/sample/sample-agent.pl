#!/usr/bin/perl
# The sample migration agent. It runs on the source host from its agent
# directory (this script's directory) and works on the sample hosting data.
#
#   sample-agent.pl --get-status
#       prints the agent status document and exits 0.
#   sample-agent.pl [dump arguments]
#       writes dump.xml, keeps dumping-status.xml current while it works and,
#       unless --no-content, packs one archive per selected domain under
#       content/<client>/.
#   sample-agent.pl --get-content-list
#       prints the list of the archives that exist, with sizes and MD5 sums.
#
# Dump arguments: --content-transport=rsync, --migration-mode, --dump-all,
# --dump-domains=L, --dump-clients=L, --dump-resellers=L, --only-mail,
# --only-hosting, --no-compress, --include-app-distrib, --server,
# --admin-info, --no-license, --no-content. L is a comma-separated list, or
# "-" to read it as one line of standard input. Standard input holds, in this
# order: for rsync the lines host, login, password and port; then the "-"
# lists of domains, clients and resellers, one line each.
#
# Settings (optional file sample-agent.conf in the agent directory, key=value):
#   data=DIR         sample hosting data (default /var/lib/vantrel-sample-host)
#   delay=SECONDS    how long a dump takes at least (the status file changes
#                    at least every second meanwhile)
#   fail=TEXT        the dump waits its delay, prints TEXT and a line feed on
#                    standard error and exits 3
#   fail_status=TEXT the same for --get-status, fail_list=TEXT for
#                    --get-content-list (no delay)
#   content_size=N   adds N bytes of random data to every archive
#
# Exit codes: 0 done, 1 the work failed, 2 bad arguments, 3 failure asked for.
#
# It runs on Perl 5.8 with the modules of perl-base alone (and tar, gzip and
# md5sum), as the source hosts of a migration may have no more.
use strict;
use warnings;
use Cwd qw(abs_path);
use File::Basename qw(dirname);
use File::Path qw(mkpath rmtree);
use POSIX qw(uname);
my $AGENT_DIR;
BEGIN { $AGENT_DIR = dirname(abs_path($0)) }
use lib "$AGENT_DIR/lib";
use Vantrel::Sample qw(read_settings xml_escape xml_attrs write_atomic md5_file iso_time
                       load_host agents_version files_below);

my $AGENT       = 'sample';
my $STATUS_FILE = 'dumping-status.xml';
my $DUMP_FILE   = 'dump.xml';
my $CONTENT_DIR = 'content';
my $MANIFEST    = 'content.manifest';
my $XML_DECL    = qq{<?xml version="1.0" encoding="UTF-8"?>\n};

my @FLAGS = qw(migration-mode dump-all only-mail only-hosting no-compress include-app-distrib
               server admin-info no-license no-content);
my @LISTS = qw(domains clients resellers);    # the order of the lists on standard input
my ($status_counter, $status_started) = (0, time);

sub usage_error {
    print STDERR "sample-agent: $_[0]\n",
        "usage: sample-agent.pl --get-status | --get-content-list | DUMP ARGUMENTS\n";
    exit 2;
}

sub fail_with {
    my ($text) = @_;
    print STDERR "$text\n";
    exit 3;
}

# ---- arguments ------------------------------------------------------------

my (%flag, %list, $transport, $mode);
for my $arg (@ARGV) {
    if ($arg eq '--get-status' || $arg eq '--get-content-list') {
        usage_error("$arg cannot be combined with other arguments") if @ARGV > 1;
        $mode = $arg;
    } elsif ($arg =~ /^--content-transport=(.*)$/s) {
        usage_error("unsupported content transport '$1'") unless $1 eq 'rsync';
        $transport = $1;
    } elsif ($arg =~ /^--dump-(domains|clients|resellers)=(.*)$/s) {
        $list{$1} = $2;
    } elsif ($arg =~ /^--(.+)$/s && grep { $_ eq $1 } @FLAGS) {
        $flag{$1} = 1;
    } else {
        usage_error("unknown argument '$arg'");
    }
}
usage_error('no arguments') unless @ARGV;
usage_error('--only-mail and --only-hosting exclude each other') if $flag{'only-mail'} && $flag{'only-hosting'};

umask 022;    # archives are fetched by the login user, not by root
chdir $AGENT_DIR or die "cannot change into $AGENT_DIR: $!\n";
my $settings = eval { read_settings($AGENT_DIR) };
if (!$settings) { print STDERR "sample-agent: $@"; exit 1; }

if (defined $mode && $mode eq '--get-status') {
    fail_with($settings->{fail_status}) if $settings->{fail_status} ne '';
    print $XML_DECL, "<agentstatus>\n",
        "  <statusfile>$STATUS_FILE</statusfile>\n",
        '  <agent', xml_attrs(name => $AGENT, version => agents_version($AGENT_DIR)), "/>\n",
        '  <perl', xml_attrs(version => sprintf('%vd', $^V)), "/>\n",
        "</agentstatus>\n";
    exit 0;
}
if (defined $mode && $mode eq '--get-content-list') {
    fail_with($settings->{fail_list}) if $settings->{fail_list} ne '';
    print_content_list();
    exit 0;
}
exit dump_host();

# ---- content list -----------------------------------------------------------

sub print_content_list {
    my %unpacked;
    if (open my $fh, '<', $MANIFEST) {
        while (<$fh>) { chomp; my ($size, $path) = split /\t/, $_, 2; $unpacked{$path} = $size if defined $path; }
        close $fh;
    }
    my @archives = grep {
        (my $base = $_) =~ s{.*/}{};
        $base !~ /^\./ && $base =~ /\.(tar\.gz|tgz|tar)\z/;
    } files_below($CONTENT_DIR);
    my ($total, $total_unpacked, $body) = (0, 0, '');
    for my $path (sort @archives) {
        my $size = -s $path;
        $total += $size;
        $total_unpacked += defined $unpacked{$path} ? $unpacked{$path} : $size;
        $body .= '  <file' . xml_attrs(size => $size, md5sum => md5_file($path)) . '>'
            . xml_escape($path) . "</file>\n";
    }
    my $attrs = xml_attrs(size => $total, unpacked => $total_unpacked);
    print $XML_DECL, $body eq '' ? "<contentlist$attrs/>\n" : "<contentlist$attrs>\n$body</contentlist>\n";
}

# ---- dump -------------------------------------------------------------------

sub write_status {
    my ($state, $step, $steps, $type, $name) = @_;
    my $now = time;
    my $xml = $XML_DECL
        . '<dumping-status' . xml_attrs(agent => $AGENT, pid => $$, state => $state,
                                        updated => int($now), 'updated-at' => iso_time($now)) . ">\n"
        . '  <progress' . xml_attrs(step => $step, steps => $steps, counter => ++$status_counter,
                                    elapsed => sprintf('%.1f', $now - $status_started)) . "/>\n";
    $xml .= '  <current' . xml_attrs(type => $type, name => $name) . "/>\n" if defined $name;
    $xml .= "</dumping-status>\n";
    write_atomic($STATUS_FILE, $xml);
}

# Sleeps for the given seconds, rewriting the status at least every second.
sub wait_with_status {
    my ($seconds, @status) = @_;
    for (my $left = $seconds; $left > 0; $left -= 0.5) {
        select(undef, undef, undef, $left < 0.5 ? $left : 0.5);
        write_status(@status);
    }
}

sub split_list {
    my @names = split /,/, defined $_[0] ? $_[0] : '';
    s/^\s+|\s+\z//g for @names;
    return grep { $_ ne '' } @names;
}

sub read_line {
    my $line = <STDIN>;
    return '' unless defined $line;
    $line =~ s/\r?\n\z//;
    return $line;
}

# The selected objects: resellers, clients and domains, each list sorted by
# name, plus the names that were asked for but do not exist.
sub select_objects {
    my ($host) = @_;
    my (%r, %c, %d, @missing);
    if ($flag{'dump-all'}) {
        %r = map { $_ => 1 } keys %{ $host->{resellers} };
        %c = map { $_ => 1 } keys %{ $host->{clients} };
        %d = map { $_ => 1 } keys %{ $host->{domains} };
    }
    for my $name (split_list($list{resellers})) {
        if (!$host->{resellers}{$name}) { push @missing, [reseller => $name]; next; }
        $r{$name} = 1;
        $c{$_} = 1 for grep { $host->{clients}{$_}{reseller} eq $name } keys %{ $host->{clients} };
    }
    for my $name (split_list($list{clients})) {
        if (!$host->{clients}{$name}) { push @missing, [client => $name]; next; }
        $c{$name} = 1;
    }
    for my $domain (keys %{ $host->{domains} }) {
        $d{$domain} = 1 if $c{ $host->{domains}{$domain}{client} };
    }
    for my $name (split_list($list{domains})) {
        if (!$host->{domains}{$name}) { push @missing, [domain => $name]; next; }
        $d{$name} = 1;
    }
    return ([sort keys %r], [sort keys %c], [sort keys %d], \@missing);
}

# Packs one domain; returns (relative archive path, unpacked bytes) or ().
sub pack_domain {
    my ($domain, $info) = @_;
    my @members = grep { -e "$info->{dir}/$_" }
        $flag{'only-mail'} ? ('mail') : $flag{'only-hosting'} ? ('profile', 'httpdocs', 'logs')
                                                               : ('profile', 'httpdocs', 'logs', 'mail');
    my $pad = $settings->{content_size};
    return () unless @members || $pad > 0;

    my $unpacked = 0;
    $unpacked += -s $_ for map { files_below("$info->{dir}/$_") } @members;

    my $dir = "$CONTENT_DIR/$info->{client}";
    mkpath($dir);
    my $archive = "$dir/$domain" . ($flag{'no-compress'} ? '.tar' : '.tar.gz');
    my $tmp = "$dir/.$domain.tmp";
    my @tar = ('tar', ($flag{'no-compress'} ? '-cf' : '-czf'), $tmp);
    push @tar, '-C', $info->{dir}, @members if @members;
    my $work = ".work.$$";
    if ($pad > 0) {
        mkpath($work);
        write_padding("$work/padding.bin", $pad);
        push @tar, '-C', "$AGENT_DIR/$work", 'padding.bin';
        $unpacked += $pad;
    }
    my $rc = system @tar;
    rmtree($work) if $pad > 0;
    die "tar failed for $domain (status $rc)\n" if $rc != 0;
    rename $tmp, $archive or die "cannot rename $tmp: $!\n";
    return ($archive, $unpacked);
}

sub write_padding {
    my ($path, $bytes) = @_;
    open my $out, '>:raw', $path or die "cannot write $path: $!\n";
    open my $rnd, '<:raw', '/dev/urandom' or die "cannot read /dev/urandom: $!\n";
    while ($bytes > 0) {
        my $n = $bytes < 1048576 ? $bytes : 1048576;
        my $buf;
        my $got = sysread $rnd, $buf, $n;
        die "cannot read /dev/urandom: $!\n" unless $got;
        print {$out} $buf or die "cannot write $path: $!\n";
        $bytes -= $got;
    }
    close $rnd;
    close $out or die "cannot write $path: $!\n";
}

sub dump_host {
    # Standard input first, in its fixed order, before anything can fail.
    my %rsync;
    if (defined $transport) {
        @rsync{qw(host login password port)} = map { read_line() } 1 .. 4;
    }
    my %source;
    for my $l (@LISTS) {
        next unless defined $list{$l};
        $source{$l} = $list{$l} eq '-' ? 'stdin' : 'argument';
        $list{$l} = read_line() if $list{$l} eq '-';
    }
    delete $rsync{password};

    my $ok = eval {
        unlink $DUMP_FILE;
        write_status('starting', 0, 0);
        if ($settings->{fail} ne '') {
            wait_with_status($settings->{delay}, 'dumping', 0, 0);
            write_status('failed', 0, 0);
            fail_with($settings->{fail});
        }
        my $host = load_host($settings->{data});
        my ($resellers, $clients, $domains, $missing) = select_objects($host);
        rmtree($CONTENT_DIR) if -e $CONTENT_DIR;
        unlink $MANIFEST;

        my $steps = @$domains;
        my $slice = $settings->{delay} / ($steps || 1);
        my (%archive, $manifest);
        wait_with_status($slice, 'dumping', 0, 0) unless $steps;
        for my $i (0 .. $#$domains) {
            my $domain = $domains->[$i];
            write_status('dumping', $i + 1, $steps, domain => $domain);
            wait_with_status($slice, 'dumping', $i + 1, $steps, domain => $domain);
            next if $flag{'no-content'};
            my ($path, $unpacked) = pack_domain($domain, $host->{domains}{$domain});
            next unless defined $path;
            $archive{$domain} = { path => $path, unpacked => $unpacked, size => -s $path, md5sum => md5_file($path) };
            $manifest .= "$unpacked\t$path\n";
        }
        write_atomic($MANIFEST, $manifest) if defined $manifest;
        write_atomic($DUMP_FILE, dump_document($host, $resellers, $clients, $domains, $missing,
                                               \%archive, \%source, \%rsync));
        write_status('done', $steps, $steps);
        1;
    };
    return 0 if $ok;
    print STDERR "sample-agent: $@";
    eval { write_status('failed', 0, 0) };
    return 1;
}

sub dump_document {
    my ($host, $resellers, $clients, $domains, $missing, $archive, $source, $rsync) = @_;
    my $xml = $XML_DECL . '<migration-dump'
        . xml_attrs(agent => $AGENT, 'agent-version' => agents_version($AGENT_DIR),
                    created => iso_time(), 'source-host' => (uname())[1]) . ">\n";
    $xml .= "  <arguments>\n";
    $xml .= '    <argument>' . xml_escape($_) . "</argument>\n" for @ARGV;
    $xml .= "  </arguments>\n";
    $xml .= '  <options' . xml_attrs(map { $_ => ($flag{$_} ? 'true' : 'false') } @FLAGS) . "/>\n";
    $xml .= "  <selection>\n";
    for my $l (@LISTS) {
        next unless defined $list{$l};
        $xml .= "    <$l" . xml_attrs(source => $source->{$l}) . '>' . xml_escape($list{$l}) . "</$l>\n";
    }
    $xml .= "  </selection>\n";
    $xml .= '  <content-transport' . xml_attrs(type => 'rsync', map { $_ => $rsync->{$_} } qw(host login port))
        . "/>\n" if defined $transport;

    $xml .= "  <objects>\n";
    for my $r (@$resellers) {
        $xml .= '    <reseller' . xml_attrs(name => $r, email => $host->{resellers}{$r}{email}) . "/>\n";
    }
    for my $c (@$clients) {
        my $p = $host->{clients}{$c};
        $xml .= '    <client' . xml_attrs(name => $c, reseller => $p->{reseller}, email => $p->{email}) . "/>\n";
    }
    for my $d (@$domains) {
        my $a = $archive->{$d};
        $xml .= '    <domain' . xml_attrs(name => $d, client => $host->{domains}{$d}{client}) . ($a ? ">\n" : "/>\n");
        next unless $a;
        $xml .= '      <archive' . xml_attrs(map { $_ => $a->{$_} } qw(path size md5sum unpacked)) . "/>\n";
        $xml .= "    </domain>\n";
    }
    $xml .= "  </objects>\n";
    $xml .= '  <not-found' . xml_attrs(type => $_->[0], name => $_->[1]) . "/>\n" for @$missing;
    $xml .= '  <server' . xml_attrs(hostname => (uname())[1], license => $flag{'no-license'} ? 'omitted' : 'included')
        . "/>\n" if $flag{server};
    $xml .= '  <admin-info' . xml_attrs(map { $_ => defined $host->{admin}{$_} ? $host->{admin}{$_} : '' } qw(name email)) . "/>\n"
        if $flag{'admin-info'};
    $xml .= "</migration-dump>\n";
    return $xml;
}
