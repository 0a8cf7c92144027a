// Whether the session has administrative access: null while Cockpit is still finding out.
export type Access = boolean | null;

// Tells now and at each change.
export function watchAccess(changed: (access: Access) => void) {
    const proxy = cockpit.dbus(null, { bus: "internal" }).proxy("cockpit.Superuser", "/superuser");
    let last: Access | undefined;
    const look = () => {
        const access = !proxy.valid || proxy.Current === "init" ? null : proxy.Current !== "none";
        if (access !== last) {
            last = access;
            changed(access);
        }
    };
    proxy.addEventListener("changed", look);
    proxy.wait(look);
}
