// Small things of the wizard that need neither its state nor its steps.

export const kLabelBytes = 64;   // the server's limit, in bytes of UTF-8

const kQrModulePixels = 6;        // of the pictures that the server draws
const kLeastShown = 3;            // below this, cameras of old phones fail
const kMostShown = 5;

export const utf8Length = (label) => new TextEncoder().encode(label).length;

// The label that an authenticator app shows, as first proposed: who and where.
export function labelFor(user, host) {
  const label = user.includes("@") ? user : `${user}@${host}`;
  return cutToBytes(utf8Length(label) <= kLabelBytes ? label : user, kLabelBytes);
}

export function cutToBytes(label, limit) {
  let cut = "";
  for (const character of label) {
    if (utf8Length(cut + character) > limit) {
      break;
    }
    cut += character;
  }
  return cut;
}

// Elements that show `key` in groups of four. What a reader marks and copies by hand has the blanks in it; apps
// accept them.
export function groupKey(key) {
  const groups = key.match(/.{1,4}/g) ?? [];
  return groups.flatMap((group, i) => {
    const span = document.createElement("span");
    span.textContent = group;
    return i ? [" ", span] : [span];
  });
}

// Side of the picture in CSS pixels: a whole number of them for a module, so that edges stay sharp.
export function qrPixels(naturalSide, room) {
  const modules = naturalSide / kQrModulePixels;
  if (!Number.isInteger(modules)) {
    return naturalSide;
  }
  return modules * Math.min(kMostShown, Math.max(kLeastShown, Math.floor(room / modules)));
}

// Whether base-64 text holds a PNG from its first byte to its end mark. One that was cut looks whole in a browser's
// window but for its lower edge, and no phone reads it.
export function isWholePng(base64) {
  try {
    const bytes = atob(base64);
    return bytes.startsWith("\x89PNG\r\n\x1a\n") && bytes.endsWith("IEND\xaeB`\x82");
  } catch {
    return false;
  }
}

// Copies without a question. Pages that came over plain HTTP have no clipboard interface, so there the older way.
export async function copyText(copied) {
  if (window.isSecureContext && navigator.clipboard) {
    try {
      await navigator.clipboard.writeText(copied);
      return true;
    } catch {
      // Not permitted: the older way may be.
    }
  }
  const field = document.createElement("textarea");
  const focused = document.activeElement;
  field.value = copied;
  field.readOnly = true;
  field.className = "visually-hidden";
  document.body.append(field);
  field.select();
  const done = document.execCommand("copy");
  field.remove();
  focused?.focus();
  return done;
}
