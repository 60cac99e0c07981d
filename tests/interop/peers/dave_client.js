// node's davexmlrpc package as a client: calls URL with every case of the interop table, one line
// per case. NODE_PATH names the folder the package was installed in.
const xmlrpc = require('davexmlrpc');
const assert = require('assert');
const url = process.argv[2];
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
  ['date', 'examples.echo', [new Date(Date.UTC(2024, 1, 29, 13, 45, 30))], new Date(Date.UTC(2024, 1, 29, 13, 45, 30))],
  ['base64', 'examples.echo', [Buffer.from('\x00\x01binary\xff', 'latin1')], Buffer.from('\x00\x01binary\xff', 'latin1')],
  ['emptyarray', 'examples.echo', [[]], []],
  ['emptymember', 'examples.echo', [{ a: '' }], { a: '' }],
  ['nil', 'examples.echo', [null], null],
  ['fault', 'examples.fault', [4, 'Too <many>'], null],
];
const log = console.log;
console.log = () => {};
console.error = () => {}; // the package logs its own diagnostics on standard output
let current = 0;
// The package throws from inside its parser's callback on a reply it cannot parse.
process.on('uncaughtException', (e) => {
  log(`${cases[current][0]} fail ${String(e.message).replace(/\s+/g, ' ')}`);
  run(current + 1);
});
function run(i) {
  current = i;
  if (i === cases.length) return;
  const [name, method, params, want] = cases[i];
  let done = false;
  try {
    xmlrpc.client(url, method, params, 'xml', (error, got) => {
      if (done) return;
      done = true;
      if (error) {
        const text = String(error.message).replace(/\s+/g, ' ');
        log(name === 'fault' && /Too <many>/.test(text) ? `${name} ok` : `${name} fail ${text}`);
      } else {
        let same = false;
        try { assert.deepStrictEqual(got, want); same = name !== 'fault'; } catch (e) { }
        log(same ? `${name} ok` : `${name} fail got ${JSON.stringify(got)}`);
      }
      run(i + 1);
    });
  } catch (e) {
    log(`${name} fail ${String(e.message).replace(/\s+/g, ' ')}`);
    run(i + 1);
  }
}
run(0);
