// node's xmlrpc package as a server on 127.0.0.1:PORT (the first argument).
const xmlrpc = require('xmlrpc');
const server = xmlrpc.createServer({ host: '127.0.0.1', port: Number(process.argv[2]) });
server.on('examples.echo', (err, params, callback) => callback(null, params[0]));
server.on('examples.add', (err, params, callback) => callback(null, params[0] + params[1]));
server.on('examples.fault', (err, params, callback) => callback({ faultCode: params[0], faultString: params[1] }));
server.on('NotFound', (method, params) => {});
