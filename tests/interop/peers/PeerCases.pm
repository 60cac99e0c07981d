# The interop table for the Perl peers: name, method, parameters and the expected result of
# every case, and the comparison their clients use.
package PeerCases;
use strict;
use warnings;
use utf8;

our @CASES = (
    ['add',         'examples.add',   [2, 3],                   5],
    ['int',         'examples.echo',  [42],                     42],
    ['negint',      'examples.echo',  [-7],                     -7],
    ['int64',       'examples.echo',  [3000000000],             3000000000],
    ['e',           'examples.echo',  [2.718281828459045],      2.718281828459045],
    ['tenth',       'examples.echo',  [0.1],                    0.1],
    ['empty',       'examples.echo',  [''],                     ''],
    ['markup',      'examples.echo',  ["a<b & c> \"q\" é€日本"], "a<b & c> \"q\" é€日本"],
    ['bool',        'examples.echo',  ['BOOL'],                 1],
    ['date',        'examples.echo',  ['DATE'],                 '20240229T13:45:30'],
    ['base64',      'examples.echo',  ['BASE64'],               "\x00\x01binary\xff"],
    ['emptyarray',  'examples.echo',  [[]],                     []],
    ['emptymember', 'examples.echo',  [{a => ''}],              {a => ''}],
    ['nil',         'examples.echo',  [undef],                  undef],
    ['fault',       'examples.fault', [4, 'Too <many>'],        undef],
);

# Deep equality on plain Perl data (numbers compared as numbers when both look like ones).
sub same {
    my ($a, $b) = @_;
    return !defined $b if !defined $a;
    return 0 if !defined $b;
    if (ref $a eq 'ARRAY') {
        return 0 unless ref $b eq 'ARRAY' && @$a == @$b;
        same($a->[$_], $b->[$_]) || return 0 for 0 .. $#$a;
        return 1;
    }
    if (ref $a eq 'HASH') {
        return 0 unless ref $b eq 'HASH' && keys %$a == keys %$b;
        exists $b->{$_} && same($a->{$_}, $b->{$_}) || return 0 for keys %$a;
        return 1;
    }
    return 0 if ref $b;
    my $num = qr/^-?\d+(\.\d+)?([eE][-+]?\d+)?$/;
    return $a == $b if $a =~ $num && $b =~ $num && $a ne '' && $b ne '';
    return $a eq $b;
}

sub show {
    my ($v) = @_;
    return 'undef' unless defined $v;
    return '[' . join(',', map { show($_) } @$v) . ']' if ref $v eq 'ARRAY';
    return '{' . join(',', map { "$_=" . show($v->{$_}) } sort keys %$v) . '}' if ref $v eq 'HASH';
    return ref($v) . '(' . (eval { $v->value } // '?') . ')' if ref $v;
    my $s = "'$v'";
    $s =~ s/([^\x20-\x7e])/sprintf('\\x{%x}', ord $1)/ge;
    return $s;
}

1;
