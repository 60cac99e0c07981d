<?php
// PHP's xmlrpc extension as a client: calls URL with every case of the interop table, one line per
// case. The extension writes Latin-1 unless told otherwise; --utf8 passes escaping and encoding
// options so that text travels as UTF-8.
$url = $argv[1];
$utf8 = in_array('--utf8', $argv);
$options = $utf8 ? ['encoding' => 'UTF-8', 'escaping' => 'markup'] : [];
$date = '20240229T13:45:30';
$dt = $date; xmlrpc_set_type($dt, 'datetime');
$bin = "\x00\x01binary\xff"; xmlrpc_set_type($bin, 'base64');
$cases = [
  ['add', 'examples.add', [2, 3], 5],
  ['int', 'examples.echo', [42], 42],
  ['negint', 'examples.echo', [-7], -7],
  ['int64', 'examples.echo', [3000000000], 3000000000],
  ['e', 'examples.echo', [2.718281828459045], 2.718281828459045],
  ['tenth', 'examples.echo', [0.1], 0.1],
  ['empty', 'examples.echo', [''], ''],
  ['markup', 'examples.echo', ["a<b & c> \"q\" é€日本"], "a<b & c> \"q\" é€日本"],
  ['bool', 'examples.echo', [true], true],
  ['date', 'examples.echo', [$dt], $date],
  ['base64', 'examples.echo', [$bin], "\x00\x01binary\xff"],
  ['emptyarray', 'examples.echo', [[]], []],
  ['emptymember', 'examples.echo', [['a' => '']], ['a' => '']],
  ['nil', 'examples.echo', [null], null],
  ['fault', 'examples.fault', [4, 'Too <many>'], null],
];
foreach ($cases as [$name, $method, $params, $want]) {
  $request = xmlrpc_encode_request($method, $params, $options);
  $context = stream_context_create(['http' => ['method' => 'POST', 'header' => "Content-Type: text/xml\r\n",
                                               'content' => $request, 'ignore_errors' => true, 'timeout' => 10]]);
  $body = @file_get_contents($url, false, $context);
  if ($body === false) { echo "$name fail no reply\n"; continue; }
  $got = xmlrpc_decode($body, $utf8 ? 'UTF-8' : 'iso-8859-1');
  if (is_array($got) && xmlrpc_is_fault($got)) {
    $ok = $name === 'fault' && $got['faultCode'] === 4 && $got['faultString'] === 'Too <many>';
    echo $ok ? "$name ok\n" : "$name fail fault {$got['faultCode']} " . json_encode($got['faultString']) . "\n";
    continue;
  }
  if (is_object($got) && isset($got->xmlrpc_type)) $got = $got->scalar;
  if ($name === 'date' && is_string($got)) $got = preg_replace('/Z$/', '', $got);
  $same = $name === 'e' || $name === 'tenth' ? $got === $want : $got === $want;
  echo ($name !== 'fault' && $same) ? "$name ok\n" : "$name fail got " . json_encode($got, JSON_INVALID_UTF8_SUBSTITUTE) . "\n";
}
