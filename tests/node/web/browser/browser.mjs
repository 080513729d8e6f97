// Chromium for the tests of the page, and what they do with it.
import assert from "node:assert/strict";
import fs from "node:fs";
import {createRequire} from "node:module";
import path from "node:path";

// The folder of the packages from npm comes from run.sh.
const require_package = createRequire(path.join(process.env.PAGE_PACKAGES, "packages.js"));
const {chromium} = require_package("playwright-core");
const AXE = fs.readFileSync(require_package.resolve("axe-core/axe.min.js"), "utf8");
const CHROMIUM = process.env.PAGE_CHROMIUM;

export const DESKTOP = {viewport: {width: 1440, height: 900}};
export const TELEPHONE = {viewport: {width: 360, height: 740}, deviceScaleFactor: 2, isMobile: true,
                          hasTouch: true};

// Chromium's own sandbox needs rights that containers and the superuser do not have. The pages are
// our own.
export function launch() {
  return chromium.launch({executablePath: CHROMIUM, args: ["--no-sandbox"]});
}

// The context of a browser with these options. Each has an empty page that stays open, because a
// first page takes a second of processor time, and each further one a fifth of that.
const contexts = new WeakMap();
async function context_for(browser, options) {
  if (!contexts.has(browser)) {
    contexts.set(browser, new Map());
  }
  const of_browser = contexts.get(browser);
  const key = JSON.stringify(options);
  if (!of_browser.has(key)) {
    const context = await browser.newContext(options);
    await context.newPage();
    of_browser.set(key, context);
  }
  return of_browser.get(key);
}

// Opens the page. What it logs as an error fails the test at its end; see close().
export async function open_page(browser, url, {scripts = [], ...options} = DESKTOP) {
  const page = await (await context_for(browser, options)).newPage();
  for (const script of scripts) {
    await page.addInitScript(...script);
  }
  page.faults = [];
  page.on("pageerror", (error) => page.faults.push(`${error}\n${error.stack}`));
  page.on("console", (message) => {
    if (message.type() === "error") {
      page.faults.push(message.text());
    }
  });
  page.on("dialog", (dialog) => {
    page.faults.push("a dialog: " + dialog.message());
    dialog.dismiss();
  });
  await page.goto(url);
  return page;
}

export async function close(page, {faults = []} = {}) {
  await page.context().clearCookies();
  await page.close();
  assert.deepEqual(page.faults.filter((fault) => !faults.some((known) => known.test(fault))), []);
}

// The texts of the cells of a column, from the top.
export function column(page, name) {
  return page.$$eval(`.rows .row .${name}`, (cells) => cells.map((cell) => cell.innerText.trim()));
}

export const references = (page) => page.$$eval(".rows .row .name",
                                                (names) => names.map((name) => name.textContent));

export const ended_references = (page) => page.$$eval(
  ".ended_table .name", (names) => names.map((name) => name.textContent));

export async function open_call(page, reference) {
  await page.locator(".rows .row", {hasText: reference}).locator(".name").click();
  await page.locator("#opened_title", {hasText: reference}).waitFor();
}

export async function check_accessibility(page, what) {
  await page.evaluate(AXE);
  // The whole result has hundreds of kilobytes.
  const found = await page.evaluate(async () => {
    const {passes, violations} = await window.axe.run({resultTypes: ["violations"]});
    return {checks: passes.length,
            faults: violations.map(({id, nodes}) => `${id}: ${nodes.map((node) => node.html)}`)};
  });
  assert.ok(found.checks > 0, what);
  assert.deepEqual(found.faults, [], what);
}

export async function check_width(page, what) {
  const [needed, there] = await page.evaluate(() =>
    [document.documentElement.scrollWidth, window.innerWidth]);
  assert.ok(needed <= there, `${what}: ${needed} of ${there} pixels`);
}

// How many objects of a class the page holds, also outside the document.
export async function number_of(page, name) {
  const inspector = await page.context().newCDPSession(page);
  const {result: prototype} = await inspector.send("Runtime.evaluate",
                                                   {expression: name + ".prototype"});
  const {objects} = await inspector.send("Runtime.queryObjects",
                                         {prototypeObjectId: prototype.objectId});
  const {result} = await inspector.send("Runtime.callFunctionOn", {
    objectId: objects.objectId, functionDeclaration: "function () { return this.length; }"});
  await inspector.detach();
  return result.value;
}
