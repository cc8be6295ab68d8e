// The map: Leaflet moves it, the layers here draw on canvases of their own.
import { byId, clock, dateTime, setText } from './dom.js';
import { decode, drawGrid, drawLand } from './land.js';
import { around } from './shapes.js';
import { kTile, latOf, lonOf, nextTo, worldX, worldY } from './track.js';

/// A canvas that covers the view and a margin, and is drawn anew where Leaflet has moved or zoomed it.
const CanvasLayer = L.Renderer.extend({
  options: { padding: 0.15 },
  initialize(draw, options) {
    L.Renderer.prototype.initialize.call(this, options);
    this._draw = draw;
  },
  _initContainer() {
    this._container = document.createElement('canvas');
    this._container.setAttribute('aria-hidden', 'true');
    this._context = this._container.getContext('2d');
  },
  _destroyContainer() {
    this._container.remove();
    delete this._container;
  },
  _updatePaths() {},
  _update() {
    if (this._map._animatingZoom && this._bounds) return;
    L.Renderer.prototype._update.call(this);
    const size = this._bounds.getSize(), ratio = Math.min(devicePixelRatio || 1, 2);
    L.DomUtil.setPosition(this._container, this._bounds.min);
    if (this._container.width !== Math.round(size.x * ratio) || this._container.height !== Math.round(size.y * ratio)) {
      this._container.width = Math.round(size.x * ratio);
      this._container.height = Math.round(size.y * ratio);
      this._container.style.width = `${size.x}px`;
      this._container.style.height = `${size.y}px`;
    }
    this._context.setTransform(ratio, 0, 0, ratio, 0, 0);
    this._context.clearRect(0, 0, size.x, size.y);
    const origin = this._map.getPixelOrigin().add(this._bounds.min), shown = this._map.getSize();
    const margin = shown.multiplyBy(this.options.padding).round();
    this._draw(this._context, {
      zoom: this._zoom, scale: kTile * 2 ** this._zoom, left: origin.x, top: origin.y, width: size.x, height: size.y, latOf,
      shown: { x0: margin.x, y1: margin.y + shown.y },
    });
  },
  redraw() {
    if (this._map) this._update();
  },
});

const kStroke = 100;  // pieces of a track in one stroke
const kLabels = 200;  // that are looked at for room
const kColours = ['sea', 'land', 'grid', 'grid-text', 'text', 'panel', 'track', 'trips', 'places', 'prediction', 'muted'];

export class LiveMap {
  constructor(pick) {
    this.pick = pick;
    this.content = { track: null, trips: [], places: [], prediction: null, units: [], chosen: null };
    this.hidden = new Set();
    this.chosen = null;  // the trip or place that stands out
    this.follows = true;
    this.rings = [];
    this.redraws = { count: 0, milliseconds: 0 };
    this.readColours();
    this.map = L.map('map', { zoomControl: false, attributionControl: false, minZoom: 1, maxZoom: 19, zoomSnap: 0.5,
                              preferCanvas: true, center: [25, 10], zoom: 2 });
    this.map.createPane('land').style.zIndex = 100;
    this.land = new CanvasLayer((context, view) => this.drawBase(context, view), { pane: 'land' }).addTo(this.map);
    this.data = new CanvasLayer((context, view) => this.drawData(context, view)).addTo(this.map);
    matchMedia('(prefers-color-scheme: dark)').addEventListener('change', () => this.readColours());
    this.map.on('moveend', () => this.showScale());
    this.map.on('click', ({ containerPoint }) => this.touch(containerPoint, true));
    this.map.on('mousemove', ({ containerPoint }) => {
      this.under ??= requestAnimationFrame(() => this.touch(this.at));
      this.at = containerPoint;
    });
    this.map.on('mouseout movestart', () => { byId('hint').hidden = true; });
    this.map.on('dragstart', () => this.setFollow(false));
    new ResizeObserver(() => this.map.invalidateSize({ pan: false })).observe(byId('map'));
    byId('zoom-in').addEventListener('click', () => this.map.zoomIn(1));
    byId('zoom-out').addEventListener('click', () => this.map.zoomOut(1));
    byId('fit').addEventListener('click', () => this.fit());
    byId('follow').addEventListener('click', () => this.setFollow(!this.follows));
    for (const box of document.querySelectorAll('[data-layer]'))
      box.addEventListener('change', () => {
        this.hidden[box.checked ? 'delete' : 'add'](box.dataset.layer);
        this.redraw();
      });
    this.showScale();
    fetch('/page/land-50m.json').then((answer) => answer.json()).then((topology) => {
      this.rings = decode(topology);
      this.land.redraw();
    }, () => setText(byId('credit'), 'The coastline could not be loaded'));
  }

