# Perl's RPC::XML client: calls URL with every case of the interop table, one line per case.
use strict;
use warnings;
use utf8;
use FindBin;
use lib $FindBin::Bin;
use PeerCases;
use RPC::XML;
use RPC::XML::Client;
$| = 1;
binmode STDOUT, ':utf8';
my $client = RPC::XML::Client->new($ARGV[0]);
for my $case (@PeerCases::CASES) {
    my ($name, $method, $params, $want) = @$case;
    my @args = map {
        !defined $_        ? RPC::XML::nil->new()
        : ref $_           ? $_
        : $_ eq 'BOOL'     ? RPC::XML::boolean->new(1)
        : $_ eq 'DATE'     ? RPC::XML::datetime_iso8601->new('20240229T13:45:30')
        : $_ eq 'BASE64'   ? RPC::XML::base64->new("\x00\x01binary\xff")
        : $name eq 'empty' ? RPC::XML::string->new('')
        : $_
    } @$params;
    my $got = $client->send_request($method, @args);
    if (!ref $got) { print "$name fail $got\n" =~ s/\n(?!$)/ /gr; next; }
    if ($got->is_fault) {
        my ($code, $text) = ($got->code, $got->string);
        print $name eq 'fault' && $code == 4 && $text eq 'Too <many>' ? "$name ok\n" : "$name fail fault $code $text\n";
        next;
    }
    my $value = $got->value;
    $value =~ s/Z$// if $name eq 'date' && defined $value;
    if ($name ne 'fault' && PeerCases::same($want, $value)) { print "$name ok\n" }
    else { print "$name fail got ", PeerCases::show($value), "\n" }
}
