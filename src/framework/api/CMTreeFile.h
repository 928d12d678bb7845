#pragma once

#include <QString>

class CMNodes;

/// A tree file: JSON that declares nodes.
///
///     {"nodes": [
///       {"path": "demo:values/i32", "type": "value", "title": "...", "description": "...", "icon": "...",
///        "value": {"type": "i32", "value": 7}, "persistent": true, "modifiable": true, "permission": "default",
///        "edit": {"minimum": 0, "maximum": 100, "step": 1, "unit": "%", "options": [...]}},
///       {"path": "demo:lists/large", "type": "list", "rows": {"count": 10000, "title": "Row %1"}},
///       {"path": "demo:lists/short", "type": "list", "rows": [{"title": "One", "permission": "internal"}]},
///       {"path": "demo:lists", "type": "container", "title": "Lists"}
///     ]}
///
/// Unknown keys, keys that come twice, unknown types, bounds and options of another type than the value's, and values
/// out of their own bounds are errors, so that a misspelling is found at once.
class CMTreeFile {
public:
    /// Makes the nodes of `file`. False, with "<file>:<line>: <what>" in `error`, at the first fault; nodes made before
    /// stay with `nodes`.
    static bool load(const QString& file, CMNodes* nodes, QString* error);
};
