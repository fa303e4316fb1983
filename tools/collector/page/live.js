// The first view: chart, filters and the list of rows.

const SPANS = [15, 60];  // minutes on the chart: the few when all rows fit in

function showChart() {
  const now = Math.floor(Date.now() / 60000);
  const newest = store.length ? store.at(0).minute : now;
  const end = now - newest < SPANS[1] ? now : newest;  // old rows alone are shown where they are
  const oldest = store.length ? store.at(store.length - 1).minute : now;
  const span = SPANS.find((minutes) => end - oldest < minutes) ?? SPANS[1];
  const wanted = Array.from({length: span}, (_, i) => end - span + 1 + i);
  const peak = Math.max(1, ...wanted.map(totalOf));
  const width = 600 / span;
  const bars = wanted.flatMap((minute, i) => barsOf(minute, i * width, width, peak));
  byId("chart").replaceChildren(svg("rect", {y: 71, width: 600, height: 1, fill: "var(--line)"}), ...bars);
  byId("chart-from").textContent = minuteText(wanted[0]);
  byId("chart-peak").textContent = `rows a minute, at most ${peak.toLocaleString("en")}`;
  byId("chart-to").textContent = end === now ? `${minuteText(end)}, now` : minuteText(end);
}

const minuteText = (minute) => clockOf(new Date(minute * 60000)).slice(0, 5);
const isChosen = (table, minute) => filter.table === table && filter.minute === minute;
const totalOf = (minute) => [...(minutes.get(minute)?.values() ?? [])].reduce((sum, count) => sum + count, 0);

function barsOf(minute, x, width, peak) {
  let y = 71;
  const bars = [];
  for (const [table, count] of minutes.get(minute) ?? []) {
    const height = Math.max(1, (count / peak) * 68);
    y -= height;
    const isDim = (filter.table && filter.table !== table) || (filter.minute !== null && filter.minute !== minute);
    bars.push(svg("rect", {
      x: x + 1, y, width: width - 2, height, fill: fillOf(table), opacity: isDim ? 0.25 : 1, "data-table": table,
      click: () => setFilter(isChosen(table, minute) ? {table: "", minute: null} : {table, minute}),
    }, svg("title", {}, `${table}: ${count}`)));
  }
  return bars;
}

/** The buttons with each table's count, the hidden number of a pause, and how many rows are shown. */
function showCounts() {
  const legend = byId("legend");
  const tables = [...counts.keys()].filter((table) => counts.get(table) > 0 || table === filter.table)
    .sort((a, b) => (placeOf.get(a) ?? 99) - (placeOf.get(b) ?? 99));
  if (legend.children.length !== tables.length || tables.some((t, i) => legend.children[i].dataset.table !== t)) {
    legend.replaceChildren(...tables.map((table) => el("button", {
      class: "chip", "data-table": table,
      click: () => setFilter({table: filter.table === table ? "" : table}),
    }, swatch(table), table, el("span", {class: "number"}))));
  }
  for (const chip of legend.children) {
    chip.setAttribute("aria-pressed", String(chip.dataset.table === filter.table));
    chip.lastChild.textContent = counts.get(chip.dataset.table).toLocaleString("en");
  }
  byId("pause").textContent = held ? `Resume (${held.length.toLocaleString("en")} waiting)` : "Pause";
  byId("pause").setAttribute("aria-pressed", String(held !== null));
}

function showFilter() {
  options(byId("by-session"), "All sessions", filter.session,
    sessionsView.items.map((s) => [s.session, `${clip(s.session, 8)} ${localTime(s.first).slice(0, 5)}`]));
  options(byId("by-token"), "All tokens", filter.token,
    (summary?.tokens ?? []).map((token) => [token, clip(token, 30)]));
  byId("by-minute").hidden = filter.minute === null;
  if (filter.minute !== null) byId("by-minute").textContent = `minute ${minuteText(filter.minute)} ✕`;
  const query = new URLSearchParams();
  for (const key of ["table", "session", "token"]) if (filter[key]) query.set(key, filter[key]);
  const isPartly = filter.text !== "" || filter.minute !== null;
  for (const kind of ["ndjson", "csv"]) {
    byId(kind).href = `/api/rows.${kind}?${query}`;
    byId(kind).title = isPartly ? "Export: all rows of the chosen table, session and token, whatever the search"
      : "Export these rows";
  }
  invalidate(showCounts);
  soon(showChart, 0);
}

