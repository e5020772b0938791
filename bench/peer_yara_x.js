// YARA-X over the files that vond_bench has exported: a pass for each line of input. One thread; its asynchronous calls
// are slower.
'use strict';
const fs = require('fs');
const path = require('path');
const readline = require('readline');

const [modules, folder] = process.argv.slice(2);
const { compile } = require(path.resolve(modules, '@litko/yara-x'));
const rules = compile(fs.readFileSync(path.join(folder, 'rules.yar'), 'utf8'));
const names = fs.readdirSync(path.join(folder, 'files')).sort();
const files = names.map((name) => path.join(folder, 'files', name));
readline.createInterface({ input: process.stdin }).on('line', () => {
  const start = process.hrtime.bigint();
  let matches = 0;
  for (const file of files) {
    matches += rules.scanFile(file).length;
  }
  console.log(Number(process.hrtime.bigint() - start) / 1e9, matches);
});
