// Tries nphost's page in Chromium as people use it, and keeps what it looked like. Started by scripts/test-page.
// Usage: node page.mjs NPHOST BROWSER FOLDER-FOR-SCREENSHOTS
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { mkdirSync, mkdtempSync, openSync, rmSync, writeFileSync } from "node:fs";
import { createServer } from "node:net";
import { tmpdir } from "node:os";
import { join } from "node:path";
import axe from "axe-core";
import { chromium } from "playwright-core";

const [nphost, executablePath, shots] = process.argv.slice(2);
const folder = mkdtempSync(join(tmpdir(), "nphost-page-"));
const digits = seconds => new Date(seconds * 1000).toISOString().replace(/\D/g, "").slice(0, 14);
const hostile = "<img/src=x/onerror=alert(1)>\"'&";
const soon = Math.ceil(Date.now() / 1000) + 25; // when a number changes hands before the eyes of the test

writeFileSync(join(folder, "data"), `0044 20000101000000 NATION
00447700900 20180101000000 ALPHA
00447700900123 20190301020000 BRAVO
00447700900123 20210301020000 ALPHA
00447700900123 20240915020000 CHARLIE
00447700900123 20990115020000 BRAVO
00447700900666 20240101000000 ${hostile}
00447700900777 20200101000000 BRAVO
00447700900777 ${digits(soon)} CHARLIE
`);
writeFileSync(join(folder, "networks.toml"), `[BRAVO]
name = "Bravo Mobile"
mcc = "234"
mnc = "15"
[CHARLIE]
name = "Charlie <b>& Sons</b>"
`);

const freePort = () => new Promise((resolve, reject) => {
  const server = createServer().once("error", reject).listen(0, "127.0.0.1", () => {
    const { port } = server.address();
    server.close(() => resolve(port));
  });
});

async function eventually(what, condition) {
  for (const end = Date.now() + 30_000; Date.now() < end; await new Promise(next => setTimeout(next, 50)))
    if (await condition()) return;
  throw new Error(`${what}: not within 30 seconds`);
}

const base = `http://127.0.0.1:${await freePort()}/`;
writeFileSync(join(folder, "nphost.toml"), `[DAT_NumberPortability]
FileName = "data"
CountryCode = "44"
NationalAccessCode = "0"
[host]
networks = "networks.toml"
[http]
listen = ["${new URL(base).host}"]
`);
mkdirSync(shots, { recursive: true });
const log = openSync(join(shots, "daemon.log"), "w");
const options = ["run", "--config", join(folder, "nphost.toml")];
const daemon = spawn(nphost, options, { stdio: ["ignore", log, log] });
const ended = new Promise(resolve => daemon.once("exit", resolve));
const answers = () => fetch(base).then(response => response.ok, () => false);

let browser;
const troubles = []; // what the browser complains of: errors of the script, what the policy forbids
let steps = 0;
async function step(what, act, options = {}) {
  const context = await browser.newContext({ viewport: { width: 1280, height: 900 }, ...options });
  const page = await context.newPage();
  page.on("pageerror", error => troubles.push(`${what}: ${error}`));
  page.on("console", message => message.type() === "error" && troubles.push(`${what}: ${message.text()}`));
  page.on("dialog", dialog => { troubles.push(`${what}: a dialog`); dialog.dismiss(); });
  page.setDefaultTimeout(15_000);
  try {
    await act(page);
    assert.deepEqual(troubles, []);
    console.log(`ok   ${what}`);
    ++steps;
  } catch (error) {
    await page.screenshot({ path: join(shots, "failed.png"), fullPage: true }).catch(() => {});
    throw new Error(`${what}: ${error.message}`, { cause: error });
  } finally {
    await context.close();
  }
}

const number = "?number=%2B447700900123";
const who = page => page.locator("#who bdi").first().innerText();
const becomes = (page, name) =>
  page.waitForFunction(name => document.querySelector("#who bdi")?.textContent === name, name);
const askedAt = page => page.locator("#drawing").getAttribute("data-at").then(Number);
const seconds = text => 62135596800 + Date.parse(text + "Z") / 1000;
// Nothing was loaded anew since.
const stay = page => page.evaluate(() => { window.stayed = true; });
const stayed = async page => assert.ok(await page.evaluate(() => window.stayed), "the page was loaded anew");

async function barriers(page, what) {
  await page.addScriptTag({ content: axe.source }); // the page's policy forbids it unless the context passes that by
  const { violations } = await page.evaluate(() => window.axe.run());
  for (const { impact, id, nodes } of violations) console.log(`     ${what}: ${impact}: ${id}: ${nodes[0].html}`);
  assert.deepEqual(violations.filter(each => ["serious", "critical"].includes(each.impact)).map(each => each.id), []);
}

