// What the chosen unit tells of itself: its health, its logs, and the host process behind it.
import { bytes, clock, count, dateTime, el, nameOf, plural, say, terms } from './dom.js';
import { ofUnit, request } from './live.js';

const empty = (text) => el('p', { class: 'empty' }, text);

// The names of `tarvo status --json`, in groups; what is not here is shown by its own name.
const kGroups = [
  ['Positions', { stored: 'Stored', unsent: 'Not sent', awaiting: 'Awaiting an answer', acknowledged: 'Acknowledged', unsaved: 'Not saved',
    last_index: 'Last number', oldest_unsent_seconds: 'Oldest waits, seconds', removed: 'Removed for room', removed_up_to: 'Removed up to' }],
  ['Delivery', { last_try: 'Last try', last_acknowledgement: 'Last answer', last_error: 'Last error', tries_since: 'Failed since',
    next_try: 'Next try', bytes_today: 'Bytes today' }],
  ['Receiver', { fixes_received: 'Fixes', fixes_not_finite: 'Not finite', fixes_off_the_globe: 'Off the globe',
    fixes_impossible_time: 'Impossible time', fixes_filtered_by_distance: 'Within the distance filter' }],
  ['Unit', { mode: 'Mode', store_bytes: 'Store, bytes', store_error: 'Store error', log_bytes: 'Log, bytes', log_lines_dropped: 'Log lines dropped' }],
];
const kWorrying = ['unsaved', 'removed', 'tries_since', 'store_error', 'log_lines_dropped'];
const plain = (value) => (typeof value === 'number' ? count(value) : value === null ? '\u2013' : typeof value === 'object' ? JSON.stringify(value)
  : /^\d{4}-\d\d-\d\dT/.test(value) ? dateTime(value) : String(value).replaceAll('_', ' '));

export const health = {
  title: 'Health', events: ['health'],
  load: (uuid) => request(ofUnit(uuid, 'health')),
  show(panel, { at, health: told }) {
    if (!told || typeof told !== 'object') return panel.replaceChildren(empty('Nothing told yet: a host that is connected reports what the SDK knows.'));
    const { gaps = [], acknowledged_without_answer: unanswered = [], uuid, ...rest } = told;
    const term = (name, title) => {
      const value = rest[name];
      delete rest[name];
      return [title, plain(value), value && kWorrying.includes(name) ? 'bad' : ''];
    };
    const groups = kGroups.map(([title, names]) => [title, Object.entries(names).filter(([name]) => name in rest).map(([name, text]) => term(name, text))]);
    groups.push(['More', Object.keys(rest).map((name) => term(name, name.replaceAll('_', ' ')))]);
    const list = (value) => (Array.isArray(value) ? value : []);
    panel.replaceChildren(
      el('p', { class: 'sum' }, `Told at ${dateTime(at)}`),
      ...groups.filter(([, pairs]) => pairs.length).flatMap(([title, pairs]) => [el('h3', {}, title), el('dl', { class: 'terms' }, ...terms(pairs))]),
      ...(list(unanswered).length ? [el('p', { class: 'verdict bad' }, 'Counted as delivered without an answer: ' +
        list(unanswered).map(({ first, last }) => `${first} to ${last}`).join(', '))] : []),
      ...(list(gaps).length ? [el('h3', {}, 'Gaps'), el('table', {},
        el('thead', {}, el('tr', {}, ...['Since', 'Until', 'Why'].map((column) => el('th', { scope: 'col' }, column)))),
        el('tbody', {}, ...list(gaps).map(({ since, until, cause }) => el('tr', {}, el('td', {}, dateTime(since)),
          el('td', {}, until ? dateTime(until) : 'now'), el('td', {}, plain(cause ?? ''))))))] : []));
  },
};

const kLevels = ['verbose', 'debug', 'info', 'warning', 'error'];
const kLines = 200;

export const logs = {
  title: 'Logs', events: ['log'],
  load: (uuid) => request(ofUnit(uuid, 'logs')),
  show(panel, { logs: files = [] }, { uuid }) {
    if (!files.length) return panel.replaceChildren(empty('No log file: a unit sends one a day when logging is on, and when a push asks for it.'));
    const chosen = panel.querySelector('select')?.value;
    const pick = el('select', { 'aria-label': 'Log file' }, ...files.map(({ file, bytes: size, received }) =>
      el('option', { value: file, selected: file === chosen }, `${file} (${bytes(size)} bytes${received > 1 ? `, came ${received} times` : ''})`)));
    const level = el('select', { 'aria-label': 'Level' }, el('option', { value: 0 }, 'all levels'),
      ...kLevels.slice(1).map((name, i) => el('option', { value: i + 1 }, `${name} and above`)));
    const rows = el('ol', { class: 'log' });
    const more = el('button', { type: 'button' }, 'More');
    let from = 0;
    const filter = () => rows.setAttribute('data-least', level.value);
    const read = async (anew) => {
      if (anew) {
        rows.replaceChildren();
        from = 0;
      }
      const file = pick.value;
      const told = await request(ofUnit(uuid, `logs/${encodeURIComponent(file)}?after=${from}&limit=${kLines}`)).catch((error) => ({ lines: [{ text: error.message }] }));
      if (file !== pick.value) return;
      from += told.lines.length;
      rows.append(...told.lines.map(({ time, level: name, text }) => el('li', { 'data-level': kLevels.indexOf(String(name).toLowerCase()) },
        time ? el('time', {}, Number.isNaN(Date.parse(time)) ? time : clock(time, true)) : null,
        name ? el('b', {}, String(name).toLowerCase()) : null, el('span', {}, text ?? ''))));
      more.hidden = !told.more;
    };
    pick.addEventListener('change', () => read(true));
    level.addEventListener('change', filter);
    more.addEventListener('click', () => read(false));
    filter();
    panel.replaceChildren(el('p', { class: 'pick' }, pick, level), rows, more);
    return read(true);
  },
};

