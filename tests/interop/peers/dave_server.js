// node's davexmlrpc package as a server on 127.0.0.1:PORT (the first argument), path /RPC2.
const xmlrpc = require('davexmlrpc');
console.log = () => {};
xmlrpc.startServerOverHttp({ port: Number(process.argv[2]), xmlRpcPath: '/rpc2', flLogToConsole: false }, (request) => {
  const p = request.params;
  switch (request.verb) {
    case 'examples.echo': request.returnVal(undefined, p[0]); return true;
    case 'examples.add': request.returnVal(undefined, p[0] + p[1]); return true;
    case 'examples.fault': request.returnVal({ message: p[1], code: p[0] }); return true;
  }
  return false;
});
