import assert from "node:assert/strict";
import {pageTest} from "./page_test.mjs";
import {eventually} from "./support.mjs";

pageTest("The page sets what the collector answers", {view: "behaviour"}, async (page, collector) => {
  const behaviour = async () => (await fetch(`${collector.origin}/api/behaviour`)).json();
  for (const name of ["fault", "appliesTo"]) {
    for (const radio of (await page.locator(`[name=${name}]`).all()).reverse()) {  // ends with the first
      await page.locator("#saved").evaluate((note) => { note.textContent = ""; });
      await radio.click();
      await page.getByText("In force").waitFor();
      const now = await behaviour();
      assert.equal(now[name], await radio.getAttribute("value"));
      assert.equal(await page.locator("#fault").isVisible(), now.fault !== "none");
    }
  }
  for (const [seconds, state] of [["0", "visible"], ["120", "hidden"]]) {
    await page.getByLabel("Session timeout").fill(seconds);
    await page.getByLabel("Session timeout").press("Enter");
    await page.locator("#timeout-warning").waitFor({state});
  }
  await page.getByLabel("Privacy mode").check();
  await page.getByLabel("Blacklist").fill("https://example.org/health\nhttps://example.org/\"quoted\"");
  await page.getByLabel("Network monitoring").check();
  await eventually(behaviour, {
    PrivacyMode: true, AdvertisingID: false, SessionTimeout: 120, NetworkMonitoring: true,
    Blacklist: ["https://example.org/health", 'https://example.org/"quoted"'], fault: "none", appliesTo: "both",
  });
});
