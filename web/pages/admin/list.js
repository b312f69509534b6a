// The list of accounts or groups: searched as one types, paged, with rows that are switched on and off, one by one or
// many at once. What is selected stays selected on other pages and under other searches.
import { get, post } from "/shared/api.js";
import { announce, byId } from "/shared/dom.js";
import { text } from "/shared/messages.js";

const kPage = 50;
const kTypingMs = 300;
const kAtOnce = 500;          // rows of one request that changes
const kLongestList = 10_000;  // rows that the server gives whole

export const numberText = (number) => new Intl.NumberFormat(document.documentElement.lang).format(number);

// A name among other words: its direction is its own.
export const isolate = (name) => `\u2068${name}\u2069`;

// A long name is broken in front of what it has behind an "@", if it can be.
function breakable(name) {
  const at = name.indexOf("@");
  return at > 0 ? [name.slice(0, at), document.createElement("wbr"), name.slice(at)] : [name];
}

export class List {
  #offset = 0;
  #total = 0;
  #rows = [];
  #selected = new Map();   // by type: a set of ids
  #running = null;         // the request whose answer is waited for
  #timer = 0;
  #saving = Promise.resolve();

  // `user` is whose page it is: a second step of one's own is switched off elsewhere. `onRefused` is told of an answer
  // that is no success, and how to say it here; `onChanged` that picks were saved; `onReset` whose second step is to go.
  constructor({ user, onRefused, onChanged, onReset }) {
    Object.assign(this, { user, onRefused, onChanged, onReset });
    byId("search-form").addEventListener("submit", (event) => {
      event.preventDefault();
      this.#search(0);
    });
    byId("query").addEventListener("input", () => this.#search(kTypingMs));
    byId("domain").addEventListener("input", () => this.#search(kTypingMs));
    byId("filter").addEventListener("change", () => this.#search(0));
    byId("type").addEventListener("change", () => {
      byId("domain-field").hidden = !this.#type.startsWith("domain_");
      this.#rows = [];
      this.#showResults(false);
      this.#search(0);
      this.#showSelection();
    });
    byId("previous").addEventListener("click", () => this.#turn(-1));
    byId("next").addEventListener("click", () => this.#turn(1));
    byId("list-retry").addEventListener("click", () => this.load());
    byId("select-page").addEventListener("change", ({ target }) => this.#selectRows(this.#rows, target.checked));
    byId("select-all").addEventListener("click", () => this.#selectAll());
    byId("select-none").addEventListener("click", () => this.#selectNone());
    byId("demand").addEventListener("click", () => this.#setSelected(true));
    byId("not-demand").addEventListener("click", () => this.#setSelected(false));
  }

  get #type() {
    return byId("type").value;
  }

  get #selection() {
    if (!this.#selected.has(this.#type)) {
      this.#selected.set(this.#type, new Set());
    }
    return this.#selected.get(this.#type);
  }

  // --- loading ---

  // Typing asks once, a moment after the last key. What stands there is out of date from the first.
  #search(delay) {
    clearTimeout(this.#timer);
    this.#running?.abort();   // nobody waits for the older answer
    byId("table").setAttribute("aria-busy", "true");
    this.#timer = setTimeout(() => {
      this.#offset = 0;
      this.load();
    }, delay);
  }

  #address(offset, limit) {
    const asked = { type: this.#type, offset, limit, filter: byId("filter").value };
    if (byId("query").value.trim()) {
      asked.query = byId("query").value.trim();
    }
    if (this.#type.startsWith("domain_") && byId("domain").value.trim()) {
      asked.domain = byId("domain").value.trim();
    }
    return `/api/enforce/list?${new URLSearchParams(asked)}`;
  }

  async load() {
    this.#running?.abort();
    const running = new AbortController();
    this.#running = running;
    byId("table").setAttribute("aria-busy", "true");
    const answer = await get(this.#address(this.#offset, kPage), running.signal);
    if (running.signal.aborted) {
      return;
    }
    this.#running = null;
    byId("table").removeAttribute("aria-busy");
    if (!answer.success) {
      this.#showFailure(answer);
      return;
    }
    if (answer.rows.length === 0 && answer.total > 0 && this.#offset > 0) {
      this.#offset = Math.floor((answer.total - 1) / kPage) * kPage;   // the list has become shorter
      await this.load();
      return;
    }
    this.#total = answer.total;
    this.#rows = answer.rows;
    this.#show();
  }

  #turn(pages) {
    const offset = this.#offset + pages * kPage;
    if (offset >= 0 && offset < this.#total) {
      this.#offset = offset;
      this.load();
    }
  }

  // --- showing ---

  #showResults(shown) {
    byId("controls").hidden = !shown;
    byId("results").hidden = !shown;
  }

  // In view, wherever in the list somebody is.
  say(message, kind = "error") {
    byId("list-message").textContent = message;
    byId("list-message").dataset.kind = kind;
    byId("list-message").hidden = !message;
  }

  #showFailure(answer) {
    this.#rows = [];
    this.#showResults(false);
    byId("empty").hidden = true;
    const notThere = answer.err === "directory_not_configured";
    byId("list-retry").hidden = notThere;
    this.onRefused(answer, (message) => this.say(message, notThere ? "note" : "error"));
  }

  #show() {
    this.say("");
    byId("list-retry").hidden = true;
    byId("rows").replaceChildren(...this.#rows.map((row) => this.#makeRow(row)));
    this.#showResults(this.#rows.length > 0);
    byId("column-reset").hidden = !this.#type.endsWith("_user");
    byId("empty").hidden = this.#rows.length > 0;
    byId("empty").textContent = this.#emptyText();
    const last = this.#offset + this.#rows.length;
    byId("range").textContent = text("admin:range",
      { first: numberText(this.#offset + 1), last: numberText(last), total: numberText(this.#total) });
    byId("previous").setAttribute("aria-disabled", String(this.#offset === 0));
    byId("next").setAttribute("aria-disabled", String(last >= this.#total));
    announce(byId(this.#rows.length ? "range" : "empty").textContent);
    this.#showSelection();
  }

  #emptyText() {
    const query = byId("query").value.trim();
    if (query) {
      return text("admin:none_found", { query: isolate(query) });
    }
    return text({ all: "admin:none_there", enforced: "admin:none_enforced", unenforced: "admin:none_unenforced" }[
      byId("filter").value]);
  }

  // Names and descriptions are anybody's: they are set as text and have a direction of their own.
  #makeRow(row) {
    const made = byId("row").content.firstElementChild.cloneNode(true);
    const part = (name) => made.querySelector(`.${name}`);
    const name = isolate(row.name);
    part("name").replaceChildren(...breakable(row.name));
    part("description").textContent = row.desc ?? "";
    part("selects").checked = this.#selection.has(row.id);
    part("selects").setAttribute("aria-label", text("admin:select_row", { name }));
    part("selects").addEventListener("change", ({ target }) => this.#selectRows([row], target.checked));
    part("demands").checked = row.is_enforced;
    part("demands").setAttribute("aria-label", text("admin:demand_row", { name }));
    part("demands").addEventListener("change", ({ target }) => this.#setRow(row, target));
    if (!this.#type.endsWith("_user")) {
      made.querySelector("td.reset").remove();
    } else if (row.name === this.user) {
      part("resets").remove();
    } else {
      part("resets").textContent = text("admin:reset");
      part("resets").setAttribute("aria-label", text("admin:reset_row", { name }));
      part("resets").addEventListener("click", () => this.onReset(row.name));
    }
    return made;
  }

  // --- selecting ---

  #selectRows(rows, selected) {
    for (const { id } of rows) {
      if (selected) {
        this.#selection.add(id);
      } else {
        this.#selection.delete(id);
      }
    }
    this.#showSelection();
  }

  #showSelection() {
    const selection = this.#selection;
    const here = this.#rows.filter(({ id }) => selection.has(id)).length;
    this.#rows.forEach(({ id }, i) => {
      byId("rows").children[i].querySelector(".selects").checked = selection.has(id);
    });
    byId("select-page").checked = here > 0 && here === this.#rows.length;
    byId("select-page").indeterminate = here > 0 && here < this.#rows.length;
    byId("selected").textContent = this.#selectedText(selection.size, selection.size - here);
    for (const id of ["demand", "not-demand"]) {
      byId(id).setAttribute("aria-disabled", String(selection.size === 0));
    }
    byId("select-none").hidden = selection.size === 0;
    byId("select-all").hidden = this.#total <= this.#rows.length || this.#total > kLongestList;
    byId("select-all").textContent = text("admin:select_all", { count: numberText(this.#total) });
  }

  #selectedText(count, elsewhere) {
    if (count === 0) {
      return text("admin:selected_none");
    }
    return text(elsewhere > 0 ? "admin:selected_elsewhere" : "admin:selected",
      { count: numberText(count), elsewhere: numberText(elsewhere) });
  }

  async #selectAll() {
    const answer = await get(this.#address(0, -1));
    if (answer.success) {
      this.#selectRows(answer.rows, true);
      announce(byId("selected").textContent);
    } else {
      this.#refused(answer);
    }
  }

  // The button goes with the selection, so the focus needs another place.
  #selectNone() {
    this.#selection.clear();
    this.#showSelection();
    byId("select-page").focus();
    announce(byId("selected").textContent);
  }

  // --- saving ---

  #refused(answer) {
    this.onRefused(answer, (message) => this.say(message));
  }

  // One after the other, so that the last word on a row is the last one that was said.
  #save(type, ids, enforced) {
    const settings = ids.map((id) => ({ id, is_enforced: enforced }));
    const saved = this.#saving.then(() => post("/api/enforce/set", { type, settings }));
    this.#saving = saved;
    return saved;
  }

  async #setRow(row, toggle) {
    const enforced = toggle.checked;
    this.say("");
    const answer = await this.#save(this.#type, [row.id], enforced);
    if (answer.success) {
      row.is_enforced = enforced;
      this.onChanged();
    } else {
      toggle.checked = row.is_enforced;
      this.#refused(answer);
    }
  }

  async #setSelected(enforced) {
    const type = this.#type;
    const selection = this.#selection;
    const ids = [...selection];
    if (ids.length === 0 || byId("selection").hasAttribute("aria-busy")) {
      announce(byId("selected").textContent);
      return;
    }
    byId("selection").setAttribute("aria-busy", "true");
    let answer = { success: true };
    let done = 0;
    for (; answer.success && done < ids.length; done += kAtOnce) {
      const some = ids.slice(done, done + kAtOnce);
      answer = await this.#save(type, some, enforced);
      if (answer.success) {
        some.forEach((id) => selection.delete(id));
      }
    }
    byId("selection").removeAttribute("aria-busy");
    const count = ids.length - selection.size;
    await this.load();
    if (answer.success) {
      this.say(text(enforced ? "admin:note_demanded" : "admin:note_not_demanded", { n: count, count: numberText(count) }), "note");
    } else {
      this.#refused(answer);
    }
    this.onChanged();
  }
}
