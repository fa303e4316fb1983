// Crashes that are alike: those with the same first frame.

let crashes = new Map();  // first frame -> count and newest row

const RUNTIME = /^\d+ (libstdc\+\+|libc|libgcc_s|libc\+\+(abi)?|libm|libpthread|ld-linux[^ ]*)\.so/;

/** The first frame outside of the runtime libraries, without its number and address, which differ between launches. */
function firstFrame({fields}) {
  const lines = fieldText(fields, "StackTrace").split("\n");
  const line = lines.find((one) => !RUNTIME.test(one)) ?? lines[0];
  const [, module, place] = /^\d+ (.*?) 0x[0-9a-f]+ ?(.*)$/.exec(line) ?? [];
  return place || module || line || fieldText(fields, "CrashDetails");
}

/** A row that was sent again is no other crash. */
function noteCrash(row) {
  if (row.table !== "Crashes" || row.state === "again") return;
  const frame = firstFrame(row);
  const {count, newest} = crashes.get(frame) ?? {count: 0, newest: row};
  ++list.version;
  crashes.set(frame, {count: count + 1, newest: row.n > newest.n ? row : newest});
}

function crashText(row) {
  const frame = firstFrame(row);
  const count = crashes.get(frame)?.count ?? 1;
  return count > 1 ? `${count} alike · ${clip(frame, 200)}` : clip(frame, 200);
}

/** The card of the view Health. */
function crashCard() {
  const kinds = [...crashes].sort(([, a], [, b]) => b.count - a.count || b.newest.n - a.newest.n).slice(0, 200);
  const rows = kinds.map(([frame, {count, newest}]) => el("tr", {},
    el("td", {}, el("button", {class: "link mono", click: () => openPanel(newest)}, textNodes(clip(frame, 300)))),
    el("td", {}, textNodes(clip(newest.name, 200))), el("td", {class: "tight"}, timeText(isoOf(newest.time))),
    numberCell(count)));
  return el("div", {class: "card"}, el("h2", {}, "Crashes by first frame"),
    rows.length ? table(["First frame", "Newest", "Time", "Crashes"], rows, 3)
      : el("p", {class: "good"}, "✓ No crash"),
    el("p", {class: "soft"}, "Frames of the runtime libraries are left out. Counted in the rows that this page has " +
      "seen."));
}
