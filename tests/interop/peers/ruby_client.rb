# Ruby's xmlrpc client: calls URL with every case of the interop table, one line per case on
# standard output ("NAME ok", "NAME fail DETAIL", "NAME skip REASON"). --ext turns on the
# library's nil and big-integer options.
require 'xmlrpc/client'
url = ARGV[0]
if ARGV.include?('--ext')
  XMLRPC::Config.send(:remove_const, :ENABLE_NIL_CREATE); XMLRPC::Config.const_set(:ENABLE_NIL_CREATE, true)
  XMLRPC::Config.send(:remove_const, :ENABLE_NIL_PARSER); XMLRPC::Config.const_set(:ENABLE_NIL_PARSER, true)
  XMLRPC::Config.send(:remove_const, :ENABLE_BIGINT); XMLRPC::Config.const_set(:ENABLE_BIGINT, true)
end
$stdout.sync = true
client = XMLRPC::Client.new2(url)
date = XMLRPC::DateTime.new(2024, 2, 29, 13, 45, 30)
cases = [
  ['add', 'examples.add', [2, 3], 5],
  ['int', 'examples.echo', [42], 42],
  ['negint', 'examples.echo', [-7], -7],
  ['int64', 'examples.echo', [3000000000], 3000000000],
  ['e', 'examples.echo', [2.718281828459045], 2.718281828459045],
  ['tenth', 'examples.echo', [0.1], 0.1],
  ['empty', 'examples.echo', [''], ''],
  ['markup', 'examples.echo', ["a<b & c> \"q\" \u00e9\u20ac\u65e5\u672c"], "a<b & c> \"q\" \u00e9\u20ac\u65e5\u672c"],
  ['bool', 'examples.echo', [true], true],
  ['date', 'examples.echo', [date], date],
  ['base64', 'examples.echo', [XMLRPC::Base64.new("\x00\x01binary\xff".b)], "\x00\x01binary\xff".b],
  ['emptyarray', 'examples.echo', [[]], []],
  ['emptymember', 'examples.echo', [{'a' => ''}], {'a' => ''}],
  ['nil', 'examples.echo', [nil], nil],
  ['fault', 'examples.fault', [4, 'Too <many>'], [4, 'Too <many>']],
]
cases.each do |name, method, params, expected|
  begin
    got = client.call(method, *params)
    got = got.to_a if got.is_a?(XMLRPC::DateTime) && expected.is_a?(XMLRPC::DateTime)
    want = expected.is_a?(XMLRPC::DateTime) ? expected.to_a : expected
    got = got.b if got.is_a?(String) && expected.is_a?(String) && expected.encoding == Encoding::BINARY
    if name == 'fault'
      puts "#{name} fail no fault: #{got.inspect}"
    elsif got == want && got.class == want.class
      puts "#{name} ok"
    else
      puts "#{name} fail got #{got.inspect}"
    end
  rescue XMLRPC::FaultException => f
    if name == 'fault' && f.faultCode == 4 && f.faultString == 'Too <many>'
      puts "#{name} ok"
    else
      puts "#{name} fail fault #{f.faultCode} #{f.faultString.inspect}".gsub("\n", ' ')
    end
  rescue StandardError, ScriptError => e
    puts "#{name} fail #{e.class}: #{e.message}".gsub("\n", ' ')[0, 300]
  end
end
