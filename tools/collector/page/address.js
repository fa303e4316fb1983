// The address says the view, the filters, the order, the chosen entry and the open row. It can be copied, loaded
// again, and followed back and forward.

const SPLITS = {sessions: sessionsView, batches: batchesView, handshakes: handshakesView};
const NAMED_FILTERS = ["table", "session", "token", "text"];
const MINUTE = "minute";

function addressNow() {
  const view = viewNow();
  const query = new URLSearchParams();
  for (const name of NAMED_FILTERS) if (filter[name]) query.set(name, filter[name]);
  if (filter.minute !== null) query.set(MINUTE, new Date(filter.minute * 60000).toISOString().slice(0, 16));
  if (!isByArrival()) query.set("sort", (order.isFalling ? "-" : "") + order.column);
  if (SPLITS[view] && SPLITS[view].chosen !== null) query.set("entry", SPLITS[view].chosen);
  if (panel.n) query.set("row", panel.n);
  return `#${view}${query.size ? `?${query}` : ""}`;
}

let isStep = null;  // null: the address is not to be changed

/** Writes the address once the present task is done. One that is a step can be gone back from. */
function noteAddress(isOne = true) {
  if (isStep === null) queueMicrotask(writeAddress);
  isStep = isStep || isOne;
}

function writeAddress() {
  const address = addressNow();
  if (address !== location.hash) history[isStep ? "pushState" : "replaceState"](null, "", address);
  isStep = null;
}

/** Shows what the address says. */
function readAddress() {
  const [wanted, text] = location.hash.slice(1).split("?");
  const query = new URLSearchParams(text);
  const view = VIEWS.some(([id]) => id === wanted) ? wanted : "live";
  const minute = Date.parse(`${query.get(MINUTE)}Z`) / 60000;
  const column = (query.get("sort") ?? "").replace("-", "");
  order = Object.hasOwn(SORT_KEYS, column) ? {column, isFalling: query.get("sort").startsWith("-")} : BY_ARRIVAL;
  setFilter({...Object.fromEntries(NAMED_FILTERS.map((name) => [name, query.get(name) ?? ""])),
    minute: Number.isNaN(minute) ? null : minute});
  showView(view);
  const entry = query.get("entry");
  if (SPLITS[view] && entry !== null) chooseEntry(SPLITS[view], view === "sessions" ? entry : Number(entry));
  const row = Number(query.get("row"));
  if (row > 0) openNumber(row);
  isStep = false;  // the address itself is none
}

addEventListener("popstate", readAddress);
