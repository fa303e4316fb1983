// What went wrong: rows sent again, gaps, refused requests.

let gaps = new Map();   // "device\ntable" -> rows that came after a gap
let again = new Map();  // the same -> arrivals of rows that were here before

function forgetHealth() {
  crashes = new Map();
  gaps = new Map();
  again = new Map();
}

function noteHealth(row) {
  noteCrash(row);
  const {device, table, state} = row;
  const map = {gap: gaps, again}[state];
  const key = `${device}\n${table}`;
  map?.set(key, (map.get(key) ?? 0) + 1);
}

const refusalText = ({status, token, fault}) =>
  `refused with ${status}, token "${clip(token, 60)}": ${clip(fault, 300)}`;

/** Counts what was refused on its tab. The first view says why the newest handshake or batch was. */
function showRefusals() {
  if (!summary) return;
  const texts = [];
  for (const [view, label, count] of [[handshakesView, "Handshake", summary.refusedHandshakes],
    [batchesView, "Batch", summary.invalidBatches]]) {
    byId(`refused-${view.id}`).textContent = count ? ` ✗ ${count.toLocaleString("en")}` : "";
    const [newest] = view.items;
    if (newest?.fault) texts.push(el("div", {}, textNodes(`✗ ${label} ${refusalText(newest)}`)));
  }
  byId("refused").hidden = texts.length === 0;
  byId("refused").replaceChildren(...texts);
}

const figure = (label, count, isBad) => el("div", {class: "card"},
  el("b", {class: count && isBad ? "bad" : ""}, (count ?? 0).toLocaleString("en")), label);

function showHealth() {
  if (!summary || byId("health").hidden) return;
  byId("health").replaceChildren(
    el("div", {class: "figures"}, figure("rows arrived", summary.rows), figure("↻ rows sent again", summary.again),
      figure("⚠ gaps in ids", summary.gaps, true), figure("✗ invalid batches", summary.invalidBatches, true),
      figure("✗ refused handshakes", summary.refusedHandshakes, true)),
    el("div", {class: "columns"}, healthTables(), healthDevices()), crashCard(),
    el("p", {class: "apart"}, el("button", {click: forgetAll}, "Forget everything…"),
      " Empties the collector: rows, batches and handshakes."));
}

const numberCell = (count) => el("td", {class: "number"}, (count ?? 0).toLocaleString("en"));

function healthTables() {
  const rows = Object.entries(summary.tables).filter(([, count]) => count.rows)
    .map(([name, count]) => el("tr", {}, el("td", {}, name),
      numberCell(count.rows), numberCell(count.again), numberCell(count.gaps)));
  return el("div", {class: "card"}, el("h2", {}, "By table"), table(["Table", "Rows", "Sent again", "Gaps"], rows, 1),
    el("p", {class: "soft"}, "Rows are sent again after a lost answer, by overlapping batches, or when the device " +
      "could not delete them. Each arrival counts here."));
}

function healthDevices() {
  const keys = [...new Set([...gaps.keys(), ...again.keys()])].sort();
  const rows = keys.slice(0, 200).map((key) => {
    const [device, name] = key.split("\n");
    return el("tr", {}, el("td", {class: "mono"}, textNodes(clip(device || "unknown", 60))), el("td", {}, name),
      numberCell(again.get(key)), numberCell(gaps.get(key)));
  });
  return el("div", {class: "card"}, el("h2", {}, "By device and table"),
    rows.length ? table(["Device", "Table", "Sent again", "Gaps"], rows, 2)
      : el("p", {class: "good"}, "✓ No gap, nothing sent again"),
    el("p", {class: "soft"}, "A device numbers the rows of each table, so a number left out is a row that did not " +
      "arrive: deleted unsent, older than thirty days, or not yet here. Counted in the rows that this page has seen. " +
      "What cannot be known: rows missing at the end, rows that never got a number because the device could not " +
      "store them, and all of a device whose session row is not here."));
}

async function forgetAll() {
  if (!confirm("Forget all rows, batches and handshakes of this collector?")) return;
  await post("/api/reset", {}).catch(() => null);
}
