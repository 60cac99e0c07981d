# Perl's Frontier::RPC client: calls URL with every case of the interop table, one line per case.
use strict;
use warnings;
use utf8;
use FindBin;
use lib $FindBin::Bin;
use PeerCases;
use Frontier::Client;
use MIME::Base64;
$| = 1;
binmode STDOUT, ':utf8';
my $client = Frontier::Client->new(url => $ARGV[0]);
for my $case (@PeerCases::CASES) {
    my ($name, $method, $params, $want) = @$case;
    my @args = map {
        !defined $_      ? undef
        : ref $_         ? $_
        : $_ eq 'BOOL'   ? $client->boolean(1)
        : $_ eq 'DATE'   ? $client->date_time('20240229T13:45:30')
        : $_ eq 'BASE64' ? $client->base64(encode_base64("\x00\x01binary\xff", ''))  # takes encoded text
        : $_
    } @$params;
    my $value = eval { $client->call($method, @args) };
    if (my $e = $@) {
        $e =~ s/\s+/ /g;
        print $name eq 'fault' && $e =~ /Too <many>/ ? "$name ok\n" : "$name fail $e\n";
        next;
    }
    # Frontier hands base64 over still encoded, and booleans and dates as objects.
    $value = ref $value eq 'Frontier::RPC2::Base64' ? decode_base64($value->value) : $value->value
        if ref $value && ref $value ne 'ARRAY' && ref $value ne 'HASH';
    if ($name ne 'fault' && PeerCases::same($want, $value)) { print "$name ok\n" }
    else { print "$name fail got ", PeerCases::show($value), "\n" }
}
