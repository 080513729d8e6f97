// Makes a parser of the packets from docs/quorvane.ksy.
//
// Runs as `node compile.js FOLDER LANGUAGE OUTPUT [VERSION]`: FOLDER holds the
// packages of package.json (run.sh puts them there), OUTPUT is where the parser
// goes. VERSION is the compiler's: 0.11, or 0.10 for older runtime libraries.
'use strict';

const fs = require('node:fs');
const path = require('node:path');
const { createRequire } = require('node:module');

const DESCRIPTION = path.resolve(__dirname, '..', '..', 'docs', 'quorvane.ksy');

const PACKAGES = { '0.11': 'kaitai-struct-compiler', '0.10': 'kaitai-struct-compiler-0.10' };

// The package of version 0.10 is a class, that of 0.11 an object.
function loadCompiler(load, version) {
  if (!(version in PACKAGES)) {
    throw new Error(`unknown version '${version}': one of ${Object.keys(PACKAGES).join(' ')}`);
  }
  const compiler = load(PACKAGES[version]);
  return typeof compiler === 'function' ? new compiler() : compiler;
}

async function main(folder, language, output, version = '0.11') {
  const load = createRequire(path.resolve(folder, 'package.json'));
  const compiler = loadCompiler(load, version);
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

if (process.argv.length !== 5 && process.argv.length !== 6) {
  console.error('usage: node compile.js FOLDER LANGUAGE OUTPUT [VERSION]');
  process.exitCode = 2;
} else {
  main(...process.argv.slice(2)).catch((error) => {
    console.error(error.message);
    process.exitCode = 1;
  });
}
