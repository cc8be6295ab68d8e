// What has become of the positions of the chosen unit: counts, trips, places, the prediction, the ledger.
import { count, day, distance, duration, el, hour, place, plural, pressList, setText, terms, wireTime } from './dom.js';
import { ofUnit, request } from './live.js';
import { lines, shape } from './shapes.js';
import { worldX, worldY } from './track.js';

const empty = (text) => el('p', { class: 'empty' }, text);
const seconds = (from, to) => (to - from) / 1000;
const number = (value) => (typeof value === 'number' ? value : NaN);

/// Past trips: newest first, one may be chosen and stands out on the map.
export const trips = {
  title: 'Trips', events: ['trips'], always: true,
  async load(uuid) {
    const { trips: list = [] } = await request(ofUnit(uuid, 'trips'));
    return list.map((trip) => ({ ...trip, key: `trip ${trip.pasttrip_id}`, ...shape(lines(trip.route)), from: wireTime(trip.start_time), to: wireTime(trip.arrival_time) }))
      .sort((one, other) => other.from - one.from || other.pasttrip_id - one.pasttrip_id);
  },
  show(panel, list, { map }) {
    const pressed = keep(map, list);
    map.show({ trips: list });
    if (!list.length) return panel.replaceChildren(empty('No trip yet: one is made when the unit stays somewhere after it has moved.'));
    panel.replaceChildren(
      el('p', { class: 'sum' }, `${plural(list.length, 'trip')}, ${distance(list.reduce((sum, trip) => sum + (number(trip.distance) || 0), 0))}`),
      pressList(list.map((trip) => [
        el('b', {}, `${hour(trip.from)} \u2013 ${hour(trip.to)}`),
        el('span', { class: 'number' }, duration(seconds(trip.from, trip.to))),
        el('b', { class: 'number' }, distance(number(trip.distance))),
        el('span', { class: 'dim' }, day(trip.from)), el('span', { class: 'number mono dim' }, `#${trip.pasttrip_id}`),
      ]), pressed, (index) => choose(map, list[index])));
  },
};

export const places = {
  title: 'Places', events: ['places'], always: true,
  async load(uuid) {
    const { pois: list = [] } = await request(ofUnit(uuid, 'places'));
    return list.map((poi) => ({
      key: `place ${poi.poi_id}`, ...shape(lines(poi.zone_geo_json)), x: worldX(number(poi.lon)), y: worldY(number(poi.lat)), lat: number(poi.lat), lon: number(poi.lon),
      name: String(poi.name ?? `Place ${poi.poi_id}`), visits: poi.visits, seconds: poi.seconds, id: poi.poi_id,
    })).sort((one, other) => (other.seconds ?? 0) - (one.seconds ?? 0));
  },
  show(panel, list, { map }) {
    for (const one of list) if (one.bounds.x0 > one.bounds.x1) one.bounds = { x0: one.x, x1: one.x, y0: one.y, y1: one.y };
    const pressed = keep(map, list);
    map.show({ places: list });
    if (!list.length) return panel.replaceChildren(empty('No place yet: one is made of long stays, or of several at the same spot.'));
    panel.replaceChildren(pressList(list.map((one) => [
      el('b', {}, one.name), el('span', { class: 'number' }, plural(one.visits, 'visit')), el('b', { class: 'number' }, duration(one.seconds)),
      el('span', { class: 'mono dim' }, place(one.lat, one.lon)), el('span', { class: 'number mono dim' }, `#${one.id}`),
    ]), pressed, (index) => choose(map, list[index])));
  },
};

/// What stood out still does when the list comes anew; where it is in the list, or -1.
function keep(map, list) {
  const at = list.findIndex(({ key }) => key === map.chosen?.key);
  if (at >= 0) map.chosen = list[at];
  return at;
}

function choose(map, one) {
  map.chosen = one ?? null;
  if (one) {
    map.setFollow(false);
    map.fit(one.bounds);
  }
  map.redraw();
}

