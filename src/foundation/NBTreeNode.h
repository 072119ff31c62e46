// NBTreeNode: a generic ordered tree, used to lay a document's paragraphs out as an outline (days holding
// steps holding sections holding body paragraphs).
//
// A node holds a represented object (any value in a QVariant; the document tree puts a paragraph there and
// leaves the root empty), a weak reference to its parent and an ordered list of children. Nodes are shared:
// a parent owns its children through shared pointers and a child only observes its parent, so dropping the
// root frees the whole tree and a subtree that is still referenced stays alive on its own (its parent
// pointer then reads as null).
//
// Structure invariants, checked on every change (a violation is a programming error and raises an
// assertion; the change is then not made): a node has at most one parent, so adding a node that already
// has one first takes it out of its old parent; a node never becomes its own ancestor; indexes are within
// range.
//
// Nodes are not thread-safe: build and walk a tree on one thread at a time.
#pragma once

#include <QVariant>

#include <cstddef>
#include <memory>
#include <vector>

class NBTreeNode : public std::enable_shared_from_this<NBTreeNode> {
public:
    using Pointer = std::shared_ptr<NBTreeNode>;

    // Nodes only exist in shared pointers, so that walks can hand out the nodes they visit.
    static Pointer treeNodeWithRepresentedObject(const QVariant& representedObject = QVariant());

    NBTreeNode(const NBTreeNode&) = delete;
    NBTreeNode& operator=(const NBTreeNode&) = delete;
    ~NBTreeNode();

    const QVariant& representedObject() const { return representedObject_; }
    void setRepresentedObject(const QVariant& representedObject) { representedObject_ = representedObject; }

    // Null for a root, and for a node whose parent no longer exists.
    Pointer parentNode() const { return parentNode_.lock(); }
    const std::vector<Pointer>& childNodes() const { return childNodes_; }
    bool isLeaf() const { return childNodes_.empty(); }

    // Appends a child and makes this node its parent (taking it out of its old parent first).
    void addChildNode(const Pointer& childNode);
    // Inserts a child before the child at `index`; `index` may be the child count (append).
    void insertChildNode(const Pointer& childNode, std::size_t index);
    // Removes the child at `index`; the removed node becomes a root.
    void removeObjectAtIndex(std::size_t index);

    // The node after this one in a depth-first (pre-order) walk of the whole tree: the first child if
    // there is one, else the next sibling of the nearest node (this one or an ancestor) that has one;
    // null when the walk has left the root.
    Pointer nextNodeDepthFirst() const;
    // The same walk restricted to the subtree of `commonAncestor`: null instead of leaving it. A node
    // outside that subtree walks as nextNodeDepthFirst() does.
    Pointer nextNodeDepthFirstWithCommonAncestor(const NBTreeNode* commonAncestor) const;
    // This node and all its descendants, in pre-order.
    std::vector<Pointer> flatSubtreeDepthFirst();
    // The number of nodes below this one (children, grandchildren, ...).
    std::size_t descendantCount() const;

private:
    explicit NBTreeNode(const QVariant& representedObject) : representedObject_(representedObject) {}

    bool isSelfOrAncestorOf(const NBTreeNode* node) const;
    bool canAdopt(const Pointer& childNode, const char* operation) const;
    void detachFromParent();

    QVariant representedObject_;
    std::weak_ptr<NBTreeNode> parentNode_;
    std::vector<Pointer> childNodes_;
};
