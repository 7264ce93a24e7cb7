"use strict";
(() => {
  const MIN_PX = 3;      // no module or region is drawn smaller
  const LABEL_PX = 13;   // boxes this tall carry their name
  const MIN_SPAN = 16;   // the narrowest range a zoom shows, in bytes
  const KINDS = [
    ["boot", "boot block"], ["ebb", "Extended Boot Block"], ["nvram", "NVRAM area"],
    ["header", "main BIOS header"], ["ncb", "non-critical block"], ["hole", "ROM hole"],
    ["region", "other region"], ["compressed", "compressed module"],
    ["uncompressed", "uncompressed module"], ["addon", "add-on ROM"],
    ["linked", "linked add-on ROM"], ["info", "image information"],
    ["free", "free (0xFF)"], ["other", "padding"]];

  const $ = id => document.getElementById(id);
  const pic = $("picture"), axis = $("axis"), band = $("band"), details = $("details");
  const hex = v => (v >>> 0).toString(16);
  const address = offset => hex(MAP.base + offset);
  const needsMin = it => it.k !== "free" && it.k !== "other";

  const boxes = MAP.items.map((it, i) => {
    const el = document.createElement("div");
    el.className = "box k-" + it.k + (it.d ? " nested" : "");
    el.dataset.item = i;
    if (it.m >= 0) el.dataset.module = it.m;
    pic.appendChild(el);
    return el;
  });
  const moduleBoxes = MAP.modules.map(() => []);
  boxes.forEach((el, i) => { if (MAP.items[i].m >= 0) moduleBoxes[MAP.items[i].m].push(el); });
  const mainItem = MAP.modules.map((mod, k) =>
    MAP.items.findIndex(it => it.m === k && it.b === mod.at));

  let view = {lo: 0, hi: MAP.size};
  let geo = null;

  // Cuts the range at every item boundary and gives each piece its height: the pieces
  // that start a module or region get at least `min` pixels, the rest share what is left
  // in proportion to their bytes.
  function layout(lo, hi, height) {
    const set = new Set([lo, hi]);
    for (const it of MAP.items) {
      if (it.b > lo && it.b < hi) set.add(it.b);
      if (it.e > lo && it.e < hi) set.add(it.e);
    }
    const cuts = [...set].sort((a, b) => a - b);
    const n = cuts.length - 1;
    const at = new Map(cuts.map((c, i) => [c, i]));
    const want = new Uint8Array(n);
    let count = 0;
    for (const it of MAP.items) {
      if (!needsMin(it) || it.e <= lo || it.b >= hi) continue;
      const i = at.get(Math.max(it.b, lo));
      if (!want[i]) { want[i] = 1; count++; }
    }
    const min = Math.min(MIN_PX, height * 0.9 / Math.max(count, 1));
    const bytes = i => cuts[i + 1] - cuts[i];
    // Fixing a piece below the scale lowers the scale of the rest, so once the smallest
    // unfixed piece is tall enough, all larger ones are too.
    const fixed = new Uint8Array(n);
    let restPx = height, restBytes = hi - lo;
    const small = [...want.keys()].filter(i => want[i]).sort((a, b) => bytes(a) - bytes(b));
    for (const i of small) {
      if (restBytes <= 0 || bytes(i) * restPx / restBytes >= min) break;
      fixed[i] = 1; restPx -= min; restBytes -= bytes(i);
    }
    const scale = restBytes > 0 ? restPx / restBytes : 0;
    const px = new Float64Array(n), y = new Float64Array(n + 1);
    for (let i = n - 1; i >= 0; i--) {
      px[i] = fixed[i] ? min : bytes(i) * scale;
      y[i] = y[i + 1] + px[i];
    }
    return {cuts, px, y, lo, hi, linear: height / (hi - lo)};
  }

  function interval(g, a) {
    let l = 0, h = g.cuts.length - 2;
    while (l < h) {
      const mid = (l + h + 1) >> 1;
      if (g.cuts[mid] <= a) l = mid; else h = mid - 1;
    }
    return l;
  }
  function yOf(a) {
    const i = interval(geo, a);
    const span = geo.cuts[i + 1] - geo.cuts[i];
    return geo.y[i + 1] + (geo.cuts[i + 1] - a) / span * geo.px[i];
  }
  function addressAt(yPx) {
    for (let i = geo.px.length - 1; i >= 0; i--) {
      if (yPx <= geo.y[i] || i === 0) {
        const f = geo.px[i] > 0 ? Math.min(Math.max((yPx - geo.y[i + 1]) / geo.px[i], 0), 1) : 0;
        return geo.cuts[i + 1] - f * (geo.cuts[i + 1] - geo.cuts[i]);
      }
    }
    return geo.lo;
  }

  function draw() {
    if (MAP.size === 0) { $("range").textContent = "the image is empty"; return; }
    const height = pic.clientHeight;
    geo = layout(view.lo, view.hi, height);
    MAP.items.forEach((it, i) => {
      const el = boxes[i];
      el.hidden = it.e <= view.lo || it.b >= view.hi || it.e <= it.b;
      if (el.hidden) return;
      const from = Math.max(it.b, view.lo), to = Math.min(it.e, view.hi);
      const top = yOf(to), h = yOf(from) - top;
      el.style.top = top + "px";
      el.style.height = h + "px";
      el.textContent = h >= LABEL_PX ? it.n : "";
      el.classList.toggle("enlarged", needsMin(it) && h > 1.5 * (to - from) * geo.linear + 1);
    });
    drawAxis(height);
    const span = view.hi - view.lo;
    $("range").textContent = address(view.lo) + "-" + address(view.hi - 1) + ", " + hex(span) +
      " bytes (" + (100 * span / MAP.size).toPrecision(3) + "% of the image)";
    const mark = $("viewmark");
    mark.style.top = (MAP.size - view.hi) / MAP.size * height + "px";
    mark.style.height = span / MAP.size * height + "px";
    pic.dataset.lo = view.lo;
    pic.dataset.hi = view.hi;
  }

  function drawAxis(height) {
    axis.textContent = "";
    const marks = new Set([view.lo, view.hi]);
    for (const it of MAP.items) {
      if (it.d === 0 && it.b > view.lo && it.b < view.hi) marks.add(it.b);
    }
    let last = -Infinity;
    for (const a of [...marks].sort((p, q) => q - p)) {
      const yPx = Math.min(yOf(a), height - 5);
      if (yPx - last < 13 && a !== view.lo) continue;
      const label = document.createElement("span");
      label.textContent = address(a === view.hi ? a - 1 : a);
      label.style.top = Math.max(yPx, 5) + "px";
      axis.appendChild(label);
      last = yPx;
    }
  }

  function zoomTo(lo, hi) {
    if (MAP.size === 0) return;
    let span = Math.max(Math.ceil(hi - lo), Math.min(MIN_SPAN, MAP.size));
    if (span >= MAP.size) { view = {lo: 0, hi: MAP.size}; draw(); return; }
    lo = Math.min(Math.max(Math.floor(lo), 0), MAP.size - span);
    view = {lo, hi: lo + span};
    draw();
  }
  function zoomToItem(i) {
    const it = MAP.items[i];
    const pad = Math.max((it.e - it.b) * 0.15, 8);
    zoomTo(it.b - pad, it.e + pad);
  }

  // Details: what is hovered, else what was last clicked.
  let selected = -1, hovered = -1;
  function row(dl, name, value) {
    const dt = document.createElement("dt"), dd = document.createElement("dd");
    dt.textContent = name; dd.textContent = value;
    dl.append(dt, dd);
  }
  // Hexadecimal as everywhere in the tools, with the decimal count for people.
  const bytes = n => hex(n) + " (" + n.toLocaleString("en") + " bytes)";
  function range(b, e) {
    return address(b) + "-" + address(e - 1) + " (image " + hex(b) + "-" + hex(e - 1) + ")";
  }
  function showDetails() {
    const i = hovered >= 0 ? hovered : selected;
    details.textContent = "";
    if (i < 0) { details.textContent = "Point at an item for its details; click to zoom to it."; return; }
    const it = MAP.items[i];
    const h3 = document.createElement("h3"), dl = document.createElement("dl");
    h3.textContent = it.n;
    details.append(h3, dl);
    if (it.m >= 0) {
      const mod = MAP.modules[it.m];
      row(dl, "number", String(mod.num));
      row(dl, "id", mod.id);
      row(dl, "area", mod.area);
      row(dl, "attributes", mod.attr);
      row(dl, "destination", mod.dest);
      row(dl, "header", mod.header);
      row(dl, "data", mod.data);
      row(dl, "stored", bytes(mod.stored));
      row(dl, "original", mod.original === null ? "-" : bytes(mod.original));
      row(dl, "ratio", mod.ratio);
      mod.pieces.forEach(p => row(dl, "", p));
    } else if (it.x) {
      row(dl, "details", it.x);
    }
    row(dl, "this box", range(it.b, it.e));
    row(dl, "size", bytes(it.e - it.b));
  }

  const rows = [];
  function mark(cls, i, on) {
    const m = i >= 0 ? MAP.items[i].m : -1;
    if (m >= 0) {
      moduleBoxes[m].forEach(el => el.classList.toggle(cls, on));
      rows[m].classList.toggle(cls, on);
    } else if (i >= 0) {
      boxes[i].classList.toggle(cls, on);
    }
  }
  function hover(i) {
    if (i === hovered) return;
    mark("hl", hovered, false);
    hovered = i;
    mark("hl", hovered, true);
    showDetails();
  }
  function select(i) {
    mark("sel", selected, false);
    selected = i;
    mark("sel", selected, true);
    zoomToItem(i);
    showDetails();
  }

  // The picture: wheel zooms about the pointer, a drag zooms to the dragged range, a
  // click zooms to the item under the pointer.
  const itemAt = target => target.dataset && target.dataset.item !== undefined ?
    Number(target.dataset.item) : -1;
  const localY = e => e.clientY - pic.getBoundingClientRect().top - pic.clientTop;
  pic.addEventListener("wheel", e => {
    e.preventDefault();
    if (!geo) return;
    const a = addressAt(localY(e));
    const f = Math.exp(Math.max(Math.min(e.deltaY, 300), -300) * 0.002);
    zoomTo(a - (a - view.lo) * f, a + (view.hi - a) * f);
  }, {passive: false});
  let drag = null;
  pic.addEventListener("pointerdown", e => {
    if (e.button !== 0) return;
    drag = {y: localY(e), item: itemAt(e.target)};
    pic.setPointerCapture(e.pointerId);
  });
  pic.addEventListener("pointermove", e => {
    if (!drag) { hover(itemAt(e.target)); return; }
    const yPx = localY(e);
    band.style.display = Math.abs(yPx - drag.y) > 4 ? "block" : "none";
    band.style.top = Math.min(yPx, drag.y) + "px";
    band.style.height = Math.abs(yPx - drag.y) + "px";
  });
  pic.addEventListener("pointerup", e => {
    if (!drag) return;
    const yPx = localY(e), start = drag;
    drag = null;
    band.style.display = "none";
    if (Math.abs(yPx - start.y) > 4 && geo) {
      zoomTo(addressAt(Math.max(yPx, start.y)), addressAt(Math.min(yPx, start.y)));
    } else if (start.item >= 0) {
      select(start.item);
    }
  });
  pic.addEventListener("pointerleave", () => { if (!drag) hover(-1); });
  $("overview").addEventListener("click", () => zoomTo(0, MAP.size));
  $("whole").addEventListener("click", () => zoomTo(0, MAP.size));
  $("out").addEventListener("click", () => {
    const span = view.hi - view.lo, mid = view.lo + span / 2;
    zoomTo(mid - span, mid + span);
  });
  document.addEventListener("keydown", e => {
    if (e.key === "Escape" || e.key === "0") zoomTo(0, MAP.size);
  });
  window.addEventListener("resize", draw);

  // Legend: the kinds this image has, with their counts.
  const counts = {};
  MAP.items.forEach(it => { counts[it.k] = (counts[it.k] || 0) + 1; });
  for (const [k, label] of KINDS) {
    if (!counts[k]) continue;
    const li = document.createElement("li"), sw = document.createElement("span");
    sw.className = "swatch k-" + k;
    li.append(sw, label + " (" + counts[k] + ")");
    $("legend").appendChild(li);
  }
  const li = document.createElement("li"), sw = document.createElement("span");
  sw.className = "swatch";
  sw.style.boxShadow = "inset -6px 0 0 rgba(0,0,0,.5)";
  li.append(sw, "drawn taller than its size, to stay visible");
  $("legend").appendChild(li);

  // The module table: a click on a row zooms to the module.
  const table = $("modules");
  MAP.modules.forEach((mod, k) => {
    const tr = document.createElement("tr");
    tr.dataset.module = k;
    for (const v of [mod.area, mod.num, mod.id, mod.attr, mod.dest, mod.header, hex(mod.stored),
                     mod.original === null ? "-" : hex(mod.original), mod.ratio]) {
      const td = document.createElement("td");
      td.textContent = v;
      tr.appendChild(td);
    }
    tr.addEventListener("click", () => { if (mainItem[k] >= 0) select(mainItem[k]); });
    tr.addEventListener("pointerenter", () => hover(mainItem[k]));
    tr.addEventListener("pointerleave", () => hover(-1));
    table.appendChild(tr);
    rows.push(tr);
  });

  draw();
  showDetails();
})();
