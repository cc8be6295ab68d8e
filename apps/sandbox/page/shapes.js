// What a backend derives, as lines of the map.
import { nextTo, worldX, worldY } from './track.js';

const kDeepest = 8;

/// All lines, rings and points of a GeoJSON value as lists of [lon, lat]; what is none of it gives nothing.
export function lines(json, depth = 0) {
  if (json === null || typeof json !== 'object' || depth > kDeepest) return [];
  const inner = (list) => (Array.isArray(list) ? list.flatMap((one) => lines(one, depth + 1)) : []);
  const good = (list) => (Array.isArray(list) ? list : []).filter((pair) => Array.isArray(pair) && pair.slice(0, 2).length === 2 &&
                                                                  pair.slice(0, 2).every(Number.isFinite));
  const several = (list) => (Array.isArray(list) ? list.map(good) : []);
  switch (json.type) {
    case 'FeatureCollection': return inner(json.features);
    case 'GeometryCollection': return inner(json.geometries);
    case 'Feature': return lines(json.geometry, depth + 1);
    case 'Point': return [good([json.coordinates])];
    case 'LineString': case 'MultiPoint': return [good(json.coordinates)];
    case 'Polygon': case 'MultiLineString': return several(json.coordinates);
    case 'MultiPolygon': return (Array.isArray(json.coordinates) ? json.coordinates : []).flatMap(several);
    default: return [];
  }
}

/// Projected, each in one piece across the date line, with common bounds.
export function shape(lists) {
  const bounds = { x0: Infinity, y0: Infinity, x1: -Infinity, y1: -Infinity };
  let before = null;
  const paths = lists.filter((list) => list.length).map((list) => {
    const path = new Float64Array(list.length * 2);
    list.forEach(([lon, lat], i) => {
      before = before === null ? worldX(lon) : nextTo(worldX(lon), before);
      path[2 * i] = before;
      path[2 * i + 1] = worldY(lat);
      bounds.x0 = Math.min(bounds.x0, path[2 * i]);
      bounds.x1 = Math.max(bounds.x1, path[2 * i]);
      bounds.y0 = Math.min(bounds.y0, path[2 * i + 1]);
      bounds.y1 = Math.max(bounds.y1, path[2 * i + 1]);
    });
    return path;
  });
  return { paths, bounds };
}

/// The smallest bounds around all; null around nothing.
export function around(all) {
  const known = all.filter((one) => one && one.x0 <= one.x1);
  if (!known.length) return null;
  return {
    x0: Math.min(...known.map((one) => one.x0)), x1: Math.max(...known.map((one) => one.x1)),
    y0: Math.min(...known.map((one) => one.y0)), y1: Math.max(...known.map((one) => one.y1)),
  };
}
