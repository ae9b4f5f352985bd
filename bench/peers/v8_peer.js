// Peer of the encoding benchmark: V8's JSON.stringify on the dataset's objects.
// Arguments: dataset path, output path. Writes its output once, prints "ready", then times
// one JSON.stringify per input line and prints the nanoseconds it took.
'use strict';
const fs = require('fs');
const readline = require('readline');

const [dataset, output] = process.argv.slice(2);
const document = JSON.parse(fs.readFileSync(dataset, 'utf8'));
fs.writeFileSync(output, JSON.stringify(document));
process.stdout.write('ready\n');

readline.createInterface({input: process.stdin}).on('line', () => {
  const start = process.hrtime.bigint();
  let text = JSON.stringify(document);
  const elapsed = process.hrtime.bigint() - start;
  text = null;
  process.stdout.write(`${elapsed}\n`);
});
