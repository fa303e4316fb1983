// The rows that the page holds, and the filter that chooses those shown.

const KEPT = 100000;  // rows that the page holds; the collector holds all
let store = new Deck();
let shown = new Deck();  // those of the store that pass the filter, in the chosen order
let lastN = 0;           // the newest row that was taken into the store
let receivedN = 0;       // the same, with those that are held
let held = null;         // while paused: what arrived meanwhile
let summary = null;
let counts = new Map();    // rows by table, since the collector's start or the last clearing
let minutes = new Map();   // minute since 1970 -> table -> rows
const NO_FILTER = {table: "", session: "", token: "", text: "", minute: null};
const filter = {...NO_FILTER, pattern: null};
const BY_ARRIVAL = {column: "received", isFalling: true};
let order = BY_ARRIVAL;

const isFiltered = () => Object.keys(NO_FILTER).some((key) => filter[key] !== NO_FILTER[key]);
const isByArrival = () => order.column === BY_ARRIVAL.column && order.isFalling;

function matches(row) {
  if (filter.table && row.table !== filter.table) return false;
  if (filter.session && row.session !== filter.session) return false;
  if (filter.token && row.token !== filter.token) return false;
  if (filter.minute !== null && row.minute !== filter.minute) return false;
  const {pattern} = filter;
  return !pattern || pattern.test(row.name) || pattern.test(row.table) || pattern.test(row.user) ||
    pattern.test(row.device) || pattern.test(row.token) || row.fields.some((field) => pattern.test(field[1]));
}

function countInChart(row) {
  row.minute = Math.floor(Date.parse(row.received) / 60000);
  let minute = minutes.get(row.minute);
  if (!minute) minutes.set(row.minute, minute = new Map());
  minute.set(row.table, (minute.get(row.table) ?? 0) + 1);
}

/** Takes rows that just arrived, oldest first. */
function arrive(rows) {
  receivedN = Math.max(receivedN, rows.at(-1)?.n ?? 0);
  if (held) {
    held.push(...rows);
    if (held.length > KEPT * 1.05) held.splice(0, held.length - KEPT);
    return invalidate(showCounts);
  }
  for (const row of rows) {
    if (row.n <= lastN) continue;
    lastN = row.n;
    countInChart(row);
    counts.set(row.table, (counts.get(row.table) ?? 0) + 1);
    noteHealth(row);
    store.addNewer(row);
    if (matches(row)) shown.addNewer(row);
  }
  forgetOldest();
  refreshAfterRows(rows);
}

function forgetOldest() {
  if (store.length <= KEPT * 1.05) return;
  const first = store.at(KEPT - 1).n;
  store.dropBefore(first);
  shown.dropBefore(first);
  if (scan) refilter();
}

function refreshAfterRows(rows) {
  invalidate(showList);
  invalidate(showCounts);
  soon(showChart);
  soon(showHealth);
  showEmpty();
  if (!byId("sessions").hidden || rows.some((row) => row.table === "Sessions")) soon(loadSessions, 600);
  if (rows.some((row) => row.session === sessionsView.chosen)) soon(showTimeLine, 1000);
}

// A changed filter or order looks through the store newest first, in slices, so that keys and frames get their turn.
let scan = null;
let scanTimer = 0;
const SORTED_AT_ONCE = 4096;  // rows, a few milliseconds

function refilter() {
  clearTimeout(scanTimer);
  filter.pattern = filter.text ? new RegExp(filter.text.replace(/[\\^$.*+?()[\]{}|]/g, "\\$&"), "iu") : null;
  shown = isByArrival() ? new Deck() : new SortedDeck(order);
  list.top = null;
  byId("scroller").scrollTop = 0;
  scan = {newer: store.newer.length, at: 0};
  scanOn();
  showFilter();
}

function scanOn() {
  const until = performance.now() + 8;
  const end = scan.at + (isByArrival() ? Infinity : SORTED_AT_ONCE);
  const {newer, older} = store;
  while (scan.at < scan.newer + older.length) {
    const row = scan.at < scan.newer ? newer[scan.newer - 1 - scan.at] : older[scan.at - scan.newer];
    ++scan.at;
    if (matches(row)) shown.addOlder(row);
    if (scan.at >= end || (scan.at % 64 === 0 && performance.now() > until)) {
      shown.at(0);  // sorts
      scanTimer = setTimeout(scanOn);
      return invalidate(showList);
    }
  }
  scan = null;
  invalidate(showList);
}

/** A change that is a step can be gone back from. */
function setFilter(change, isStep = true) {
  Object.assign(filter, change);
  if (byId("search").value !== filter.text) byId("search").value = filter.text;
  refilter();
  noteAddress(isStep);
}

function sortBy(column) {
  const isFalling = order.column === column ? !order.isFalling : column === BY_ARRIVAL.column;
  order = {column, isFalling};
  refilter();
  noteAddress();
}
