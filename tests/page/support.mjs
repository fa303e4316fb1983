// A collector, an application and a browser for a test, each gone when the test is over.
import assert from "node:assert/strict";
import {execFile, spawn} from "node:child_process";
import {mkdtemp, rm} from "node:fs/promises";
import {tmpdir} from "node:os";
import {join} from "node:path";
import {createInterface} from "node:readline";
import {promisify} from "node:util";
import {chromium} from "playwright-core";

const {BUILD} = process.env;
const DEADLINE = 10000;  // ms

/** Runs `act` with a new folder that is removed afterwards. */
export async function withFolder(act) {
  const folder = await mkdtemp(join(tmpdir(), "marbleway-page-"));
  try {
    return await act(folder);
  } finally {
    await rm(folder, {recursive: true, force: true});
  }
}

/** A collector on `port`, 0 for a free one, that keeps its rows in `folder`: its address, and how to end it. */
async function startCollector(folder, port) {
  const server = spawn(join(BUILD, "tools/collector/marbleway-collector"),
    ["--data", join(folder, "rows.sqlite"), "--token", "demo", "--token", "other", "--port", port],
    {stdio: ["ignore", "pipe", "inherit"]});
  const ended = new Promise((resolve) => server.once("exit", resolve));
  const lines = createInterface({input: server.stdout});
  const url = await new Promise((resolve, reject) => {
    lines.on("line", (line) => { if (line.startsWith("listening on ")) resolve(line.slice(13)); });
    ended.then(() => reject(new Error("the collector does not start")));
  });
  const stop = () => {
    server.kill();
    return ended;
  };
  return {url, stop};
}

/** Runs `act` with a collector that takes the tokens "demo" and "other", and can be stopped and started again. */
export async function withCollector(act) {
  await withFolder(async (folder) => {
    let running = await startCollector(folder, "0");
    const {url} = running;
    const {origin, port} = new URL(url);
    const stop = () => running.stop();
    const start = async () => { running = await startCollector(folder, port); };
    try {
      await act({url, origin, stop, start});
    } finally {
      await stop();
    }
  });
}

// One for all pages. Chromium's sandbox does not work for root; it opens no page but the collector's.
export const browser = await chromium.launch({
  executablePath: process.env.CHROMIUM ?? "/usr/bin/chromium",
  args: [...(process.getuid() === 0 ? ["--no-sandbox"] : []), "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
         "--disable-component-update", "--disable-sync"],
});

/** Runs `act` with the page of `collector`, then asks that the browser had nothing to complain of but `excused`. */
export async function withPage(collector, options, act) {
  const {view = "live", excused, ...settings} = options;
  const context = await browser.newContext({viewport: {width: 1280, height: 800}, ...settings});
  try {
    const page = await context.newPage();
    page.setDefaultTimeout(DEADLINE);
    const complaints = [];
    page.on("console", (message) => {
      if (message.type() !== "log" && !excused?.test(message.text())) complaints.push(message.text());
    });
    page.on("pageerror", (error) => complaints.push(error.stack));
    page.on("dialog", (dialog) => { complaints.push(`dialog: ${dialog.message()}`); dialog.dismiss(); });
    await page.goto(`${collector.origin}/#${view}`);
    await page.getByText("● connected").waitFor();
    await act(page);
    assert.deepEqual(complaints, []);
  } finally {
    await context.close();
  }
}

/** Asks `probe` until it agrees with `expected`; fails with its last answer. */
export async function eventually(probe, expected) {
  const end = Date.now() + DEADLINE;
  for (;;) {
    const answer = await probe();
    try {
      assert.deepEqual(answer, expected);
      return;
    } catch (difference) {
      if (Date.now() > end) throw difference;
    }
    await new Promise((resolve) => setTimeout(resolve, 20));
  }
}

/** What the rows in sight show, each as the texts of its cells by column. */
export const rowsOf = (page) => page.evaluate(() => {
  const nameOf = (cell) => cell.className.split(" ")[0].slice("cell-".length);
  return [...document.querySelectorAll("#spacer .row:not([hidden])")]
    .sort((a, b) => a.ariaRowIndex - b.ariaRowIndex)
    .map((row) => Object.fromEntries([...row.children].map((cell) => [nameOf(cell), cell.textContent])));
});
export const namesOf = async (page) => (await rowsOf(page)).map((row) => row.name);

const TABLES = ["NetworkRequests", "Sessions", "Users", "UserAttributes", "Companies", "CompanyAttributes", "Events",
                "ScreenViews", "Crashes", "Errors", "CPUUsage", "MEMUsage", "BatteryUsage", "Ads", "Messages",
                "DeepLinks"];

/** A device's batch of these rows by table. */
export async function send(collector, rows, token = "demo") {
  const body = {BatchData: Object.fromEntries(TABLES.map((table) => [table, rows[table] ?? []]))};
  const answer = await fetch(`${collector.url}mobile/batch`, {
    method: "POST", body: JSON.stringify(body),
    headers: {"Accept": "application/json", "Content-Type": "application/json", "mrbw-project-token": token},
  });
  assert.equal(answer.status, 200, await answer.text());
}

// All rows are of one moment: whose user is whose does not hang on the millisecond.
const UTCTimeStamp = new Date().toISOString().replace("T", " ").replace("Z", "");
/** A row whose members between the identifiers and the time are `members`. */
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

/** Uses the to-do list, an application of the library, in `folder`; resolves to its events left on disk. */
export async function useApplication(collector, folder, commands = ["add buy milk"]) {
  const application = spawn(join(BUILD, "examples/todo/todo"),
    ["--data", folder, "--collector", collector.url, "--token", "demo"], {stdio: ["pipe", "ignore", "ignore"]});
  application.stdin.end([...commands, "quit", ""].join("\n"));
  const status = await new Promise((resolve) => application.once("exit", resolve));
  assert.equal(status, 0);
  const store = join(folder, "analytics/mrbw-analytics-prod-220.sqlite");
  const {stdout} = await promisify(execFile)("sqlite3", [store, "SELECT count(*) FROM mrbw_v2_events"]);
  return Number(stdout);
}