  useTiles(template) {
    if (this.tiles || !template) return;
    this.tiles = L.tileLayer(template, { maxZoom: 19 }).addTo(this.map);
    setText(byId('credit'), `Tiles: ${template.replace(/^https?:\/\/(\{s\}\.)?/, '').split('/')[0]}`);
  }

  readColours() {
    const style = getComputedStyle(document.documentElement);
    this.colours = Object.fromEntries(kColours.map((name) => [name, style.getPropertyValue(`--${name}`).trim()]));
    this.colours.gridText = this.colours['grid-text'];
    this.land?.redraw();
    this.data?.redraw();
  }

  /// Takes some of `content` anew and draws it with the next frame.
  show(some) {
    Object.assign(this.content, some);
    this.redraw();
  }

  redraw() {
    this.frame ??= requestAnimationFrame(() => {
      this.frame = undefined;
      this.data.redraw();
      this.keepUp();
    });
  }

  setFollow(on) {
    this.follows = on;
    byId('follow').setAttribute('aria-pressed', String(on));
    if (on) this.keepUp();
  }

  /// While the unit is followed, its newest position stays in view.
  keepUp() {
    const { track } = this.content;
    if (!this.follows || !track?.size || this.map._animatingZoom) return;
    const last = track.size - 1;
    const to = [latOf(track.y.values[last]), lonOf(track.x.values[last])];
    if (this.map.getBounds().pad(-0.08).contains(to)) return;
    const all = this.boundsOf(track.bounds);
    // As far as the whole way is still readable it stays in view; then the view goes along with the unit.
    if (this.map.getBoundsZoom(all) >= Math.min(this.map.getZoom(), 12)) this.map.fitBounds(all, { padding: [40, 40], maxZoom: 16 });
    else this.map.panTo(to);
  }

  boundsOf({ x0, y0, x1, y1 }) {
    return L.latLngBounds([latOf(y1), lonOf(x0)], [latOf(y0), lonOf(x1)]);
  }

  /// Shows all of the unit, or one thing of it.
  fit(bounds = null) {
    const { track, trips, places, units } = this.content;
    const dots = units.map(({ x, y }) => ({ x0: x, x1: x, y0: y, y1: y }));
    const all = bounds ?? around([track?.bounds]) ?? around([...trips, ...places].map((one) => one.bounds)) ?? around(dots);
    if (all) this.map.fitBounds(this.boundsOf(all), { padding: [40, 40], maxZoom: 16, animate: false });
  }

  showScale() {
    const size = this.map.getSize();
    const metres = this.map.distance(this.map.containerPointToLatLng([0, size.y / 2]), this.map.containerPointToLatLng([100, size.y / 2]));
    const power = 10 ** Math.floor(Math.log10(metres));
    const round = power * (metres / power >= 5 ? 5 : metres / power >= 2 ? 2 : 1);
    if (!Number.isFinite(round)) return;
    byId('scale').style.width = `${(100 * round) / metres}px`;
    setText(byId('scale'), round >= 1000 ? `${round / 1000} km` : `${round} m`);
  }

  drawBase(context, view) {
    context.fillStyle = this.colours.sea;
    context.fillRect(0, 0, view.width, view.height);
    drawLand(context, this.rings, view, this.colours.land);
    drawGrid(context, view, this.colours);
  }

  /// Calls `draw(shift)` for each copy of the world on which these bounds are in view.
  copies({ x0, y0, x1, y1 }, view, draw) {
    const left = view.left / view.scale, right = (view.left + view.width) / view.scale;
    if (y1 * view.scale < view.top || y0 * view.scale > view.top + view.height) return;
    for (let copy = Math.ceil(left - x1); copy <= right - x0; ++copy) draw(copy);
  }

