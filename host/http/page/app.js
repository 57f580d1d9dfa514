// What the page can do besides: the asked instant is moved along the timeline, answers come without a reload, the next
// change is counted down. Answers are those of the page itself: it is fetched for the new instant, and the parts that
// are marked data-live are exchanged, so that nothing is worked out or written twice.
"use strict";

const secondsTo1970 = 62135596800; // instants are seconds since the year 1, as the data have them, of no zone
const day = 86400;
const byId = id => document.getElementById(id);
const iso = at => new Date((at - secondsTo1970) * 1000).toISOString().slice(-24, -5);
const readable = at => iso(at).replace("T", " ");

let asked = 0;     // the instant that is shown
let wanted = null; // the one that is being fetched
let timer = 0;

// The axis, as the server has drawn it: even between two knots.
function scale() {
  return byId("drawing").dataset.scale.trim().split(" ").map(knot => knot.split(":").map(parseFloat));
}

function between(x, knots, from, to) {
  let i = 1;
  while (i < knots.length - 1 && knots[i][from] <= x) ++i;
  const [a, b] = [knots[i - 1], knots[i]];
  const part = b[from] > a[from] ? (x - a[from]) / (b[from] - a[from]) : 0;
  return a[to] + Math.min(1, Math.max(0, part)) * (b[to] - a[to]);
}

const percentOf = at => between(at, scale(), 0, 1);
const instantOf = percent => Math.round(between(percent, scale(), 1, 0));

function mark(at) {
  const percent = percentOf(at);
  const line = byId("asked");
  line.setAttribute("x", percent + "%");
  const label = line.querySelector("text");
  label.textContent = "asked " + readable(at);
  label.setAttribute("text-anchor", percent < 32 ? "start" : percent > 68 ? "end" : "middle");
  const slider = byId("slider");
  slider.value = Math.round(percent * 100);
  slider.setAttribute("aria-valuetext", readable(at));
}

// Where something begins, and both ends.
function stops() {
  const knots = scale();
  const changes = byId("drawing").dataset.changes.trim().split(" ").map(Number);
  return { first: knots[0][0], last: knots[knots.length - 1][0], changes };
}

function question(at) {
  const url = new URL(byId("permanent").href);
  url.searchParams.set("at", iso(at).replace(/\D/g, ""));
  return url;
}

function exchange(text) {
  const page = new DOMParser().parseFromString(text, "text/html");
  const focused = document.activeElement && document.activeElement.id;
  for (const part of page.querySelectorAll("[data-live]")) {
    const old = byId(part.id);
    if (old) old.replaceWith(document.adoptNode(part));
  }
  if (focused && byId(focused)) byId(focused).focus({ preventScroll: true });
  document.title = page.title;
  byId("at").value = page.getElementById("at").value;
}

async function fetchAnswer(url, keep) {
  const mine = (wanted = {});
  document.body.classList.add("busy");
  try {
    const response = await fetch(url);
    const text = await response.text();
    if (mine !== wanted) return; // moved on meanwhile
    if (!response.ok) throw new Error(String(response.status));
    exchange(text);
    asked = Number(byId("drawing").dataset.at);
    mark(asked);
    if (keep) history[keep + "State"](null, "", url);
    byId("trouble").hidden = true;
    say();
  } catch (error) {
    if (mine === wanted) byId("trouble").hidden = false;
  } finally {
    if (mine === wanted) document.body.classList.remove("busy");
  }
}

function say() {
  byId("said").textContent = document.querySelector("#answer .asked").textContent + " " + byId("who").textContent;
}

// The line at once, the answer when the hand rests.
function move(at) {
  const { first, last } = stops();
  asked = Math.min(last, Math.max(first, at));
  mark(asked);
  clearTimeout(timer);
  const url = question(asked);
  timer = setTimeout(() => fetchAnswer(url, "replace"), 120);
}

function key(event) {
  if (event.altKey || event.ctrlKey || event.metaKey) return;
  const { first, last, changes } = stops();
  const step = event.shiftKey ? 3600 : day;
  const to = {
    ArrowLeft: () => asked - step,
    ArrowDown: () => asked - step,
    ArrowRight: () => asked + step,
    ArrowUp: () => asked + step,
    PageDown: () => changes.filter(at => at < asked).pop() ?? first,
    PageUp: () => changes.find(at => at > asked) ?? last,
    Home: () => first,
    End: () => last,
  }[event.key];
  if (!to) return;
  event.preventDefault();
  move(to());
}

function countDown() {
  const at = document.querySelector("[data-countdown]");
  if (!at) return;
  // The server's clock counts, not this machine's.
  at.begun ??= { now: Date.parse(at.dataset.now), clock: performance.now() };
  const now = at.begun.now + performance.now() - at.begun.clock;
  const left = Math.floor((Date.parse(at.dataset.countdown) - now) / 1000);
  if (left < -1) return; // it has been: the words stand
  if (left <= 0) {
    at.removeAttribute("data-countdown");
    fetchAnswer(location.href);
    return;
  }
  if (left > 365 * day) return; // in words, years and months say more
  const two = number => String(number).padStart(2, "0");
  const days = Math.floor(left / day);
  const clock = [Math.floor(left / 3600) % 24, Math.floor(left / 60) % 60, left % 60].map(two).join(":");
  at.textContent = "in " + (days > 0 ? days.toLocaleString("en") + (days === 1 ? " day " : " days ") : "") + clock;
}

function begin() {
  const slider = byId("slider");
  slider.hidden = false;
  for (const hint of document.querySelectorAll(".script")) hint.hidden = false;
  document.body.classList.add("scripted");
  const said = document.createElement("p");
  said.id = "said";
  said.className = "said";
  said.setAttribute("role", "status");
  document.body.append(said);

  const trouble = document.createElement("p");
  trouble.id = "trouble";
  trouble.className = "state bad";
  trouble.hidden = true;
  trouble.setAttribute("role", "alert");
  trouble.textContent = "The service does not answer: what is shown is of the instant before.";
  byId("answer").before(trouble);

  asked = Number(byId("drawing").dataset.at);
  mark(asked);
  slider.addEventListener("input", () => move(instantOf(slider.value / 100)));
  slider.addEventListener("keydown", key);
  document.addEventListener("click", event => {
    if (event.button !== 0 || event.ctrlKey || event.metaKey || event.shiftKey || event.altKey) return;
    const link = event.target.closest("a[data-at]");
    const drawing = event.target.closest("#drawing");
    if (link) {
      event.preventDefault();
      clearTimeout(timer);
      fetchAnswer(link.href, "push");
    } else if (drawing) {
      const box = drawing.getBoundingClientRect();
      move(instantOf(((event.clientX - box.left) / box.width) * 100));
    }
  });
  window.addEventListener("popstate", () => fetchAnswer(location.href));
  setInterval(countDown, 1000);
  countDown();
}

if (byId("drawing")) begin();