function options(select, all, chosen, pairs) {
  if (chosen && !pairs.some(([value]) => value === chosen)) pairs = [[chosen, clip(chosen, 8)], ...pairs];
  const key = JSON.stringify(pairs);
  if (select.dataset.key !== key) {
    select.dataset.key = key;
    select.replaceChildren(...[["", all], ...pairs].map(([value, label]) => el("option", {value}, visible(label))));
  }
  select.value = chosen;
}

function togglePause() {
  const waiting = held;
  held = held ? null : [];
  if (waiting) arrive(waiting);
  showCounts();
}

function clearRows() {
  emptyRows();
  showChart();
}

// Only the rows in sight are in the document: a spacer has the height of all, and a few elements move over it.
const list = {pool: [], addedOnTop: 0, chosen: 0};
const narrow = matchMedia("(max-width: 700px)");
const rowHeight = () => (narrow.matches ? 46 : 28);

function makeRowElement() {
  const cells = ["received", "table", "name", "session", "user", "time", "lag", "state"]
    .map((name) => el("span", {role: "gridcell", class: `cell-${name}`}));
  cells[1].append(swatch(""), el("span"));
  const element = el("div", {class: "row", role: "row"}, cells);
  element.addEventListener("click", () => { choose(shown.indexOf(element.row.n)); openPanel(element.row); });
  byId("spacer").append(element);
  return element;
}

const STATES = {new: "new", again: "↻ again", gap: "⚠ after gap"};
function stateText(row) {
  return (STATES[row.state] ?? row.state) + (row.times > 1 ? ` ×${row.times}` : "");
}

function fillRow(element, row, index) {
  element.row = row;
  element.id = `row-${row.n}`;
  element.setAttribute("aria-rowindex", index + 2);
  element.setAttribute("aria-selected", String(row.n === list.chosen));
  element.style.transform = `translateY(${index * rowHeight()}px)`;
  const [received, table, name, session, user, time, lag, state] = element.children;
  received.textContent = localTime(row.received);
  table.firstChild.firstChild.setAttribute("fill", fillOf(row.table));
  table.lastChild.textContent = row.table;
  name.textContent = visible(clip(row.name, 200));
  session.textContent = visible(clip(row.session, 40));
  user.textContent = visible(clip(row.user, 80));
  time.textContent = visible(clip(row.time.slice(11) || row.time, 40));
  time.title = clip(row.time, 40);
  lag.textContent = lagText(row.lagMs);
  state.textContent = stateText(row);
  state.className = `cell-state state-${row.state}`;
}

function showList() {
  const scroller = byId("scroller");
  const height = rowHeight();
  byId("spacer").style.height = `${shown.length * height}px`;
  if (scroller.scrollTop > 0) scroller.scrollTop += list.addedOnTop * height;  // what is read stays in place
  list.addedOnTop = 0;
  const first = Math.max(0, Math.floor(scroller.scrollTop / height) - 3);
  const last = Math.min(shown.length, first + Math.ceil(scroller.clientHeight / height) + 7);
  while (list.pool.length < last - first) list.pool.push(makeRowElement());
  list.pool.forEach((element, i) => {
    element.hidden = first + i >= last;
    if (!element.hidden) fillRow(element, shown.at(first + i), first + i);
  });
  const grid = byId("grid");
  grid.setAttribute("aria-rowcount", shown.length + 1);
  if (byId(`row-${list.chosen}`)) grid.setAttribute("aria-activedescendant", `row-${list.chosen}`);
  else grid.removeAttribute("aria-activedescendant");
  byId("shown").textContent = scan ? "searching…" : plural(shown.length, "row");
}

function choose(index) {
  if (shown.length === 0) return;
  index = Math.max(0, Math.min(shown.length - 1, index));
  list.chosen = shown.at(index).n;
  const scroller = byId("scroller");
  const top = index * rowHeight();
  if (top < scroller.scrollTop) scroller.scrollTop = top;
  const over = top + rowHeight() - scroller.clientHeight;
  if (over > scroller.scrollTop) scroller.scrollTop = over;
  showList();
  if (!byId("panel").hidden) openPanel(shown.at(index), false);
}

function moveChoice(key) {
  const now = shown.indexOf(list.chosen);
  const page = Math.max(1, Math.floor(byId("scroller").clientHeight / rowHeight()) - 1);
  const steps = {ArrowDown: now + 1, ArrowUp: now < 0 ? 0 : now - 1, PageDown: now + page, PageUp: now - page,
                 Home: 0, End: shown.length - 1};
  if (!(key in steps)) return false;
  choose(steps[key]);
  return true;
}