  drawData(context, view) {
    const start = performance.now();
    const { track, trips, places, prediction, units } = this.content;
    const { colours, chosen } = this;
    const shown = (what) => !this.hidden.has(what);
    const labels = [];
    const trip = shown('trips') && trips.includes(chosen) ? chosen : null;
    if (shown('trips')) for (const one of trips) if (one !== trip) this.drawPaths(context, view, one, { stroke: colours.trips, width: 7, alpha: 0.4 });
    if (shown('places')) for (const one of places) this.drawPaths(context, view, one, { stroke: colours.places, fill: true, width: one === chosen ? 4 : 2 });
    context.globalAlpha = chosen ? 0.35 : 1;  // what is chosen stands out from the way to and fro
    if (shown('track') && track?.size) this.drawTrack(context, view, track);
    context.globalAlpha = 1;
    if (trip) {
      this.drawPaths(context, view, trip, { stroke: colours.panel, width: 9 });
      this.drawPaths(context, view, trip, { stroke: colours.trips, width: 6 });
    }
    if (shown('prediction') && prediction) {
      this.drawPaths(context, view, prediction, { stroke: colours.panel, width: 7 });
      this.drawPaths(context, view, prediction, { stroke: colours.prediction, width: 4, dashes: [3, 8] });
    }
    if (shown('places')) for (const one of places) this.drawDot(context, view, one, 4, colours.places, labels, one.name);
    if (shown('prediction') && prediction) this.drawDot(context, view, prediction, 6, colours.prediction, labels, prediction.name);
    for (const unit of units) {
      const own = unit.uuid === this.content.chosen;
      this.drawDot(context, view, unit, own ? 7 : 5, own ? colours.track : colours.muted, labels, own ? '' : unit.name);
    }
    this.drawLabels(context, labels);
    this.redraws.count += 1;
    this.redraws.milliseconds += performance.now() - start;
  }

  drawPaths(context, view, { paths, bounds }, { stroke, width, alpha = 1, fill = false, dashes = [] }) {
    this.copies(bounds, view, (copy) => {
      context.beginPath();
      for (const path of paths) {
        let lastX = NaN, lastY = NaN;
        for (let i = 0; i < path.length; i += 2) {
          const x = (path[i] + copy) * view.scale - view.left, y = path[i + 1] * view.scale - view.top;
          if (i > 0 && i < path.length - 2 && Math.abs(x - lastX) < 1 && Math.abs(y - lastY) < 1) continue;
          if (i === 0) context.moveTo(x, y);
          else context.lineTo(x, y);
          [lastX, lastY] = [x, y];
        }
      }
      context.lineJoin = context.lineCap = 'round';
      context.setLineDash(dashes);
      context.strokeStyle = context.fillStyle = stroke;
      context.lineWidth = width;
      if (fill) {
        context.globalAlpha = 0.2;
        context.fill('evenodd');
      }
      context.globalAlpha = alpha;
      context.stroke();
      context.globalAlpha = 1;
      context.setLineDash([]);
    });
  }

  drawDot(context, view, { x, y }, radius, colour, labels, text) {
    if (!Number.isFinite(x) || !Number.isFinite(y)) return;
    this.copies({ x0: x, x1: x, y0: y, y1: y }, view, (copy) => {
      const px = (x + copy) * view.scale - view.left, py = y * view.scale - view.top;
      context.beginPath();
      context.arc(px, py, radius, 0, 2 * Math.PI);
      context.fillStyle = colour;
      context.fill();
      context.lineWidth = 2;
      context.strokeStyle = this.colours.panel;
      context.stroke();
      if (text) labels.push({ text, x: px + radius + 4, y: py + 4 });
    });
  }

