// node's xmlrpc package as a client: calls URL with every case of the interop table, one line per
// case. NODE_PATH names the folder the package was installed in.
const xmlrpc = require('xmlrpc');
const assert = require('assert');
const url = new URL(process.argv[2]);
const client = xmlrpc.createClient({ host: url.hostname, port: url.port, path: url.pathname });
const date = new Date(Date.UTC(2024, 1, 29, 13, 45, 30));
const cases = [
  ['add', 'examples.add', [2, 3], 5],
  ['int', 'examples.echo', [42], 42],
  ['negint', 'examples.echo', [-7], -7],
  ['int64', 'examples.echo', [3000000000], 3000000000],
  ['e', 'examples.echo', [2.718281828459045], 2.718281828459045],
  ['tenth', 'examples.echo', [0.1], 0.1],
  ['empty', 'examples.echo', [''], ''],
  ['markup', 'examples.echo', ['a<b & c> "q" é€日本'], 'a<b & c> "q" é€日本'],
  ['bool', 'examples.echo', [true], true],
  ['date', 'examples.echo', [date], date],
  ['base64', 'examples.echo', [Buffer.from('\x00\x01binary\xff', 'latin1')], Buffer.from('\x00\x01binary\xff', 'latin1')],
  ['emptyarray', 'examples.echo', [[]], []],
  ['emptymember', 'examples.echo', [{ a: '' }], { a: '' }],
  ['nil', 'examples.echo', [null], null],
  ['fault', 'examples.fault', [4, 'Too <many>'], null],
];
function run(i) {
  if (i === cases.length) return;
  const [name, method, params, want] = cases[i];
  client.methodCall(method, params, (error, got) => {
    if (error) {
      const ok = name === 'fault' && error.faultCode === 4 && error.faultString === 'Too <many>';
      console.log(ok ? `${name} ok` : `${name} fail ${error.faultCode !== undefined ? 'fault ' + error.faultCode + ' ' + JSON.stringify(error.faultString) : String(error.message).replace(/\s+/g, ' ')}`);
    } else {
      let same = false;
      try { assert.deepStrictEqual(got, want); same = name !== 'fault'; } catch (e) { }
      console.log(same ? `${name} ok` : `${name} fail got ${JSON.stringify(got)}`);
    }
    run(i + 1);
  });
}
run(0);
