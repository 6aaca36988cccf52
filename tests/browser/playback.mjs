// Frame-exact and synced cuts played in a real browser: Debian's chromium, driven headless by
// playwright-core. Each output must open, report a duration equal to the sum of its ranges within one
// frame, play from its start to its end, and show a picture after a seek to every join, with no error
// event and no corrupted frame.
//
// Usage: node playback.mjs TESSALO_PROGRAM MEDIA_DIR WORK_DIR (WORK_DIR holds node_modules/playwright-core)
import { execFileSync } from "node:child_process";
import { writeFileSync } from "node:fs";
import path from "node:path";

const [program, mediaDir, workDir] = process.argv.slice(2).map((p) => path.resolve(p));
const { chromium } = await import(path.resolve(workDir, "node_modules", "playwright-core", "index.mjs"));

const frameS = 0.04;  // longgop.mp4 is 25 fps
// Ranges on whole frames, [a, b - 1] ms: each shows b - a ms. Starts inside groups, a range inside one
// group, one from a key frame, one across three groups.
const ranges = [[1320, 6280], [7000, 7520], [5000, 6000], [2000, 11120]];
const cases = [
  { name: "exact.mp4", args: ["--exact"] },
  { name: "synced.mp4", args: ["--kind", "1"], keyAligned: true },
];

const failures = [];
const browser = await chromium.launch({
  executablePath: "/usr/bin/chromium",
  args: ["--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
         "--disable-component-update", "--disable-sync", "--autoplay-policy=no-user-gesture-required"],
});
try {
  for (const c of cases) {
    const out = path.join(workDir, c.name);
    const rangeArgs = ranges.flatMap(([a, b]) => ["-r", `${a}-${b - 1}`]);
    execFileSync(program, ["cut", path.join(mediaDir, "longgop.mp4"), "-o", out, ...rangeArgs, ...c.args]);
    const page = path.join(workDir, c.name + ".html");
    writeFileSync(page, `<!doctype html><video id="v" muted preload="auto" src="${path.basename(out)}"></video>`);
    const tab = await browser.newPage();
    await tab.goto("file://" + page);
    const joins = [];
    let at = 0;
    for (const [a, b] of ranges.slice(0, -1)) { at += (b - a) / 1000; joins.push(at); }
    const result = await tab.evaluate(async ({ joins, frameS }) => {
      const v = document.getElementById("v");
      const errors = [];
      v.addEventListener("error", () => errors.push(v.error ? v.error.message || String(v.error.code) : "error"));
      const within = (p, ms) => Promise.race([p, new Promise((_, no) => setTimeout(() => no(new Error("timed out")), ms))]);
      const once = (name) => new Promise((yes) => v.addEventListener(name, yes, { once: true }));
      const shown = () => new Promise((yes) => v.requestVideoFrameCallback((_, meta) => yes(meta.mediaTime)));
      if (v.readyState < 1) await within(once("loadedmetadata"), 10000);
      const duration = v.duration;
      // Every join: seek a little past it and wait for a picture from there.
      const seeks = [];
      for (const t of joins) {
        const picture = shown();
        v.currentTime = t + frameS / 2;
        await within(once("seeked"), 10000);
        seeks.push(await within(picture, 10000).catch(() => NaN));
      }
      // From the start to the end, fast.
      v.currentTime = 0;
      await within(once("seeked"), 10000);
      v.playbackRate = 4;
      await v.play();
      await within(once("ended"), 60000);
      const quality = v.getVideoPlaybackQuality();
      return { duration, seeks, errors, frames: quality.totalVideoFrames, corrupted: quality.corruptedVideoFrames };
    }, { joins, frameS });
    await tab.close();
    const total = ranges.reduce((s, [a, b]) => s + (b - a) / 1000, 0);
    const expected = c.keyAligned ? null : total;  // the synced cut opens each range on a key frame
    console.log(`${c.name}: duration ${result.duration.toFixed(3)} s (ranges ${total.toFixed(3)} s), ` +
                `pictures after the seeks to the joins at ${result.seeks.map((s) => s.toFixed(3)).join(", ")} s, ` +
                `${result.frames} frames played, ${result.corrupted} corrupted, errors: ${result.errors.length}`);
    if (expected !== null && Math.abs(result.duration - expected) > frameS + 1e-6)
      failures.push(`${c.name}: duration ${result.duration} s, expected ${expected} s within one frame`);
    // The synced cut's joins lie elsewhere (its ranges open on key frames): there a picture must come at all.
    result.seeks.forEach((s, i) => {
      const near = c.keyAligned ? Number.isFinite(s) : Math.abs(s - (joins[i] + frameS / 2)) <= frameS;
      if (!near) failures.push(`${c.name}: no picture after the seek to join ${i + 1} (got ${s})`);
    });
    if (result.errors.length) failures.push(`${c.name}: error events: ${result.errors.join("; ")}`);
    if (result.corrupted) failures.push(`${c.name}: ${result.corrupted} corrupted frames`);
    if (!c.keyAligned && result.frames < Math.round(total / frameS) * 0.5)
      failures.push(`${c.name}: only ${result.frames} frames played`);
  }
} finally {
  await browser.close();
}
for (const f of failures) console.log("FAIL " + f);
console.log(`${cases.length - new Set(failures.map((f) => f.split(":")[0])).size} passed, ` +
            `${new Set(failures.map((f) => f.split(":")[0])).size} failed`);
process.exit(failures.length ? 1 : 0);
