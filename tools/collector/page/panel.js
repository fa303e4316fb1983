// All of one row, beside any view.

const panel = {row: null, n: 0, openedFrom: null};  // `n`: of the row, also while it is being fetched

function openPanel(row, takesFocus = true) {
  const box = byId("panel");
  if (box.hidden) panel.openedFrom = document.activeElement;
  Object.assign(panel, {row, n: row.n});
  box.hidden = false;
  const title = el("h2");
  showName(title, row);
  box.replaceChildren(
    el("div", {class: "top"}, title,
      copyButton("Copy JSON", () => JSON.stringify(Object.fromEntries(row.fields), null, 2)),
      el("button", {click: closePanel, "aria-label": "Close", title: "Escape"}, "✕")),
    pairs([["Table", row.table], ["State", stateText(row)], ["Number", String(row.n)],
      ["Received", withZone(row.received)], ["Device time", withZone(isoOf(row.time))],
      ["Lag", durationText(row.lagMs)], ["User", row.user], ["Device", row.device], ["Token", row.token],
      ["Batch", String(row.batch ?? "")], ["First frame", row.table === "Crashes" ? crashText(row) : ""]]),
    fixedNote(row.fields),
    el("h3", {}, "Fields, in the order as sent"),
    ...row.fields.map(([name, value]) => fieldOf(name, value)));
  box.scrollTop = 0;
  if (takesFocus) box.focus();
  invalidate(showList);
  noteAddress(takesFocus);  // moving from row to row by arrow keys is no step
}

/** Opens row number `n`, which the page may not hold. */
async function openNumber(n) {
  panel.n = n;
  const {rows} = await get(`/api/rows?after=${n - 1}&limit=1`).catch(() => ({rows: []}));
  if (panel.n !== n) return;  // another was opened meanwhile
  const [row] = rows;
  if (row?.n !== n) { panel.n = 0; return noteAddress(false); }
  openPanel(row, false);
  choose(row);
}

function closePanel() {
  panel.n = 0;
  if (!panel.row) return;
  panel.row = null;
  byId("panel").hidden = true;
  panel.openedFrom?.focus?.();
  invalidate(showList);
  noteAddress();
}
