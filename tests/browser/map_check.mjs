// Builds a 16 MB image of 200 modules with fwforge, writes its HTML map with
// fwforge-inspect, and checks the page in headless Chromium by where its elements are:
// the whole image fits the window on first load, every module is drawn at least a few
// pixels tall, one click brings the smallest module low in the image to a readable size,
// wheel and drag zoom, hovering shows the details, and a split module lights up whole.
//
//   node map_check.mjs --bin BUILD_DIR --out DIR     (screenshots go to DIR)

import { chromium } from "playwright-core";
import { execFileSync } from "node:child_process";
import fs from "node:fs";
import os from "node:os";
import path from "node:path";

const args = Object.fromEntries(
  process.argv.slice(2).reduce((pairs, a, i, all) =>
    a.startsWith("--") ? [...pairs, [a.slice(2), all[i + 1]]] : pairs, []));
const bin = path.resolve(args.bin ?? "build");
const out = path.resolve(args.out ?? path.join(bin, "browser"));
const MIN_PX = 3;         // the page's smallest box
const READABLE_PX = 100;  // a module zoomed to by one click is at least this tall

// Deterministic bytes: xorshift32 noise (does not compress) and text (does).
function noise(size, seed) {
  const b = Buffer.alloc(size);
  let x = seed >>> 0 || 1;
  for (let i = 0; i < size; i++) {
    x ^= x << 13; x >>>= 0; x ^= x >>> 17; x ^= x << 5; x >>>= 0;
    b[i] = x >>> 24;
  }
  return b;
}
function text(size, seed) {
  const words = "boot setup menu device memory option power clock video storage".split(" ");
  let s = "";
  for (let i = seed; s.length < size; i = (i * 1103515245 + 12345) >>> 0) {
    s += words[(i >>> 16) % words.length] + ((i >>> 8) % 13 ? " " : ".\r\n");
  }
  return Buffer.from(s.slice(0, size), "latin1");
}

// A 16 MB image in gap placement: two ROM holes and a non-critical block cut the main
// BIOS into four gaps of about 4 MB, and a 5 MB module that must be split across them.
function makeImage(dir) {
  const lines = [
    "[init]", "file = boot.bin", "",
    "[bios]", "file = map.rom", "size = 01000000", "bbsize = 00010000",
    "nvramsize = 00010000", "tag = map", "",
    "[romimage]", "version = 1", "",
    "[module]", "moduleid = 0e", "file = volume.bin", "destn = 0000:0000",
    "compressed = no", "contiguous = no", ""];
  fs.writeFileSync(path.join(dir, "boot.bin"), noise(0x10000, 7));
  fs.writeFileSync(path.join(dir, "volume.bin"), noise(5 << 20, 11));
  // 196 modules of 16 bytes to 64 KB in the main BIOS, two in the non-critical block;
  // with the split one and the image information module that makes 200.
  for (let i = 0; i < 198; i++) {
    const size = i % 25 === 3 ? 16 : 64 + ((i * 7919) % 1000) ** 2 % (64 << 10);
    const compressed = i % 4 === 0;
    const file = `m${i}.bin`;
    fs.writeFileSync(path.join(dir, file), compressed ? text(size, i + 1) : noise(size, i + 1));
    const id = (1 + (i % 13)).toString(16).padStart(2, "0");
    lines.push("[module]", `moduleid = ${id}`, `file = ${file}`, "destn = 1000:0000");
    if (!compressed) lines.push("compressed = no");
    if (i >= 196) lines.push("romregion = setupdata");
    lines.push("");
  }
  lines.push(
    "[romhole]", "startaddress = 00400000", "size = 8000", "",
    "[romhole]", "startaddress = 00800000", "size = 10000", "filler = 00", "",
    "[noncriticalrom]", "name = setupdata", "startaddress = 00c00000", "size = 40000", "");
  fs.writeFileSync(path.join(dir, "map.scr"), lines.join("\r\n"));
  return build(dir, "map");
}

