// The report's behaviour: each card's data is loaded as a script the first time it is
// needed (a page opened from disk may load scripts, not read files), the activity chart is
// drawn when its card comes into view and read second by second with the mouse or the
// arrow keys, and a point of a map lists when motion began there.
//
// A card shows one time line made of parts: the videos whose data it draws, each placed on
// the line at its offset in seconds (one part at 0 for a single video, every input for a
// combined map), and optionally a window of that line (a slice) from data-from to data-to.
"use strict";

var Tremora = (function () {
  var pending = {};
  var loaded = {};
  var SVG = "http://www.w3.org/2000/svg";

  function data(name, object) {
    loaded[name] = object;
    if (pending[name]) {
      pending[name].forEach(function (w) { w.resolve(object); });
      delete pending[name];
    }
  }

  function load(name) {
    if (loaded[name]) return Promise.resolve(loaded[name]);
    return new Promise(function (resolve, reject) {
      var first = !pending[name];
      (pending[name] = pending[name] || []).push({ resolve: resolve, reject: reject });
      if (!first) return;
      var script = document.createElement("script");
      script.src = "data/" + name + ".js";
      script.onerror = function () {
        (pending[name] || []).forEach(function (w) { w.reject(new Error("missing " + name)); });
        delete pending[name];
      };
      document.head.appendChild(script);
    });
  }

  function clock(seconds) {
    var s = Math.max(0, Math.floor(seconds));
    var h = Math.floor(s / 3600), m = Math.floor(s / 60) % 60, r = s % 60;
    var two = function (n) { return (n < 10 ? "0" : "") + n; };
    return h > 0 ? h + ":" + two(m) + ":" + two(r) : m + ":" + two(r);
  }

  // The wall-clock time of a moment of the video, where the container records its start.
  function wallClock(card, seconds) {
    var start = Date.parse(card.dataset.creation || "");
    if (isNaN(start)) return "";
    return new Date(start + seconds * 1000).toLocaleTimeString();
  }

  var BIT_DIGITS = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

  // Inverse of the tool's encoding: "~" and six seconds a character for a busy cell, else
  // runs of seconds, "gap[+more]" each, comma-separated.
  function decodeSeconds(text) {
    var out = [];
    if (!text) return out;
    if (text.charAt(0) === "~") {
      for (var i = 1; i < text.length; i++) {
        var digit = BIT_DIGITS.indexOf(text.charAt(i));
        for (var bit = 0; bit < 6; bit++) if (digit & (1 << bit)) out.push((i - 1) * 6 + bit);
      }
      return out;
    }
    var end = 0;
    text.split(",").forEach(function (run) {
      var parts = run.split("+");
      var start = end + parseInt(parts[0], 10);
      var more = parts.length > 1 ? parseInt(parts[1], 10) : 0;
      for (var s = start; s <= start + more; s++) out.push(s);
      end = start + more;
    });
    return out;
  }

  function partsOf(card) {
    if (!card._parts) card._parts = JSON.parse(card.dataset.parts || "[]");
    return card._parts;
  }

  // The seconds of the line the card shows: its window, or all of it.
  function windowOf(card) {
    var from = parseFloat(card.dataset.from), to = parseFloat(card.dataset.to);
    return { from: isNaN(from) ? 0 : from, to: isNaN(to) ? Infinity : to };
  }

  function lineSecond(part, second) { return Math.floor(second + part.offset); }

  // Every part's seconds on the card's line and in its window, from each part's data file
  // `kind` (".activity") as `rowsOf` picks them; overlapping parts add up. A run in steady
  // light gives each second its scene changes as a fourth value.
  function sumOnLine(card, kind, rowsOf) {
    var parts = partsOf(card), w = windowOf(card);
    return Promise.all(parts.map(function (p) { return load(p.key + kind); })).then(function (all) {
      var bySecond = {};
      all.forEach(function (data, i) {
        rowsOf(data).forEach(function (r) {
          var s = lineSecond(parts[i], r[0]);
          if (s < w.from || s >= w.to) return;
          var sum = bySecond[s] || (bySecond[s] = [s, 0, 0]);
          sum[1] += r[1];
          sum[2] += r[2];
          if (r.length > 3) sum[3] = (sum[3] || 0) + r[3];
        });
      });
      return Object.keys(bySecond).map(Number).sort(function (a, b) { return a - b; })
        .map(function (s) { return bySecond[s]; });
    });
  }

  function lineActivity(card) {
    return sumOnLine(card, ".activity", function (activity) { return activity.seconds; });
  }

  function el(name, attrs, parent, svg) {
    var node = svg ? document.createElementNS(SVG, name) : document.createElement(name);
    Object.keys(attrs || {}).forEach(function (k) { node.setAttribute(k, attrs[k]); });
    if (parent) parent.appendChild(node);
    return node;
  }

  // ---- activity chart ----
  // `lineRows` as lineActivity gives them; the chart runs from the window's start.
  function drawChart(card, lineRows) {
    var box = card.querySelector(".chart");
    var w = windowOf(card);
    var origin = w.from;
    var rows = lineRows.map(function (r) { return [r[0] - origin, r[1], r[2], r[3] || 0]; });
    var steadyLight = lineRows.some(function (r) { return r.length > 3; });
    var end = isFinite(w.to) ? w.to - origin : (rows.length ? rows[rows.length - 1][0] + 1 : 1);
    var last = Math.max(1, end);
    var maxMoving = 1, maxEvents = 1;
    rows.forEach(function (r) { maxMoving = Math.max(maxMoving, r[1]); maxEvents = Math.max(maxEvents, r[2]); });
    var W = 1000, H = 100;
    var key = el("div", { "class": "legend-key" }, box);
    key.innerHTML = '<span class="k-moving">moving pixels</span><span class="k-events">new events</span>' +
      '<span class="k-marks">chosen point</span>' + (steadyLight ? '<span class="k-scene">scene change</span>' : "");
    var wallStart = wallClock(card, origin);
    el("span", { "class": "span" }, key).textContent = clock(origin) + " – " + clock(origin + last) +
      (wallStart ? " (" + wallStart + " – " + wallClock(card, origin + last) + ")" : "");
    var svg = el("svg", { viewBox: "0 0 " + W + " " + H, preserveAspectRatio: "none", focusable: "false" }, box, true);
    var x = function (s) { return (s + 0.5) / last * W; };
    var area = "M0," + H;
    var line = "";
    rows.forEach(function (r, i) {
      area += " L" + x(r[0]).toFixed(1) + "," + (H - r[1] / maxMoving * (H - 4)).toFixed(1);
      line += (i ? " L" : "M") + x(r[0]).toFixed(1) + "," + (H - r[2] / maxEvents * (H - 4)).toFixed(1);
    });
    area += " L" + W + "," + H + " Z";
    el("path", { d: area, "class": "moving" }, svg, true);
    if (line) el("path", { d: line, "class": "events" }, svg, true);
    el("line", { x1: 0, x2: W, y1: H - 0.5, y2: H - 0.5, "class": "axis" }, svg, true);
    // A thin mark where the light or the view changed so much that the second counted no
    // motion; its title is the mouse's tip, and the slider's text says it too.
    rows.forEach(function (r) {
      if (!r[3]) return;
      var mark = el("line", { x1: x(r[0]), x2: x(r[0]), y1: 0, y2: H, "class": "scene-change",
                              "data-second": r[0] }, svg, true);
      el("title", {}, mark, true).textContent = "scene change";
    });
    var marks = el("g", { "class": "marks" }, svg, true);
    var hover = el("line", { y1: 0, y2: H, "class": "hover", visibility: "hidden" }, svg, true);
    var bySecond = {};
    rows.forEach(function (r) { bySecond[r[0]] = r; });

    // The keyboard's way to what the mouse shows: the chart is a slider over the seconds. A
    // slider, not a live region, because the user picks one value out of a range and moves
    // it with the keys a slider answers to; its aria-valuetext is what a screen reader speaks
    // as the value changes, so the visible tip stays aria-hidden rather than be read twice.
    // The box is a labelled group, not an image: an image's children are presentational,
    // and the slider would not be exposed at all.
    var slider = el("div", { "class": "plot", tabindex: "0", role: "slider", "aria-label": "Time",
                             "aria-valuemin": "0", "aria-valuemax": String(last - 1),
                             "aria-orientation": "horizontal" }, null);
    box.insertBefore(slider, svg);
    slider.appendChild(svg);
    svg.setAttribute("aria-hidden", "true");
    // Placed on the plot, not the box, so that a legend wrapped over two lines on a narrow
    // screen stays clear of it.
    var tip = el("div", { "class": "tip", hidden: "", "aria-hidden": "true" }, slider);
    var chosen = 0;
    // A tenth of the video per PageUp/PageDown, so that an hour takes ten presses, not 360.
    var page = Math.max(10, Math.round(last / 10));

    function describe(s) {
      var r = bySecond[s] || [s, 0, 0, 0];
      var wall = wallClock(card, origin + s);
      var parts = [clock(origin + s) + (wall ? " (" + wall + ")" : ""), r[1] + " moving pixels", r[2] + " new events"];
      if (r[3]) parts.push("scene change");
      return parts;
    }

    function show(s) {
      hover.setAttribute("x1", x(s)); hover.setAttribute("x2", x(s));
      hover.setAttribute("visibility", "visible");
      // Each part unbroken, so that on a narrow screen the tip wraps between them.
      tip.textContent = "";
      describe(s).forEach(function (part, i) {
        if (i) tip.appendChild(document.createTextNode(" · "));
        el("span", {}, tip).textContent = part;
      });
      tip.hidden = false;
      // Measured at the left edge, where it has the whole width, then moved beside the line
      // as far as it still fits.
      var width = svg.getBoundingClientRect().width;
      tip.style.left = "0px";
      var at = x(s) / W * width + 8;
      tip.style.left = Math.max(0, Math.min(at, width - tip.offsetWidth)) + "px";
    }

    function hide() {
      hover.setAttribute("visibility", "hidden");
      tip.hidden = true;
    }

    function settle(s) {
      chosen = Math.max(0, Math.min(last - 1, s));
      slider.setAttribute("aria-valuenow", String(chosen));
      slider.setAttribute("aria-valuetext", describe(chosen).join(", "));
    }
    settle(0);

    function secondAt(clientX) {
      var rect = svg.getBoundingClientRect();
      return Math.min(last - 1, Math.max(0, Math.floor((clientX - rect.left) / rect.width * last)));
    }

    svg.addEventListener("mousemove", function (e) { show(secondAt(e.clientX)); });
    // The mouse gives way to the keyboard's second while the chart has the focus.
    svg.addEventListener("mouseleave", function () {
      if (document.activeElement === slider) show(chosen); else hide();
    });
    // A click or a tap picks its second, as on any slider; on a phone it is the way to a value.
    svg.addEventListener("click", function (e) { settle(secondAt(e.clientX)); show(chosen); });
    slider.addEventListener("focus", function () { show(chosen); });
    slider.addEventListener("blur", hide);
    slider.addEventListener("keydown", function (e) {
      var to = {
        ArrowLeft: chosen - 1, ArrowDown: chosen - 1, ArrowRight: chosen + 1, ArrowUp: chosen + 1,
        PageDown: chosen - page, PageUp: chosen + page, Home: 0, End: last - 1
      }[e.key];
      if (to === undefined || e.altKey || e.ctrlKey || e.metaKey) return;
      e.preventDefault();
      settle(to);
      show(chosen);
    });
    card._chart = { marks: marks, x: function (s) { return x(s - origin); }, H: H };
    if (card._pendingMarks) showMarks(card, card._pendingMarks);
  }

  function showMarks(card, seconds) {
    if (!card._chart) { card._pendingMarks = seconds; return; }
    var c = card._chart;
    while (c.marks.firstChild) c.marks.removeChild(c.marks.firstChild);
    seconds.forEach(function (s) {
      el("line", { x1: c.x(s), x2: c.x(s), y1: 0, y2: c.H, "class": "mark" }, c.marks, true);
    });
  }

  // ---- when did motion begin here ----
  function cellAt(cells, px, py) {
    var cx = Math.min(cells.columns - 1, Math.floor(px / cells.cell));
    var cy = Math.min(cells.rows - 1, Math.floor(py / cells.cell));
    return { cx: cx, cy: cy, index: cy * cells.columns + cx };
  }

  // In shares of the picture, so that the cursor stays on its cell when the map is resized.
  function placeCursor(card, cells, cx, cy) {
    var cursor = card.querySelector(".cursor");
    var share = function (pixels, of) { return (100 * pixels / of) + "%"; };
    cursor.style.left = share(cx * cells.cell, cells.width);
    cursor.style.top = share(cy * cells.cell, cells.height);
    cursor.style.width = share(Math.min(cells.cell, cells.width - cx * cells.cell), cells.width);
    cursor.style.height = share(Math.min(cells.cell, cells.height - cy * cells.cell), cells.height);
    cursor.hidden = false;
  }

  // When motion began in a cell, on the card's line and in its window, earliest first: each
  // with the part it happened in and the second of that part's own video.
  function beginnings(card, everyCells, index) {
    var parts = partsOf(card), w = windowOf(card), found = [];
    everyCells.forEach(function (cells, i) {
      if (!cells) return;
      decodeSeconds(cells.times[String(index)]).forEach(function (second) {
        var line = lineSecond(parts[i], second);
        if (line >= w.from && line < w.to) found.push({ line: line, second: second, part: parts[i] });
      });
    });
    return found.sort(function (a, b) { return a.line - b.line; });
  }

  function choose(card, cells, everyCells, cx, cy) {
    card._cell = { cx: cx, cy: cy };
    placeCursor(card, cells, cx, cy);
    var found = beginnings(card, everyCells, cy * cells.columns + cx);
    // A time on a line of several videos, or off its video's own, says which video it is in.
    var named = partsOf(card).some(function (p, i) { return i > 0 || p.offset !== 0; });
    var list = card.querySelector(".time-list");
    var hint = card.querySelector(".times .hint");
    list.textContent = "";
    var x0 = cx * cells.cell, y0 = cy * cells.cell;
    var where = "pixels " + x0 + "–" + Math.min(cells.width, x0 + cells.cell) + " × " + y0 + "–" +
      Math.min(cells.height, y0 + cells.cell);
    hint.textContent = found.length
      ? found.length + (found.length === 1 ? " time" : " times") + " at " + where + ":"
      : "No motion began at " + where + ".";
    found.forEach(function (f) {
      var li = el("li", {}, list);
      var a = el("a", { href: f.part.video + "#t=" + f.second, "data-second": f.second, "data-line": f.line,
                        "data-part": f.part.key }, li);
      // A combined line names the video each time lies in; the link plays that video.
      a.textContent = clock(f.line) + (named ? " · " + f.part.name + " " + clock(f.second) : "");
      var wall = wallClock(card, f.line);
      if (wall) a.title = wall;
      a.addEventListener("click", function (e) { e.preventDefault(); jump(card, f, a); });
    });
    showMarks(card, found.map(function (f) { return f.line; }));
  }

  // Every part's cells (null for a part without them) and the grid they share.
  function withCells(card, then) {
    var missing = function () {
      card.querySelector(".times .hint").textContent = "The times of this map are missing from the report folder.";
    };
    Promise.all(partsOf(card).map(function (p) {
      return load(p.key + ".cells").catch(function () { return null; });
    })).then(function (everyCells) {
      var grid = everyCells.filter(function (c) { return c; })[0];
      if (grid) then(grid, everyCells); else missing();
    });
  }

  function setUpMap(card) {
    var img = card.querySelector(".map img");
    if (!img || card.dataset.cells !== "1") return;
    img.addEventListener("click", function (e) {
      var rect = img.getBoundingClientRect();
      var fx = (e.clientX - rect.left) / rect.width, fy = (e.clientY - rect.top) / rect.height;
      withCells(card, function (cells, everyCells) {
        var c = cellAt(cells, fx * cells.width, fy * cells.height);
        choose(card, cells, everyCells, c.cx, c.cy);
      });
    });
    img.addEventListener("keydown", function (e) {
      var moves = { ArrowLeft: [-1, 0], ArrowRight: [1, 0], ArrowUp: [0, -1], ArrowDown: [0, 1] };
      if (!moves[e.key] && e.key !== "Enter" && e.key !== " ") return;
      e.preventDefault();
      withCells(card, function (cells, everyCells) {
        var at = card._cell || { cx: Math.floor(cells.columns / 2), cy: Math.floor(cells.rows / 2) };
        if (moves[e.key]) {
          at = { cx: Math.max(0, Math.min(cells.columns - 1, at.cx + moves[e.key][0])),
                 cy: Math.max(0, Math.min(cells.rows - 1, at.cy + moves[e.key][1])) };
          card._cell = at;
          placeCursor(card, cells, at.cx, at.cy);
        } else {
          choose(card, cells, everyCells, at.cx, at.cy);
        }
      });
    });
  }

  // ---- jump to the moment ----
  // `found` as beginnings() gives it: the part's video plays from that second.
  function jump(card, found, link) {
    var second = found.second, part = found.part;
    card.querySelectorAll(".time-list a").forEach(function (a) { a.removeAttribute("aria-current"); });
    link.setAttribute("aria-current", "true");
    var player = card.querySelector(".player") || el("div", { "class": "player" }, card.querySelector(".side"));
    var note = player.querySelector("p") || el("p", {}, player);
    var video = player.querySelector("video");
    if (!part.playable) {
      if (video) player.removeChild(video);
      note.textContent = "Your browser cannot play " + part.name + " here: open it in a player and seek to " +
        clock(second) + ".";
      return;
    }
    if (!video || video.dataset.part !== part.key) {
      if (video) player.removeChild(video);
      video = el("video", { controls: "", muted: "", preload: "metadata", playsinline: "", "data-part": part.key });
      player.insertBefore(video, note);
      video.muted = true;
      video.src = part.video;
      video.addEventListener("error", function () {
        note.textContent = "This file does not play here: open it in a player and seek to " + clock(second) + ".";
      });
    }
    note.textContent = "From " + clock(second) + " of " + part.name + ".";
    var seek = function () {
      video.currentTime = second;
      var playing = video.play();
      if (playing && playing.catch) playing.catch(function () {});
    };
    if (video.readyState >= 1) seek(); else video.addEventListener("loadedmetadata", seek, { once: true });
  }


  // ---- zones: outlined on the map, and drawn by hand ----
  var drawn = [];

  // An SVG over the map in the picture's own pixels, so that outlines follow the map's size.
  function overlayOf(card) {
    var frame = card.querySelector(".map .frame");
    if (!frame) return null;
    var svg = frame.querySelector("svg.zones-overlay");
    if (!svg) {
      svg = el("svg", { "class": "zones-overlay", viewBox: "0 0 " + card.dataset.width + " " + card.dataset.height,
                        preserveAspectRatio: "none", "aria-hidden": "true" }, frame, true);
    }
    return svg;
  }

  function pointsText(polygon) {
    return polygon.map(function (p) { return (p[0] + 0.5) + "," + (p[1] + 0.5); }).join(" ");
  }

  function outline(svg, zone, className) {
    var g = el("g", { "class": className }, svg, true);
    el("polygon", { points: pointsText(zone.polygon) }, g, true);
    // A fortieth of the picture's width, whatever its size: the label keeps its place on the map.
    var size = svg.viewBox.baseVal.width / 40;
    var label = el("text", { x: zone.polygon[0][0] + 1, y: zone.polygon[0][1] + 1, "dominant-baseline": "hanging",
                             "font-size": size }, g, true);
    label.textContent = zone.name;
    return g;
  }

  function setUpZoneOutlines(card) {
    if (!card.dataset.zones) return;
    var svg = overlayOf(card);
    if (!svg) return;
    JSON.parse(card.dataset.zones).forEach(function (zone) { outline(svg, zone, "zone"); });
  }

  // The page's one panel of the zones drawn so far, as the JSON a --zones file takes.
  function zonesPanel() {
    var panel = document.getElementById("drawn-zones");
    if (panel) return panel;
    panel = el("section", { id: "drawn-zones", "aria-live": "polite" }, document.querySelector("main"));
    el("h2", {}, panel).textContent = "Zones drawn";
    el("p", { "class": "hint" }, panel).textContent =
      "Copy this into a file and give it to tremora-map --zones FILE. Nothing leaves this page.";
    var text = el("textarea", { id: "zones-json", readonly: "", rows: "8", "aria-label": "Zones drawn, as JSON" }, panel);
    var copy = el("button", { type: "button", id: "copy-zones" }, panel);
    copy.textContent = "Copy";
    var said = el("span", { "class": "copied", role: "status" }, panel);
    copy.addEventListener("click", function () {
      text.select();
      var done = function () { said.textContent = "Copied."; };
      if (navigator.clipboard && navigator.clipboard.writeText) {
        navigator.clipboard.writeText(text.value).then(done, function () {
          if (document.execCommand("copy")) done(); else said.textContent = "Select the text and copy it.";
        });
      } else if (document.execCommand("copy")) {
        done();
      }
    });
    return panel;
  }

  function showDrawn() {
    zonesPanel();
    document.getElementById("zones-json").value = JSON.stringify({ zones: drawn }, null, 1)
      .replace(/\[\n\s*(-?\d+),\n\s*(-?\d+)\n\s*\]/g, "[$1, $2]");
  }

  function setUpDrawing(card) {
    var img = card.querySelector(".map img");
    if (!img) return;
    var W = Number(card.dataset.width), H = Number(card.dataset.height);
    var tools = el("div", { "class": "draw" }, card.querySelector(".map"));
    var start = el("button", { type: "button", "class": "draw-zone" }, tools);
    start.textContent = "Draw a zone";
    var form = el("div", { "class": "draw-form", hidden: "" }, tools);
    var hint = el("p", { "class": "hint", "aria-live": "polite" }, form);
    var name = el("input", { type: "text", "class": "zone-name-input", maxlength: "64", "aria-label": "Name of the zone" }, form);
    var finish = el("button", { type: "button", "class": "finish-zone" }, form);
    finish.textContent = "Add zone";
    var cancel = el("button", { type: "button", "class": "cancel-zone" }, form);
    cancel.textContent = "Cancel";
    var svg = overlayOf(card);
    var state = null;

    function redraw() {
      if (state.shape) svg.removeChild(state.shape);
      state.shape = el("g", { "class": "drawing" }, svg, true);
      if (state.points.length) el("polyline", { points: pointsText(state.points.concat([state.points[0]])) }, state.shape, true);
      var c = el("rect", { "class": "draw-cursor", x: state.cursor[0], y: state.cursor[1], width: 1, height: 1 }, state.shape, true);
      c.setAttribute("stroke-width", Math.max(W, H) / 200);
      hint.textContent = state.points.length + (state.points.length === 1 ? " corner" : " corners") +
        " at " + state.points.map(function (p) { return "(" + p[0] + ", " + p[1] + ")"; }).join(" ") +
        ". Click the map, or move with the arrow keys (Shift: 10 pixels) and press Enter, to add a corner; cursor at (" +
        state.cursor[0] + ", " + state.cursor[1] + ").";
    }
    function stop() {
      if (state && state.shape) svg.removeChild(state.shape);
      state = null;
      card._drawing = false;
      form.hidden = true;
      start.hidden = false;
    }
    function add(x, y) {
      state.points.push([x, y]);
      state.cursor = [x, y];
      redraw();
    }
    start.addEventListener("click", function () {
      state = { points: [], cursor: [Math.floor(W / 2), Math.floor(H / 2)], shape: null };
      card._drawing = true;
      form.hidden = false;
      start.hidden = true;
      if (!img.hasAttribute("tabindex")) img.setAttribute("tabindex", "0");
      redraw();
      img.focus();
    });
    cancel.addEventListener("click", stop);
    finish.addEventListener("click", function () {
      var n = name.value.trim();
      var problem = state.points.length < 3 ? "A zone needs three corners at least." :
        !n ? "Name the zone." :
        Array.from(n).length > 64 ? "A name has 64 characters at most." :
        drawn.some(function (z) { return z.name === n; }) ? "A zone of that name is drawn already." : "";
      if (problem) { hint.textContent = problem; return; }
      var zone = { name: n, polygon: state.points };
      drawn.push(zone);
      outline(svg, zone, "zone drawn-zone");
      name.value = "";
      stop();
      showDrawn();
    });
    img.addEventListener("click", function (e) {
      if (!card._drawing) return;
      e.stopImmediatePropagation();
      var rect = img.getBoundingClientRect();
      add(Math.min(W - 1, Math.max(0, Math.floor((e.clientX - rect.left) / rect.width * W))),
          Math.min(H - 1, Math.max(0, Math.floor((e.clientY - rect.top) / rect.height * H))));
    }, true);
    img.addEventListener("keydown", function (e) {
      if (!card._drawing) return;
      var moves = { ArrowLeft: [-1, 0], ArrowRight: [1, 0], ArrowUp: [0, -1], ArrowDown: [0, 1] };
      if (!moves[e.key] && e.key !== "Enter") return;
      e.preventDefault();
      e.stopImmediatePropagation();
      if (e.key === "Enter") { add(state.cursor[0], state.cursor[1]); return; }
      var step = e.shiftKey ? 10 : 1;
      state.cursor = [Math.min(W - 1, Math.max(0, state.cursor[0] + moves[e.key][0] * step)),
                      Math.min(H - 1, Math.max(0, state.cursor[1] + moves[e.key][1] * step))];
      redraw();
    }, true);
  }

  // A zone's series on the chart instead of the whole picture's, from the select beside it.
  // A zone's data leaves out the seconds in which it saw nothing (and a part in which it saw
  // nothing at all has none): on the seconds the whole picture has, those show as nothing
  // rather than as a line drawn across them.
  function zoneActivity(card, zone) {
    var zoneRows = sumOnLine(card, ".zones", function (zones) {
      return zones.zones[zone] ? zones.zones[zone].seconds : [];
    });
    return Promise.all([lineActivity(card), zoneRows]).then(function (both) {
      var seen = {};
      both[1].forEach(function (r) { seen[r[0]] = r; });
      return both[0].map(function (r) { return seen[r[0]] || [r[0], 0, 0]; });
    });
  }

  function setUpZoneChoice(card) {
    var select = card.querySelector(".chart-zone");
    if (!select) return;
    select.addEventListener("change", function () {
      var rows = select.value === "" ? lineActivity(card) : zoneActivity(card, Number(select.value));
      rows.then(function (r) {
        card.querySelector(".chart").textContent = "";
        drawChart(card, r);
        card.dataset.chartZone = select.value;
      }, function () {
        card.querySelector(".chart").textContent = "This zone's activity is missing from the report folder.";
      });
    });
  }

  function setUp() {
    var cards = Array.prototype.slice.call(document.querySelectorAll(".card"));
    cards.forEach(setUpDrawing);
    cards.forEach(setUpMap);
    cards.forEach(setUpZoneOutlines);
    var drawWhenSeen = function (card) {
      if (card.dataset.activity !== "1" || card._chartRequested) return;
      card._chartRequested = true;
      lineActivity(card).then(function (rows) { drawChart(card, rows); }, function () {});
      setUpZoneChoice(card);
    };
    if ("IntersectionObserver" in window) {
      var seen = new IntersectionObserver(function (entries) {
        entries.forEach(function (e) { if (e.isIntersecting) { drawWhenSeen(e.target); seen.unobserve(e.target); } });
      }, { rootMargin: "200px" });
      cards.forEach(function (c) { seen.observe(c); });
    } else {
      cards.forEach(drawWhenSeen);
    }
  }

  if (document.readyState === "loading") document.addEventListener("DOMContentLoaded", setUp);
  else setUp();

  return { data: data, load: load, decodeSeconds: decodeSeconds, clock: clock };
})();
