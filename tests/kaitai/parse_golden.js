// Compiles docs/quorvane.ksy and parses every golden datagram with the result:
// each field must stand at its offset and have the value that golden.json
// gives, and each malformed datagram must be refused.
//
// Runs as `node parse_golden.js FOLDER`, where FOLDER/node_modules holds the packages of
// package.json; works with Node 18 and later.
'use strict';

const assert = require('node:assert');
const fs = require('node:fs');
const path = require('node:path');
const { createRequire } = require('node:module');

const FOLDER = path.resolve(process.argv[2] ?? __dirname);
const load = createRequire(path.join(FOLDER, 'package.json'));
const { KaitaiStream } = load('kaitai-struct');
const compiler = load('kaitai-struct-compiler');
const YAML = load('yaml');

const ROOT = path.resolve(__dirname, '..', '..');
const DATA = path.join(ROOT, 'tests', 'data');
const DESCRIPTION = path.join(ROOT, 'docs', 'quorvane.ksy');
// The fields of the body as golden.json names them, with the offsets of
// docs/protocol.md; those of the common header are the same in every packet.
const OFFSETS = {
  magic: [0, 4], packet_type: [4, 5], protocol_version: [5, 6], leg_word: [6, 8],
  call_key: [8, 16], call_uuid: [16, 32], send_time: [32, 40],
};
const BODY_OFFSETS = {
  start: {
    created_time: [40, 48], configured_time: [48, 56], configured_clock: [56, 64],
    rule_id: [64, 72], report_node_address: [72, 76], report_node_port: [76, 78],
    features: [78, 80], call_reference_length: [80, 82],
  },
  data: { sequence_number: [40, 44], sample_offset: [44, 48], sample_count: [48, 50] },
  control: { features: [40, 42] },
  terminate: {},
};

