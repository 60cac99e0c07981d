# Perl's SOAP::Lite daemon on 127.0.0.1:PORT (the first argument): examples.echo, examples.add and
# examples.fault in any namespace, with any SOAPAction. Results are named "return". SOAP::Lite
# refuses method names that are not Perl names, so the methods here are echo, add and fault.
use strict;
use warnings;
use SOAP::Transport::HTTP;
package Examples;
sub echo  { return SOAP::Data->name(return => $_[1]) }
sub add   { return SOAP::Data->name(return => $_[1] + $_[2]) }
sub fault { die SOAP::Fault->faultcode('Server')->faultstring($_[2])->faultdetail($_[1]) }
package main;
SOAP::Transport::HTTP::Daemon->new(LocalAddr => '127.0.0.1', LocalPort => $ARGV[0], ReuseAddr => 1)
    ->dispatch_to('Examples')
    ->on_action(sub { })
    ->handle;
