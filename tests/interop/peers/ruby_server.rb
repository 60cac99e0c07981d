# Ruby's xmlrpc server on 127.0.0.1:PORT (the first argument) with examples.echo, examples.add
# and examples.fault. --ext turns on the library's nil and big-integer options.
require 'xmlrpc/server'
if ARGV.include?('--ext')
  XMLRPC::Config.send(:remove_const, :ENABLE_NIL_CREATE); XMLRPC::Config.const_set(:ENABLE_NIL_CREATE, true)
  XMLRPC::Config.send(:remove_const, :ENABLE_NIL_PARSER); XMLRPC::Config.const_set(:ENABLE_NIL_PARSER, true)
  XMLRPC::Config.send(:remove_const, :ENABLE_BIGINT); XMLRPC::Config.const_set(:ENABLE_BIGINT, true)
end
server = XMLRPC::Server.new(ARGV[0].to_i, '127.0.0.1', 4, File.open(File::NULL, 'w'), false, false)
server.add_handler('examples.echo') { |x| x }
server.add_handler('examples.add') { |a, b| a + b }
server.add_handler('examples.fault') { |code, text| raise XMLRPC::FaultException.new(code, text) }
server.serve
