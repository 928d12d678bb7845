#pragma once

#include "CMUINode.h"

class CMNodes;

/// A container that was made, in contrast to one that is implied by what is below it.
class CMContainerNode : public CMUINode {
public:
    /// Null, with an error in the log, when the path is invalid or taken.
    static CMContainerNode* create(CMNodes* nodes, const CMPath& path);

private:
    using CMUINode::CMUINode;
};
