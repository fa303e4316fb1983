import assert from "node:assert/strict";
import {pageTest} from "./page_test.mjs";
import {useApplication, withFolder} from "./support.mjs";

/** Presses what is named `label` on the page and waits until the collector has taken it. */
async function choose(page, label) {
  const radio = page.getByRole("radio", {name: label});
  if (await radio.isChecked()) return;
  await page.locator("#saved").evaluate((note) => { note.textContent = ""; });
  await radio.check();
  await page.getByText("In force").waitFor();
}

// What the application's events on disk have become when it was used and ended.
const STAYS = "stays", GOES = "goes";
const CASES = [
  ["batch", "204", STAYS],
  ["batch", "401", STAYS],
  ["batch", "500", STAYS],
  ["batch", "Never answer", STAYS],
  ["batch", "Reset", STAYS],
  ["batch", "Slow", STAYS],  // the application is over before the answer
  ["batch", "200 without JSON", GOES],
  ["batch", "None", GOES],
  ["handshake", "Reset", STAYS],
];

pageTest("Each fault reaches an application", {view: "behaviour"}, async (page, collector) => {
  for (const [applies, fault, fate] of CASES) {
    await choose(page, applies === "batch" ? /^Batches/ : /^Handshakes/);
    await choose(page, new RegExp(`^${fault}`));
    assert.equal(await page.locator("#fault").isVisible(), fault !== "None", fault);
    const left = await withFolder((folder) => useApplication(collector, folder));
    assert.equal(left > 0 ? STAYS : GOES, fate, `${fault} at a ${applies}`);
  }
});

pageTest("A refused handshake leaves nothing to send", {view: "behaviour"}, async (page, collector) => {
  await choose(page, /^Handshakes/);
  await choose(page, /^401/);
  await withFolder((folder) => useApplication(collector, folder));
  await page.keyboard.press("4");
  await page.locator("#handshakes").getByText("✗ 401").waitFor();
  await page.keyboard.press("3");
  await page.getByText("No batch has arrived").waitFor();
});

pageTest("What the page sets is what the next handshake is answered", {view: "behaviour"}, async (page, collector) => {
  const warning = page.locator("#timeout-warning");
  assert.ok(await warning.isHidden());
  const timeout = page.getByLabel("Session timeout");
  for (const [seconds, isWarned] of [["0", true], ["120", false]]) {
    await timeout.fill(seconds);
    await timeout.press("Enter");
    await warning.waitFor({state: isWarned ? "visible" : "hidden"});
  }
  await page.getByLabel("Privacy mode").check();
  await page.getByLabel("Blacklist").fill("https://example.org/health\nhttps://example.org/\"quoted\"");
  await page.getByLabel("Network monitoring").check();
  await page.getByText("In force").waitFor();
  await withFolder((folder) => useApplication(collector, folder));
  const {rows: [session]} = await (await fetch(`${collector.origin}/api/wait?table=Sessions&count=1&timeout=5`)).json();
  assert.equal(Object.fromEntries(session.fields).PrivacyMode, "Yes");
  const [handshake] = await (await fetch(`${collector.origin}/api/handshakes`)).json();
  assert.deepEqual(JSON.parse(handshake.answer).Data, {
    Config: {PrivacyMode: true, AdvertisingID: false, SessionTimeout: 120},
    NetworkMonitoring: {
      NetworkMonitoringEnabled: true, Blacklist: ["https://example.org/health", 'https://example.org/"quoted"'],
    },
  });
});
