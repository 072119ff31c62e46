// NBTreeNode: the ordered tree's structure changes and its depth-first walks.
#include "foundation/NBTreeNode.h"

#include "foundation/NBLogging.h"

#include <algorithm>

namespace {

// The position of `node` among its parent's children; the caller knows that it is there.
std::size_t indexInParent(const NBTreeNode& parent, const NBTreeNode* node) {
    const auto& siblings = parent.childNodes();
    auto found = std::find_if(siblings.begin(), siblings.end(),
                              [node](const NBTreeNode::Pointer& sibling) { return sibling.get() == node; });
    return static_cast<std::size_t>(found - siblings.begin());
}

} // namespace

NBTreeNode::Pointer NBTreeNode::treeNodeWithRepresentedObject(const QVariant& representedObject) {
    return Pointer(new NBTreeNode(representedObject));
}

NBTreeNode::~NBTreeNode() {
    // Releasing a deep tree recursively could exhaust the stack (an outline of list items nested one level
    // deeper each is as deep as it is long), so nodes that this one alone keeps alive are taken apart in a
    // loop instead.
    std::vector<Pointer> pending = std::move(childNodes_);
    while (!pending.empty()) {
        Pointer node = std::move(pending.back());
        pending.pop_back();
        if (node.use_count() == 1) {
            for (Pointer& child : node->childNodes_)
                pending.push_back(std::move(child));
            node->childNodes_.clear();
        }
    }
}

bool NBTreeNode::isSelfOrAncestorOf(const NBTreeNode* node) const {
    // Each parent reached is alive (its weak reference could be locked) and is held by others for the
    // duration of this call, so plain pointers suffice.
    for (const NBTreeNode* current = node; current; current = current->parentNode().get()) {
        if (current == this)
            return true;
    }
    return false;
}

bool NBTreeNode::canAdopt(const Pointer& childNode, const char* operation) const {
    if (!childNode) {
        nbRaiseAssertion(lcFoundation(), nbFormat("NBTreeNode:%@ was given no node", operation));
        return false;
    }
    // A leaf can only be an ancestor of itself; checking that first keeps building a deep tree top-down
    // linear instead of quadratic.
    bool cycle = childNode->isLeaf() ? childNode.get() == this : childNode->isSelfOrAncestorOf(this);
    if (cycle) {
        nbRaiseAssertion(lcFoundation(),
                         nbFormat("NBTreeNode:%@ would make a node its own ancestor", operation));
        return false;
    }
    return true;
}

void NBTreeNode::detachFromParent() {
    Pointer parent = parentNode();
    if (!parent)
        return;
    auto& siblings = parent->childNodes_;
    siblings.erase(siblings.begin() + static_cast<std::ptrdiff_t>(indexInParent(*parent, this)));
    parentNode_.reset();
}

void NBTreeNode::addChildNode(const Pointer& childNode) {
    if (!canAdopt(childNode, "addChildNode"))
        return;
    Pointer keepAlive = childNode; // the old parent may hold the only other reference
    keepAlive->detachFromParent();
    keepAlive->parentNode_ = weak_from_this();
    childNodes_.push_back(std::move(keepAlive));
}

void NBTreeNode::insertChildNode(const Pointer& childNode, std::size_t index) {
    if (!canAdopt(childNode, "insertChildNode"))
        return;
    // Taking the node out of this very parent shifts the children after it, so the index is checked
    // against the list as it will be once the node is out.
    std::size_t countWithoutNode = childNodes_.size() - (childNode->parentNode().get() == this ? 1 : 0);
    if (index > countWithoutNode) {
        nbRaiseAssertion(lcFoundation(), nbFormat("NBTreeNode:insertChildNode index %@ beyond %@ children",
                                                  QString::number(index), QString::number(countWithoutNode)));
        return;
    }
    Pointer keepAlive = childNode;
    keepAlive->detachFromParent();
    keepAlive->parentNode_ = weak_from_this();
    childNodes_.insert(childNodes_.begin() + static_cast<std::ptrdiff_t>(index), std::move(keepAlive));
}

void NBTreeNode::removeObjectAtIndex(std::size_t index) {
    if (index >= childNodes_.size()) {
        nbRaiseAssertion(lcFoundation(),
                         nbFormat("NBTreeNode:removeObjectAtIndex index %@ beyond %@ children",
                                  QString::number(index), QString::number(childNodes_.size())));
        return;
    }
    childNodes_[index]->parentNode_.reset();
    childNodes_.erase(childNodes_.begin() + static_cast<std::ptrdiff_t>(index));
}

NBTreeNode::Pointer NBTreeNode::nextNodeDepthFirst() const {
    return nextNodeDepthFirstWithCommonAncestor(nullptr);
}

NBTreeNode::Pointer NBTreeNode::nextNodeDepthFirstWithCommonAncestor(const NBTreeNode* commonAncestor) const {
    if (!childNodes_.empty())
        return childNodes_.front();
    const NBTreeNode* node = this;
    while (node != commonAncestor) {
        Pointer parent = node->parentNode();
        if (!parent)
            return nullptr;
        std::size_t next = indexInParent(*parent, node) + 1;
        if (next < parent->childNodes_.size())
            return parent->childNodes_[next];
        node = parent.get(); // kept alive by the tree this node belongs to
    }
    return nullptr;
}

// The two whole-subtree walks keep their own stack rather than stepping with nextNodeDepthFirst(), which
// finds a node's next sibling by searching its parent's children: a day holding thousands of paragraphs
// would make every step a search and the walk quadratic.
std::vector<NBTreeNode::Pointer> NBTreeNode::flatSubtreeDepthFirst() {
    std::vector<Pointer> nodes;
    std::vector<Pointer> pending{shared_from_this()};
    while (!pending.empty()) {
        Pointer node = std::move(pending.back());
        pending.pop_back();
        pending.insert(pending.end(), node->childNodes_.rbegin(), node->childNodes_.rend());
        nodes.push_back(std::move(node));
    }
    return nodes;
}

std::size_t NBTreeNode::descendantCount() const {
    std::size_t count = 0;
    std::vector<const NBTreeNode*> pending{this};
    while (!pending.empty()) {
        const NBTreeNode* node = pending.back();
        pending.pop_back();
        count += node->childNodes_.size();
        for (const Pointer& child : node->childNodes_)
            pending.push_back(child.get());
    }
    return count;
}
