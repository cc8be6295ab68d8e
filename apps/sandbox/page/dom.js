// Small helpers for the document. Whatever comes from a unit goes through these as text, never as HTML.

/// An element; children that are no nodes become text. `on` holds listeners, everything else is an attribute.
export function el(tag, { on = {}, ...attributes } = {}, ...children) {
  const node = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes))
    if (value === true) node.setAttribute(name, '');
    else if (value !== false && value != null) node.setAttribute(name, value);
  for (const [name, listener] of Object.entries(on)) node.addEventListener(name, listener);
  node.append(...children.filter((child) => child != null).map((child) => (child instanceof Node ? child : String(child))));
  return node;
}

export const byId = (id) => document.getElementById(id);

/// Sets a text only when it differs, so that nothing is laid out or announced again for nothing.
export function setText(node, text) {
  if (node.textContent !== String(text)) node.textContent = String(text);
}

/// Told to people who do not see the screen.
export const say = (text) => setText(byId('says'), text);

/// Runs `work` a while after it was asked for, and once more when it was asked for after that had begun.
export function coalesce(work, milliseconds) {
  let isPlanned = false, again = false;
  return function ask() {
    again = true;
    if (isPlanned) return;
    isPlanned = true;
    setTimeout(async () => {
      again = false;
      try {
        await work();
      } finally {
        isPlanned = false;
        if (again) ask();
      }
    }, milliseconds);
  };
}

/// The rows of a `dl`.
export const terms = (pairs) => pairs.map(([term, meaning, kind]) =>
  el('div', { class: kind }, el('dt', {}, term), el('dd', {}, meaning)));

/// A list of which one is chosen by pressing it, and none by pressing it again: `choose(index or -1)`.
export function pressList(rows, pressed, choose) {
  const list = el('ul', { class: 'rows' });
  const buttons = rows.map((children, index) => {
    const button = el('button', { type: 'button', 'aria-pressed': String(index === pressed), on: { click: () => {
      const on = button.getAttribute('aria-pressed') !== 'true';
      for (const other of buttons) other.setAttribute('aria-pressed', String(on && other === button));
      choose(on ? index : -1);
    } } }, ...children);
    list.append(el('li', {}, button));
    return button;
  });
  return list;
}

const grouped = new Intl.NumberFormat('en');
export const count = (number) => (Number.isFinite(number) ? grouped.format(number) : '\u2013');
export const plural = (number, one, many = one + 's') => `${count(number)} ${number === 1 ? one : many}`;

const pad = (number, width = 2) => String(number).padStart(width, '0');
const isDate = (date) => !Number.isNaN(date.getTime());

/// Date and time in UTC; a dash for what is none.
export function dateTime(value) {
  const date = new Date(value ?? NaN);
  return isDate(date) ? date.toISOString().slice(0, 19).replace('T', ' ') : '\u2013';
}

export function clock(value, fraction = false) {
  const date = new Date(value ?? NaN);
  return isDate(date) ? date.toISOString().slice(11, fraction ? 23 : 19) : '\u2013';
}

const dayFormat = new Intl.DateTimeFormat('en-GB', { weekday: 'short', day: 'numeric', month: 'short', year: 'numeric', timeZone: 'UTC' });
/// Weekday and date.
export function day(value) {
  const date = new Date(value ?? NaN);
  return isDate(date) ? dayFormat.format(date).replace(',', '') : '\u2013';
}
/// Hour and minute.
export const hour = (value) => clock(value).slice(0, 5);

/// The wire writes an offset without a colon: "2024-05-14T16:30:00.000+0000".
export const wireTime = (text) => Date.parse(String(text ?? '').replace(/([+-]\d\d)(\d\d)$/, '$1:$2'));

export function duration(seconds) {
  if (!Number.isFinite(seconds)) return '\u2013';
  if (seconds < 60) return `${Math.round(seconds)} s`;
  const minutes = Math.round(seconds / 60);
  if (minutes < 60) return `${minutes} min`;
  return minutes < 48 * 60 ? `${Math.floor(minutes / 60)} h ${pad(minutes % 60)}` : `${count(Math.round(minutes / 1440))} days`;
}

export function distance(metres) {
  if (!Number.isFinite(metres)) return '\u2013';
  return metres < 1000 ? `${Math.round(metres)} m` : `${(metres / 1000).toFixed(metres < 100000 ? 1 : 0)} km`;
}

export function bytes(number) {
  if (!Number.isFinite(number)) return '\u2013';
  if (number < 10000) return count(number);
  return number < 1e6 ? `${(number / 1e3).toFixed(1)} k` : `${(number / 1e6).toFixed(1)} M`;
}

export const place = (lat, lon) =>
  (Number.isFinite(lat) && Number.isFinite(lon) ? `${lat.toFixed(5)}, ${lon.toFixed(5)}` : '\u2013');

/// What people call a unit. The same phone can be there twice, so a part of the number goes with it.
export const short = (uuid) => String(uuid).slice(0, 8);
export const nameOf = (unit) => unit?.name || (unit ? short(unit.uuid) : 'unknown');
