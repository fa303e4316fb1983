// The list of rows of the view Live.

// Only the rows in sight are in the document: a spacer has the height of all, and a few elements move over it.
// `top` is the number of the first row in sight. `version` changes when rows that did not change read otherwise.
const list = {pool: [], chosen: 0, top: null, topIndex: 0, version: 0};
const narrow = matchMedia("(max-width: 700px)");
const rowHeight = () => (narrow.matches ? 46 : 28);

const COLUMNS = [["received", "Received"], ["table", "Table"], ["name", "Name"], ["session", "Session"],
                 ["user", "User"], ["time", "Device time"], ["lag", "Lag"], ["state", "State"]];

function makeHeads() {
  byId("heads").append(...COLUMNS.map(([column, label]) => el("span",
    {role: "columnheader", class: `cell-${column}`, "data-column": column},
    el("button", {click: () => sortBy(column)}, label))));
}

function showOrder() {
  for (const head of byId("heads").children) {
    const isSorted = head.dataset.column === order.column;
    head.setAttribute("aria-sort", isSorted ? (order.isFalling ? "descending" : "ascending") : "none");
  }
}

function makeRowElement() {
  const cells = COLUMNS.map(([column]) => el("span", {role: "gridcell", class: `cell-${column}`}));
  cells[1].append(swatch(""), el("span"));
  cells[2].append(el("b"), el("span", {class: "soft"}));
  const element = el("div", {class: "row", role: "row"}, cells);
  element.addEventListener("click", () => { choose(element.row); openPanel(element.row); });
  byId("spacer").append(element);
  return element;
}

const STATES = {new: "new", again: "↻ again", gap: "⚠ after gap"};
function stateText(row) {
  return (STATES[row.state] ?? row.state) + (row.times > 1 ? ` ×${row.times}` : "");
}

function placeRow(element, row, index, height) {
  if (element.row !== row || element.version !== list.version) fillRow(element, row);
  element.setAttribute("aria-rowindex", index + 2);
  element.setAttribute("aria-selected", String(row.n === list.chosen));
  element.style.transform = `translateY(${index * height}px)`;
}

function fillRow(element, row) {
  Object.assign(element, {row, version: list.version, id: `row-${row.n}`});
  const [received, table, name, session, user, time, lag, state] = element.children;
  received.textContent = timeText(row.received);
  table.firstChild.firstChild.setAttribute("fill", fillOf(row.table));
  table.lastChild.textContent = row.table;
  showName(name.firstChild, row);
  name.lastChild.textContent = visible(previewOf(row));
  session.textContent = visible(clip(row.session, 40));
  user.textContent = visible(clip(row.user, 80));
  time.title = dateAndTime(isoOf(row.time));
  time.textContent = time.title.slice(11);
  lag.textContent = durationText(row.lagMs);
  state.textContent = stateText(row);
  state.className = `cell-state state-${row.state}`;
}

/** What is read stays in place when rows come before it. */
function keepInPlace(scroller, height) {
  if (scroller.scrollTop > 0 && list.top !== null && shown.at(list.topIndex)?.n !== list.top) {
    const index = shown.indexOf(list.top);
    if (index >= 0) scroller.scrollTop += (index - list.topIndex) * height;
  }
  list.topIndex = Math.min(Math.floor(scroller.scrollTop / height), shown.length - 1);
  list.top = shown.at(list.topIndex)?.n ?? null;
}

function showList() {
  const scroller = byId("scroller");
  const height = rowHeight();
  byId("spacer").style.height = `${shown.length * height}px`;
  keepInPlace(scroller, height);
  const first = Math.max(0, Math.floor(scroller.scrollTop / height) - 3);
  const last = Math.min(shown.length, first + Math.ceil(scroller.clientHeight / height) + 7);
  while (list.pool.length < last - first) list.pool.push(makeRowElement());
  const size = list.pool.length;
  list.pool.forEach((element, place) => {  // a row that stays in sight stays in its element
    const index = first + ((place - (first % size) + size) % size);
    element.hidden = index >= last;
    if (!element.hidden) placeRow(element, shown.at(index), index, height);
  });
  const grid = byId("grid");
  grid.setAttribute("aria-rowcount", shown.length + 1);
  if (byId(`row-${list.chosen}`)) grid.setAttribute("aria-activedescendant", `row-${list.chosen}`);
  else grid.removeAttribute("aria-activedescendant");
  byId("shown").textContent = scan ? "searching…" : plural(shown.length, "row");
  showNone();
}

/** Marks a row and scrolls to it. */
function choose(row) {
  list.chosen = row.n;
  const index = shown.indexOf(row.n);
  if (index < 0) return;
  const scroller = byId("scroller");
  const top = index * rowHeight();
  if (top < scroller.scrollTop) scroller.scrollTop = top;
  const over = top + rowHeight() - scroller.clientHeight;
  if (over > scroller.scrollTop) scroller.scrollTop = over;
  showList();
}

function moveChoice(key) {
  const now = shown.indexOf(list.chosen);
  const page = Math.max(1, Math.floor(byId("scroller").clientHeight / rowHeight()) - 1);
  const steps = {ArrowDown: now + 1, ArrowUp: now < 0 ? 0 : now - 1, PageDown: now + page, PageUp: now - page,
                 Home: 0, End: shown.length - 1};
  if (!(key in steps)) return false;
  const row = shown.at(Math.max(0, Math.min(shown.length - 1, steps[key])));
  if (row) choose(row);
  if (row && panel.row) openPanel(row, false);
  return true;
}
