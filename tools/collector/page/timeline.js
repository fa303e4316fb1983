// A session's rows on a time line and in a table.

/** By the device's clock, or where it sent no time by the collector's. */
const instantOf = (row) => Date.parse(isoOf(row.time)) || Date.parse(row.received);

async function showTimeLine() {
  const {chosen} = sessionsView;
  if (chosen === null || byId("sessions").hidden) return;
  const {rows, total} = await get(`/api/rows?session=${encodeURIComponent(chosen)}&limit=${PAGE}`)
    .catch(() => ({rows: [], total: 0}));
  const box = byId("time-line");
  if (!box || chosen !== sessionsView.chosen) return;
  rows.sort((a, b) => instantOf(a) - instantOf(b));
  const focused = box.contains(document.activeElement) ? document.activeElement.dataset.n : null;
  if (rows.length) box.replaceChildren(lanes(rows, box.clientWidth));
  if (focused !== null) box.querySelector(`[data-n="${focused}"]`)?.focus();
  byId("session-rows").replaceChildren(rowTable(rows, total));
}

/** A lane a table, a dot a row. One dot can be reached by Tab, the others from it by arrow keys. */
function lanes(rows, width) {
  const tables = TABLES.filter((name) => rows.some((row) => row.table === name));
  const from = instantOf(rows[0]), to = instantOf(rows.at(-1)), span = Math.max(1, to - from);
  const left = Math.min(150, width / 3), height = tables.length * 22 + 20;
  const x = (row) => left + 8 + ((instantOf(row) - from) / span) * (width - left - 16);
  const y = (name) => tables.indexOf(name) * 22 + 12;
  const dot = (row, place) => {
    const label = visible(`${timeText(instantOf(row))} ${row.table} ${clip(row.name || "(empty)", 100)}`);
    return svg("circle", {class: "dot", cx: x(row), cy: y(row.table), r: 6, fill: fillOf(row.table), "data-n": row.n,
      role: "button", tabindex: place === 0 ? 0 : -1, "aria-label": label, click: () => openPanel(row),
      keydown: ({key}) => { if (key === "Enter" || key === " ") openPanel(row); }}, svg("title", {}, label));
  };
  return svg("svg", {class: "lanes", viewBox: `0 0 ${width} ${height}`, height, role: "group",
    "aria-label": "Time line; the table below has the same rows"},
    tables.map((name) => [svg("line", {x1: left, x2: width, y1: y(name), y2: y(name)}),
      svg("text", {x: 0, y: y(name) + 4}, name)]),
    rows.filter((row) => tables.includes(row.table)).map(dot),
    svg("text", {x: left, y: height - 2}, timeText(from)),
    svg("text", {x: width, y: height - 2, "text-anchor": "end"}, timeText(to)));
}

function rowTable(rows, total) {
  const note = total > rows.length
    ? el("p", {class: "soft"}, `The newest ${rows.length} of ${total.toLocaleString("en")} rows.`) : null;
  return el("div", {}, note, table(["Device time", "Table", "Name", "State"], rows.map((row) => {
    const name = el("button", {class: "link", click: () => openPanel(row)});
    showName(name, row);
    return el("tr", {}, el("td", {class: "mono tight"}, timeText(isoOf(row.time))),
      el("td", {class: "tight"}, row.table),
      el("td", {class: "name"}, name, " ", el("span", {class: "soft"}, textNodes(clip(previewOf(row), 120)))),
      el("td", {class: "tight"}, stateText(row)));
  })));
}
