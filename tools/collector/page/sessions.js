// The sessions: profile, time line and rows of each.

const sessionsView = {id: "sessions", items: [], chosen: null, key: (s) => s.session, none: "No session has arrived.",
  label: sessionLabel, detail: sessionDetail};

const crashMark = ({crashes: count}) =>
  (count ? el("span", {class: "bad"}, ` ✗ ${plural(count, "crash", "es")}`) : null);
const durationOf = ({begin, end}) => durationText(Date.parse(isoOf(end)) - Date.parse(isoOf(begin)));

function sessionLabel(session) {
  const {user, profile, begin, rows} = session;
  const application = `${fieldText(profile, "BundleID")} ${fieldText(profile, "AppVersion")}`;
  return [el("b", {class: user ? "" : "none"}, user ? textNodes(clip(user, 80)) : "(no user)"), crashMark(session),
    el("small", {}, textNodes(clip(application, 120))),
    el("small", {}, `${dateAndTime(isoOf(begin)).slice(0, 19)} · ${durationOf(session)} · ${plural(rows, "row")}`),
    el("small", {class: "mono"}, textNodes(clip(session.session, 36)))];
}

async function loadSessions() {
  const items = await get("/api/sessions").catch(() => null);
  if (!items) return;
  sessionsView.items = items;
  showSplit(sessionsView);
  const chosen = items.find((item) => item.session === sessionsView.chosen);
  if (chosen) byId("session-outline").replaceChildren(...outline(chosen));
  showFilter();
}

/** What grows while a session goes on. */
const outline = (session) => [
  pairs([["User", session.user || "none"], ["Begin", withZone(isoOf(session.begin))],
    ["Duration", `${durationOf(session)}, by the device's clock`], ["Rows", session.rows.toLocaleString("en")]]),
  crashMark(session) ?? ""];

function sessionDetail(session) {
  const profile = session.profile.filter(([name]) => !["id", "SessionID", "UTCTimeStamp"].includes(name));
  soon(showTimeLine, 0);
  return [el("h2", {}, textNodes(session.session)), el("div", {id: "session-outline"}, outline(session)),
    el("p", {class: "apart"}, el("button", {click: () => showRowsOf(session)}, "Show its rows in Live")),
    el("h3", {}, "Time line, by the device's clock"), el("div", {id: "time-line"}),
    el("h3", {}, "Device profile"), pairs(profile, "twofold"), fixedNote(profile),
    el("h3", {}, "Rows"), el("div", {id: "session-rows"})];
}

function showRowsOf({session}) {
  setFilter({...NO_FILTER, session});
  showView("live");
}
