// The fields that several forms have. A form names one as <div data-field="code" data-id="off-code"
// data-text="common:code_or_emergency"></div>; in its place comes what fields.html has of it, with the label that
// data-text asks for. An element of the form that is called "<id>-hint" is the field's hint; a code without one gets
// its own.
export async function buildFields(root) {
  const markup = await (await fetch("/shared/fields.html")).text();
  const templates = new DOMParser().parseFromString(markup, "text/html");
  for (const place of root.querySelectorAll("[data-field]")) {
    const { field, id, text: label = "common:password" } = place.dataset;
    const hinted = root.querySelector(`#${id}-hint`) !== null;
    const holder = document.createElement("div");
    holder.innerHTML = templates.getElementById(field).innerHTML.replaceAll("{id}", id).replaceAll("{label}", label);
    if (hinted) {
      holder.querySelector(`#${id}-hint`)?.remove();
    }
    const hints = hinted || holder.querySelector(`#${id}-hint`) ? ` ${id}-hint` : "";
    holder.querySelector("input").setAttribute("aria-describedby", `${id}-error${hints}`);
    place.replaceWith(...holder.children);
  }
}
