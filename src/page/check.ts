// Holds what came from outside against what it should be. What does not fit is an error that is shown, never a guess.
import { kShapes, type Command, type Shape } from "./protocol";

function isObject(value: unknown): value is Record<string, unknown> {
    return typeof value === "object" && value !== null && !Array.isArray(value);
}

function fitsType(value: unknown, type: string): boolean {
    if (type === "integer")
        return Number.isSafeInteger(value);
    if (type === "integer or null")
        return value === null || Number.isSafeInteger(value);
    return typeof value === type;
}

// Where a value does not have a shape: the path of the first such member, or null where all fits. Members beyond the shape are let be:
// a newer agent may tell more.
export function misfit(value: unknown, shape: Shape, path = ""): string | null {
    if (typeof shape === "string") {
        if (!shape.startsWith("@"))
            return fitsType(value, shape) ? null : path;
        if (!isObject(value) || typeof value.ok !== "boolean")
            return path;
        if (!value.ok)
            return typeof value.error === "string" ? null : `${path}.error`;
        return misfit(value, kShapes[shape.slice(1) as Command], path);
    }
    if (Array.isArray(shape)) {
        if (!Array.isArray(value))
            return path;
        return firstOf(value.map((entry, at) => () => misfit(entry, (shape as readonly [Shape])[0], `${path}[${at}]`)));
    }
    if (!isObject(value))
        return path;
    const members = shape as { readonly [member: string]: Shape };
    if (members["*"])
        return firstOf(Object.entries(value).map(([name, member]) => () => misfit(member, members["*"]!, `${path}.${name}`)));
    return firstOf(Object.entries(members).map(([name, of]) => () => {
        const isOptional = name.endsWith("?");
        const plain = isOptional ? name.slice(0, -1) : name;
        if (isOptional && !Object.hasOwn(value, plain))
            return null;
        return misfit(Object.hasOwn(value, plain) ? value[plain] : undefined, of, `${path}.${plain}`);
    }));
}

function firstOf(looks: (() => string | null)[]): string | null {
    for (const look of looks) {
        const found = look();
        if (found !== null)
            return found;
    }
    return null;
}
