// The server's side: requests as they come, and faults to switch on.
import { byId, bytes, clock, count, dateTime, el, nameOf, plural, say } from './dom.js';
import { request } from './live.js';

const kRows = 200;

export class Requests {
  constructor(units) {
    this.units = units;
    this.all = [];   // newest first
    this.fresh = [];
    this.own = byId('requests-own');
    this.faulty = byId('requests-faulty');
    this.body = byId('requests-rows');
    this.most = kRows;
    for (const box of [this.own, this.faulty]) box.addEventListener('change', () => this.draw());
    byId('requests-older').addEventListener('click', () => this.older());
  }

  choose(uuid) {
    this.uuid = uuid;
    if (this.own.checked) this.draw();
  }

  async load() {
    const { requests } = await request(`/live/requests?limit=${kRows}`);
    this.all = requests;
    this.draw();
  }

  async older() {
    const before = this.all.length ? this.all[this.all.length - 1].n : 0;
    const { requests } = await request(`/live/requests?before=${before}&limit=${kRows}`);
    this.most += requests.length;
    this.all.push(...requests);
    this.draw();
  }

  heard(one) {
    this.fresh.unshift(one);
    this.frame ??= requestAnimationFrame(() => this.take());
  }

  take() {
    this.frame = undefined;
    const fresh = this.fresh.splice(0).filter(({ n }) => !this.all.length || n > this.all[0].n);
    this.all = [...fresh, ...this.all].slice(0, this.most);
    this.body.prepend(...fresh.filter((one) => this.isWanted(one)).map((one) => this.row(one)));
    while (this.body.children.length > this.most) this.body.lastChild.remove();
    this.offerOlder();
  }

  isWanted({ unit, status, fault }) {
    return (!this.own.checked || unit === this.uuid) && (!this.faulty.checked || fault || status < 200 || status >= 400);
  }

  row({ at, unit, method, path, status, bytes: size, fault }) {
    const failed = status < 200 || status >= 400;
    return el('tr', { class: fault ? 'faulty' : failed ? 'failed' : null },
      el('td', { class: 'mono', title: dateTime(at) }, clock(at)),
      el('td', { class: 'cut' }, unit ? nameOf(this.units.get(unit) ?? { uuid: unit }) : '\u2013'),
      el('td', { class: 'mono cut', title: path }, el('span', { class: 'dim' }, method), ` ${String(path).replace(/^\/api\/v1\/[^/]+\//, '')}`),
      el('td', { class: 'number mono' }, status ? String(status) : 'none'),
      el('td', { class: 'number mono' }, bytes(size)),
      el('td', {}, fault ? el('span', { class: 'chip bad' }, fault) : null));
  }

  offerOlder() {
    byId('requests-older').hidden = !this.all.length || this.all[this.all.length - 1].n <= 1;
  }

  draw() {
    this.offerOlder();
    this.body.replaceChildren(...this.all.filter((one) => this.isWanted(one)).map((one) => this.row(one)));
  }
}

const kEndpoints = ['users', 'positions', 'predictions', 'pasttrips', 'pois', 'userconf', 'uplog', 'tokens', 'tags/set', 'tags/unset',
  'subscriptions/register', 'subscriptions/unregister', 'resetbackend', 'resetgeoprofile'];
/// What a kind needs to know besides how often and for how long.
const kNeeds = [[/status/, 'status'], [/delay|drip|skew/, 'delay'], [/status|garbage/, 'body']];

export class Faults {
  constructor() {
    this.form = byId('fault');
    this.list = byId('faults-list');
    this.form.elements.endpoint.append(el('option', { value: 'positions' }, 'positions'), el('option', { value: '*' }, 'every endpoint'),
      ...kEndpoints.filter((one) => one !== 'positions').map((one) => el('option', { value: one }, one)));
    this.form.elements.kind.addEventListener('change', () => this.fields());
    this.form.addEventListener('submit', (event) => this.add(event));
    byId('faults-clear').addEventListener('click', () => this.remove());
  }

  kinds(kinds) {
    const select = this.form.elements.kind;
    this.form.hidden = kinds.length === 0;
    if (select.options.length === kinds.length) return;
    select.replaceChildren(...kinds.map((kind) => el('option', { value: kind }, kind)));
    if (kinds.includes('status')) select.value = 'status';
    this.fields();
  }

  fields() {
    const kind = this.form.elements.kind.value;
    for (const label of this.form.querySelectorAll('[data-of]'))
      label.hidden = !kNeeds.some(([kinds, field]) => field === label.dataset.of && kinds.test(kind));
  }

  async add(event) {
    event.preventDefault();
    const rule = {};
    for (const input of this.form.elements) {
      if (!input.name || input.value === '' || input.closest('label').hidden) continue;
      rule[input.name] = input.type === 'number' ? Number(input.value) : input.value;
    }
    await this.change('/live/faults', 'POST', JSON.stringify(rule), `Fault ${rule.kind} switched on for ${rule.endpoint}`);
  }

  remove(id) {
    return this.change(id === undefined ? '/live/faults' : `/live/faults/${id}`, 'DELETE', undefined, id === undefined ? 'All faults removed' : 'Fault removed');
  }

  async change(path, method, body, done) {
    this.problem?.remove();
    try {
      await request(path, method, body);
      say(done);
    } catch (error) {
      this.problem = el('p', { class: 'why', role: 'alert' }, error.message);
      this.form.append(this.problem);
    }
  }

  show(rules) {
    byId('faults-clear').disabled = !rules.length;
    const focused = document.activeElement?.dataset?.rule;
    this.list.replaceChildren(...(rules.length ? rules.map((rule) => this.row(rule)) : [el('li', { class: 'empty' }, 'All is well: no fault is switched on.')]));
    if (focused) (this.list.querySelector(`[data-rule="${CSS.escape(focused)}"]`) ?? this.form.elements.kind).focus();
  }

  row({ id, endpoint, kind, times, every, seconds, status, delay, met = 0 }) {
    const details = [
      endpoint === '*' ? 'every endpoint' : endpoint, status && `status ${status}`, delay !== undefined && `${delay} s`,
      times && plural(times, 'time'), every > 1 && `every ${every}th`, seconds && `for ${seconds} s`].filter(Boolean).join(', ');
    return el('li', {}, el('span', { class: 'chip bad' }, kind), el('span', { class: 'details' }, details),
      el('span', { class: 'number dim' }, `met ${count(met)}`),
      el('button', { type: 'button', 'data-rule': id, 'aria-label': `Remove the fault ${kind} on ${endpoint}`, title: 'Remove', on: { click: () => this.remove(id) } }, '\u00d7'));
  }
}
