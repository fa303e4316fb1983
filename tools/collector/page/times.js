// Times, all in one zone: UTC, as devices send them, or that of this computer.

const LOCAL_ZONE = Intl.DateTimeFormat().resolvedOptions().timeZone || "Local time";
let isLocal = false;

const zoneName = () => (isLocal ? LOCAL_ZONE : "UTC");

/** A device's time stamp, which is in UTC, as the collector writes its own times. */
const isoOf = (stamp) => `${stamp.replace(" ", "T")}Z`;

/** "yyyy-mm-dd hh:mm:ss.mmm" of an ISO text or milliseconds since 1970; empty when it is no time. */
function dateAndTime(when) {
  const date = new Date(when);
  if (Number.isNaN(date.getTime())) return "";
  const behind = isLocal ? date.getTimezoneOffset() * 60000 : 0;
  return new Date(date - behind).toISOString().replace("T", " ").slice(0, 23);
}
const timeText = (when) => dateAndTime(when).slice(11);
const minuteText = (minute) => timeText(minute * 60000).slice(0, 5);
const withZone = (when) => (dateAndTime(when) ? `${dateAndTime(when)} ${zoneName()}` : "");

function durationText(ms) {
  if (ms == null || Number.isNaN(ms)) return "";
  const size = Math.abs(ms);
  if (size < 1000) return `${ms} ms`;
  if (size < 120e3) return `${(ms / 1000).toFixed(1)} s`;
  if (size < 7200e3) return `${Math.round(ms / 60e3)} min`;
  return size < 172800e3 ? `${Math.round(ms / 3600e3)} h` : `${Math.round(ms / 86400e3)} d`;
}

/** The choice is remembered where the browser stores anything. */
const ZONE_KEY = "time-zone";
function makeZones() {
  try {
    isLocal = localStorage.getItem(ZONE_KEY) === "local";
  } catch { /* nothing is stored */ }
  byId("zone").append(el("option", {value: "UTC"}, "UTC"), el("option", {value: "local"}, LOCAL_ZONE));
  byId("zone").value = isLocal ? "local" : "UTC";
  byId("zone").addEventListener("change", chooseZone);
}

function chooseZone(event) {
  isLocal = event.target.value === "local";
  try {
    localStorage.setItem(ZONE_KEY, event.target.value);
  } catch { /* nothing is stored */ }
  ++list.version;
  for (const view of Object.values(SPLITS)) view.shownKey = null;
  showAll();
  if (panel.row) openPanel(panel.row, false);
}
