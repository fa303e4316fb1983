// The filters of the view Live, and what it says when no row passes them.

/** The buttons with each table's count, the hidden number of a pause, and how many rows are shown. */
function showCounts() {
  const legend = byId("legend");
  const tables = [...counts.keys()].filter((table) => counts.get(table) > 0 || table === filter.table)
    .sort((a, b) => (placeOf.get(a) ?? 99) - (placeOf.get(b) ?? 99));
  if (legend.children.length !== tables.length || tables.some((t, i) => legend.children[i].dataset.table !== t)) {
    legend.replaceChildren(...tables.map((table) => el("button", {
      class: "chip", "data-table": table,
      click: () => setFilter({table: filter.table === table ? "" : table}),
    }, swatch(table), el("span", {class: isFailure({table}) ? "bad" : ""}, table), el("span", {class: "number"}))));
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
    sessionsView.items.map((s) => [s.session,
      `${clip(s.session, 8)} ${timeText(isoOf(s.begin)).slice(0, 5)} ${clip(s.user, 30)}`]));
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
  showOrder();
  invalidate(showCounts);
  soon(showChart, 0);
}

/** Says why the list is empty, and offers the way back. */
function showNone() {
  byId("none").hidden = shown.length > 0 || scan !== null || lastN === 0;
  byId("no-filter").hidden = !isFiltered();
  byId("why-none").textContent = isFiltered() ? "No row passes the filters." : "No row has arrived since the clearing.";
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
