// The way to the server: requests, and events that come back after a break.

/// JSON of an answer. Errors: an Error with what people are told.
export async function request(path, method = 'GET', body = undefined) {
  let answer;
  try {
    answer = await fetch(path, { method, headers: body === undefined ? {} : { 'Content-Type': 'application/json' }, body });
  } catch {
    throw new Error('the sandbox does not answer');
  }
  if (!answer.ok) {
    const why = await answer.json().catch(() => ({}));
    throw Object.assign(new Error(why.error ?? why.message ?? `refused with status ${answer.status}`), { status: answer.status });
  }
  return answer.json();
}

export const ofUnit = (uuid, what) => `/live/units/${encodeURIComponent(uuid)}/${what}`;

const kNames = ['unit', 'batch', 'request', 'trips', 'places', 'prediction', 'log', 'health', 'faults', 'push', 'told'];
const kFirstWait = 500, kLongestWait = 10000;

/// Listens for good to what comes after the event of that number. `heard(name, data)` is called for each event,
/// `state(text, again)` with "live", "lost" or "connecting"; `again` is true where a connection stands anew, after which
/// anything may have been missed.
export function listen(after, heard, state) {
  let wait = kFirstWait;
  let wasLive = false;
  const open = () => {
    const source = new EventSource(after === undefined ? '/live/events' : `/live/events?after=${after}`);
    source.onopen = () => {
      wait = kFirstWait;
      state('live', wasLive);
      wasLive = true;
    };
    source.onerror = () => {
      state(source.readyState === EventSource.CLOSED || wasLive ? 'lost' : 'connecting', false);
      if (source.readyState !== EventSource.CLOSED) return;  // the browser tries again by itself
      setTimeout(open, wait);
      wait = Math.min(wait * 2, kLongestWait);
    };
    for (const name of kNames)
      source.addEventListener(name, (event) => {
        let data;
        after = event.lastEventId || after;
        try {
          data = JSON.parse(event.data);
        } catch {
          return;
        }
        heard(name, data);
      });
  };
  open();
}
