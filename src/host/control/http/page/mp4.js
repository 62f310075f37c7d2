// What the page reads of fragmented MP4: the time scale of a track, and the decode time of a
// fragment. A box is its size in 32 bits, its type in four letters, and its content.

function findBox(view, path, from = 0, to = view.byteLength) {
  for (let at = from; at + 8 <= to;) {
    const size = view.getUint32(at);
    const type = String.fromCharCode(view.getUint8(at + 4), view.getUint8(at + 5),
                                     view.getUint8(at + 6), view.getUint8(at + 7));
    if (size < 8 || at + size > to) {
      return null;
    }
    if (type === path[0]) {
      return path.length === 1 ? {from: at + 8, to: at + size}
                               : findBox(view, path.slice(1), at + 8, at + size);
    }
    at += size;
  }
  return null;
}

const viewOf = (bytes) => new DataView(bytes.buffer, bytes.byteOffset, bytes.byteLength);

// Units per second; null when the init segment has none.
export function timeScaleOf(init) {
  const view = viewOf(init);
  const box = findBox(view, ["moov", "trak", "mdia", "mdhd"]);
  return box ? view.getUint32(box.from + (view.getUint8(box.from) === 1 ? 20 : 12)) || null : null;
}

// In units of the time scale; null when the fragment has none.
export function baseTimeOf(fragment) {
  const view = viewOf(fragment);
  const box = findBox(view, ["moof", "traf", "tfdt"]);
  if (!box) {
    return null;
  }
  return view.getUint8(box.from) === 1 ? Number(view.getBigUint64(box.from + 4))
                                       : view.getUint32(box.from + 4);
}
