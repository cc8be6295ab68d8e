// The coastline: TopoJSON decoded once, clipped to the view and thinned to its pixels for each drawing.
import { kTile, nextTo, worldX, worldY } from './track.js';

/// The rings of the land, each as x and y one after the other, with its bounds.
export function decode(topology) {
  const { scale: [sx, sy], translate: [tx, ty] } = topology.transform;
  const arcs = topology.arcs.map((arc) => {
    let x = 0, y = 0;
    return arc.map(([dx, dy]) => [worldX((x += dx) * sx + tx), worldY((y += dy) * sy + ty)]);
  });
  const ring = (indexes) => {
    const points = indexes.flatMap((index) => (index < 0 ? arcs[~index].slice().reverse() : arcs[index]).slice(1));
    // In one piece across the date line; what goes around the whole world, goes around the pole.
    for (let i = 1; i < points.length; ++i) points[i] = [nextTo(points[i][0], points[i - 1][0]), points[i][1]];
    const first = points[0][0], last = points[points.length - 1][0];
    if (Math.abs(last - first) > 0.5) points.push([first + Math.round(last - first), points[0][1]], [first + Math.round(last - first), 1.1], [first, 1.1]);
    const xs = points.map(([x]) => x), ys = points.map(([, y]) => y);
    return { points, x0: Math.min(...xs), x1: Math.max(...xs), y0: Math.min(...ys), y1: Math.max(...ys) };
  };
  return topology.objects.land.geometries.flatMap((shape) => (shape.type === 'Polygon' ? [shape.arcs] : shape.arcs))
    .flatMap((polygon) => polygon.map(ring));
}

/// Fills the land that `view` shows: the world's pixel at its corner is (left, top), at 2^zoom * 256 pixels a world.
export function drawLand(context, rings, { zoom, left, top, width, height }, colour) {
  const scale = kTile * 2 ** zoom;
  const bounds = new L.Bounds([-20, -20], [width + 20, height + 20]);
  context.beginPath();
  for (let copy = Math.floor(left / scale) - 1; copy * scale < left + width + scale; ++copy)
    for (const ring of rings) {
      const x0 = (ring.x0 + copy) * scale - left, x1 = (ring.x1 + copy) * scale - left;
      const y0 = ring.y0 * scale - top, y1 = ring.y1 * scale - top;
      if (x1 < 0 || y1 < 0 || x0 > width || y0 > height || (x1 - x0 < 0.5 && y1 - y0 < 0.5)) continue;
      let points = [];
      for (const [x, y] of ring.points) {
        const px = (x + copy) * scale - left, py = y * scale - top;
        const last = points[points.length - 1];
        if (!last || Math.abs(px - last.x) >= 1 || Math.abs(py - last.y) >= 1) points.push(new L.Point(px, py));
      }
      if (x0 < 0 || y0 < 0 || x1 > width || y1 > height) points = L.PolyUtil.clipPolygon(points, bounds);
      points.forEach((point, i) => (i ? context.lineTo(point.x, point.y) : context.moveTo(point.x, point.y)));
      context.closePath();
    }
  context.fillStyle = colour;
  context.fill('evenodd');
}

const kSteps = [30, 10, 5, 2, 1, 0.5, 0.2, 0.1, 0.05, 0.02, 0.01, 0.005, 0.002, 0.001];
const kApart = 110;

/// Meridians and parallels with their degrees, so that a view without a coast still says where it is.
export function drawGrid(context, { zoom, left, top, width, height, latOf, shown }, colours) {
  const scale = kTile * 2 ** zoom;
  const step = kSteps.findLast((degrees) => (degrees / 360) * scale >= kApart) ?? kSteps[0];
  const digits = step >= 1 ? 0 : step >= 0.1 ? 1 : step >= 0.01 ? 2 : 3;
  const text = (value, signs) => `${Math.abs(value).toFixed(digits)}\u00b0${Math.abs(value) < 1e-9 ? '' : signs[value < 0 ? 1 : 0]}`;
  context.strokeStyle = colours.grid;
  context.fillStyle = colours.gridText;
  context.lineWidth = 1;
  context.font = '10px ui-monospace, "DejaVu Sans Mono", monospace';
  context.beginPath();
  const lonAt = (px) => ((px + left) / scale - 0.5) * 360;
  for (let k = Math.ceil(lonAt(0) / step); k * step < lonAt(width); ++k) {
    const x = Math.round(worldX(k * step) * scale - left) + 0.5;
    context.moveTo(x, 0);
    context.lineTo(x, height);
    const round = ((((k * step + 180) % 360) + 360) % 360) - 180;
    if (x > shown.x0 + 60) context.fillText(text(round, 'EW'), x + 3, shown.y1 - 6);
  }
  const latAt = (py) => latOf((py + top) / scale);
  for (let k = Math.ceil(latAt(height) / step); k * step < latAt(0); ++k) {
    if (Math.abs(k * step) > 85) continue;
    const y = Math.round(worldY(k * step) * scale - top) + 0.5;
    context.moveTo(0, y);
    context.lineTo(width, y);
    if (y < shown.y1 - 24) context.fillText(text(k * step, 'NS'), shown.x0 + 6, y - 3);
  }
  context.stroke();
}
