// Tests of the ordered tree: its walks, and that structure changes keep every node in exactly one place.
#include "foundation/NBTreeNode.h"
#include "foundation/testing/NBMessageCapture.h"

#include <QElapsedTimer>
#include <gtest/gtest.h>

namespace {

using Node = NBTreeNode::Pointer;

Node node(const char* name) {
    return NBTreeNode::treeNodeWithRepresentedObject(QString::fromUtf8(name));
}

QString names(const std::vector<Node>& nodes) {
    QStringList list;
    for (const Node& each : nodes)
        list << (each->representedObject().isNull() ? "root" : each->representedObject().toString());
    return list.join(' ');
}

QString walk(const Node& start, const NBTreeNode* ancestor = nullptr) {
    std::vector<Node> visited;
    for (Node current = start; current;
         current = ancestor ? current->nextNodeDepthFirstWithCommonAncestor(ancestor)
                            : current->nextNodeDepthFirst())
        visited.push_back(current);
    return names(visited);
}

// root ─ a ─ a1
//        │ └ a2 ─ a21
//        └ b
struct SampleTree {
    Node root = NBTreeNode::treeNodeWithRepresentedObject();
    Node a = node("a"), a1 = node("a1"), a2 = node("a2"), a21 = node("a21"), b = node("b");
    SampleTree() {
        root->addChildNode(a);
        root->addChildNode(b);
        a->addChildNode(a1);
        a->addChildNode(a2);
        a2->addChildNode(a21);
    }
};

} // namespace

TEST(NBTreeNode, WalksVisitNodesInPreOrderAndStopAtTheirAncestor) {
    SampleTree tree;
    EXPECT_EQ(walk(tree.root), "root a a1 a2 a21 b");
    EXPECT_EQ(walk(tree.a21), "a21 b");                  // climbs two levels to find the next sibling
    EXPECT_EQ(walk(tree.a1, tree.a.get()), "a1 a2 a21"); // never leaves a's subtree
    EXPECT_EQ(walk(tree.b, tree.a.get()), "b");          // outside the subtree: the plain walk
    EXPECT_EQ(names(tree.a->flatSubtreeDepthFirst()), "a a1 a2 a21");
    EXPECT_EQ(names(tree.b->flatSubtreeDepthFirst()), "b");
    EXPECT_EQ(tree.root->descendantCount(), 5u);
    EXPECT_EQ(tree.a2->descendantCount(), 1u);
}

TEST(NBTreeNode, EveryNodeHasOneParentThroughMovesInsertsAndRemovals) {
    SampleTree tree;
    tree.b->addChildNode(tree.a1); // a move: out of a, into b
    EXPECT_EQ(walk(tree.root), "root a a2 a21 b a1");
    EXPECT_EQ(tree.a1->parentNode(), tree.b);

    tree.root->insertChildNode(tree.a, 1); // within the same parent: index counted without it
    EXPECT_EQ(names(tree.root->childNodes()), "b a");
    tree.root->insertChildNode(node("c"), 0);
    EXPECT_EQ(names(tree.root->childNodes()), "c b a");

    Node removed = tree.root->childNodes()[1];
    tree.root->removeObjectAtIndex(1);
    EXPECT_EQ(names(tree.root->childNodes()), "c a");
    EXPECT_EQ(removed->parentNode(), nullptr);
    EXPECT_EQ(walk(removed), "b a1"); // the removed subtree stays whole

    // A subtree outlives its dropped parent and becomes a root.
    Node kept = tree.a2;
    tree = SampleTree();
    EXPECT_EQ(kept->parentNode(), nullptr);
    EXPECT_EQ(walk(kept), "a2 a21");
}

TEST(NBTreeNode, CyclesAndBadIndexesAreRefused) {
    NBMessageCapture capture;
    SampleTree tree;
    tree.a21->addChildNode(tree.a);
    tree.a->addChildNode(tree.a);
    tree.a->insertChildNode(node("x"), 3);
    tree.a->removeObjectAtIndex(2);
    tree.a->addChildNode(nullptr);
    EXPECT_EQ(capture.assertions().size(), 5);
    EXPECT_TRUE(capture.contains("NBTreeNode:addChildNode would make a node its own ancestor"));
    EXPECT_EQ(walk(tree.root), "root a a1 a2 a21 b"); // unchanged
}

TEST(NBTreeNode, AVeryDeepTreeIsWalkedAndFreedWithoutRecursion) {
    Node root = NBTreeNode::treeNodeWithRepresentedObject();
    Node parent = root;
    for (int depth = 0; depth < 200000; ++depth) {
        Node child = NBTreeNode::treeNodeWithRepresentedObject(depth);
        parent->addChildNode(child);
        parent = child;
    }
    EXPECT_EQ(root->descendantCount(), 200000u);
    EXPECT_EQ(parent->nextNodeDepthFirst(), nullptr);
    parent.reset();
    root.reset(); // must not overflow the stack
}

TEST(NBTreeNode, AWideTreeIsCountedAndFlattenedInLinearTime) {
    // A day holding 300,000 paragraphs: walking by next sibling searches the parent's children at every
    // step, which took over ten seconds per walk; the whole-subtree walks take a fraction of a second.
    Node root = NBTreeNode::treeNodeWithRepresentedObject();
    for (int index = 0; index < 300000; ++index)
        root->addChildNode(NBTreeNode::treeNodeWithRepresentedObject(index));
    root->childNodes().back()->addChildNode(node("last"));
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(root->descendantCount(), 300001u);
    const std::vector<Node> flat = root->flatSubtreeDepthFirst();
    ASSERT_EQ(flat.size(), 300002u);
    EXPECT_EQ(flat[1]->representedObject().toInt(), 0);
    EXPECT_EQ(flat[300000]->representedObject().toInt(), 299999);
    EXPECT_EQ(flat.back()->representedObject().toString(), "last");
    // Generous for a loaded machine under the sanitizers, still far below what the quadratic walks took.
    EXPECT_LT(timer.elapsed(), 15000);
}
