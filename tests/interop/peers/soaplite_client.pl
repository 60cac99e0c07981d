# Perl's SOAP::Lite client (rpc/encoded): calls URL with every case of the interop table, one line
# per case. The method namespace is urn:examples.
use strict;
use warnings;
use utf8;
use FindBin;
use lib $FindBin::Bin;
use PeerCases;
use SOAP::Lite;
$| = 1;
binmode STDOUT, ':utf8';
my $soap = SOAP::Lite->proxy($ARGV[0], timeout => 10)->default_ns('urn:examples')->on_fault(sub { $_[1] });
for my $case (@PeerCases::CASES) {
    my ($name, $method, $params, $want) = @$case;
    my $i = 0;
    my @args = map {
        my $n = 'p' . $i++;
        !defined $_      ? SOAP::Data->name($n)->value(undef)
        : ref $_ eq 'HASH' ? SOAP::Data->name($n => \SOAP::Data->value(SOAP::Data->name(a => '')->type('string')))
        : ref $_         ? SOAP::Data->name($n => $_)
        : $_ eq 'BOOL'   ? SOAP::Data->name($n => 'true')->type('boolean')
        : $_ eq 'DATE'   ? SOAP::Data->name($n => '2024-02-29T13:45:30Z')->type('dateTime')
        : $_ eq 'BASE64' ? SOAP::Data->name($n => "\x00\x01binary\xff")->type('base64Binary')
        : $name eq 'empty' || $name eq 'markup' ? SOAP::Data->name($n => $_)->type('string')
        : SOAP::Data->name($n => $_)
    } @$params;
    my $som = eval { $soap->call($method => @args) };
    if (!ref $som) { my $e = $@ || $som || 'no reply'; $e =~ s/\s+/ /g; print "$name fail $e\n"; next; }
    if ($som->fault) {
        my ($code, $text) = ($som->faultcode // '', $som->faultstring // '');
        print $name eq 'fault' && $text eq 'Too <many>' ? "$name ok\n" : "$name fail fault $code $text\n" =~ s/\n(?!$)/ /gr;
        next;
    }
    my $value = $som->result;
    $want = '2024-02-29T13:45:30Z' if $name eq 'date';
    if ($name ne 'fault' && PeerCases::same($want, $value)) { print "$name ok\n" }
    else { print "$name fail got ", PeerCases::show($value), "\n" }
}
