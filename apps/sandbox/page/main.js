// The page: what is known of the server, which unit is chosen, and who is told when something happens.
import { byId, coalesce, count, duration, el, nameOf, say, setText, short, terms } from './dom.js';
import { Host, health, logs } from './host.js';
import { listen, ofUnit, request } from './live.js';
import { LiveMap, dotOf } from './map.js';
import { Faults, Requests } from './server.js';
import { ledger, places, prediction, showCounts, trips } from './unit.js';
import { Track } from './track.js';

const kPage = 10000;    // positions of one answer
const kCalm = 400;      // milliseconds between two looks at the same thing
const kManyUnits = 8;   // from which there is something to search

const units = new Map();
const track = new Track();
const host = new Host();
const tabs = { trips, places, prediction, ledger, health, host, logs };
const requests = new Requests(units);
const faults = new Faults();
const map = new LiveMap((uuid) => choose(uuid));
let chosen = null;   // the uuid
let shownTab = 'trips';
let server = { requests: 0, storage: '' };
window.tarvo = { map, track };  // for the console of a browser, and for whoever measures

// Units --------------------------------------------------------------------------------------------------------------

function row(uuid) {
  const name = el('b'), where = el('span', { class: 'chip' }), many = el('span', { class: 'number' }), seen = el('span'), gaps = el('b', { class: 'bad' });
  const button = el('button', { type: 'button', 'data-unit': uuid, on: { click: () => choose(uuid) } }, name, many,
    el('span', { class: 'under dim' }, el('span', { class: 'mono' }, short(uuid)), gaps, seen), where);
  return Object.assign(el('li', {}, button), { parts: { button, name, where, many, seen, gaps } });
}
const rows = new Map();

function showUnit(unit) {
  if (!rows.has(unit.uuid)) {
    rows.set(unit.uuid, row(unit.uuid));
    byId('units-list').append(rows.get(unit.uuid));
    byId('units-find').closest('label').hidden = rows.size < kManyUnits;
    setText(byId('units-title'), `Units (${rows.size})`);
    byId('units-empty').hidden = true;
  }
  const { button, name, where, many, seen, gaps } = rows.get(unit.uuid).parts;
  setText(name, nameOf(unit));
  setText(many, count(unit.positions));
  setText(where, unit.connected ? 'host connected' : '');
  where.className = unit.connected ? 'chip good' : 'away';
  button.setAttribute('aria-current', String(unit.uuid === chosen));
  const missing = unit.missing > 0 ? `, ${count(unit.missing)} missing` : '';
  const age = (Date.now() - unit.lastSeen) / 1000;
  setText(seen, !unit.lastSeen ? 'nothing sent yet' : age < 10 ? 'now' : `${duration(age)} ago`);
  setText(gaps, unit.missing > 0 ? `${count(unit.missing)} missing` : '');
  button.setAttribute('aria-label', `${nameOf(unit)}, ${short(unit.uuid)}, ${count(unit.positions)} positions${missing}`);
}

const showDots = coalesce(() => map.show({
  chosen, units: [...units.values()].filter((unit) => Number.isFinite(unit.lon) && Number.isFinite(unit.lat))
    .map((unit) => ({ uuid: unit.uuid, name: nameOf(unit), ...dotOf(unit) })),
}), 100);

function heardUnit(unit) {
  if (typeof unit?.uuid !== 'string') return;
  units.set(unit.uuid, unit);
  showUnit(unit);
  showDots();
  if (unit.uuid === chosen) {
    showHead();
    host.connected(unit);
  } else if (chosen === null) choose(unit.uuid);
}

byId('units-find').addEventListener('input', ({ target }) => {
  const wanted = target.value.trim().toLowerCase();
  for (const [uuid, item] of rows) item.hidden = !`${nameOf(units.get(uuid))} ${uuid}`.toLowerCase().includes(wanted);
});
setInterval(() => units.forEach(showUnit), 5000);

// The chosen unit ----------------------------------------------------------------------------------------------------

function showHead() {
  const unit = units.get(chosen);
  setText(byId('unit-title'), unit ? nameOf(unit) : 'No unit chosen');
  setText(byId('unit-uuid'), chosen ?? '');
  showCounts(byId('unit-counts'), unit);
}

function choose(uuid) {
  if (uuid === chosen) return;
  const before = units.get(chosen);
  chosen = uuid;
  if (before) showUnit(before);
  showUnit(units.get(uuid));
  showHead();
  history.replaceState(null, '', `#unit=${encodeURIComponent(uuid)}`);
  track.clear();
  missing = null;
  fetched = false;
  map.chosen = null;
  map.show({ track, trips: [], places: [], prediction: null, chosen: uuid });
  requests.choose(uuid);
  for (const name of Object.keys(tabs)) {
    byId(`panel-${name}`).replaceChildren();
    load(name);
  }
  want(0, Infinity);
}

/// Fills a tab from the server; one that is not on the screen and not on the map waits until it is looked at.
async function load(name) {
  const tab = tabs[name], uuid = chosen;
  if (!uuid || (!tab.always && name !== shownTab)) return;
  const panel = byId(`panel-${name}`);
  try {
    const data = await tab.load(uuid);
    if (uuid !== chosen) return;
    const pressed = panel.contains(document.activeElement) ? [...panel.querySelectorAll('button')].indexOf(document.activeElement) : -1;
    await tab.show(panel, data, { map, uuid, unit: units.get(uuid), strip: byId('unit-strip') });
    if (pressed >= 0) panel.querySelectorAll('button')[pressed]?.focus();
  } catch (error) {
    if (uuid === chosen) panel.replaceChildren(el('p', { class: 'why' }, error.message));
  }
}
const loaders = Object.fromEntries(Object.keys(tabs).map((name) => [name, coalesce(() => load(name), kCalm)]));

