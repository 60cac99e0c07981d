# Perl's RPC::XML server on 127.0.0.1:PORT (the first argument).
use strict;
use warnings;
use RPC::XML;
use RPC::XML::Server;
my $server = RPC::XML::Server->new(host => '127.0.0.1', port => $ARGV[0], no_default => 1);
$server->add_function({name => 'examples.echo', code => sub { $_[0] }});
$server->add_function({name => 'examples.add', code => sub { $_[0] + $_[1] }});
$server->add_function({name => 'examples.fault', code => sub { RPC::XML::fault->new($_[0], $_[1]) }});
$server->server_loop;
