// Dark or light as Cockpit's own pages: its frame keeps the choice in the local storage, and tells the pages of a change.
export function followTheme() {
    const system = matchMedia("(prefers-color-scheme: dark)");
    const apply = (chosen: string | null) => {
        const style = chosen || localStorage.getItem("shell:style") || "auto";
        document.documentElement.classList.toggle("pf-v6-theme-dark", style === "dark" || (style === "auto" && system.matches));
    };
    window.addEventListener("storage", event => {
        if (event.key === "shell:style")
            apply(null);
    });
    window.addEventListener("cockpit-style", event => apply((event as CustomEvent<{ style: string }>).detail.style));
    system.addEventListener("change", () => apply(null));
    apply(null);
}
