// What the first view shows until a row arrives: a sample, and how far an application has come.

function snippet() {
  const url = `${location.origin}/v2/`;
  return `#include <Marbleway/Host.h>
#include <Marbleway/Marbleway.h>

int main() {
  using namespace std::chrono_literals;
  marbleway::configure({.developmentURL = ${JSON.stringify(url)}});
  Marbleway::initMarbleway(${JSON.stringify(summary.tokens[0] ?? "my-project")},
                           {{"SDKEnvironment", 1}, {"PrivacyMode", false}});
  Marbleway::trackEvent("Hello");
  marbleway::waitUntilIdle(2s);
  Marbleway::stopSession();  // sends what was recorded
  marbleway::waitUntilIdle(5s);
}
`;
}

function showEmpty() {
  const isEmpty = !!summary && store.length === 0 && !held && lastN === 0 && !(summary.rows > 0);
  byId("empty").hidden = !isEmpty;
  byId("rows-shown").hidden = isEmpty;
  if (!isEmpty) return;
  const text = snippet();
  byId("empty").replaceChildren(
    el("h2", {}, "Nothing has arrived yet"),
    el("p", {}, "Paste this into an application. Rows show up here by themselves."),
    el("pre", {}, text), el("p", {}, copyButton("Copy", () => text)),
    el("ul", {class: "lamps", role: "status"}, lamp("Handshake", summary.handshakes, handshakesView.items[0]),
      lamp("Session", summary.sessions), lamp("First batch", summary.batches, batchesView.items[0])));
}

/** Green when there was one, red with the reason when `newest` was refused. */
function lamp(label, count, newest) {
  if (newest?.fault) return el("li", {class: "refused"}, textNodes(`✗ ${label}: ${refusalText(newest)}`));
  return count || newest ? el("li", {class: "lit"}, `● ${label}: seen`) : el("li", {}, `○ ${label}: waiting`);
}
