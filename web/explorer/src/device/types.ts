/** What the device answers for the roles of a node. A role that a node leaves empty is null. */
export interface Roles {
  path: string;
  title: string | null;
  description: string | null;
  type: NodeType | null;
  value: Typed | null;
  permission: Permission | null;
  modifiable: boolean | null;
  edit: EditRules | null;
  icon: string | null;
  timestamp: number | null;
}

export type NodeType = "container" | "value" | "list" | "action" | "stream";
export type Permission = "open" | "default" | "protected" | "internal";
export type Typed = { type: string; value: unknown };
type Bound = number | bigint;

export interface EditRules {
  minimum?: Bound;
  maximum?: Bound;
  step?: Bound;
  unit?: string;
  options?: Array<unknown>;
}

export interface Option {
  value: unknown;
  title: string;
}

/** An option is a value, or a value with a title. */
export function optionsOf(rules: EditRules | null | undefined): Option[] {
  return (rules?.options ?? []).map((each) => {
    if (each !== null && typeof each === "object" && "value" in each) {
      const { value, title } = each as { value: unknown; title?: string };
      return { value, title: title ?? String(value) };
    }
    return { value: each, title: String(each) };
  });
}
