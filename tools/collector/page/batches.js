// The batches as they arrived.

const batchesView = {id: "batches", items: [], chosen: null, key: (b) => b.n,
  none: "No batch has arrived since the collector's start.",
  label: (b) => [`#${b.n} `, statusText(b), el("small", {},
    `${timeText(b.received)} · ${plural(b.rows, "row")}, ${b.newRows} new · ${plural(b.bytes, "byte")}`)],
  detail: batchDetail};

function batchDetail(batch) {
  const raw = el("div", {}, el("button", {click: async () => {
    const answer = await fetch(`/api/batches/${batch.n}/body`);
    const text = answer.ok ? await answer.text() : `not kept (${answer.status})`;
    raw.replaceChildren(copyButton("Copy", () => text), longText(text, "pre"));
  }}, "Show the raw body"));
  return [el("h2", {}, `Batch #${batch.n}`),
    pairs([["Received", withZone(batch.received)], ["Token", batch.token], ["Size", plural(batch.bytes, "byte")],
      ["Rows", `${batch.rows}, ${batch.newRows} of them new`], ["Status", String(batch.status || "no answer")],
      ["Answer", batch.answer]]),
    el("h3", {}, "Strict check"),
    batch.fault ? el("p", {class: "bad"}, "✗ ", textNodes(batch.fault))
      : el("p", {class: "good"}, "✓ Nothing found"),
    el("h3", {}, "Rows by table"), batch.rows ? countsOf(batch) : el("p", {class: "soft"}, "None"),
    el("h3", {}, "Request"), headerTable(batch.headers), el("h3", {}, "Raw body"), raw];
}

const countsOf = ({counts}) =>
  pairs(Object.entries(counts).filter(([, count]) => count).map(([name, count]) => [name, String(count)]), "twofold");
