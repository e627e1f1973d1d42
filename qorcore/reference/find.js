// The search: finds names that have the typed words in them, while they are typed. names.js has all names. A page that
// is opened with "?find=TEXT" begins with a search.
"use strict";

(function () {
    const most = 40;
    const field = document.createElement("input");
    field.id = "find";
    field.type = "search";
    field.placeholder = "Search: press /";
    field.setAttribute("aria-label", "Search");
    document.getElementById("titlearea").append(field);
    const list = document.createElement("ul");
    list.id = "found";
    list.hidden = true;
    document.body.append(list);

    // The beginning of a name counts more than its middle, and a short name more than a long one. Names begin with
    // words like "qor", so what follows them is a beginning, too.
    function rank(name, text) {
        const at = name.indexOf(text);
        if (at < 0)
            return -1;
        const begins = at === 0 || /^(qor|iqor|zet|simd_|create_i?qor)$/.test(name.slice(0, at));
        return (begins ? 0 : 1000) + name.length;
    }

    function search() {
        const [text, ...others] = field.value.trim().toLowerCase().split(/\s+/);
        const found = [];
        if (text)
            for (const [name, link, scope] of qorNames) {
                const order = rank(name.toLowerCase(), text);
                if (order >= 0 && others.every((other) => name.toLowerCase().includes(other)))
                    found.push({name, link, scope, order});
            }
        found.sort((one, other) => one.order - other.order || (one.name < other.name ? -1 : 1));
        list.replaceChildren(...found.slice(0, most).map((each) => {
            const item = document.createElement("li");
            const link = document.createElement("a");
            link.href = each.link;
            link.textContent = each.name;
            item.append(link);
            if (each.scope) {
                const scope = document.createElement("span");
                scope.textContent = each.scope;
                item.append(scope);
            }
            return item;
        }));
        if (text && found.length === 0)
            list.textContent = "Nothing has this name.";
        list.hidden = !text;
        const box = field.getBoundingClientRect();
        list.style.top = `${box.bottom + window.scrollY + 8}px`;
    }

    function links() {
        return [...list.querySelectorAll("a")];
    }

    field.addEventListener("input", search);
    document.addEventListener("keydown", (event) => {
        const all = links();
        const at = all.indexOf(document.activeElement);
        if (event.key === "/" && document.activeElement !== field) {
            field.focus();
            event.preventDefault();
        } else if (event.key === "Escape") {
            list.hidden = true;
        } else if (event.key === "Enter" && document.activeElement === field && all.length) {
            all[0].click();
        } else if ((event.key === "ArrowDown" || event.key === "ArrowUp") && !list.hidden && all.length) {
            const next = event.key === "ArrowDown" ? Math.min(at + 1, all.length - 1) : at - 1;
            (next < 0 ? field : all[next]).focus();
            event.preventDefault();
        }
    });
    document.addEventListener("click", (event) => {
        if (!list.contains(event.target) && event.target !== field)
            list.hidden = true;
    });
    const wanted = new URLSearchParams(location.search).get("find");
    if (wanted) {
        field.value = wanted;
        search();
    }
})();
