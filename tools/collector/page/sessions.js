// The sessions: profile, time line and rows of each.

const sessionsView = {id: "sessions", items: [], chosen: null, key: (s) => s.session, none: "No session has arrived.",
  label: (s) => [clip(s.session, 36), el("small", {}, `${localTime(s.first)} · ${plural(s.rows, "row")}`)],
  detail: sessionDetail};

async function loadSessions() {
  const items = await get("/api/sessions").catch(() => null);
  if (!items) return;
  sessionsView.items = items;
  showSplit(sessionsView);
  const chosen = items.find((item) => item.session === sessionsView.chosen);
  if (chosen) byId("session-span").textContent = spanOf(chosen);
  showFilter();
}

const spanOf = ({rows, first, last}) => `${plural(rows, "row")} from ${localTime(first)} to ${localTime(last)}`;

function sessionDetail(session) {
  const profile = session.profile.filter(([name]) => name !== "id" && name !== "SessionID");
  soon(showTimeLine, 0);
  return [el("h2", {}, textNodes(session.session)),
    el("p", {}, el("span", {id: "session-span"}, spanOf(session)), " ",
      el("button", {click: () => showRowsOf(session)}, "Show them in Live")),
    el("h3", {}, "Time line, by the device's clock"), el("div", {id: "time-line"}),
    el("h3", {}, "Device profile"), pairs(profile, "twofold"),
    el("h3", {}, "Rows"), el("div", {id: "session-rows"})];
}

function showRowsOf({session}) {
  setFilter({session, table: "", minute: null});
  showView("live");
}

const deviceTime = (row) => Date.parse(row.time.replace(" ", "T") + "Z") || Date.parse(row.received);

async function showTimeLine() {
  const {chosen} = sessionsView;
  if (chosen === null || byId("sessions").hidden) return;
  const {rows, total} = await get(`/api/rows?session=${encodeURIComponent(chosen)}&limit=${PAGE}`)
    .catch(() => ({rows: [], total: 0}));
  const box = byId("time-line");
  if (!box || chosen !== sessionsView.chosen) return;
  rows.sort((a, b) => deviceTime(a) - deviceTime(b));
  if (rows.length) box.replaceChildren(lanes(rows, box.clientWidth));
  byId("session-rows").replaceChildren(rowTable(rows, total));
}

/** A lane a table, a dot a row. */
function lanes(rows, width) {
  const tables = TABLES.filter((name) => rows.some((row) => row.table === name));
  const from = deviceTime(rows[0]), span = Math.max(1, deviceTime(rows.at(-1)) - from);
  const left = Math.min(150, width / 3), height = tables.length * 22 + 20;
  const x = (row) => left + 8 + ((deviceTime(row) - from) / span) * (width - left - 16);
  const y = (name) => tables.indexOf(name) * 22 + 12;
  return svg("svg", {class: "lanes", viewBox: `0 0 ${width} ${height}`, height, role: "img",
    "aria-label": "Time line; the table below has the same rows"},
    tables.map((name) => [svg("line", {x1: left, x2: width, y1: y(name), y2: y(name)}),
      svg("text", {x: 0, y: y(name) + 4}, name)]),
    rows.filter((row) => tables.includes(row.table)).map((row) => svg("circle",
      {class: "dot", cx: x(row), cy: y(row.table), r: 6, fill: fillOf(row.table), click: () => openPanel(row)},
      svg("title", {}, visible(`${row.time.slice(11)} ${clip(row.name, 100)}`)))),
    svg("text", {x: left, y: height - 2}, rows[0].time.slice(11)),
    svg("text", {x: width, y: height - 2, "text-anchor": "end"}, rows.at(-1).time.slice(11)));
}

function rowTable(rows, total) {
  const note = total > rows.length
    ? el("p", {class: "soft"}, `The newest ${rows.length} of ${total.toLocaleString("en")} rows.`) : null;
  return el("div", {}, note, table(["Device time", "Table", "Name", "State"], rows.map((row) => el("tr", {},
    el("td", {class: "mono tight"}, visible(clip(row.time.slice(11), 40))), el("td", {class: "tight"}, row.table),
    el("td", {class: "name"}, el("button", {class: "link", click: () => openPanel(row)},
      textNodes(clip(row.name || "(no name)", 200)))),
    el("td", {class: "tight"}, stateText(row))))));
}
