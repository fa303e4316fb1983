import assert from "node:assert/strict";
import {pageTest} from "./page_test.mjs";
import {useApplication} from "./support.mjs";

const FAULTS = {"200 without JSON": "notJSON", "204": "noContent", "401": "unauthorized", "500": "error",
  "Slow": "slow", "Never answer": "never", "Reset": "reset", "None": "none"};

pageTest("The page sets what the collector answers", {view: "behaviour"}, async (page, collector) => {
  const get = async (path) => (await fetch(`${collector.origin}/api/${path}`)).json();
  const choose = async (label) => {
    await page.locator("#saved").evaluate((note) => { note.textContent = ""; });
    await page.locator("label", {hasText: new RegExp(`^${label}`)}).getByRole("radio").check();
    await page.getByText("In force").waitFor();
  };
  await choose("Batches");
  for (const [label, fault] of Object.entries(FAULTS)) {
    await choose(label);
    const now = await get("behaviour");
    assert.deepEqual([now.fault, now.appliesTo], [fault, "batch"]);
    assert.equal(await page.locator("#fault").isVisible(), fault !== "none", label);
  }
  for (const [seconds, state] of [["0", "visible"], ["120", "hidden"]]) {
    await page.getByLabel("Session timeout").fill(seconds);
    await page.getByLabel("Session timeout").press("Enter");
    await page.locator("#timeout-warning").waitFor({state});
  }
  await page.getByLabel("Privacy mode").check();
  await page.getByLabel("Blacklist").fill("https://example.org/health\nhttps://example.org/\"quoted\"");
  await page.getByLabel("Network monitoring").check();
  await page.getByText("In force").waitFor();
  await useApplication(collector);
  const [handshake] = await get("handshakes");
  const Blacklist = ["https://example.org/health", 'https://example.org/"quoted"'];
  assert.deepEqual(JSON.parse(handshake.answer).Data, {
    Config: {PrivacyMode: true, AdvertisingID: false, SessionTimeout: 120},
    NetworkMonitoring: {NetworkMonitoringEnabled: true, Blacklist},
  });
});