export const prediction = {
  title: 'Next trip', events: ['prediction'], always: true,
  async load(uuid) {
    const told = await request(ofUnit(uuid, 'prediction'));
    return told.success === false || told.prediction_id === undefined ? null : told;
  },
  show(panel, told, { map }) {
    if (!told) {
      map.show({ prediction: null });
      return panel.replaceChildren(empty('No prediction: it takes trips that repeat by weekday and hour.'));
    }
    const route = shape([...lines(told.route), ...lines(told.destination_json)].slice(0, 1));
    const [lon, lat] = [number(told.destination_lon), number(told.destination_lat)];
    map.show({ prediction: { ...route, x: worldX(lon), y: worldY(lat), name: told.arrival_name ?? '' } });
    const probability = Math.max(0, Math.min(1, number(told.probability) || 0));
    const start = wireTime(told.start_time), arrival = wireTime(told.arrival_time);
    panel.replaceChildren(
      el('p', { class: 'from-to' }, el('b', {}, told.start_name || 'here'), el('span', { 'aria-hidden': 'true' }, ' \u2192 '),
        el('span', { class: 'away' }, ' to '), el('b', {}, told.arrival_name || 'there')),
      el('dl', { class: 'terms' }, ...terms([
        ['Probability', el('span', { class: 'meter' }, el('meter', { min: 0, max: 1, value: probability, 'aria-label': 'Probability' }),
          ` ${Math.round(probability * 100)} %`)],
        ['Starts', `${day(start)}, ${hour(start)}`], ['Arrives', `${day(arrival)}, ${hour(arrival)}`], ['Takes', duration(number(told.duration) || seconds(start, arrival))],
        ['Destination', el('span', { class: 'mono' }, place(lat, lon))], ['Number', `#${told.prediction_id}`]])),
      el('button', { type: 'button', on: { click: () => choose(map, route.paths.length ? { ...route, key: 'prediction' } : null) } }, 'Show on the map'));
  },
};

const kSvg = 'http://www.w3.org/2000/svg';
function svg(tag, attributes) {
  const node = document.createElementNS(kSvg, tag);
  for (const [name, value] of Object.entries(attributes)) node.setAttribute(name, value);
  return node;
}

/// All numbers from left to right; what is missing is cut out, what came more than once has a notch.
export function strip({ count: have, highest, holes = [], repeats = [] }) {
  const span = Math.max(1, number(highest) + 1 || 1);
  const at = (value) => (value / span) * 1000;
  const picture = svg('svg', { viewBox: '0 0 1000 14', preserveAspectRatio: 'none', class: 'strip', role: 'img' });
  const label = svg('title', {});
  label.textContent = `Numbers 0 to ${count(highest)}: ${count(have)} there, ${plural(holes.length, 'hole')}, ${plural(repeats.length, 'repeat')}`;
  picture.append(label, svg('rect', { class: 'there', x: 0, y: 3, width: have ? 1000 : 0, height: 8 }));
  for (const [first, last] of holes)
    picture.append(svg('rect', { class: 'hole', x: at(first), y: 0, width: Math.max(4, at(last + 1) - at(first)), height: 14 }));
  for (const [id] of repeats) picture.append(svg('rect', { class: 'repeat', x: at(id), y: 11, width: Math.max(2, at(1)), height: 3 }));
  return picture;
}

function table(title, columns, rows) {
  return el('table', {}, el('caption', {}, title),
    el('thead', {}, el('tr', {}, ...columns.map((column) => el('th', { scope: 'col', class: 'number' }, column)))),
    el('tbody', {}, ...rows.map((row) => el('tr', {}, ...row.map((value) => el('td', { class: 'number mono' }, count(value)))))));
}

export const ledger = {
  title: 'Ledger', events: ['batch'], always: true,
  load: (uuid) => request(ofUnit(uuid, 'ledger')),
  show(panel, told, { strip: place }) {
    const { count: have = 0, highest = -1, holes = [], repeats = [] } = told;
    place.replaceChildren(...(have ? [strip(told)] : []));
    if (!have) return panel.replaceChildren(empty('No position has arrived.'));
    const missing = holes.reduce((sum, [first, last]) => sum + last - first + 1, 0);
    panel.replaceChildren(
      el('p', { class: missing ? 'verdict bad' : 'verdict good' }, missing
        ? `${plural(missing, 'position')} missing of 0 to ${count(highest)}` : `0 to ${count(highest)}: each number is here, stored once`),
      el('p', { class: 'sum' }, repeats.length
        ? `${plural(repeats.length, 'number')} arrived more than once; the later arrivals changed nothing.` : 'None arrived more than once.'),
      ...(holes.length ? [table('Holes', ['first', 'last', 'positions'], holes.map(([first, last]) => [first, last, last - first + 1]))] : []),
      ...(repeats.length ? [table('Repeats', ['number', 'arrivals'], repeats)] : []));
  },
};

/// The numbers above the tabs.
export function showCounts(node, unit) {
  const values = unit ? [['Positions', unit.positions], ['Missing', unit.missing, unit.missing > 0 ? 'bad' : ''],
    ['Repeats', unit.repeats], ['Trips', unit.trips], ['Places', unit.places]] : [];
  if (node.children.length !== values.length) node.replaceChildren(...terms(values.map(([name]) => [name, ''])));
  values.forEach(([, value, kind], i) => {
    node.children[i].className = kind ?? '';
    setText(node.children[i].lastChild, count(value));
  });
}
