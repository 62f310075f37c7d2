"""A small check of a page: every control has a name, every text has contrast."""

# Backgrounds are composed from the elements behind; text over the video has a background of its own.
SCRIPT = r"""
const faults = [];
const isShown = (element) => element.checkVisibility({checkOpacity: true, checkVisibilityCSS: true});
const textOf = (ids) => (ids || "").split(/\s+/).map((id) => document.getElementById(id)?.textContent || "").join(" ");
const nameOf = (element) => element.getAttribute("aria-label") || textOf(element.getAttribute("aria-labelledby")) ||
    (element.labels ? [...element.labels].map((label) => label.textContent).join(" ") : "") ||
    (["BUTTON", "A"].includes(element.tagName) ? element.textContent : "") || element.title || "";
const modal = document.querySelector("dialog[open]");
const root = modal || document.body;
for (const element of root.querySelectorAll("button, a[href], input, select, textarea, [role=tab], [role=tabpanel], meter, dialog")) {
  if (isShown(element) && !nameOf(element).trim()) {
    faults.push("no name: " + element.outerHTML.slice(0, 120));
  }
}
for (const image of root.querySelectorAll("img")) {
  if (!image.hasAttribute("alt")) {
    faults.push("no alt: " + image.outerHTML.slice(0, 120));
  }
}
const ids = [...document.querySelectorAll("[id]")].map((element) => element.id);
for (const id of ids.filter((one, at) => ids.indexOf(one) !== at)) {
  faults.push("twice the id " + id);
}
if (!document.documentElement.lang) {
  faults.push("no language");
}
const parse = (text) => {
  const numbers = text.match(/[\d.]+/g).map(Number);
  return {rgb: numbers.slice(0, 3), alpha: numbers.length > 3 ? numbers[3] : 1};
};
const over = (top, alpha, below) => top.map((value, i) => value * alpha + below[i] * (1 - alpha));
const groundOf = (element) => {
  const layers = [];
  for (let one = element; one; one = one.parentElement) {
    const {rgb, alpha} = parse(getComputedStyle(one).backgroundColor);
    layers.push([rgb, alpha]);
    if (alpha === 1) {
      break;
    }
  }
  return layers.reverse().reduce((ground, [rgb, alpha]) => over(rgb, alpha, ground), [0, 0, 0]);
};
const luminance = (rgb) => {
  const [r, g, b] = rgb.map((value) => value / 255).map(
      (value) => value <= 0.03928 ? value / 12.92 : ((value + 0.055) / 1.055) ** 2.4);
  return 0.2126 * r + 0.7152 * g + 0.0722 * b;
};
const walker = document.createTreeWalker(root, NodeFilter.SHOW_TEXT);
let texts = 0;
while (walker.nextNode()) {
  const element = walker.currentNode.parentElement;
  if (!walker.currentNode.textContent.trim() || !isShown(element) || element.disabled) {
    continue;
  }
  ++texts;
  const ground = groundOf(element);
  const {rgb, alpha} = parse(getComputedStyle(element).color);
  const [light, dark] = [luminance(over(rgb, alpha, ground)), luminance(ground)].sort((a, b) => b - a);
  const contrast = (light + 0.05) / (dark + 0.05);
  if (contrast < 4.5) {
    faults.push(`contrast ${contrast.toFixed(2)}: "${walker.currentNode.textContent.trim().slice(0, 40)}"`);
  }
}
if (texts < 3) {
  faults.push("hardly any text was found");
}
return faults;
"""


def faults_of(browser):
    return browser.execute_script(SCRIPT)