async function tryAll() {
  await step("the next change is counted down, and the answer changes when it comes", async page => {
    await page.goto(base + "?number=%2B447700900777");
    assert.equal(await who(page), "Bravo Mobile");
    await stay(page);
    await page.waitForFunction(() => /^in 00:00:\d\d$/.test(document.querySelector(".next .big").textContent));
    page.setDefaultTimeout(60_000);
    await becomes(page, "Charlie <b>& Sons</b>");
    assert.ok(Date.now() / 1000 >= soon, "the answer came before the change");
    await stayed(page);
  });

  await step("a number is typed, and its answer stands there", async page => {
    await page.goto(base);
    await page.getByLabel("Number").fill("07700 900 123");
    await page.keyboard.press("Enter");
    await becomes(page, "Charlie <b>& Sons</b>");
    const text = await page.locator("main").innerText();
    const parts = ["+447700900123", "belongs to", "Best match", "00447700900123 is the number itself", "Bravo Mobile"];
    for (const part of parts) assert.ok(text.includes(part), part);
    assert.equal(await page.locator(".band.answers").count(), 6);
    assert.equal(await page.locator(".band.answers.ported").count(), 3);
    assert.equal(await page.locator(".methods li").count(), 3);
  });

  await step("an instant is given, too", async page => {
    await page.goto(base);
    await page.getByLabel("Number").fill("tel:+44-7700-900123");
    await page.getByLabel("At").fill("2020-06-15T12:00");
    await page.getByRole("button", { name: "Look up" }).click();
    await becomes(page, "Bravo Mobile");
    assert.equal(await askedAt(page), seconds("2020-06-15T12:00:00"));
    assert.equal(await page.getByLabel("At").first().inputValue(), "2020-06-15T12:00");
  });

  await step("without a script", async page => {
    await page.goto(base);
    await page.getByLabel("Number").fill("+44 7700 900123");
    await page.getByRole("button", { name: "Look up" }).click();
    assert.equal(await who(page), "Charlie <b>& Sons</b>");
    assert.ok(await page.locator("#asked text").isVisible());
    assert.ok(await page.locator("#slider").isHidden());
    await page.getByRole("link", { name: "Earlier" }).click();
    await page.getByRole("link", { name: "Earlier" }).click();
    assert.equal(await who(page), "ALPHA");
    await page.screenshot({ path: join(shots, "without-script.png"), fullPage: true });
  }, { javaScriptEnabled: false });

  await step("by the keyboard alone", async page => {
    await page.goto(base + number + "&at=20240915020000");
    await stay(page);
    for (let i = 0; i < 20 && (await page.evaluate(() => document.activeElement.id)) !== "slider"; ++i)
      await page.keyboard.press("Tab");
    await page.keyboard.press("ArrowLeft");
    await becomes(page, "ALPHA");
    assert.equal(await askedAt(page), seconds("2024-09-14T02:00:00"));
    assert.equal(await page.locator("#slider").getAttribute("aria-valuetext"), "2024-09-14 02:00:00");
    assert.match(await page.getByRole("status").innerText(), /2024-09-14.*belonged to.*ALPHA/);
    await page.keyboard.press("PageDown");
    await page.keyboard.press("PageDown");
    await becomes(page, "Bravo Mobile");
    assert.equal(await askedAt(page), seconds("2019-03-01T02:00:00"));
    await page.keyboard.press("Shift+ArrowLeft");
    await becomes(page, "ALPHA");
    assert.equal(await askedAt(page), seconds("2019-03-01T01:00:00"));
    await page.keyboard.press("PageUp");
    await becomes(page, "Bravo Mobile");
    assert.equal(await page.evaluate(() => document.activeElement.id), "slider");
    await stayed(page);
    // What stands in the address now is a permanent link, and so is the one to keep.
    for (const link of [page.url(), await page.locator("#permanent").evaluate(a => a.href)]) {
      await page.goto(link);
      assert.equal(await askedAt(page), seconds("2019-03-01T02:00:00"));
      assert.equal(await who(page), "Bravo Mobile");
    }
  });

  await step("by the mouse, along the timeline", async page => {
    await page.goto(base + number);
    await stay(page);
    const box = await page.locator("#drawing").boundingBox();
    await page.mouse.click(box.x + box.width * 0.1, box.y + 60);
    await becomes(page, "NATION");
    // The handle stands above its line.
    const slider = await page.locator("#slider").boundingBox();
    const handle = await page.locator("#slider").evaluate(element => element.value / 10000);
    const line = await page.locator("#asked line").evaluate(element => element.getBoundingClientRect().x);
    const middle = slider.x + 12 + handle * (slider.width - 24);
    assert.ok(Math.abs(middle - line) < 2, `${middle}, not ${line}`);
    await page.mouse.move(middle, slider.y + slider.height / 2);
    await page.mouse.down();
    await page.mouse.move(box.x + box.width * 0.9, slider.y + slider.height / 2, { steps: 20 });
    await page.mouse.up();
    await becomes(page, "Charlie <b>& Sons</b>");
    await stayed(page);
  });

  await step("a record is clicked, and back again", async page => {
    await page.goto(base + number);
    await stay(page);
    const first = await askedAt(page);
    await page.locator("#records").getByRole("link", { name: "2019-03-01" }).click();
    await becomes(page, "Bravo Mobile");
    assert.equal(await page.locator("#records tr.chosen").count(), 1);
    await page.goBack();
    await becomes(page, "Charlie <b>& Sons</b>");
    assert.ok(await askedAt(page) >= first);
    await stayed(page);
  });

  await step("a name that would be markup", async page => {
    await page.goto(base + "?number=00447700900666");
    assert.equal(await who(page), hostile);
    assert.equal(await page.locator("img").count(), 0);
  });

  await step("a number that cannot be read, and one that is nobody's", async page => {
    const response = await page.goto(base + "?number=%3Cb%3E12ab%3C%2Fb%3E");
    troubles.splice(0, troubles.length, ...troubles.filter(trouble => !trouble.includes("400"))); // of the console
    assert.equal(response.status(), 400);
    assert.ok((await page.getByRole("alert").innerText()).includes("<b>12ab</b>"));
    assert.equal(await page.getByLabel("Number").inputValue(), "<b>12ab</b>");
    await page.goto(base + "?number=%2B4912345");
    assert.equal(await page.getByRole("heading", { level: 1 }).innerText(), "Nobody’s number");
  });

  await step("what is to come, and how the data stand", async page => {
    await page.goto(base);
    await page.getByRole("link", { name: "Coming & data" }).click();
    const text = await page.locator("main").innerText();
    for (const part of ["Upcoming assignments", "All is well", "Rejected lines", "2099-01-15 02:00:00"])
      assert.ok(text.includes(part), part);
    await page.getByRole("link", { name: "00447700900123" }).click();
    await becomes(page, "Bravo Mobile");
    assert.equal(await askedAt(page), seconds("2099-01-15T02:00:00"));
  });

  await step("the weight of it all", async page => {
    const bodies = [];
    page.on("response", response => bodies.push(response.body()));
    await page.goto(base + number, { waitUntil: "networkidle" });
    const weight = (await Promise.all(bodies)).reduce((sum, body) => sum + body.length, 0);
    assert.ok(weight > 10_000 && weight < 60_000, `${weight} bytes`);
  });

  const views = { answer: number + "&at=20200615120000", start: "", coming: "upcoming", nobody: "?number=%2B4912345" };
  for (const [device, width] of Object.entries({ phone: 360, tablet: 768, desktop: 1280 }))
    for (const colorScheme of ["light", "dark"])
      await step(`${device}, ${colorScheme}: it fits, and has no barriers`, async page => {
        for (const [name, path] of Object.entries(views)) {
          await page.goto(base + path);
          await page.screenshot({ path: join(shots, `${name}-${device}-${colorScheme}.png`), fullPage: true });
          const fits = await page.evaluate(() => document.documentElement.scrollWidth <= innerWidth);
          assert.ok(fits, `${name} is too wide`);
          const ground = await page.evaluate(() => getComputedStyle(document.documentElement).backgroundColor);
          const [red] = ground.match(/\d+/g);
          assert.equal(red < 128, colorScheme === "dark");
          await barriers(page, `${name}, ${device}, ${colorScheme}`);
        }
      }, { viewport: { width, height: 800 }, colorScheme, bypassCSP: true });

  await step("on paper", async page => {
    await page.emulateMedia({ media: "print" });
    await page.goto(base + number + "&at=20200615120000");
    for (const control of ["#slider", ".ask", ".steps"])
      assert.ok(await page.locator(control).first().isHidden(), control);
    assert.ok(await page.locator("#drawing").isVisible());
    await page.pdf({ path: join(shots, "answer.pdf"), format: "A4", printBackground: true });
  });

  await step("the daemon stops meanwhile", async page => {
    await page.goto(base + number);
    daemon.kill("SIGTERM");
    assert.equal(await ended, 0);
    await page.locator("#slider").press("PageDown");
    await page.locator("#trouble").waitFor();
    troubles.length = 0; // the console tells of the failed connection
    assert.equal(await who(page), "Charlie <b>& Sons</b>");
  });
}

let status = 1;
try {
  await eventually("the daemon answers", async () => {
    if (daemon.exitCode !== null) throw new Error(`the daemon ended with ${daemon.exitCode}`);
    return answers();
  });
  browser = await chromium.launch({ executablePath, args: process.getuid() === 0 ? ["--no-sandbox"] : [] });
  await tryAll();
  console.log(`${steps} steps passed. What it looked like lies in ${shots}`);
  status = 0;
} catch (error) {
  console.error("FAILED:", error);
} finally {
  await browser?.close();
  daemon.kill("SIGKILL");
  rmSync(folder, { recursive: true, force: true });
}
process.exit(status);
