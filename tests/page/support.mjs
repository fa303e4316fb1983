// A collector, an application and a browser for a test, each gone when the test is over.
import assert from "node:assert/strict";
import {spawn} from "node:child_process";
import {once} from "node:events";
import {mkdtemp, rm} from "node:fs/promises";
import {tmpdir} from "node:os";
import {join} from "node:path";
import {setTimeout} from "node:timers/promises";
import {chromium} from "playwright-core";

const {BUILD} = process.env;
const DEADLINE = 10000;  // ms

/** Runs `act` with a new folder that is removed afterwards. */
async function withFolder(act) {
  const folder = await mkdtemp(join(tmpdir(), "marbleway-page-"));
  try {
    return await act(folder);
  } finally {
    await rm(folder, {recursive: true, force: true});
  }
}

/** Runs `act` with a collector that takes the tokens "demo" and "other", and can be stopped and started again. */
export const withCollector = (act) => withFolder(async (folder) => {
  let server;
  const collector = {
    start: async (port) => {
      server = spawn(join(BUILD, "tools/collector/marbleway-collector"),
        ["--data", join(folder, "rows.sqlite"), "--token", "demo", "--token", "other", "--port", port],
        {stdio: ["ignore", "pipe", "inherit"]});
      [collector.url] = /http:\S+/.exec(await once(server.stdout, "data"));
      collector.origin = new URL(collector.url).origin;
    },
    stop: () => (server.kill(), once(server, "exit")),
  };
  await collector.start("0");
  try {
    await act(collector);
  } finally {
    await collector.stop();
  }
});

// One for all pages. It opens no page but the collector's.
export const browser = await chromium.launch({executablePath: process.env.CHROMIUM ?? "/usr/bin/chromium"});

/** Runs `act` with the page of `collector`, then checks that the browser reported nothing but `excused`. */
export async function withPage(collector, {view = "live", excused, ...settings}, act) {
  const context = await browser.newContext({viewport: {width: 1280, height: 800}, ...settings});
  try {
    const page = await context.newPage();
    page.setDefaultTimeout(DEADLINE);
    const reports = [];
    page.on("console", (message) => reports.push(message.type() === "log" ? "" : message.text()));
    page.on("pageerror", (error) => reports.push(error.stack));
    page.on("dialog", (dialog) => { reports.push(`dialog: ${dialog.message()}`); dialog.accept(); });
    await page.goto(`${collector.origin}/#${view}`);
    await page.getByText("● connected").waitFor();
    await act(page);
    assert.deepEqual(reports.filter((text) => text && !excused?.test(text)), []);
  } finally {
    await context.close();
  }
}

/** Asks `probe` until it agrees with `expected`; fails with its last answer. */
export async function eventually(probe, expected) {
  for (const end = Date.now() + DEADLINE; ; await setTimeout(20)) {
    const answer = await probe();
    if (Date.now() > end) return assert.deepEqual(answer, expected);
    if (JSON.stringify(answer) === JSON.stringify(expected)) return;
  }
}

/** The texts of one column, of the rows in sight. */
export const column = (page, name) => page.evaluate((cell) =>
  [...document.querySelectorAll("#spacer .row:not([hidden])")].sort((a, b) => a.ariaRowIndex - b.ariaRowIndex)
    .map((row) => (row.querySelector(`${cell} b`) ?? row.querySelector(cell)).textContent), `.cell-${name}`);
export const countRows = (page, expected) => eventually(async () => (await column(page, "name")).length, expected);

/** Posts a request of the protocol; resolves to the status. */
export async function post(collector, path, body, token = "demo") {
  const headers = {"Accept": "application/json", "Content-Type": "application/json", "mrbw-project-token": token};
  return (await fetch(`${collector.url}mobile/${path}`, {method: "POST", body: JSON.stringify(body), headers})).status;
}

const TABLES = ["NetworkRequests", "Sessions", "Users", "UserAttributes", "Companies", "CompanyAttributes", "Events",
  "ScreenViews", "Crashes", "Errors", "CPUUsage", "MEMUsage", "BatteryUsage", "Ads", "Messages", "DeepLinks"];

/** A device's batch of these rows by table. */
export async function send(collector, rows, token) {
  const BatchData = Object.fromEntries(TABLES.map((table) => [table, rows[table] ?? []]));
  assert.equal(await post(collector, "batch", {BatchData}, token), 200);
}

// All rows have the same time: whose user is whose does not depend on the millisecond.
const UTCTimeStamp = new Date().toISOString().replace("T", " ").replace("Z", "");
const row = (id, SessionID, members) => ({id: String(id), SessionID, ...members, UTCTimeStamp});
export const event = (id, SessionID, EventName, attributes = "") =>
  row(id, SessionID, {EventName, EventAttributes: attributes && JSON.stringify(attributes)});
export const screen = (id, SessionID, ScreenName) => row(id, SessionID, {ScreenName, ScreenAttributes: ""});
export const user = (id, SessionID, UserID) => row(id, SessionID, {UserID, TypeID: "id"});
export const session = (id, SessionID, PlatformDeviceID) => row(id, SessionID, {
  AppleAdvertisingID: "", ProjectToken: "demo", BundleID: "com.example.shop", PlatformDeviceID, Manufacturer: "Example",
  Model: "Pocket 3", OS: "Linux", OSVersion: "6.1", AppVersion: "1.4", Carrier: "", ConnectionType: "WiFi",
  TimeZone: "Europe/Berlin", PrivacyMode: "0", SDKVersion: "2.2.0",
});

/** Uses the to-do list, an application of the library, in a folder of its own. */
export const useApplication = (collector, commands = ["add buy milk"]) => withFolder(async (folder) => {
  const application = spawn(join(BUILD, "examples/todo/todo"),
    ["--data", folder, "--collector", collector.url, "--token", "demo"], {stdio: ["pipe", "ignore", "ignore"]});
  application.stdin.end([...commands, "quit", ""].join("\n"));
  assert.deepEqual(await once(application, "exit"), [0, null]);
});
