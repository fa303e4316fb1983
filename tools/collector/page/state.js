// The rows that the page holds, and the filter that chooses those shown.

/** Rows by falling number. Arrivals are added at the front, pages from the past at the end, at no cost. */
class Deck {
  newer = [];  // rising
  older = [];  // falling

  get length() { return this.newer.length + this.older.length; }

  at(index) {
    const {newer, older} = this;
    return index < newer.length ? newer[newer.length - 1 - index] : older[index - newer.length];
  }

  /** Where row number `n` is, or -1. */
  indexOf(n) {
    let low = 0, high = this.length;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (this.at(middle).n > n) low = middle + 1; else high = middle;
    }
    return low < this.length && this.at(low).n === n ? low : -1;
  }

  /** Forgets the rows before number `n`. */
  dropBefore(n) {
    const {newer, older} = this;
    while (older.length && older[older.length - 1].n < n) older.pop();
    if (older.length) return;
    let count = 0;
    while (count < newer.length && newer[count].n < n) ++count;
    newer.splice(0, count);
  }
}

const KEPT = 100000;  // rows that the page holds; the collector holds all
let store = new Deck();
let shown = new Deck();  // those of the store that pass the filter
let lastN = 0;           // the newest row that was taken into the store
let receivedN = 0;       // the same, with those that are held
let held = null;         // while paused: what arrived meanwhile
let summary = null;
let counts = new Map();    // rows by table, since the collector's start or the last clearing
let minutes = new Map();   // minute since 1970 -> table -> rows
const filter = {table: "", session: "", token: "", text: "", minute: null, pattern: null};

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
    store.newer.push(row);
    if (!matches(row)) continue;
    shown.newer.push(row);
    ++list.addedOnTop;
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

// A changed filter looks through the store newest first, in slices, so that keys and frames get their turn.
let scan = null;
let scanTimer = 0;

function refilter() {
  clearTimeout(scanTimer);
  filter.pattern = filter.text ? new RegExp(filter.text.replace(/[\\^$.*+?()[\]{}|]/g, "\\$&"), "iu") : null;
  shown = new Deck();
  list.addedOnTop = 0;
  byId("scroller").scrollTop = 0;
  scan = {newer: store.newer.length, at: 0};
  scanOn();
  showFilter();
}

function scanOn() {
  const until = performance.now() + 8;
  const {newer, older} = store;
  while (scan.at < scan.newer + older.length) {
    const row = scan.at < scan.newer ? newer[scan.newer - 1 - scan.at] : older[scan.at - scan.newer];
    ++scan.at;
    if (matches(row)) shown.older.push(row);
    if (scan.at % 64 === 0 && performance.now() > until) {
      scanTimer = setTimeout(scanOn);
      return invalidate(showList);
    }
  }
  scan = null;
  invalidate(showList);
}

function setFilter(change) {
  Object.assign(filter, change);
  refilter();
}
