# Perl's Frontier::RPC daemon on 127.0.0.1:PORT (the first argument).
use strict;
use warnings;
use Frontier::Daemon;
Frontier::Daemon->new(
    LocalAddr => '127.0.0.1', LocalPort => $ARGV[0], ReuseAddr => 1,
    methods => {
        'examples.echo'  => sub { $_[0] },
        'examples.add'   => sub { $_[0] + $_[1] },
        'examples.fault' => sub { die "$_[0] $_[1]\n" },
    });
