// How the collector answers, and the faults it can show.

let behaviour = null;

const FAULTS = [
  ["none", "None", "every request is answered as it should be"],
  ["notJSON", "200 without JSON",
    "a batch counts as taken; a handshake reads as all switches off and SessionTimeout 0"],
  ["noContent", "204", "a batch stays on the device; a handshake refuses the project"],
  ["unauthorized", "401",
    "a batch stays on the device; a handshake refuses the project: nothing is recorded until the next start"],
  ["error", "500", "a batch stays on the device; a handshake refuses the project"],
  ["slow", "Slow", "the right answer, three seconds late"],
  ["never", "Never answer", "the request hangs; a batch stays, and the next may send its rows again"],
  ["reset", "Reset", "the connection breaks; a batch stays, after a handshake the library works offline"],
];
const APPLIES = [["both", "Both", ""], ["handshake", "Handshakes", "mobile/init"],
                 ["batch", "Batches", "mobile/batch"]];

let changes = Promise.resolve();  // of the behaviour, one after the other
let changesUnderWay = 0;

/** Sends a change. Until the last one is answered the form stays as the reader left it. */
function change(part) {
  ++changesUnderWay;
  changes = changes.then(() => sendChange(part)).finally(() => { --changesUnderWay; showBehaviour(); });
}

async function sendChange(part) {
  const note = byId("saved");
  try {
    behaviour = (await post("/api/behaviour", part)) ?? {...behaviour, ...part};
    note.className = "good";
    note.textContent = "✓ In force";
  } catch (error) {
    note.className = "bad";
    note.textContent = `✗ Not taken: ${error.message}`;
  }
}

const choices = (name, all) => all.map(([value, label, explanation]) => el("label", {class: "choice"},
  el("input", {type: "radio", name, value, change: () => change({[name]: value})}),
  el("b", {}, label), el("span", {}, explanation)));
const setting = (label, control) => el("label", {class: "setting"}, el("b", {}, label), control);
const checkbox = (name) => el("input",
  {type: "checkbox", id: `set-${name}`, change: (event) => change({[name]: event.target.checked})});

function makeBehaviour() {
  byId("behaviour").append(
    el("p", {}, "How the collector answers: a bad day for an application that need not be touched for it. ",
      el("span", {id: "saved", role: "status"})),
    el("div", {class: "columns"},
      el("fieldset", {}, el("legend", {}, "What the next handshake is answered"),
        setting("Privacy mode", checkbox("PrivacyMode")),
        setting("Advertising identifier", checkbox("AdvertisingID")),
        setting("Session timeout, seconds", el("input", {type: "number", min: 0, step: "any", id: "set-SessionTimeout",
          change: (event) => change({SessionTimeout: event.target.valueAsNumber})})),
        el("p", {id: "timeout-warning", class: "notice", hidden: true},
          "At 0 a session ends as soon as it has begun: each event starts another, and each end sends a batch. An " +
          "answer that lacks the timeout does the same."),
        setting("Network monitoring", checkbox("NetworkMonitoring")),
        setting("Blacklist, a URL a line", el("textarea", {id: "set-Blacklist", spellcheck: "false",
          change: (event) => change({Blacklist: event.target.value.split("\n").filter((line) => line !== "")})}))),
      el("div", {}, el("fieldset", {}, el("legend", {}, "Fault"), choices("fault", FAULTS)),
        el("fieldset", {}, el("legend", {}, "The fault meets"), choices("appliesTo", APPLIES)))));
}

function showBehaviour() {
  if (!behaviour || changesUnderWay) return;
  for (const name of ["PrivacyMode", "AdvertisingID", "NetworkMonitoring"]) {
    byId(`set-${name}`).checked = behaviour[name] === true;
  }
  setUnlessTyping(byId("set-SessionTimeout"), behaviour.SessionTimeout);
  setUnlessTyping(byId("set-Blacklist"), (behaviour.Blacklist ?? []).join("\n"));
  byId("timeout-warning").hidden = behaviour.SessionTimeout !== 0;
  for (const name of ["fault", "appliesTo"]) {
    for (const radio of document.getElementsByName(name)) radio.checked = radio.value === behaviour[name];
  }
  const fault = FAULTS.find(([value]) => value === behaviour.fault);
  byId("fault").hidden = behaviour.fault === "none";
  const whom = {both: "handshakes and batches", handshake: "handshakes", batch: "batches"}[behaviour.appliesTo];
  byId("fault").textContent = `⚠ Fault switched on for ${whom}: ${fault?.[1] ?? behaviour.fault}`;
}

function setUnlessTyping(input, value) {
  if (input !== document.activeElement) input.value = value;
}