function readGolden(name) {
  const text = fs.readFileSync(path.join(DATA, `${name}.hex`), 'utf8');
  return Buffer.from(text.replace(/#.*/g, '').replace(/\s/g, ''), 'hex');
}

function camel(name) {
  return name.replace(/_([a-z])/g, (_, letter) => letter.toUpperCase());
}

function description() {
  return YAML.parse(fs.readFileSync(DESCRIPTION, 'utf8'));
}

// A receiver may be written in any language that the compiler knows.
async function checkEveryLanguage() {
  for (const language of compiler.languages) {
    const files = await compiler.compile(language, description(), undefined, false);
    assert.notStrictEqual(Object.keys(files).length, 0, language);
  }
}

// Compiles with debug information, which records where each field was read.
async function compileParser(folder) {
  const files = await compiler.compile('javascript', description(), undefined, true);
  const file = path.join(folder, 'Quorvane.js');
  fs.writeFileSync(file, files['Quorvane.js']);
  return load(file).Quorvane;
}

function parse(Quorvane, bytes) {
  const packet = new Quorvane(new KaitaiStream(bytes));
  packet._read();
  return packet;
}

// A 64-bit field, read exactly from where the parser says that it stands:
// JavaScript's own numbers end at 53 bits.
function exact(bytes, owner, name) {
  return bytes.readBigUInt64LE(owner._debug[camel(name)].start);
}

function plainFeatures(features) {
  return { supported: features.supported, active: features.active };
}

function uuidText(raw) {
  const hex = Buffer.from(raw).toString('hex');
  return hex.replace(/^(.{8})(.{4})(.{4})(.{4})/, '$1-$2-$3-$4-');
}

function dotted(address) {
  return [24, 16, 8, 0].map((shift) => (address >>> shift) & 255).join('.');
}

const FORMS = {
  packet_type: (value, packet, bytes, Quorvane) => Quorvane.PacketType[value].toLowerCase(),
  call_key: (value, owner, bytes) =>
    `0x${exact(bytes, owner, 'call_key').toString(16).padStart(16, '0')}`,
  call_uuid: uuidText,
  rule_id: (value, owner, bytes) => exact(bytes, owner, 'rule_id').toString(),
  report_node_address: dotted,
  features: plainFeatures,
  call_reference: (raw) => Buffer.from(raw).toString('utf8'),
};

function checkFields(Quorvane, bytes, expected) {
  const packet = parse(Quorvane, bytes);
  const bodyOffsets = BODY_OFFSETS[expected.packet_type];
  for (const [name, value] of Object.entries(expected)) {
    const owner = name in OFFSETS ? packet : packet.body;
    const raw = owner[camel(name)];
    const form = FORMS[name] ?? ((plain) => plain);
    assert.deepStrictEqual(form(raw, owner, bytes, Quorvane), value, name);
    const offsets = OFFSETS[name] ?? bodyOffsets[name];
    if (offsets) {
      const { start, end } = owner._debug[camel(name)];
      assert.deepStrictEqual([start, end], offsets, `place of ${name}`);
    }
  }
  checkFlags(packet, expected);
}

function checkFlags({ body }, { packet_type: type, leg_word: word }) {
  if (type === 'start') {
    assert.deepStrictEqual([body.isOutbound, body.hasReportNode, body.hasRuleId],
      [(word & 1) !== 0, (word & 0x4000) !== 0, (word & 0x8000) !== 0]);
  } else if (type === 'data') {
    assert.deepStrictEqual([body.isTerminator, body.isWriteLeg],
      [(word & 1) !== 0, (word & 0x8000) !== 0]);
  }
}

// The expected values are read from the table of bits in docs/protocol.md.
function checkFeatureWords(Quorvane) {
  const running = ({ body: { features } }) => [
    features.audioActivityOriginator, features.audioActivityTerminator,
    features.sampleDetectionOriginator, features.sampleDetectionTerminator,
    features.recordingOriginator, features.recordingTerminator];
  assert.deepStrictEqual(running(parse(Quorvane, readGolden('start_outbound_full'))),
    [true, true, false, false, true, true]);
  assert.deepStrictEqual(running(parse(Quorvane, readGolden('control_detection'))),
    [true, true, true, false, true, true]);
  assert.deepStrictEqual(running(parse(Quorvane, readGolden('call_6_control'))),
    [false, false, false, false, true, true]);
}

// The sender chooses the bytes of a call reference. They need not be text.
function checkReferenceThatIsNoText(Quorvane) {
  const bytes = readGolden('call_1_start');
  bytes.set([0xff, 0xc3], 82);
  const { callReference } = parse(Quorvane, bytes).body;
  assert.deepStrictEqual(Buffer.from(callReference), bytes.subarray(82, bytes.length - 1));
}

// Distinguishes a datagram that the parser refuses from an error in the parser.
function isRefusal(error) {
  return /^(EOF|Validation\w+)Error$/.test(error.name);
}

function checkDatagram(Quorvane, name, expected) {
  const bytes = readGolden(name);
  if ('malformed' in expected) {
    assert.throws(() => parse(Quorvane, bytes), isRefusal, 'parsed, although malformed');
  } else {
    checkFields(Quorvane, bytes, expected);
  }
}

async function main() {
  const Quorvane = await compileParser(FOLDER);
  const golden = JSON.parse(fs.readFileSync(path.join(DATA, 'golden.json'), 'utf8'));
  const checks = Object.entries(golden).map(([name, expected]) =>
    [name, () => checkDatagram(Quorvane, name, expected)]);
  checks.push(['features in words', () => checkFeatureWords(Quorvane)]);
  checks.push(['call reference that is no UTF-8', () => checkReferenceThatIsNoText(Quorvane)]);
  checks.push(['every language', checkEveryLanguage]);
  let failed = 0;
  for (const [name, check] of checks) {
    try {
      await check();
    } catch (error) {
      failed += 1;
      console.error(`${name}: ${error.message}`);
    }
  }
  console.log(`${checks.length - failed} passed, ${failed} failed`);
  process.exitCode = failed === 0 && checks.length > 30 ? 0 : 1;
}

main();
