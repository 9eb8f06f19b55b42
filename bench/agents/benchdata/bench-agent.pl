#!/usr/bin/perl
# Benchmark agent. It has nothing to dump: the benchmark places the archives
# and their list in the agent directory itself.
#   bench-agent.pl --get-status          an agent status document
#   bench-agent.pl --get-content-list    the file content-list.xml beside this
#                                        script, or an empty list
use strict;
use warnings;
use FindBin;

my $arg = $ARGV[0] // '';
if ($arg eq '--get-status' && @ARGV == 1) {
    print qq{<?xml version="1.0" encoding="UTF-8"?>\n},
        "<agentstatus>\n  <statusfile>dumping-status.xml</statusfile>\n</agentstatus>\n";
    exit 0;
}
if ($arg eq '--get-content-list' && @ARGV == 1) {
    my $list = "$FindBin::Bin/content-list.xml";
    if (open my $fh, '<', $list) {
        local $/;
        print <$fh>;
        close $fh;
    } else {
        print qq{<?xml version="1.0" encoding="UTF-8"?>\n<contentlist size="0" unpacked="0"/>\n};
    }
    exit 0;
}
print STDERR "usage: bench-agent.pl --get-status | --get-content-list\n";
exit 2;
