// The status page's HTML, style sheet and script, built into kvtweb: the page needs no file
// from anywhere else. The script builds every table with textContent, never with markup, so
// texts from the job records can't become page content.
#pragma once

namespace kvtweb {

// @TOKEN@, @TITLE@, @PAGE@, @NAV@ and @BODY@ are filled in per page.
inline constexpr const char* kPageTemplate = R"HTML(<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta name="kvt-token" content="@TOKEN@">
<title>@TITLE@ – KVTnetd</title>
<link rel="stylesheet" href="/app.css">
<script src="/app.js" defer></script>
</head>
<body data-page="@PAGE@">
<a class="skip" href="#main">Skip to the content</a>
<header>
<p class="brand">KVTnetd</p>
<nav aria-label="Pages">@NAV@</nav>
</header>
<main id="main" tabindex="-1">
@BODY@
</main>
</body>
</html>
)HTML";

inline constexpr const char* kOverviewBody = R"HTML(<h1 id="title">Printers and spool files</h1>
<p id="server-state">Asking the server…</p>
<div id="notice" class="notice" role="alert" hidden></div>
<div id="data">
<p id="stale-badge" class="stale-badge" hidden></p>
<section aria-labelledby="jobs-h">
<h2 id="jobs-h">Printers and their jobs</h2>
<div id="printers"><p>No data yet.</p></div>
</section>
<section aria-labelledby="spool-h">
<h2 id="spool-h">Waiting spool files</h2>
<div id="spool"><p>No data yet.</p></div>
</section>
<p id="missing" class="hint" hidden></p>
</div>
<p id="action" role="status" aria-live="polite"></p>)HTML";

// Problems first (the server sorts them); each row opens that server's overview.
inline constexpr const char* kFleetBody = R"HTML(<h1>Print servers</h1>
<p id="fleet-state">Asking kvtweb…</p>
<div id="fleet-notice" class="notice" role="alert" hidden></div>
<div id="fleet"><p>No data yet.</p></div>)HTML";

inline constexpr const char* kConfigsBody = R"HTML(<h1>Configurations</h1>
<form method="get" action="/configs">
<label for="folder">Gamut folder</label>
<input id="folder" name="folder" required maxlength="79" autocomplete="off" spellcheck="false">
<input id="server-field" name="server" type="hidden" disabled>
<button type="submit">Show</button>
</form>
<p id="configs-state" role="status" aria-live="polite"></p>
<div id="configs"></div>)HTML";

inline constexpr const char* kStyle = R"CSS(:root { color-scheme: light; --ink: #1c1c1c; --muted: #4a4a4a; --line: #b8b8b8;
  --accent: #0b4f9c; --bad: #8b1a1a; --bad-bg: #fdecec; }
