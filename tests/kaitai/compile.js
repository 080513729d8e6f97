// Makes a parser of the packets from docs/quorvane.ksy.
//
// Runs as `node compile.js FOLDER LANGUAGE OUTPUT`: FOLDER holds the packages of
// package.json (run.sh puts them there), OUTPUT is where the parser goes.
'use strict';

const fs = require('node:fs');
const path = require('node:path');
const { createRequire } = require('node:module');

const DESCRIPTION = path.resolve(__dirname, '..', '..', 'docs', 'quorvane.ksy');

async function main(folder, language, output) {
  const load = createRequire(path.resolve(folder, 'package.json'));
  const compiler = load('kaitai-struct-compiler');
  if (!compiler.languages.includes(language)) {
    throw new Error(`unknown language '${language}': one of ${compiler.languages.join(' ')}`);
  }
  const description = load('yaml').parse(fs.readFileSync(DESCRIPTION, 'utf8'));
  const files = await compiler.compile(language, description, undefined, false);
  for (const [name, text] of Object.entries(files)) {
    const file = path.join(output, name);
    fs.mkdirSync(path.dirname(file), { recursive: true });
    fs.writeFileSync(file, text);
    console.log(file);
  }
}

if (process.argv.length !== 5) {
  console.error('usage: node compile.js FOLDER LANGUAGE OUTPUT');
  process.exitCode = 2;
} else {
  main(...process.argv.slice(2)).catch((error) => {
    console.error(error.message);
    process.exitCode = 1;
  });
}
