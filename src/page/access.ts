// Whether the session has administrative access: null while Cockpit is still finding out.
export type Access = boolean | null;

// Tells now and at each change. `probe` resolves when something came that takes administrative access: right after the login Cockpit is
// busy, and what goes through tells sooner than Cockpit does.
export function watchAccess(changed: (access: Access) => void, probe: () => Promise<unknown>) {
    const proxy = cockpit.dbus(null, { bus: "internal" }).proxy("cockpit.Superuser", "/superuser");
    let last: Access | undefined;
    const tell = (access: Access) => {
        if (access !== last) {
            last = access;
            changed(access);
        }
    };
    const look = () => tell(!proxy.valid || proxy.Current === "init" ? last ?? null : proxy.Current !== "none");
    proxy.addEventListener("changed", look);
    proxy.wait(look);
    probe().then(() => { if (!proxy.valid) tell(true); }, () => undefined);
}
