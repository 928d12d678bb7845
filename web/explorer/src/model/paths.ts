export const ROOT = ":";

/** Path of the node that holds `path`; ROOT for the topmost ones. */
export function parentOf(path: string): string {
  const slash = path.lastIndexOf("/");
  return slash > 0 ? path.slice(0, slash) : ROOT;
}

/** Last segment as people read it. */
export function nameOf(path: string): string {
  const last = path.slice(Math.max(path.lastIndexOf("/"), path.indexOf(":")) + 1) || path;
  try {
    return decodeURIComponent(last);
  } catch {
    return last;
  }
}

export function isInside(path: string, container: string): boolean {
  return container === ROOT || path.startsWith(container.endsWith(":") ? container : `${container}/`);
}

/** The containers above a path and the path itself, topmost first. */
export function crumbsOf(path: string): string[] {
  const above = parentOf(path);
  return above === ROOT ? [path] : [...crumbsOf(above), path];
}
