// The connection to the collector: what there is at the start, then what arrives.

const PAGE = 500;         // rows, for what is looked at
const LONG_PAGE = 5000;  // for what fills up behind it

async function get(path) {
  const answer = await fetch(path);
  if (!answer.ok) throw new Error(`${path}: ${answer.status}`);
  return answer.json();
}

async function post(path, body) {
  const headers = {"Content-Type": "application/json"};
  const answer = await fetch(path, {method: "POST", headers, body: JSON.stringify(body)});
  if (!answer.ok) throw new Error((await answer.json().catch(() => ({}))).error ?? `status ${answer.status}`);
  return answer.status === 204 ? null : answer.json();
}

function showConnection(isOpen) {
  byId("connection").className = isOpen ? "good" : "bad";
  byId("connection").replaceChildren(isOpen ? "● " : "○ ",
    el("span", {class: "long"}, isOpen ? "connected" : "not connected, trying again"));
}

/** The first connection and every later one: what there is, then what comes. */
async function connect() {
  try {
    const paths = ["/api/summary", "/api/batches", "/api/handshakes", "/api/behaviour", "/api/sessions",
                   `/api/rows?limit=${PAGE}`];
    const [now, batches, handshakes, manner, sessions, {rows}] = await Promise.all(paths.map(get));
    if ((rows.at(-1)?.n ?? 0) < receivedN) forget();  // emptied meanwhile, or another collector
    [summary, batchesView.items, handshakesView.items, behaviour, sessionsView.items] =
      [now, batches, handshakes, manner, sessions];
    if (!lastN) beginWith(rows);
    showAll();
    listen();
  } catch {
    tryAgain();
  }
}

function tryAgain() {
  showConnection(false);
  setTimeout(connect, 1000);
}

function listen() {
  const stream = new EventSource(`/api/stream?after=${receivedN}`);
  const on = (name, act) => stream.addEventListener(name, (event) => act(event.data ? JSON.parse(event.data) : null));
  stream.onopen = () => showConnection(true);
  stream.onerror = () => { stream.close(); tryAgain(); };
  on("rows", arrive);
  on("batch", (batch) => { addTo(batchesView, batch); showEmpty(); soon(refreshSummary); });
  on("handshake", (handshake) => { addTo(handshakesView, handshake); showEmpty(); soon(refreshSummary); });
  on("behaviour", (now) => { behaviour = now; showBehaviour(); });
  on("reset", () => { forget(); loadSessions(); showAll(); });
}

async function refreshSummary() {
  summary = await get("/api/summary").catch(() => summary);
  showEmpty();
  showRefusals();
  showHealth();
}

/** Shows the newest rows at once and fetches the others behind them. */
function beginWith(rows) {
  for (const [table, {rows: count}] of Object.entries(summary.tables)) counts.set(table, count);
  lastN = receivedN = rows.at(-1)?.n ?? 0;
  takeOlder(rows);
  loadOlder();
}

/** Fetches the past page by page, up to what is kept. */
async function loadOlder() {
  const mine = store;
  while (store === mine && mine.length && mine.length < KEPT) {
    const {rows} = await get(`/api/rows?before=${mine.at(mine.length - 1).n}&limit=${LONG_PAGE}`)
      .catch(() => ({rows: []}));
    if (!rows.length || store !== mine) break;
    takeOlder(rows);
  }
}

function takeOlder(rows) {
  for (let i = rows.length - 1; i >= 0; --i) {
    countInChart(rows[i]);
    noteHealth(rows[i]);
    store.addOlder(rows[i]);
    if (!scan && matches(rows[i])) shown.addOlder(rows[i]);
  }
  invalidate(showList);
  soon(showChart);
}

/** Empties the page's own memory of rows. */
function emptyRows() {
  store = new Deck();
  counts = new Map();
  minutes = new Map();
  if (held) held = [];
  closePanel();
  refilter();
}

function forget() {
  lastN = receivedN = 0;
  emptyRows();
  forgetHealth();
  summary = {...summary, rows: 0, again: 0, gaps: 0, tables: {}, sessions: 0, batches: 0, invalidBatches: 0,
    handshakes: 0, refusedHandshakes: 0};
  batchesView.items = [];
  handshakesView.items = [];
}

function showAll() {
  for (const show of [showEmpty, showRefusals, showFilter, showCounts, showChart, showList, showBehaviour, showHealth]) {
    show();
  }
  for (const view of [sessionsView, batchesView, handshakesView]) showSplit(view);
}
