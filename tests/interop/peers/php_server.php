<?php
// PHP's xmlrpc extension as a server, run by PHP's built-in web server (php -S 127.0.0.1:PORT
// php_server.php): every POST is a call to examples.echo, examples.add or examples.fault.
$server = xmlrpc_server_create();
xmlrpc_server_register_method($server, 'examples.echo', function ($method, $params) { return $params[0]; });
xmlrpc_server_register_method($server, 'examples.add', function ($method, $params) { return $params[0] + $params[1]; });
xmlrpc_server_register_method($server, 'examples.fault', function ($method, $params) {
  return ['faultCode' => $params[0], 'faultString' => $params[1]];
});
header('Content-Type: text/xml');
echo xmlrpc_server_call_method($server, file_get_contents('php://input'), null,
                               getenv('HV_PHP_UTF8') ? ['encoding' => 'UTF-8', 'escaping' => 'markup'] : []);
