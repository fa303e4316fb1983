// The handshakes and their answers.

const handshakesView = {id: "handshakes", items: [], chosen: null, key: (h) => h.n,
  none: "No handshake has arrived since the collector's start.",
  label: (h) => [`#${h.n} `, statusText(h), el("small", {}, timeText(h.received))], detail: handshakeDetail};

function handshakeDetail(handshake) {
  return [el("h2", {}, `Handshake #${handshake.n}`),
    pairs([["Received", withZone(handshake.received)], ["Token", handshake.token],
      ["Status", String(handshake.status || "no answer")]]),
    el("h3", {}, "Request"), headerTable(handshake.headers), bodyBox(handshake.request),
    fixedNote(Object.entries(parseJSON(handshake.request) ?? {})), el("h3", {}, "Answer"), bodyBox(handshake.answer)];
}
