// An abstract tree of nodes, and the tree that holds one root.
#pragma once

#include "tavutils/tavvectorp.h"

class TavTreeNode {
public:
    virtual ~TavTreeNode();
    // 0 when the node's key went into the tree below this node, else -1.
    virtual int addNode(TavTreeNode* node) = 0;
    // The nodes on the way down to node's key, outermost first; the caller
    // deletes the vector, not its elements.
    virtual TavVectorP<TavTreeNode>* getPath(TavTreeNode* node) = 0;
};

class TavTree {
public:
    // Takes ownership of root.
    explicit TavTree(TavTreeNode* root);
    TavTree(const TavTree&) = delete;
    TavTree& operator=(const TavTree&) = delete;
    virtual ~TavTree();

    int addNode(TavTreeNode* node) { return _root ? _root->addNode(node) : -1; }
    TavVectorP<TavTreeNode>* getPath(TavTreeNode* node) { return _root ? _root->getPath(node) : nullptr; }
    TavTreeNode* getRoot() const { return _root; }
    // Deletes the old root and keeps the new one.
    void setRoot(TavTreeNode* root);

private:
    TavTreeNode* _root;
};