// Builds NAME.scr in `dir` and writes the map of the image, NAME.html.
function build(dir, name) {
  fs.mkdirSync(path.join(dir, "out"), { recursive: true });
  execFileSync(path.join(bin, "fwforge"), ["out", name + ".scr"], { cwd: dir, stdio: "pipe" });
  return mapOf(path.join(dir, name + ".rom"));
}

// fwforge-inspect exits 1 for an image it finds problems in; the map is written all the same.
function mapOf(image) {
  const html = image.replace(/\.[a-z]+$/, "") + ".html";
  try {
    execFileSync(path.join(bin, "fwforge-inspect"), ["map", image, "--html", html], { stdio: "pipe" });
  } catch (e) {
    if (!fs.existsSync(html)) throw e;
  }
  return html;
}

// The bundled examples, as the tools-only build leaves their inputs, an image of 0xFF
// bytes only and an empty file.
function otherImages(dir) {
  const pages = {};
  for (const name of ["firmware", "firmware2"]) {
    const from = path.join(bin, "examples", name), to = path.join(dir, name);
    if (!fs.existsSync(path.join(from, name + ".scr"))) continue;
    fs.mkdirSync(to);
    for (const f of fs.readdirSync(from).filter(f => /\.(bin|rom|scr)$/.test(f))) {
      fs.copyFileSync(path.join(from, f), path.join(to, f));
    }
    pages[name] = build(to, name);
  }
  fs.writeFileSync(path.join(dir, "ff.bin"), Buffer.alloc(1 << 20, 0xff));
  pages["0xFF only"] = mapOf(path.join(dir, "ff.bin"));
  fs.writeFileSync(path.join(dir, "empty.bin"), Buffer.alloc(0));
  pages["empty file"] = mapOf(path.join(dir, "empty.bin"));
  return pages;
}

let passed = 0, failed = 0;
function check(name, ok, detail = "") {
  if (ok) passed++; else failed++;
  console.log(`${ok ? "ok  " : "FAIL"} ${name}${ok || !detail ? "" : ": " + detail}`);
}