* { box-sizing: border-box; }
[hidden] { display: none !important; }
body { margin: 0; font: 1rem/1.45 system-ui, sans-serif; color: var(--ink); background: #fff; }
header { display: flex; flex-wrap: wrap; gap: .5rem 1.5rem; align-items: baseline;
  padding: .6rem 1rem; background: #12304f; color: #fff; }
header .brand { margin: 0; font-weight: 700; font-size: 1.15rem; }
header a { color: #fff; margin-right: 1rem; }
header a[aria-current="page"] { font-weight: 700; text-decoration-thickness: 3px; }
main { max-width: 68rem; padding: .5rem 1rem 2rem; margin: 0 auto; }
h1 { font-size: 1.5rem; margin: .6rem 0; }
h2 { font-size: 1.2rem; margin: 1.2rem 0 .4rem; }
h3 { font-size: 1.05rem; margin: .9rem 0 .3rem; }
a { color: var(--accent); }
.skip { position: absolute; left: -999px; top: 0; background: #fff; color: var(--accent); padding: .5rem; }
.skip:focus { left: .5rem; }
:focus-visible { outline: 3px solid var(--accent); outline-offset: 2px; }
header :focus-visible { outline-color: #f5b400; }
table { border-collapse: collapse; width: 100%; margin-bottom: .5rem; }
caption { text-align: left; color: var(--muted); padding: .2rem 0; }
th, td { text-align: left; padding: .35rem .5rem; border-bottom: 1px solid var(--line);
  vertical-align: top; overflow-wrap: anywhere; }
th { background: #eef2f6; }
td.num { text-align: right; font-variant-numeric: tabular-nums; }
button { font: inherit; padding: .3rem .8rem; border-radius: .3rem; border: 2px solid var(--accent);
  background: var(--accent); color: #fff; cursor: pointer; }
button.cancel { background: var(--bad); border-color: var(--bad); }
button:disabled { background: #6b6b6b; border-color: #6b6b6b; cursor: default; }
input { font: inherit; padding: .3rem .5rem; border: 2px solid var(--muted); border-radius: .3rem;
  max-width: 100%; }
label { font-weight: 600; margin-right: .5rem; }
.notice { border-left: .4rem solid var(--bad); background: var(--bad-bg); color: var(--bad);
  padding: .6rem .8rem; font-weight: 600; }
.stale-badge { display: inline-block; background: #fff4d6; color: #5c4300; border: 1px solid #b58900;
  padding: .2rem .6rem; font-weight: 600; }
tr.problem td:first-child { border-left: .35rem solid var(--bad); }
.tag { display: inline-block; font-size: .85rem; font-weight: 600; padding: 0 .4rem;
  margin-left: .3rem; border-radius: .2rem; background: #fff4d6; color: #5c4300; border: 1px solid #b58900; }
.tag.bad { background: var(--bad-bg); color: var(--bad); border-color: var(--bad); }
tr.stale, #data.stale table { background: repeating-linear-gradient(135deg, #fff, #fff 12px, #f6f6f6 12px, #f6f6f6 24px); }
.hint { color: var(--muted); font-size: .9rem; }
@media (max-width: 40rem) {
  table, thead, tbody, tr, th, td, caption { display: block; }
  thead tr { position: absolute; left: -9999px; }
  tr { border: 1px solid var(--line); border-radius: .3rem; margin: .5rem 0; padding: .3rem .5rem; }
  td { border: 0; padding: .15rem 0; }
  td::before { content: attr(data-label) ": "; font-weight: 600; }
  td.num { text-align: left; }
}
)CSS";

inline constexpr const char* kScript = R"JS('use strict';
const token = document.querySelector('meta[name="kvt-token"]').content;
const $ = (id) => document.getElementById(id);
// The server this page shows (?server=HOST:PORT); none: kvtweb's only or first server.
const serverParam = new URLSearchParams(location.search).get('server');
const withServer = (path) => (serverParam
  ? `${path}${path.includes('?') ? '&' : '?'}server=${encodeURIComponent(serverParam)}` : path);
let refreshMs = 3000;

function el(tag, attrs, ...children) {
  const e = document.createElement(tag);
  for (const [k, v] of Object.entries(attrs || {})) {
    if (k === 'text') e.textContent = v; else e.setAttribute(k, v);
  }
  for (const c of children) if (c != null) e.append(c);
  return e;
}

// "2026-11-24T22:15:03+01:00" shown as the server's local date and time.
const shownTime = (iso) => iso ? iso.slice(0, 19).replace('T', ' ') : '—';
const clock = () => new Date().toLocaleTimeString();

// cells: strings or nodes; numeric: the indices of right-aligned columns; rowClass: a
// class for each row's tr, by its index.
function table(caption, heads, rows, numeric = [], rowClass = () => '') {
  const head = el('tr');
  for (const h of heads) head.append(el('th', { scope: 'col', text: h }));
  const body = el('tbody');
  for (const [r, row] of rows.entries()) {
    const tr = el('tr');
    if (rowClass(r)) tr.className = rowClass(r);
    row.forEach((cell, i) => {
      const td = el('td', { 'data-label': heads[i] });
      if (numeric.includes(i)) td.className = 'num';
      if (cell instanceof Node) td.append(cell); else td.textContent = cell;
      tr.append(td);
    });
    body.append(tr);
  }
  return el('table', {}, el('caption', { text: caption }), el('thead', {}, head), body);
}

async function cancelJob(job, button) {
  if (!window.confirm(`Cancel job ${job.reference} ("${job.document}") on ${job.printer}?`)) return;
  button.disabled = true;
  const say = (text) => { $('action').textContent = text; };
  try {
    const r = await fetch('/api/cancel', {
      method: 'POST',
      headers: { 'X-KVT-Token': token },
      body: new URLSearchParams(serverParam ? { job: job.reference, server: serverParam }
        : { job: job.reference }),
    });
    const d = await r.json();
    if (!r.ok) say(`Job ${job.reference} was not cancelled: ${d.error}`);
    else if (d.gone) say(`Job ${job.reference} was cancelled.`);
    else say(`Job ${job.reference}: the server answered ${d.answer}, but the job is still listed.`);
  } catch (e) {
    say(`Job ${job.reference} was not cancelled: kvtweb did not answer.`);
  }
  refresh();
}

function cancelButton(job) {
  const b = el('button', { type: 'button', class: 'cancel', 'data-job': job.reference,
    'aria-label': `Cancel job ${job.reference}, ${job.document}, on ${job.printer}` });
  b.textContent = 'Cancel';
  b.addEventListener('click', () => cancelJob(job, b));
  return b;
}

// Redrawn only when the listing changed, and the focused Cancel button keeps the focus, so
// that the refresh never pulls the keyboard focus away.
let shown = '';
function render(listing) {
  const text = JSON.stringify(listing);
  if (text === shown) return;
  shown = text;
  const focusedJob = document.activeElement && document.activeElement.dataset.job;
  const withSubmitted = listing.jobs.some((j) => j.submitted);
  const withSize = listing.spoolFiles.some((f) => f.size != null);
  const printers = new Map();
  for (const j of listing.jobs) {
    if (!printers.has(j.printer)) printers.set(j.printer, []);
    printers.get(j.printer).push(j);
  }
  const box = $('printers');
  box.replaceChildren();
  if (printers.size === 0) box.append(el('p', { text: 'No printer holds a job.' }));
  for (const [name, jobs] of printers) {
    const heads = ['Job', 'State', 'Document', 'Owner', 'Machine'];
    if (withSubmitted) heads.push('Submitted');
    heads.push('Action');
    const rows = jobs.map((j) => [j.reference, j.state || `code ${j.statusCode}`, j.document,
      j.owner, j.machine, ...(withSubmitted ? [shownTime(j.submitted)] : []), cancelButton(j)]);
    box.append(el('section', { class: 'printer', 'aria-label': `Printer ${name}` },
      el('h3', { text: name }),
      table(`${jobs.length} job${jobs.length === 1 ? '' : 's'} on ${name}`, heads, rows)));
  }
  const spool = $('spool');
  spool.replaceChildren();
  if (listing.spoolFiles.length === 0) {
    spool.append(el('p', { text: 'No spool file is waiting.' }));
  } else {
    const heads = ['Name', 'Document', 'Printer', 'Owner', 'Machine', 'Time'];
    if (withSize) heads.push('Size (bytes)');
    const rows = listing.spoolFiles.map((f) => [f.name, f.document, f.printer, f.owner, f.machine,
      shownTime(f.time), ...(withSize ? [String(f.size)] : [])]);
    spool.append(table(`${rows.length} waiting spool file${rows.length === 1 ? '' : 's'}`, heads,
      rows, withSize ? [6] : []));
  }
  if (focusedJob) {
    const again = box.querySelector(`button[data-job="${CSS.escape(focusedJob)}"]`);
    if (again) again.focus();
  }
  const missing = [];
  if (!withSubmitted && listing.jobs.length) missing.push('the jobs\' submission times');
  if (!withSize && listing.spoolFiles.length) missing.push('the spool files\' sizes');
  $('missing').hidden = missing.length === 0;
  $('missing').textContent = `This server's listing does not carry ${missing.join(' or ')}; ` +
    'a spool file\'s time is the one its job name was given out at.';
}

let lastGood = null;
let timer = null;
let busy = false;

async function refresh() {
  clearTimeout(timer);
  if (busy) return;
  busy = true;
  let d = null;
  let problem = null;
  try {
    const r = await fetch(withServer('/api/overview'), { cache: 'no-store' });
    d = await r.json();
    if (!r.ok) problem = d.error || `HTTP ${r.status}`;
  } catch (e) {
    problem = 'kvtweb itself does not answer';
  }
  const server = d && d.server;
  if (d && d.interval) refreshMs = d.interval * 1000;
  if (server) {
    const name = d.label ? `${d.label} (${server.server})` : server.server;
    $('title').textContent = `Printers and spool files of ${name}`;
    document.title = `${name} – KVTnetd`;
  }
  if (d && d.listing) render(d.listing);
  if (d && d.lastGood) lastGood = shownTime(d.lastGood);
  if (server && server.reachable && d.listing) {
    $('server-state').textContent = `KVTnetd at ${server.server} is reachable: round trip ` +
      `${server.roundTripMs.toFixed(2)} ms. Updated ${clock()}, every ${refreshMs / 1000} s.`;
    $('notice').hidden = true;
    $('stale-badge').hidden = true;
    $('data').classList.remove('stale');
  } else {
    const why = problem || (server && server.error) || 'no answer';
    $('server-state').textContent = `KVTnetd${server ? ' at ' + server.server : ''} cannot be reached.`;
    const notice = `The server cannot be reached (${why}). Trying again every ` +
      `${refreshMs / 1000} s.`;
    // Set only when it changes: an alert that is rewritten is read out again.
    if ($('notice').textContent !== notice || $('notice').hidden) $('notice').textContent = notice;
    $('notice').hidden = false;
    $('data').classList.add('stale');
    $('stale-badge').textContent = lastGood ? `Stale: the data below is from ${lastGood}.`
      : 'No data yet.';
    $('stale-badge').hidden = false;
  }
  busy = false;
  timer = setTimeout(refresh, refreshMs);
}

// "42 s", "5 min", "2 h 5 min", "3 d 4 h": how long ago, or how long a file waits.
function age(seconds) {
  if (seconds == null) return '—';
  if (seconds < 60) return `${seconds} s`;
  if (seconds < 3600) return `${Math.floor(seconds / 60)} min`;
  const hours = Math.floor(seconds / 3600);
  if (seconds < 86400) return `${hours} h ${Math.floor(seconds % 3600 / 60)} min`;
  return `${Math.floor(seconds / 86400)} d ${Math.floor(seconds % 86400 / 3600)} h`;
}

let fleetNotice = '';
async function refreshFleet() {
  let d = null;
  try {
    const r = await fetch('/api/fleet', { cache: 'no-store' });
    d = await r.json();
  } catch (e) {
    $('fleet-state').textContent = `kvtweb itself does not answer (${clock()}).`;
  }
  if (d) {
    refreshMs = d.interval * 1000;
    const focused = document.activeElement && document.activeElement.dataset.server;
    const rows = d.servers.map((s) => {
      const link = el('a', { href: `/server?server=${encodeURIComponent(s.server)}`,
        'data-server': s.server, text: s.label ? `${s.label} (${s.server})` : s.server });
      const state = el('span', { text: s.reachable ? 'reachable' : `unreachable: ${s.error}` });
      const cell = el('span', {}, state);
      if (s.stale) cell.append(el('span', { class: 'tag', text: 'stale' }));
      for (const p of s.problems.filter((p) => p !== 'unreachable'))
        cell.append(el('span', { class: 'tag bad', text: p }));
      const states = Object.entries(s.jobsByState).map(([k, n]) => `${n} ${k.replace('_', ' ')}`);
      return [link, cell, s.roundTripMs == null ? '—' : `${s.roundTripMs.toFixed(2)} ms`,
        s.lastGoodAgeSeconds == null ? 'never' : `${age(s.lastGoodAgeSeconds)} ago`,
        String(s.printersWithJobs), states.length ? states.join(', ') : 'none',
        String(s.spoolFiles), age(s.oldestSpoolFileAgeSeconds)];
    });
    const down = d.servers.filter((s) => !s.reachable);
    $('fleet').replaceChildren(table(`${d.servers.length} servers, problems first`,
      ['Server', 'State', 'Round trip', 'Last good poll', 'Printers with jobs', 'Jobs by state',
        'Waiting spool files', 'Oldest spool file'], rows, [2, 4, 6],
      (i) => [d.servers[i].problems.length ? 'problem' : '', d.servers[i].stale ? 'stale' : '']
        .join(' ').trim()));
    if (focused) {
      const again = $('fleet').querySelector(`a[data-server="${CSS.escape(focused)}"]`);
      if (again) again.focus();
    }
    $('fleet-state').textContent = `${d.servers.length - down.length} of ${d.servers.length} ` +
      `servers reachable. Updated ${clock()}, every ${refreshMs / 1000} s.`;
    // Set only when it changes: an alert that is rewritten is read out again.
    const names = down.map((s) => s.label || s.server).join(', ');
    const notice = down.length ? `Cannot reach ${names}.` : '';
    if (notice !== fleetNotice) {
      fleetNotice = notice;
      $('fleet-notice').textContent = notice;
      $('fleet-notice').hidden = !notice;
    }
  }
  setTimeout(refreshFleet, refreshMs);
}

async function showConfigs() {
  const folder = new URLSearchParams(location.search).get('folder');
  if (!folder) return;
  $('folder').value = folder;
  const state = $('configs-state');
  state.textContent = `Asking for the configurations of ${folder}…`;
  try {
    const r = await fetch(withServer('/api/configs?' + new URLSearchParams({ folder })),
      { cache: 'no-store' });
    const d = await r.json();
    if (!r.ok) { state.textContent = `No listing: ${d.error}`; return; }
    const rows = d.configurations.map((c) => [c.name, String(c.size),
      c.colourFileTime ? shownTime(c.colourFileTime) : 'no colour file']);
    $('configs').replaceChildren(rows.length
      ? table(`Configurations of ${d.folder}`, ['Name', 'Size (bytes)', 'Colour file time'], rows, [1])
      : el('p', { text: `The folder ${d.folder} holds no configurations.` }));
    state.textContent = `${rows.length} configuration${rows.length === 1 ? '' : 's'} in ${d.folder}.`;
  } catch (e) {
    state.textContent = 'kvtweb does not answer.';
  }
}

const page = document.body.dataset.page;
for (const a of document.querySelectorAll('nav a[data-nav]')) {
  if (a.dataset.nav === page) a.setAttribute('aria-current', 'page');
  if (a.dataset.nav !== 'fleet' && serverParam) a.href = withServer(a.getAttribute('href'));
}
if (serverParam && $('server-field')) {
  $('server-field').value = serverParam;
  $('server-field').disabled = false;
}
if (page === 'fleet') refreshFleet(); else if (page === 'overview') refresh(); else showConfigs();
)JS";

}  // namespace kvtweb