  /// Those that come first have the room; what would lie over another label is left out.
  drawLabels(context, labels) {
    const taken = [];
    context.font = '600 12px system-ui, "DejaVu Sans", sans-serif';
    context.lineWidth = 4;
    context.lineJoin = 'round';
    context.strokeStyle = this.colours.panel;
    context.fillStyle = this.colours.text;
    for (const { text, x, y } of labels.slice(0, kLabels)) {
      const cut = text.length > 32 ? `${text.slice(0, 31)}\u2026` : text;
      const width = context.measureText(cut).width;
      if (taken.some((one) => x < one.x + one.width + 4 && one.x < x + width + 4 && Math.abs(y - one.y) < 15)) continue;
      taken.push({ x, y, width });
      context.strokeText(cut, x, y);
      context.fillText(cut, x, y);
    }
  }

  /// Known ways as a line, unknown ones thin; points of their own where there is room. A canvas strokes many short paths
  /// much faster than a long one that crosses itself.
  drawTrack(context, view, track) {
    const { x: { values: xs }, y: { values: ys }, broken: { values: broken } } = track;
    const level = track.level(view.zoom);
    context.lineJoin = 'bevel';
    context.lineCap = 'butt';
    context.strokeStyle = context.fillStyle = this.colours.track;
    context.lineWidth = 2.5;
    this.copies(track.bounds, view, (copy) => {
      const unknown = new Path2D(), dots = new Path2D();
      let known = new Path2D(), length = 0;
      let lastX = NaN, lastY = NaN, at = null, drawn = 0;
      for (const i of level) {
        const x = (xs[i] + copy) * view.scale - view.left, y = ys[i] * view.scale - view.top;
        const out = (lastX < 0 && x < 0) || (lastY < 0 && y < 0) || (lastX > view.width && x > view.width) ||
                    (lastY > view.height && y > view.height);
        if (!out && lastX === lastX) {
          const path = broken[i] ? unknown : known;
          if (at !== path) path.moveTo(lastX, lastY);
          path.lineTo(x, y);
          at = path;
          if (path === known && ++length === kStroke) {
            context.stroke(known);
            known = new Path2D();
            length = 0;
          }
        } else at = null;
        if (view.zoom >= 15 && x >= 0 && y >= 0 && x <= view.width && y <= view.height && ++drawn <= 3000) {
          dots.moveTo(x + 3, y);
          dots.arc(x, y, 3, 0, 2 * Math.PI);
        }
        [lastX, lastY] = [x, y];
      }
      context.stroke(known);
      context.fill(dots);
      context.lineWidth = 1;
      context.globalAlpha /= 2;
      context.stroke(unknown);
      context.globalAlpha *= 2;
      context.lineWidth = 2.5;
    });
  }

  /// Tells what is under a point of the view; a press on another unit chooses it.
  touch(point, pressed = false) {
    this.under = undefined;
    const { track, units } = this.content;
    const origin = this.map.getPixelOrigin().subtract(this.map._getMapPanePos());
    const scale = kTile * 2 ** this.map.getZoom();
    const wx = (origin.x + point.x) / scale, wy = (origin.y + point.y) / scale;
    const off = (x, y) => Math.hypot(nextTo(x, wx) - wx, y - wy) * scale;
    const unit = units.find((one) => one.uuid !== this.content.chosen && off(one.x, one.y) < 12);
    if (unit && pressed) return this.pick(unit.uuid);
    let text = unit?.name ?? '', least = 10;
    if (!unit && track && !this.hidden.has('track'))
      for (const i of track.level(this.map.getZoom())) {
        const distance = off(track.x.values[i], track.y.values[i]);
        if (distance >= least) continue;
        least = distance;
        const [id, time, , , accuracy, speed] = track.rows[i];
        text = `${id}  ${dateTime(time)}` + (Number.isFinite(accuracy) && accuracy >= 0 ? `  \u00b1${Math.round(accuracy)} m` : '') +
               (Number.isFinite(speed) && speed >= 0 ? `  ${Math.round(speed * 3.6)} km/h` : '');
      }
    const hint = byId('hint');
    hint.hidden = !text;
    setText(hint, text);
    hint.style.transform = `translate(${Math.round(point.x + 12)}px, ${Math.round(point.y - 30)}px)`;
  }
}

export const dotOf = ({ lon, lat }) => ({ x: worldX(lon), y: worldY(lat) });