const work = fs.mkdtempSync(path.join(os.tmpdir(), "fwforge-map-"));
const profile = fs.mkdtempSync(path.join(os.tmpdir(), "fwforge-chromium-"));
let browser;
try {
  const started = Date.now();
  const page_file = makeImage(work);
  console.log(`image built and mapped in ${((Date.now() - started) / 1000).toFixed(1)} s`);
  fs.mkdirSync(out, { recursive: true });

  const context = await chromium.launchPersistentContext(profile, {
    executablePath: process.env.CHROMIUM ?? "/usr/bin/chromium",
    headless: true,
    viewport: { width: 1280, height: 800 },
    args: ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
           "--disable-background-networking", "--disable-component-update", "--disable-sync"],
  });
  browser = context;
  const page = context.pages()[0] ?? await context.newPage();
  let problems = [];
  page.on("pageerror", e => problems.push(String(e)));
  page.on("console", m => { if (m.type() === "error") problems.push(m.text()); });
  page.on("request", r => { if (!r.url().startsWith("file:")) problems.push("request " + r.url()); });

  // Every page: shown whole, inside the window, every module at least MIN_PX tall, no
  // errors and no requests.
  for (const [name, file] of Object.entries(otherImages(work))) {
    problems = [];
    await page.goto("file://" + file);
    const r = await page.evaluate(min => {
      const pic = document.getElementById("picture").getBoundingClientRect();
      const mods = [...document.querySelectorAll(".box[data-module]")];
      return { whole: +document.getElementById("picture").dataset.hi === MAP.size,
               fits: pic.bottom <= innerHeight && pic.top >= 0, modules: MAP.modules.length,
               drawn: new Set(mods.map(el => el.dataset.module)).size,
               thin: mods.filter(el => el.getBoundingClientRect().height < min - 0.01).length };
    }, MIN_PX);
    check(`${name}: whole, ${r.modules} modules drawn, none thinner than ${MIN_PX} px, no errors`,
          (r.whole || name === "empty file") && r.fits && r.drawn === r.modules && r.thin === 0 &&
          problems.length === 0, JSON.stringify(r) + " " + problems.join("; "));
  }
  problems = [];
  await page.goto("file://" + page_file);

  // Where every box is, with its module and classes.
  const boxes = () => page.$$eval(".box", els => els.filter(el => !el.hidden).map(el => {
    const r = el.getBoundingClientRect();
    return { item: +el.dataset.item, module: el.dataset.module === undefined ? -1 : +el.dataset.module,
             top: r.top, bottom: r.bottom, height: r.height, cls: el.className, text: el.textContent };
  }));
  const view = () => page.$eval("#picture", el => ({ lo: +el.dataset.lo, hi: +el.dataset.hi }));
  const data = await page.evaluate(() => ({ size: MAP.size, items: MAP.items, modules: MAP.modules }));
  const pic = await page.$eval("#picture", el => {
    const r = el.getBoundingClientRect();
    return { top: r.top, bottom: r.bottom, left: r.left, width: r.width };
  });
  const vh = 800;

  // First screen: the whole image, inside the window.
  let shown = await boxes();
  const v0 = await view();
  check("the first screen shows the whole image", v0.lo === 0 && v0.hi === data.size,
        JSON.stringify(v0));
  check("the picture fits the window's height", pic.top >= 0 && pic.bottom <= vh,
        JSON.stringify(pic));
  const topmost = Math.min(...shown.map(b => b.top)), lowest = Math.max(...shown.map(b => b.bottom));
  check("the boxes span the picture from top to bottom",
        topmost >= pic.top - 0.5 && topmost < pic.top + 2 && lowest <= pic.bottom + 0.5 &&
        lowest > pic.bottom - 3, `boxes ${topmost}-${lowest}, picture ${pic.top}-${pic.bottom}`);
  const drawn = new Set(shown.filter(b => b.module >= 0).map(b => b.module));
  check("every one of the 200 modules is drawn", data.modules.length === 200 && drawn.size === 200,
        `${data.modules.length} modules, ${drawn.size} drawn`);
  const thin = shown.filter(b => b.module >= 0 && b.height < MIN_PX - 0.01);
  check(`every module box is at least ${MIN_PX} px tall`, thin.length === 0,
        thin.slice(0, 3).map(b => `${data.items[b.item].n}: ${b.height}`).join(", "));
  const legend = await page.$eval("#legend", el => el.textContent);
  check("the legend names the kinds", /compressed module/.test(legend) && /ROM hole/.test(legend) &&
        /free/.test(legend), legend);
  await page.screenshot({ path: path.join(out, "map-whole.png") });

  // The smallest module among the lower half of the modules by address.
  const mains = data.items.map((it, i) => ({ ...it, i }))
    .filter(it => it.m >= 0 && data.modules[it.m].at === it.b).sort((a, b) => a.b - b.b);
  const candidates = mains.slice(0, mains.length / 2)
    .sort((a, b) => (a.e - a.b) - (b.e - b.b) || a.b - b.b);
  const target = candidates[0];
  const mod = data.modules[target.m];
  const boxOf = async i => (await boxes()).find(b => b.item === i);
  let box = await boxOf(target.i);
  await page.mouse.move(pic.left + pic.width / 2, (box.top + box.bottom) / 2);
  const hovered = await page.$eval("#details", el => el.textContent);
  check("hovering shows the module's number and id",
        hovered.includes(mod.label) && hovered.includes("number" + mod.num) &&
        hovered.includes("id" + mod.id) && hovered.includes("ratio"), hovered.slice(0, 200));
  await page.mouse.click(pic.left + pic.width / 2, (box.top + box.bottom) / 2);
  box = await boxOf(target.i);
  check(`one click brings ${mod.label} (${target.e - target.b} bytes) to a readable size`,
        box && box.height >= READABLE_PX && box.top >= pic.top && box.bottom <= pic.bottom &&
        box.text.includes(mod.label), JSON.stringify(box));
  const clicked = await page.$eval("#details", el => el.textContent);
  check("the clicked module stays in the details", clicked.includes(mod.label));
  await page.mouse.move(pic.left - 100, vh - 5);
  await page.screenshot({ path: path.join(out, "map-zoomed.png") });

  // Wheel: zooms in about the pointer; the box under it grows.
  await page.keyboard.press("Escape");
  shown = await boxes();
  const wide = shown.filter(b => b.module >= 0).sort((a, b) => b.height - a.height)[0];
  const y = (wide.top + wide.bottom) / 2;
  await page.mouse.move(pic.left + pic.width / 2, y);
  for (let i = 0; i < 3; i++) await page.mouse.wheel(0, -300);
  await page.waitForFunction(() => +document.getElementById("picture").dataset.hi < MAP.size ||
                             +document.getElementById("picture").dataset.lo > 0);
  const v1 = await view();
  const grown = await boxOf(wide.item);
  check("the wheel zooms in about the pointer",
        v1.hi - v1.lo < data.size / 2 && grown && grown.height > 2 * wide.height &&
        grown.top < y && grown.bottom > y, JSON.stringify({ v1, wide, grown }));

  // Drag: zooms to the dragged range.
  await page.keyboard.press("Escape");
  const y0 = pic.top + 100, y1 = pic.top + 200;
  await page.mouse.move(pic.left + 50, y0);
  await page.mouse.down();
  await page.mouse.move(pic.left + 50, (y0 + y1) / 2, { steps: 4 });
  await page.mouse.move(pic.left + 50, y1, { steps: 4 });
  await page.mouse.up();
  const v2 = await view();
  check("a drag zooms to the dragged range", v2.hi - v2.lo < data.size / 3 && v2.lo > 0,
        JSON.stringify(v2));

  // A split module: hovering one piece lights up every piece and its table row.
  await page.keyboard.press("Escape");
  const split = data.modules.findIndex(m => m.pieces.length > 1);
  shown = (await boxes()).filter(b => b.module === split);
  if (split < 0 || shown.length < 2) {
    check("the image has a split module", false, `module ${split}, ${shown.length} boxes`);
  } else {
    const piece = shown[0];
    await page.mouse.move(pic.left + pic.width - 10, (piece.top + piece.bottom) / 2);
    const lit = (await boxes()).filter(b => b.module === split);
    const row = await page.$eval(`tr[data-module="${split}"]`, el => el.className);
    check(`hovering a piece of ${data.modules[split].label} lights all ${lit.length} pieces`,
          lit.every(b => / hl\b/.test(b.cls)) && row.includes("hl"),
          lit.map(b => b.cls).join(" | "));
  }

  // A click on a table row zooms to its module.
  await page.keyboard.press("Escape");
  const last = data.modules.length - 1;
  await page.click(`tr[data-module="${last}"]`);
  const rowBox = (await boxes()).find(b => b.module === last && data.items[b.item].b === data.modules[last].at);
  check("a click on a table row zooms to its module",
        rowBox && rowBox.height >= READABLE_PX && rowBox.top >= pic.top && rowBox.bottom <= pic.bottom,
        JSON.stringify(rowBox));

  check("the page loads nothing and reports no errors", problems.length === 0, problems.join("; "));
  console.log(`screenshots: ${path.join(out, "map-whole.png")}, ${path.join(out, "map-zoomed.png")}`);
} catch (e) {
  check("the browser check ran to its end", false, e.stack ?? String(e));
} finally {
  if (browser) await browser.close();
  fs.rmSync(work, { recursive: true, force: true });
  fs.rmSync(profile, { recursive: true, force: true });
}
console.log(`${passed} passed, ${failed} failed`);
process.exit(failed ? 1 : 0);
