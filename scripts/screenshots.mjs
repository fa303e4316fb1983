// Makes the pictures of the documents: node scripts/screenshots.mjs FOLDER
import {mkdir} from "node:fs/promises";
import {join} from "node:path";
import {browser, event, eventually, screen, send, session, useApplication, user, withCollector, withPage}
  from "../tests/page/support.mjs";

const [folder] = process.argv.slice(2);
const SIZE = {viewport: {width: 1100, height: 640}};
const PHONE = {viewport: {width: 400, height: 640}};
const MINUTE = 60000;  // milliseconds

/** `row` as a device recorded it so many milliseconds after the start of its session, a minute ago. */
const at = (ms, row) =>
  ({...row, UTCTimeStamp: new Date(Date.now() - MINUTE + ms).toISOString().replace("T", " ").replace("Z", "")});

const crash = (id, SessionID) => ({id, SessionID, CrashDetails: "SIGSEGV: address not mapped, at 0x10",
  StackTrace: "0 shop 0x000055d0eb6944cc shop::Cart::total() const + 0x1c\n1 shop 0x000055d0eb679e3c main + 0xcc"});

async function fill(collector) {
  const commands = ["login ada Analytical Engines", "add buy milk", "add call the plumber", "list", "done 1", "tip",
                    "search plumber", "remove 1", "order"];
  await useApplication(collector, commands);
  const ONE = "7C0E0F5A-9B1D-4C6E-8E0B-52A4E3B1C9D4", TWO = "B81D4C6E-8E0B-42A4-A3B1-C9D47C0E0F5A";
  const DEVICE = "3F1B6C52-0E5D-4A77-9B11-7F0C2D9E8A60";
  const purchase = {Value: 12.5, currency: "EUR", basket: [{article: "Notebook", pages: 48}, {article: "Pencil"}]};
  await send(collector, {Sessions: [at(0, session(1, ONE, DEVICE))], Users: [at(90, user(1, ONE, "grace"))],
    ScreenViews: [at(2000, screen(1, ONE, "Checkout"))], Crashes: [at(9000, crash("1", ONE))],
    Events: [at(4000, event(1, ONE, "Purchase", purchase)), at(5000, event(2, ONE, ""))],
    Errors: [at(7000, {id: "1", SessionID: ONE, ErrorName: "PaymentDeclined", ErrorMessage: "the card has expired",
      ErrorDetails: "{}"})]});
  await send(collector, {Sessions: [at(20000, session(2, TWO, DEVICE))], Users: [at(20090, user(2, TWO, "grace"))],
    Crashes: [at(24000, crash("2", TWO))]});
  const again = at(21000, event(3, TWO, "Newsletter Opened"));
  await send(collector, {Events: [again]});
  await send(collector, {Events: [again]});
  await send(collector, {Events: [at(23000, event(7, TWO, "Wish Granted", {Value: 3}))]});
}

async function picture(page, name) {
  await page.mouse.move(0, 639);
  await page.screenshot({path: join(folder, `${name}.png`)});
}

await mkdir(folder, {recursive: true});
await withCollector(async (collector) => {
  await fill(collector);
  await withPage(collector, SIZE, async (page) => {
    await page.locator("#spacer").getByText("Purchase").click();
    await page.locator("#panel summary", {hasText: "1 {1}"}).waitFor();
    await picture(page, "live");
    await page.keyboard.press("Escape");
    await page.keyboard.press("2");
    await page.locator("#sessions .list button", {hasText: "7C0E0F5A-9B1D"}).click();
    await page.locator("#session-rows", {hasText: "Checkout"}).waitFor();
    await picture(page, "session");
    await page.keyboard.press("5");
    await page.getByRole("radio", {name: /^Batches/}).check();
    await page.getByRole("radio", {name: /^500/}).check();
    await page.getByLabel("Session timeout").fill("0");
    await page.getByLabel("Session timeout").press("Enter");
    await page.locator("#timeout-warning").waitFor();
    await picture(page, "behaviour");
    await page.getByRole("radio", {name: /^None/}).check();
    await eventually(() => page.locator("#fault").isHidden(), true);
  });
  const looks = {dark: {...SIZE, colorScheme: "dark"}, phone: PHONE, "phone-dark": {...PHONE, colorScheme: "dark"}};
  for (const [name, settings] of Object.entries(looks)) {
    await withPage(collector, settings, async (page) => {
      await page.locator("#spacer").getByText("Purchase").waitFor();
      await picture(page, name);
    });
  }
});
await browser.close();