const kTold = 100;
const kPushes = [
  ['Send positions again', { messageFrom: 'tarvo', name: 'routematch' }],
  ['A message of ours', { messageFrom: 'tarvo' }],
  ['Somebody else\u2019s message', { messageFrom: 'other', aps: { alert: 'Hello' } }],
];

/// Pushes to the host process and what it was called back for. It remembers for every unit, as long as the page is open.
export class Host {
  title = 'Host';
  events = [];
  kept = new Map();

  of(uuid) {
    if (!this.kept.has(uuid)) this.kept.set(uuid, { pushes: new Map(), told: [] });
    return this.kept.get(uuid);
  }

  heardPush({ unit, push, state }) {
    this.of(unit).pushes.set(push, { ...this.of(unit).pushes.get(push), state });
    if (state === 'received') say(`Push ${push} was received`);
    this.refresh(unit);
  }

  heardTold({ unit, what, at }) {
    const { told } = this.of(unit);
    told.unshift({ what, at });
    told.length = Math.min(told.length, kTold);
    this.refresh(unit);
  }

  load = () => null;

  show(panel, _, { uuid, unit }) {
    this.uuid = uuid;
    const text = el('textarea', { rows: 3, spellcheck: 'false', id: 'push-text', 'aria-describedby': 'push-why' });
    const preset = el('select', { 'aria-label': 'Example', on: { change: () => { text.value = JSON.stringify(kPushes[preset.value][1]); } } },
      ...kPushes.map(([title], i) => el('option', { value: i }, title)));
    text.value = JSON.stringify(kPushes[0][1]);
    this.why = el('p', { class: 'why', id: 'push-why', role: 'alert' });
    this.state = el('p', { class: 'sum' });
    this.send = el('button', { type: 'submit' }, 'Send push');
    this.pushes = el('ul', { class: 'plain', 'aria-label': 'Pushes' });
    this.told = el('ol', { class: 'plain', 'aria-label': 'Calls back' });
    panel.replaceChildren(this.state,
      el('form', { class: 'push', on: { submit: (event) => this.push(event, uuid, text.value) } },
        el('label', { for: 'push-text' }, 'Silent push, a JSON object'), text, el('p', { class: 'pick' }, preset, this.send), this.why),
      this.pushes, el('h3', {}, 'The host was told'), this.told);
    this.connected(unit);
    this.refresh(uuid);
  }

  connected(unit) {
    if (!this.state || unit?.uuid !== this.uuid) return;
    this.state.className = unit.connected ? 'verdict good' : 'sum';
    this.state.textContent = unit.connected ? `A host of ${nameOf(unit)} is connected` : 'No host of this unit is connected, so no push can reach it.';
    this.send.disabled = !unit.connected;
  }

  async push(event, uuid, text) {
    event.preventDefault();
    this.why.textContent = '';
    try {
      const object = JSON.parse(text);
      if (object === null || typeof object !== 'object' || Array.isArray(object)) throw new SyntaxError('a push is a JSON object');
      const { push } = await request(ofUnit(uuid, 'push'), 'POST', JSON.stringify(object));
      const { pushes } = this.of(uuid);
      pushes.set(push, { state: 'sent', ...pushes.get(push), text });
      say(`Push ${push} was sent`);
      this.refresh(uuid);
    } catch (error) {
      this.why.textContent = error.status === 409 ? 'No host of this unit is connected.' : error.message;
    }
  }

  refresh(uuid) {
    if (uuid !== this.uuid || !this.told) return;
    const { pushes, told } = this.of(uuid);
    this.pushes.replaceChildren(...[...pushes].reverse().map(([number, { state, text }]) => el('li', {},
      el('span', { class: `chip ${state}` }, state), ` push ${number} `, el('span', { class: 'mono dim' }, text ?? ''))));
    this.told.replaceChildren(...(told.length ? told.map(({ what, at }) => el('li', {}, el('time', {}, clock(at)), ' ', what))
      : [el('li', { class: 'dim' }, 'nothing yet')]));
  }
}
