// The positions of a unit, ready to be drawn: projected once, thinned for each zoom as they come.

const kLevels = 19;       // zooms 0 to 18; above, everything is drawn
const kSpacing = 2;       // pixels between two points that are both worth drawing
const kGap = 300e3;       // milliseconds without a position after which the way between is unknown
const kImpossible = 340;  // m/s, above which one of two positions is wrong
const kGlobe = 40075016;  // metres around the equator
export const kTile = 256;

/// Web Mercator, the world being 0 to 1 both ways.
export const worldX = (lon) => lon / 360 + 0.5;
export function worldY(lat) {
  const sine = Math.sin((Math.max(-85.0511, Math.min(85.0511, lat)) * Math.PI) / 180);
  return 0.5 - Math.log((1 + sine) / (1 - sine)) / (4 * Math.PI);
}
export const lonOf = (x) => (x - 0.5) * 360;
export const latOf = (y) => (Math.atan(Math.sinh((0.5 - y) * 2 * Math.PI)) * 180) / Math.PI;
/// The copy of x that lies next to another, so that a way across the date line stays one.
export const nextTo = (x, other) => x + Math.round(other - x);

/// Numbers in one piece of memory that doubles as it fills.
class Numbers {
  constructor(Type, capacity = 256) {
    this.values = new Type(capacity);
    this.size = 0;
  }
  push(value) {
    if (this.size === this.values.length) {
      const grown = new this.values.constructor(this.size * 2);
      grown.set(this.values);
      this.values = grown;
    }
    this.values[this.size++] = value;
  }
}

export class Track {
  constructor() {
    this.rows = [];  // [id, time, lon, lat, accuracy, speed] by id
    this.clear();
  }

  clear() {
    this.rows.length = 0;
    this.project(0);
  }

  get size() { return this.rows.length; }
  get lastId() { return this.size ? this.rows[this.size - 1][0] : -1; }

  /// Takes rows in, each number once; only what comes after the first of them is projected again.
  merge(rows) {
    const good = rows.filter((row) => Array.isArray(row) && [0, 1, 2, 3].every((i) => Number.isFinite(row[i])));
    if (!good.length) return;
    const least = good.reduce((id, row) => Math.min(id, row[0]), Infinity);
    let from = this.size;
    while (from > 0 && this.rows[from - 1][0] >= least) --from;
    const tail = new Map([...this.rows.splice(from), ...good].map((row) => [row[0], row]));
    for (const row of [...tail.values()].sort((one, other) => one[0] - other[0])) this.rows.push(row);
    this.project(from);
  }

  project(from) {
    if (from === 0) {
      this.x = new Numbers(Float64Array);
      this.y = new Numbers(Float64Array);
      this.broken = new Numbers(Uint8Array);  // whether the way from the one before is unknown
      this.levels = Array.from({ length: kLevels }, () => new Numbers(Uint32Array));
      this.bounds = { x0: Infinity, y0: Infinity, x1: -Infinity, y1: -Infinity };
    }
    for (const list of [this.x, this.y, this.broken]) list.size = from;
    for (const level of this.levels) while (level.size && level.values[level.size - 1] >= from) --level.size;
    for (let i = from; i < this.rows.length; ++i) this.add(i);
  }

  add(i) {
    const [, time, lon, lat] = this.rows[i];
    const y = worldY(lat);
    let x = worldX(lon), broken = 1;
    if (i > 0) {
      const before = i - 1;
      x = nextTo(x, this.x.values[before]);
      const metres = Math.hypot(x - this.x.values[before], y - this.y.values[before]) * kGlobe * Math.cos((lat * Math.PI) / 180);
      const spent = Math.abs(time - this.rows[before][1]);
      broken = spent > kGap || metres > kImpossible * Math.max(spent / 1000, 1) ? 1 : 0;
    }
    this.x.push(x);
    this.y.push(y);
    this.broken.push(broken);
    const { bounds } = this;
    bounds.x0 = Math.min(bounds.x0, x);
    bounds.x1 = Math.max(bounds.x1, x);
    bounds.y0 = Math.min(bounds.y0, y);
    bounds.y1 = Math.max(bounds.y1, y);
    for (let zoom = kLevels - 1; zoom >= 0; --zoom) {
      const level = this.levels[zoom];
      const scale = kTile * 2 ** zoom;
      const last = level.size ? level.values[level.size - 1] : -1;
      if (last >= 0 && Math.abs(x - this.x.values[last]) * scale < kSpacing &&
          Math.abs(y - this.y.values[last]) * scale < kSpacing)
        break;  // what is left out here is left out at each smaller zoom
      level.push(i);
    }
  }

  /// Which points are worth drawing at this zoom: their places in `x` and `y`.
  level(zoom) {
    const level = this.levels[Math.max(0, Math.min(kLevels - 1, Math.floor(zoom)))];
    return level.values.subarray(0, level.size);
  }
}