// Positions: what batches announce is fetched in one piece at a time.
let missing = null;   // [first, last]
let fetching = null, fetched = false;

function want(first, last) {
  missing = missing ? [Math.min(missing[0], first), Math.max(missing[1], last)] : [first, last];
  return (fetching ??= fetchPositions().finally(() => { fetching = null; }));
}

/// After a break: what has come since, or everything where that leaves something out.
async function catchUp() {
  const held = units.get(chosen)?.positions ?? 0;
  if (track.size > held) track.clear();
  await want(track.lastId + 1, Infinity);
  if (track.size < held) await want(0, Infinity);
}

async function fetchPositions() {
  while (missing) {
    let [first, last] = missing;
    const uuid = chosen;
    missing = null;
    try {
      for (let more = true; more;) {
        const upTo = Number.isFinite(last) ? `&last=${last}` : '';
        const told = await request(ofUnit(uuid, `positions?first=${first}${upTo}&limit=${kPage}`));
        if (uuid !== chosen) break;
        track.merge(told.positions);
        if (!fetched && track.size) map.fit();
        fetched ||= track.size > 0;
        map.redraw();
        more = told.more && told.positions.length > 0;
        if (more) first = told.positions[told.positions.length - 1][0] + 1;
      }
    } catch (error) {
      say(error.message);  // the next connection fetches again
    }
  }
}

// Tabs ---------------------------------------------------------------------------------------------------------------

function showTab(name, focus = false) {
  shownTab = name;
  for (const other of Object.keys(tabs)) {
    const tab = byId(`tab-${other}`), on = other === name;
    tab.setAttribute('aria-selected', String(on));
    tab.tabIndex = on ? 0 : -1;
    byId(`panel-${other}`).hidden = !on;
    if (on) tab.scrollIntoView({ block: 'nearest', inline: 'nearest' });
    if (on && focus) tab.focus();
  }
  if (!tabs[name].always) load(name);
}

for (const [name, { title }] of Object.entries(tabs)) {
  byId('unit-tabs').append(el('button', { type: 'button', role: 'tab', id: `tab-${name}`, 'aria-controls': `panel-${name}`,
                                          on: { click: () => showTab(name) } }, title));
  byId('unit-panels').append(el('div', { role: 'tabpanel', id: `panel-${name}`, 'aria-labelledby': `tab-${name}`, tabindex: '0' }));
}
byId('unit-tabs').addEventListener('keydown', (event) => {
  const names = Object.keys(tabs), at = names.indexOf(shownTab);
  const to = { ArrowRight: at + 1, ArrowLeft: at - 1, Home: 0, End: names.length - 1 }[event.key];
  if (to === undefined) return;
  event.preventDefault();
  showTab(names[(to + names.length) % names.length], true);
});
showTab(shownTab);

// The server ---------------------------------------------------------------------------------------------------------

const showFacts = coalesce(() => byId('facts').replaceChildren(...terms([
  ['Storage', server.storage], ['Units', count(units.size)], ['Requests', count(server.requests)],
  ['Positions', count([...units.values()].reduce((sum, unit) => sum + (unit.positions || 0), 0))], ['Times', 'UTC']])), 250);

async function loadAll() {
  const told = await request('/live/state');
  server = told;
  faults.kinds(told.kinds ?? []);
  faults.show(told.faults ?? []);
  map.useTiles(told.tiles);
  const wanted = decodeURIComponent((location.hash.match(/unit=([^&]+)/) ?? [])[1] ?? '');
  const list = [...(told.units ?? [])].sort((one, other) => (other.lastSeen ?? 0) - (one.lastSeen ?? 0));
  for (const unit of list) units.set(unit.uuid, unit);
  if (chosen === null && list.some(({ uuid }) => uuid === wanted)) choose(wanted);
  list.forEach(heardUnit);
  if (!track.size) map.fit();
  showFacts();
  await requests.load();
}

const kHeard = {
  unit: heardUnit,
  batch: ({ unit, first, last }) => unit === chosen && want(first, last),
  request: (one) => {
    server.requests += 1;
    requests.heard(one);
    showFacts();
  },
  faults: (rules) => faults.show(rules),
  push: (one) => host.heardPush(one),
  told: (one) => host.heardTold(one),
};

const kLinks = { live: 'live', lost: 'connection lost, trying again', connecting: 'connecting' };
setText(byId('units-try'), `tarvo replay TRIP.gpx --mode 12 --backend ${location.origin}/api --channel ${location.origin} ` +
  '--api-key demo-key --api-secret demo-secret');
const start = () => loadAll().catch((error) => say(error.message));
await start();
listen(server.last, (name, data) => {
  kHeard[name]?.(data);
  if (data?.unit === chosen)
    for (const [tab, { events }] of Object.entries(tabs)) if (events.includes(name)) loaders[tab]();
}, async (state, again) => {
  byId('link').dataset.state = state;
  setText(byId('link-text'), kLinks[state]);
  if (state === 'lost') say('The connection to the sandbox is lost');
  if (!again) return;
  say('The connection to the sandbox is back');
  await start();
  if (!chosen) return;
  Object.keys(tabs).forEach(load);
  await catchUp();
});
